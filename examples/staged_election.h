#pragma once

#include "examples/scoreboard.h"
#include "process/child_process.h"
#include "tests/support/raw_client.h"
#include "tests/support/temporary_directory.h"

#include <signal.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kx::velmor::demo {

namespace support = kx::velmor::testing_support;

/// How long changes may take that need no session to expire.
constexpr std::chrono::milliseconds kPromptly{10'000};

/// Ctrl-C or a polite request to end; unwinds the stack and so stops everything that was started.
struct Interrupted
{};

/// The signals that ask the demonstration to end. To be blocked in all threads; `Await` looks for them.
sigset_t EndSignals();

/// Waits for `condition`. Throws `std::runtime_error` that names `what` after `deadline`, and `Interrupted`.
void Await(const std::string& what, std::chrono::milliseconds deadline, const std::function<bool()>& condition,
           const std::function<std::string()>& explain = {});

/// The processes that take part in one election on a path of its own, and what can be known about them from outside.
///
/// Threads: one. Everything throws `std::runtime_error` when the election goes wrong, and `Interrupted`.
class StagedElection
{
public:
    StagedElection(const std::string& servers, std::chrono::milliseconds sessionTimeout);
    /// Whatever happened: no process and no node stays behind.
    ~StagedElection();

    StagedElection(const StagedElection&) = delete;
    StagedElection& operator=(const StagedElection&) = delete;

    /// Starts a process and waits until it has joined the queue.
    void Join(const std::string& name);
    /// Waits until one leads, one is next and all others follow, by their own word and by the queue on the servers.
    void AwaitQuiet(std::chrono::milliseconds deadline);
    /// Throws when something has gone wrong that no waiting will put right.
    void CheckAll();
    /// What each process said before it came to grief helps to understand why.
    void PrintLogs() const;

    process::ChildProcess& Process(const std::string& name) { return *processes_.at(name); }
    Scoreboard& Board() { return board_; }
    /// What the servers made of the session timeout that the participants ask for.
    std::chrono::milliseconds GrantedTimeout() const { return client_.SessionTimeout(); }
    /// The participants' nodes, in order.
    std::vector<std::string> Queue();

private:
    std::filesystem::path LogOf(const std::string& name) const { return directory_.Path() / (name + ".log"); }
    void CheckProcess(const std::string& name);
    /// What keeps this from being a quiet moment; empty when nothing does.
    std::string Oddity();

    const std::string servers_;
    const std::chrono::milliseconds sessionTimeout_;
    const std::string path_;
    const support::TemporaryDirectory directory_;
    support::RawClient client_;
    Scoreboard board_;
    std::map<std::string, std::unique_ptr<process::ChildProcess>> processes_;
};

}  // namespace kx::velmor::demo
