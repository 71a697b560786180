#include "cli/service_run.h"

#include "cli/exit_status.h"

#include <kx/logging/logger.h>
#include <kx/velmor/error.h>

#include <asio/executor_work_guard.hpp>
#include <asio/post.hpp>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <system_error>
#include <utility>

namespace kx::velmor::cli {

namespace {

using kx::logging::LogLevel;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

const auto g_log = std::make_shared<const kx::logging::Source>("velmor.run");

/// A warm-up may take its time.
constexpr milliseconds kNextHookLimit = std::chrono::hours(24);
/// Whoever wants a command to end without grace still wants its loss to be told.
constexpr milliseconds kShortestLossHook{1'000};

int DuplicateOf(int descriptor)
{
    const int copy = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    if (copy < 0)
    {
        throw std::system_error(errno, std::generic_category(), "cannot duplicate a descriptor");
    }
    return copy;
}

const char* Word(Role role)
{
    return role == Role::NextLeader ? "next" : ToString(role);
}

/// What a candidate that gives up by itself ends with.
int StatusForError(const std::string& error)
{
    for (const int code : {ZNOAUTH, ZINVALIDACL})
    {
        if (error.find(ZooError(code).what()) != std::string::npos)
        {
            return kNotPermitted;
        }
    }
    return kInternal;
}

}  // namespace

ServiceRun::ServiceRun(const Settings& settings, RunOptions options, Warden& warden)
    : settings_(settings),
      options_(std::move(options)),
      warden_(warden),
      reports_(loop_),
      signals_(loop_),
      waitTimer_(loop_),
      connectTimer_(loop_),
      pauseTimer_(loop_),
      aliveTimer_(loop_),
      session_(Session::OpenInBackground(SessionOptionsFor(settings)))
{
    reports_.assign(DuplicateOf(warden_.Descriptor()));
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2})
    {
        // nohup and shells without job control have reasons for what they let a program ignore.
        struct sigaction inherited
        {};
        if (::sigaction(signal, nullptr, &inherited) != 0 || inherited.sa_handler != SIG_IGN)
        {
            signals_.add(signal);
        }
    }
    states_ = session_->OnStateChange([this](const SessionStatus& status) {
        if (status.state == SessionState::Connected)
        {
            reachedServers_ = true;
        }
    });
    heard_ = session_->OnHeard([this](std::int64_t, BootClock::time_point) { Post([this] { UpdateLease(); }); });
    const auto measured = std::make_shared<MeasuredSession>(
        session_, [this](steady_clock::duration duration) { figures_.OnCheck(duration); });
    candidate_.emplace(measured, ElectionOptions());
    standing_.emplace(session_, *candidate_, settings_.election);
    if (!options_.http.empty())
    {
        endpoint_.emplace(options_.http, Answers());
    }
}

ServiceRun::~ServiceRun()
{
    if (leaver_.joinable())
    {
        leaver_.join();
    }
}

CandidateOptions ServiceRun::ElectionOptions()
{
    CandidateOptions election;
    election.electionPath = settings_.election;
    election.identity = options_.identity;
    election.onRoleChange = [this](Role role) {
        Post([this, role, node = candidate_->NodeName()] { OnRole(role, node); });
    };
    election.onLeader = [this](const Leadership& leadership) {
        Post([this, gain = Gain{leadership, candidate_->NodeName()}] { OnGain(gain); });
    };
    election.onNextLeader = [this] { Post([this] { OnNext(); }); };
    // The node stays for as long as this takes.
    election.onLeaderLost = [this](LossReason reason) {
        const auto handled = std::make_shared<std::promise<bool>>();
        std::future<bool> stop = handled->get_future();
        Post([this, loss = Loss{reason, handled}] { OnLoss(loss); });
        if (stop.get())
        {
            candidate_->Stop();
        }
    };
    return election;
}

HttpAnswers ServiceRun::Answers()
{
    HttpAnswers answers;
    answers.leads = [this] { return candidate_->IsLeader(); };
    answers.isNext = [this] { return candidate_->CurrentRole() == Role::NextLeader; };
    answers.statusJson = [this] { return figures_.Json(Stands()); };
    answers.metrics = [this] { return figures_.Metrics(Stands()); };
    return answers;
}

