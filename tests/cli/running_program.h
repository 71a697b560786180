#pragma once

#include "process/child_process.h"
#include "tests/support/await.h"

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace kx::velmor::cli {

/// What a program is started in.
struct Surroundings
{
    /// Added to this process's environment, or put in place of what it has. "$$" in a value is the program's process.
    std::map<std::string, std::string> environment{};
    std::filesystem::path standardInput = "/dev/null";
};

/// A program that runs, with what it says kept in files of `directory`.
///
/// Threads: one at a time. Waits throw `std::runtime_error`, which quotes what the program has said, after a deadline.
class RunningProgram
{
public:
    /// `number` tells those of one directory apart.
    RunningProgram(const std::filesystem::path& directory, std::size_t number, const std::vector<std::string>& command,
                   const Surroundings& surroundings);

    pid_t Pid() const { return process_.Pid(); }
    bool Running() { return process_.Running(); }

    void Signal(int signal) { process_.Signal(signal); }
    void Pause() { process_.Pause(); }
    void Continue() { process_.Continue(); }
    /// SIGKILL, to it alone.
    void Kill() { process_.Kill(); }

    /// Waits until it has ended; its exit code, or minus the signal that ended it.
    int AwaitExit(std::chrono::milliseconds deadline = testing_support::kPatience);

    std::string Output() const;
    std::string Errors() const;
    /// Waits until it has said that on standard error.
    void AwaitErrors(const std::string& part);

    /// Processes that it has started itself and that live, by the name that they go by.
    std::vector<pid_t> Children(const std::string& name) const;
    /// Waits for the process between it and the command.
    pid_t AwaitWarden() const;

private:
    const std::filesystem::path output_;
    const std::filesystem::path errors_;
    process::ChildProcess process_;
};

/// The content of a file; empty when there is none.
std::string ReadFile(const std::filesystem::path& file);

/// Living processes in whose environment, as it was when they were started, stands "<name>=<value>".
std::vector<pid_t> ProcessesWith(const std::string& name, const std::string& value);

/// Whether it lives; one that has ended and that nobody has waited for does not.
bool Lives(pid_t process);

}  // namespace kx::velmor::cli
