#pragma once

#include "cli/demo/memory_file.h"
#include "cli/demo/scoreboard.h"
#include "cli/settings.h"
#include "process/child_process.h"

#include <kx/velmor/session.h>

#include <signal.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kx::velmor::demo {

/// How long changes may take that need no session to expire.
constexpr std::chrono::milliseconds kPromptly{10'000};

/// Ctrl-C, a polite request to end, or nobody who reads the output any more; unwinds the stack and so stops everything
/// that was started.
struct Interrupted
{
    int signal;
};

/// The signals that ask the demonstration to end. To be blocked in all threads; `Await` looks for them.
sigset_t EndSignals();

/// Waits for `condition`. Throws `std::runtime_error` that names `what` after `deadline`, and `Interrupted`.
void Await(const std::string& what, std::chrono::milliseconds deadline, const std::function<bool()>& condition,
           const std::function<std::string()>& explain = {});

/// The processes that take part in one election on a path of its own, and what can be known about them from outside.
///
/// Threads: one. Everything throws `VelmorError` when the servers do not answer or refuse, `std::runtime_error` when
/// the election goes wrong, and `Interrupted`.
class StagedElection
{
public:
    /// The path of its own begins with `settings.election`.
    explicit StagedElection(const cli::Settings& settings);
    /// Whatever happened: no process and no node of the election stays behind.
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

    process::ChildProcess& Process(const std::string& name) { return *participants_.at(name).process; }
    Scoreboard& Board() { return board_; }
    /// What the servers made of the session timeout that the participants ask for.
    std::chrono::milliseconds GrantedTimeout() const { return session_->Status().negotiatedTimeout; }
    /// The participants' nodes, in order.
    std::vector<std::string> Queue() const;

private:
    struct Running
    {
        std::unique_ptr<MemoryFile> log;
        std::unique_ptr<process::ChildProcess> process;
    };

    void CheckProcess(const std::string& name);
    /// What keeps this from being a quiet moment; empty when nothing does.
    std::string Oddity() const;
    /// Whether a node is gone. It is removed, with its children, if not, as far as that goes at once.
    bool Gone(const std::string& path) const;

    const cli::Settings settings_;
    const std::string path_;
    /// The secret among the settings, which is no argument of a process.
    const MemoryFile digest_;
    const std::shared_ptr<Session> session_;
    Scoreboard board_;
    std::map<std::string, Running> participants_;
};

}  // namespace kx::velmor::demo