int ServiceRun::Run()
{
    const auto busy = asio::make_work_guard(loop_);
    AwaitReports();
    AwaitSignals();
    KeepManagerInformed();
    if (settings_.connectTimeout)
    {
        connectTimer_.expires_after(*settings_.connectTimeout);
        connectTimer_.async_wait([this](const std::error_code& error) {
            if (!error && !reachedServers_)
            {
                KX_LOG(LogLevel::Error, g_log)
                    << "No server has answered within --connect-timeout: " << settings_.servers;
                EndWith(kUnavailable);
            }
        });
    }
    Join();
    try
    {
        loop_.run();
    }
    catch (const std::exception& error)
    {
        // Threads, memory or descriptors were not to be had. What has come apart cannot leave in an orderly way: the
        // warden ends the command, and the servers notice.
        KX_LOG(LogLevel::Error, g_log) << "Gives up: " << error.what();
        std::_Exit(kInternal);
    }
    // First of all, so that nobody waits for servers any more.
    session_->Close();
    endpoint_.reset();
    return *status_;
}

// Taking part

void ServiceRun::Join()
{
    phase_ = Phase::TakingPart;
    manager_.Status("joining");
    if (options_.standby && !service_)
    {
        StartService(Environment());
        Tell(kNoRole);
    }
    AwaitTurn();
    candidate_->Start();
}

void ServiceRun::AwaitTurn()
{
    if (!options_.wait)
    {
        return;
    }
    waitTimer_.expires_after(*options_.wait);
    waitTimer_.async_wait([this](const std::error_code& error) {
        if (!error)
        {
            OnWaitedLong();
        }
    });
}

void ServiceRun::OnWaitedLong()
{
    if (phase_ != Phase::TakingPart || leading_)
    {
        return;
    }
    KX_LOG(LogLevel::Error, g_log) << (reachedServers_ ? "Has not become leader within --wait"
                                                       : "No server has answered within --wait: " + settings_.servers);
    EndWith(reachedServers_ ? kNotElected : kUnavailable);
}

void ServiceRun::EndWith(int status)
{
    if (!status_)
    {
        status_ = status;
    }
    manager_.Stopping();
    if (!EndService(options_.grace))
    {
        Leave();
    }
}

void ServiceRun::Leave()
{
    waitTimer_.cancel();
    pauseTimer_.cancel();
    if (status_)
    {
        connectTimer_.cancel();
        manager_.Stopping();
    }
    if (phase_ == Phase::Pausing && status_)
    {
        phase_ = Phase::Over;
        loop_.stop();
    }
    if (phase_ != Phase::TakingPart)
    {
        return;
    }
    phase_ = Phase::Leaving;
    leaver_ = std::thread([this] {
        candidate_->Stop();
        Post([this] { Left(); });
    });
}

void ServiceRun::Left()
{
    leaver_.join();
    phase_ = Phase::Pausing;
    if (status_ && !service_)
    {
        Leave();
    }
    if (status_ || toldToEnd_)
    {
        return;
    }
    manager_.Status("waits before it joins again");
    pauseTimer_.expires_after(pause_);
    pauseTimer_.async_wait([this](const std::error_code& error) {
        if (!error)
        {
            Join();
        }
    });
}

void ServiceRun::OnRole(Role role, const std::string& node)
{
    if (role == Role::Stopped)
    {
        const std::string error = candidate_->Error();
        if (phase_ == Phase::TakingPart && !error.empty())
        {
            EndWith(StatusForError(error));
        }
        return;
    }
    manager_.Status(ToString(role));
    if (role == Role::NextLeader || role == Role::Leader)
    {
        manager_.Ready();
    }
    // A leader is told with its epoch.
    if (options_.standby && role != Role::Leader)
    {
        Tell(std::string(Word(role)) + " - " + (node.empty() ? "-" : node));
    }
}

void ServiceRun::OnNext()
{
    if (!options_.onNext.empty() && !nextHookRuns_ && !status_ && phase_ == Phase::TakingPart)
    {
        nextHookRuns_ = true;
        StartHook(kNextHook, options_.onNext, kNextHookLimit, Environment());
    }
}

// Leading

void ServiceRun::OnGain(const Gain& gain)
{
    figures_.OnGain();
    if (status_ || toldToEnd_ || phase_ != Phase::TakingPart || !TakeLease(gain.leadership))
    {
        // Its loss is on its way.
        return;
    }
    waitTimer_.cancel();
    leading_ = gain;
    lossHookDue_ = true;
    if (options_.standby)
    {
        Tell("leader " + std::to_string(gain.leadership.Epoch()) + " " + gain.node);
    }
    else
    {
        StartService(Environment());
    }
    manager_.Status("leader, epoch " + std::to_string(gain.leadership.Epoch()));
}

