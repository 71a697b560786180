#pragma once

#include "tests/cli/records.h"
#include "tests/cli/running_program.h"
#include "tests/support/await.h"
#include "tests/support/proxy.h"
#include "tests/support/raw_client.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/zookeeper_server.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor::cli {

using testing_support::Await;
using testing_support::kPatience;
using testing_support::Proxy;
using testing_support::RawClient;

/// The election of all tests.
constexpr const char* kElection = "/services/billing/leader";

/// A server, an election, and programs `velmor run` that take part in it, with commands that keep records.
///
/// At the end of each test nothing of what it has caused may be left: all that still runs of the programs is killed,
/// and what does not end of that is an error.
class ProgramFixture : public ::testing::Test
{
protected:
    /// Without a server for what ends before it would need one.
    explicit ProgramFixture(bool startServer = true);
    ~ProgramFixture() override;

    void TearDown() override;

    /// Starts the program with these arguments, and only these.
    RunningProgram& Start(const std::vector<std::string>& arguments, const Surroundings& surroundings = {});
    /// Starts "velmor run --servers ... --election ... <options> -- <command>". A session timeout among `options` is
    /// the test's business; it is 10 s otherwise.
    RunningProgram& Run(const std::vector<std::string>& options, const std::vector<std::string>& command,
                        const Surroundings& surroundings = {});
    /// As above, with the servers behind `proxy`.
    RunningProgram& RunBehind(const Proxy& proxy, const std::vector<std::string>& options,
                              const std::vector<std::string>& command);
    /// `Run`, and waits until it stands in the queue behind all others. A second program started so comes second.
    RunningProgram& Join(const std::vector<std::string>& options, const std::vector<std::string>& command,
                         const Surroundings& surroundings = {});

    /// The recording service with these options. See there.
    std::vector<std::string> Service(const std::vector<std::string>& options = {}) const;
    /// The same as one line for a shell.
    std::string ServiceForShell(const std::vector<std::string>& options) const;

    std::vector<Record> Records() const;
    /// Of that word, and that text if given.
    std::vector<Record> Records(const std::string& word, const std::optional<std::string>& text = {}) const;
    /// Waits until there are `count` of them, and returns the last of these.
    Record AwaitRecord(const std::string& word, std::size_t count = 1, const std::optional<std::string>& text = {},
                       std::chrono::milliseconds deadline = kPatience) const;
    /// Waits until the process has noted once more that it lives.
    void AwaitBeat(pid_t process) const;
    void AwaitGone(pid_t process, std::chrono::milliseconds deadline = kPatience) const;

    /// Names of the nodes in the election, the first one first.
    std::vector<std::string> Queue();
    void AwaitQueue(std::size_t count);

    /// Fails for each two commands that ran at the same time under different leaderships.
    void ExpectNoConflict() const;
    /// The same, and that there were as many leaderships.
    void ExpectTenures(std::size_t count) const;

    std::filesystem::path Directory() const { return directory_.Path(); }
    std::filesystem::path RecordFile() const { return directory_.Path() / "records"; }

    testing_support::TemporaryDirectory directory_;
    testing_support::ZooKeeperServer server_;
    /// Sees and changes the tree; there from the first use on.
    RawClient& Tree();

private:
    std::string Said() const;

    std::unique_ptr<RawClient> tree_;
    std::deque<RunningProgram> programs_;
};

/// Time that passes on the clock of the records.
std::chrono::nanoseconds Now();

/// What a shell says of a process that ended so.
constexpr int OfSignal(int signal)
{
    return 128 + signal;
}

}  // namespace kx::velmor::cli
