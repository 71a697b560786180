#pragma once

#include "cli/http_endpoint.h"
#include "cli/measured_session.h"
#include "cli/run_figures.h"
#include "cli/run_options.h"
#include "cli/service_manager.h"
#include "cli/settings.h"
#include "cli/standing.h"
#include "cli/warden.h"

#include <kx/velmor/candidate.h>
#include <kx/velmor/session.h>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace kx::velmor::cli {

/// A command under an election, from joining to the end: what `velmor run` does.
///
///     joining --> waiting --> leading, the command runs --> leaving --> over
///        ^                       | lost: the command is    |    |
///        |                       | ended, then the node    |    |  with a delay, if the command
///        |<----------------------+ goes                    |    |  is to run again
///        +<-----------------------------------------------------+
///
/// Threads: everything happens on the one that calls `Run`. The candidate's callbacks and the session's pass on what
/// they tell; leaving, which blocks, has a thread of its own meanwhile.
class ServiceRun
{
public:
    /// `warden` must outlive this. Throws `Failure` for what makes no sense.
    ServiceRun(const Settings& settings, RunOptions options, Warden& warden);
    ~ServiceRun();

    ServiceRun(const ServiceRun&) = delete;
    ServiceRun& operator=(const ServiceRun&) = delete;

    /// Returns the exit status when all is over: the command and all that it has started has ended, and the election
    /// is left.
    int Run();

private:
    static constexpr const char* kNextHook = "on-next";
    static constexpr const char* kLostHook = "on-lost";
    /// What a command that is told its role is told before it has one, and when it has lost it.
    static constexpr const char* kNoRole = "joining - -";

    /// Whether it takes part.
    enum class Phase
    {
        TakingPart,
        /// Until the candidate has stopped.
        Leaving,
        /// Before it joins again.
        Pausing,
        Over,
    };

    struct Gain
    {
        Leadership leadership;
        std::string node;
    };

    /// A loss whose callback waits, and with it the deletion of the node.
    struct Loss
    {
        LossReason reason;
        /// To be told whether the candidate is to stop instead of joining again.
        std::shared_ptr<std::promise<bool>> handled;
    };

    CandidateOptions ElectionOptions();
    HttpAnswers Answers();

    void Join();
    /// From now on the patience for becoming leader is counted.
    void AwaitTurn();
    /// Begins to leave. `Left` follows, and then the end or another try.
    void Leave();
    void Left();
    void EndWith(int status);

    void OnRole(Role role, const std::string& node);
    void OnGain(const Gain& gain);
    void OnLoss(Loss loss);
    void OnNext();
    void OnWaitedLong();
    void OnSignal(int signal);
    /// Takes over what the session knows of the lease by now.
    void UpdateLease();

    void OnReports();
    void OnReport(const WardenReport& report);
    void OnServiceEnded(int status, bool byTerminal, bool leaseRanOut);
    void OnHookEnded(const std::string& name);
    void OnToldOfLoss();
    void OnWardenGone();

    /// False when the leadership is over already.
    bool TakeLease(const Leadership& leadership);
    void SetLease(const SessionStatus& status);
    void DropLease();
    void StartService(std::map<std::string, std::string> environment);
    void StartHook(const char* name, const std::string& command, std::chrono::milliseconds limit,
                   std::map<std::string, std::string> environment);
    /// Ends the service, if there is one. Whether there was.
    bool EndService(std::chrono::milliseconds grace);
    /// What comes after the service of a leadership has ended: the hook, then the word that lets the node go.
    void FinishLoss();
    void Tell(const std::string& line);
    bool WasTold(std::chrono::steady_clock::time_point now, bool byTerminal) const;

    void AwaitReports();
    void AwaitSignals();
    void KeepManagerInformed();
    std::map<std::string, std::string> Environment() const;
    Standing Stands() const;
    void Post(std::function<void()> task);

    const Settings settings_;
    const RunOptions options_;
    Warden& warden_;
    ServiceManager manager_;
    RunFigures figures_;

    asio::io_context loop_;
    asio::posix::stream_descriptor reports_;
    asio::signal_set signals_;
    asio::steady_timer waitTimer_;
    asio::steady_timer connectTimer_;
    asio::steady_timer pauseTimer_;
    asio::steady_timer aliveTimer_;

    // Threads of the session and of the endpoint, too.
    std::atomic<pid_t> pid_{0};
    std::atomic<bool> reachedServers_{false};

    // This thread alone.
    Phase phase_ = Phase::Pausing;
    /// What it will end with; set when it is to end.
    std::optional<int> status_;
    std::optional<Gain> leading_;
    std::optional<Loss> loss_;
    /// The leadership had begun here, so that its loss is worth a hook.
    bool lossHookDue_ = false;
    bool lossHookRuns_ = false;
    /// The loss is on its way to a command on standby.
    bool awaitsToldOfLoss_ = false;
    bool nextHookRuns_ = false;
    /// Started and not yet ended, all that it has started included.
    bool service_ = false;
    std::chrono::steady_clock::time_point serviceStart_;
    /// The leadership went while the service ran.
    bool lostService_ = false;
    bool toldToEnd_ = false;
    bool leavesOnSignal_ = false;
    std::optional<std::chrono::steady_clock::time_point> interrupted_;
    /// The session that the lease is one of; 0 while there is no lease.
    std::int64_t leaseSession_ = 0;
    BootClock::time_point leaseEnd_;
    std::string lastLine_;
    RestartDelay delay_;
    std::chrono::milliseconds pause_{0};
    std::thread leaver_;

    const std::shared_ptr<Session> session_;
    Registration fresh_;
    Registration heard_;
    Registration states_;
    std::optional<Candidate> candidate_;
    std::optional<StandingReader> standing_;
    std::optional<HttpEndpoint> endpoint_;
};

}  // namespace kx::velmor::cli