void ServiceRun::OnLoss(Loss loss)
{
    figures_.OnLoss(loss.reason);
    loss_ = std::move(loss);
    if (options_.standby && service_)
    {
        // As long as there is a lease the warden tells of its end, should this process stand still meanwhile.
        awaitsToldOfLoss_ = true;
        lastLine_ = kNoRole;
        warden_.Tell(lastLine_);
        return;
    }
    if (service_)
    {
        lostService_ = true;
        // Somebody else may lead already when the session is known to be over.
        EndService(loss_->reason == LossReason::SessionExpired ? milliseconds(0) : options_.grace);
        return;
    }
    FinishLoss();
}

void ServiceRun::FinishLoss()
{
    if (!loss_ || lossHookRuns_ || awaitsToldOfLoss_)
    {
        return;
    }
    if (std::exchange(lossHookDue_, false) && !options_.onLost.empty())
    {
        std::map<std::string, std::string> environment = Environment();
        environment["VELMOR_REASON"] = ToString(loss_->reason);
        lossHookRuns_ = true;
        StartHook(kLostHook, options_.onLost, std::max(options_.grace, kShortestLossHook), std::move(environment));
        return;
    }
    leading_.reset();
    std::exchange(loss_, std::nullopt)->handled->set_value(status_ || toldToEnd_);
    if (phase_ == Phase::TakingPart && !status_)
    {
        AwaitTurn();
    }
}

bool ServiceRun::TakeLease(const Leadership& leadership)
{
    const SessionStatus status = session_->Status();
    // Only one that stands still after the look is known to be one of the session that was looked at.
    if (!status.leaseEnd || !leadership.Stands())
    {
        return false;
    }
    leaseSession_ = status.sessionId;
    fresh_ = session_->KeepFresh();
    SetLease(status);
    return true;
}

void ServiceRun::SetLease(const SessionStatus& status)
{
    // The servers keep the session for a twelfth of the timeout beyond the lease. The first half of that is for
    // processes that do not end when they are asked to, the second for their killing to take effect.
    leaseEnd_ = *status.leaseEnd;
    warden_.SetLease(leaseEnd_, leaseEnd_ + std::chrono::nanoseconds(status.minTimeout) / 24);
}

void ServiceRun::DropLease()
{
    leaseSession_ = 0;
    fresh_.Cancel();
    warden_.ClearLease();
}

void ServiceRun::UpdateLease()
{
    if (leaseSession_ == 0)
    {
        return;
    }
    // What is known now: a lease that was shortened since the call was posted must not grow again.
    const SessionStatus status = session_->Status();
    if (status.sessionId != leaseSession_ || !status.leaseEnd || *status.leaseEnd == leaseEnd_)
    {
        return;
    }
    const bool wasOver = BootClock::now() >= leaseEnd_;
    SetLease(status);
    if (wasOver && leading_ && options_.standby)
    {
        // This process was late and not the servers: the warden has told the command of an end that there was not.
        warden_.Tell(lastLine_);
    }
}

// What goes round

void ServiceRun::AwaitReports()
{
    reports_.async_wait(asio::posix::stream_descriptor::wait_read, [this](const std::error_code& error) {
        if (!error)
        {
            OnReports();
        }
    });
}

void ServiceRun::AwaitSignals()
{
    signals_.async_wait([this](const std::error_code& error, int signal) {
        if (!error)
        {
            OnSignal(signal);
            AwaitSignals();
        }
    });
}

void ServiceRun::KeepManagerInformed()
{
    const auto interval = manager_.AliveInterval();
    if (!interval)
    {
        return;
    }
    manager_.Alive();
    aliveTimer_.expires_after(*interval);
    aliveTimer_.async_wait([this](const std::error_code& error) {
        if (!error)
        {
            KeepManagerInformed();
        }
    });
}

std::map<std::string, std::string> ServiceRun::Environment() const
{
    std::map<std::string, std::string> environment{{"VELMOR_ELECTION", settings_.election},
                                                   {"VELMOR_IDENTITY", candidate_->Identity()}};
    if (leading_)
    {
        environment["VELMOR_NODE"] = leading_->node;
        environment["VELMOR_EPOCH"] = std::to_string(leading_->leadership.Epoch());
    }
    return environment;
}

Standing ServiceRun::Stands() const
{
    Standing standing = standing_->Read();
    if (const pid_t pid = pid_; pid != 0)
    {
        standing.command = pid;
    }
    return standing;
}

void ServiceRun::Post(std::function<void()> task)
{
    asio::post(loop_, std::move(task));
}

}  // namespace kx::velmor::cli
