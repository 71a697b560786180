#pragma once

#include "cli/warden.h"
#include "tests/support/await.h"
#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace kx::velmor::cli {

/// A warden of this process, and commands that write into a directory what is asked about them.
class WardenTest : public ::testing::Test
{
protected:
    using What = WardenReport::What;

    /// The next report, waited for. Those of lines that were passed on come apart, in `told_`.
    WardenReport Await();
    /// The next report, which has to be that.
    WardenReport Await(What what);
    /// Nothing to be read there now.
    bool NothingReported();

    /// Runs `script` in a shell whose `$DIR` is `Directory()`.
    Launch Shell(const std::string& script) const;
    /// Starts it and waits until it runs; returns its number.
    pid_t Start(const Launch& launch);
    pid_t StartShell(const std::string& script) { return Start(Shell(script)); }

    std::filesystem::path Directory() const { return directory_.Path(); }
    std::filesystem::path File(const std::string& name) const { return directory_.Path() / name; }
    /// What the file holds, once it ends with a line's end.
    std::string AwaitText(const std::string& name) const;
    /// The number of a process that wrote it there.
    pid_t AwaitPid(const std::string& name) const;

private:
    const testing_support::TemporaryDirectory directory_;

protected:
    Warden warden_;
    std::vector<std::string> told_;
};

/// Runs and is not a process that has ended and that nobody has waited for.
bool IsAlive(pid_t pid);
void AwaitDeath(pid_t pid);

/// A file's text, "" when it is not there.
std::string ReadText(const std::filesystem::path& path);

}  // namespace kx::velmor::cli
