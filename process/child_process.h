#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor::process {

/// What to run and where its output goes.
struct ProcessOptions
{
    /// The program, a path or a name found in PATH, and its arguments.
    std::vector<std::string> command;
    /// A file to which standard error, and standard output unless `onLine` is set, is appended. Empty: this process's.
    std::filesystem::path output{};
    /// Called for each line of standard output, without its end, on a thread of the child's own; the last call comes
    /// before the destructor returns. Must not destroy the child.
    std::function<void(const std::string&)> onLine{};
};

/// A child process that never outlives this process, however that ends, and is in a process group of its own, so that
/// Ctrl-C is left to this process to deal with. Its signal mask is empty.
///
/// Threads: one at a time, except `Pid`.
class ChildProcess
{
public:
    /// Starts it. Throws `std::runtime_error` when the program cannot be found or run.
    explicit ChildProcess(ProcessOptions options);

    /// Kills it when it still runs, paused or not.
    ~ChildProcess();

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Pid() const;
    bool Running();

    /// Sends a signal. Throws `std::runtime_error` when the process has ended.
    void Signal(int signal);
    /// SIGSTOP; every thread of the child stands still when this returns.
    void Pause();
    /// SIGCONT.
    void Continue();
    /// SIGKILL; the child has ended when this returns. Nothing happens when it has ended before.
    void Kill();
    /// SIGTERM, to a paused child too; waits until it has ended. Throws `std::runtime_error` after `deadline`.
    void Terminate(std::chrono::milliseconds deadline);

    /// The exit code, or minus the signal that ended it; empty when it still runs after `deadline`.
    std::optional<int> AwaitExit(std::chrono::milliseconds deadline);

private:
    class Impl;
    const std::unique_ptr<Impl> impl_;
};

}  // namespace kx::velmor::process
