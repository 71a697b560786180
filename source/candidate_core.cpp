// Roles: what the candidate is, who is told, and when it ends. What blocks is in candidate_worker.cpp.

#include "source/candidate_core.h"

#include "source/candidate_log.h"

#include <kx/velmor/error.h>

#include <unistd.h>

#include <algorithm>
#include <random>
#include <utility>

namespace kx::velmor {

namespace {

using logging::LogLevel;
using std::chrono::milliseconds;

/// The clock of waits stands still while the machine sleeps, unlike that of leases: look at the latter this often.
constexpr milliseconds kLongestNap{200};

constexpr std::size_t kMostIdentityBytes = 1024;

std::string DefaultIdentity()
{
    char host[256] = {};
    if (gethostname(host, sizeof(host) - 1) != 0)
    {
        host[0] = '?';
    }
    return std::string(host) + ":" + std::to_string(getpid());
}

Signature MakeSignature(const std::string& identity)
{
    std::random_device random;
    const std::int64_t instance = static_cast<std::int64_t>((std::uint64_t{random()} << 32) | random());
    return {SessionText(instance), identity.empty() ? DefaultIdentity() : identity};
}

CandidateOptions Checked(CandidateOptions options)
{
    if (options.firstRejoinDelay <= milliseconds(0) || options.mostRejoinDelay < options.firstRejoinDelay)
    {
        throw VelmorError("A candidate's rejoin delays must be positive, and the most not below the first");
    }
    if (options.identity.size() > kMostIdentityBytes)
    {
        throw VelmorError("A candidate's identity has more than 1024 bytes");
    }
    if (options.maxCallbackTime < milliseconds(0))
    {
        throw VelmorError("A candidate's maximum callback time must not be negative");
    }
    return options;
}

}  // namespace

const std::shared_ptr<const logging::Source>& ElectionLog()
{
    // Never destroyed: a candidate's threads may outlive static objects.
    static const auto& source =
        *new std::shared_ptr<const logging::Source>(std::make_shared<const logging::Source>("velmor.election"));
    return source;
}

CandidateCore::Access::Access(CandidateCore& core) : core_(core)
{
    core_.mutex_.Lock();
}

CandidateCore::Access::~Access()
{
    std::vector<LogLine> lines;
    lines.swap(core_.log_);
    core_.mutex_.Unlock();
    for (const LogLine& line : lines)
    {
        KX_LOG(line.level, ElectionLog()) << line.text;
    }
}

CandidateCore::CandidateCore(std::shared_ptr<ElectionSession> session, CandidateOptions options)
    : session_(std::move(session)),
      options_(Checked(std::move(options))),
      electionPath_(ElectionPath(options_.electionPath)),
      signature_(MakeSignature(options_.identity)),
      lease_(std::make_shared<Lease>(session_->TimeSource())),
      rejoining_(options_.firstRejoinDelay, options_.mostRejoinDelay)
{}

void CandidateCore::Start()
{
    const Access access(*this);
    if (wanted_ || shutDown_)
    {
        return;
    }
    error_.clear();
    StartThreads();
    wanted_ = true;
    startedAnew_ = true;
    SetRole(Role::Joining, LossReason::Left);
    // A place that could not be taken back yet comes first.
    WakeWorker();
}

void CandidateCore::StartThreads()
{
    if (!tellerStarted_)
    {
        teller_.Start([self = shared_from_this()] { self->Tell(); });
        tellerStarted_ = true;
    }
    if (!worker_.joinable())
    {
        worker_ = std::thread([self = shared_from_this()] { self->Work(); });
    }
}

void CandidateCore::Tell()
{
    teller_.Run([this] { return KeepWatch(); });
    DropCallbacks();
}

void CandidateCore::DropCallbacks()
{
    CandidateOptions dropped;
    const MutexLock lock(mutex_);
    dropped.onLeader.swap(options_.onLeader);
    dropped.onLeaderLost.swap(options_.onLeaderLost);
    dropped.onNextLeader.swap(options_.onNextLeader);
    dropped.onNextLeaderLost.swap(options_.onNextLeaderLost);
    dropped.onRoleChange.swap(options_.onRoleChange);
    // What goes with them goes after the lock.
}

void CandidateCore::Stop()
{
    {
        const Access access(*this);
        if (!tellerStarted_)
        {
            return;
        }
        NoticeLapse();
        wanted_ = false;
        EndStay(LossReason::Left);
        SetRole(Role::Stopped, LossReason::Left);
        WakeWorker();
    }
    if (teller_.OnThread())
    {
        return;
    }
    teller_.AwaitSilence();
    for (;;)
    {
        // Its changes wake the worker, and us with it.
        const bool connected = session_->Status().state == SessionState::Connected;
        const MutexLock lock(mutex_);
        if (!busy_ || wanted_ || leavingLate_ || !connected)
        {
            return;
        }
        changed_.WaitUntil(mutex_, Clock::now() + kLongestNap);
    }
}

void CandidateCore::ShutDown()
{
    {
        const MutexLock lock(mutex_);
        shutDown_ = true;
        WakeWorker();
    }
    Stop();
    std::thread worker;
    bool workerBusy = false;
    {
        const MutexLock lock(mutex_);
        workerBusy = busy_;
        worker = std::move(worker_);
    }
    if (worker.joinable())
    {
        // It waits for servers, or for the callback that this is called from.
        workerBusy ? worker.detach() : worker.join();
    }
    teller_.Finish();
    teller_.Join();
}

std::optional<Leadership> CandidateCore::CurrentLeadership()
{
    const Access access(*this);
    NoticeLapse();
    if (role_ != Role::Leader)
    {
        return std::nullopt;
    }
    return PresentLeadership();
}

Leadership CandidateCore::PresentLeadership()
{
    return Leadership(weak_from_this(), lease_, stay_.number, stay_.epoch);
}

Role CandidateCore::CurrentRole()
{
    const Access access(*this);
    NoticeLapse();
    return role_;
}

bool CandidateCore::WaitForRole(Role role, milliseconds timeout)
{
    return AwaitRole([role](Role present) { return present == role; }, timeout) == role;
}

Role CandidateCore::WaitForChange(Role from, milliseconds timeout)
{
    return AwaitRole([from](Role present) { return present != from; }, timeout);
}

template <typename Condition>
Role CandidateCore::AwaitRole(const Condition& condition, milliseconds timeout)
{
    constexpr milliseconds kForever = std::chrono::hours(24 * 365);
    const Clock::time_point end = Clock::now() + std::min(timeout, kForever);
    const Access access(*this);
    for (;;)
    {
        NoticeLapse();
        const Clock::time_point now = Clock::now();
        if (condition(role_) || HasGivenUp() || now >= end)
        {
            return role_;
        }
        changed_.WaitUntil(mutex_, role_ == Role::Leader ? std::min(end, now + kLongestNap) : end);
    }
}

std::string CandidateCore::NodeName() const
{
    const MutexLock lock(mutex_);
    return stay_.over ? std::string() : stay_.node;
}

std::string CandidateCore::Error() const
{
    const MutexLock lock(mutex_);
    if (role_ != Role::Stopped || leavingError_.empty())
    {
        return error_;
    }
    return error_.empty() ? leavingError_ : error_ + "; " + leavingError_;
}

void CandidateCore::SetRole(Role to, LossReason reason)
{
    const Role from = role_;
    if (from == to)
    {
        return;
    }
    std::string text = std::string("Candidate ") + ToString(from) + " -> " + ToString(to) + ": " + signature_.identity +
                       ", " + electionPath_ + "/" + stay_.node;
    if (to == Role::Leader)
    {
        text += ", epoch " + std::to_string(stay_.epoch);
    }
    if (from == Role::Leader)
    {
        text += std::string(", ") + ToString(reason);
    }
    Log(LogLevel::Info, text);

    role_ = to;
    changed_.NotifyAll();
    if (from == Role::Leader && options_.onLeaderLost)
    {
        TellCallback("onLeaderLost", [this, reason] { options_.onLeaderLost(reason); });
    }
    if (from == Role::NextLeader && options_.onNextLeaderLost)
    {
        TellCallback("onNextLeaderLost", [this] { options_.onNextLeaderLost(); });
    }
    if (options_.onRoleChange)
    {
        TellCallback("onRoleChange", [this, to] { options_.onRoleChange(to); });
    }
    if (to == Role::NextLeader && options_.onNextLeader)
    {
        TellCallback("onNextLeader", [this] { options_.onNextLeader(); });
    }
    if (to == Role::Leader && options_.onLeader)
    {
        TellLeader(PresentLeadership());
    }
}

Role CandidateCore::RoleInQueue() const
{
    if (stay_.first)
    {
        return role_;
    }
    return stay_.second ? Role::NextLeader : Role::Follower;
}

void CandidateCore::EndStay(LossReason reason)
{
    if (stay_.number == 0 || stay_.over)
    {
        return;
    }
    stay_.over = reason;
    stay_.overSince = session_->Now();
    lease_->Revoke();
    if (running_)
    {
        running_->since = std::min(running_->since, stay_.overSince);
    }
    if (wanted_ && stay_.joined && !options_.rejoin)
    {
        wanted_ = false;
        error_ = std::string("Out of the queue: ") + ToString(reason);
    }
    SetRole(wanted_ ? Role::Joining : Role::Stopped, reason);
    WakeWorker();
}

void CandidateCore::NoticeLapse()
{
    if (role_ == Role::Leader && !IsLeader())
    {
        EndStay(lease_->SessionEnded(stay_.session) ? LossReason::SessionExpired : LossReason::LeaseRanOut);
    }
}

void CandidateCore::Fail(const std::string& error, LossReason reason)
{
    Log(LogLevel::Error, "Candidate " + signature_.identity + " of " + options_.electionPath + " gives up: " + error);
    error_ = error;
    wanted_ = false;
    EndStay(reason);
    SetRole(Role::Stopped, reason);
    changed_.NotifyAll();
}

void CandidateCore::Log(LogLevel level, const std::string& text)
{
    log_.push_back({level, text});
}

milliseconds CandidateCore::KeepWatch()
{
    const Access access(*this);
    NoticeLapse();
    if (awaitsCallbacks_)
    {
        WakeWorker();
    }
    if (role_ != Role::Leader)
    {
        return std::chrono::hours(1);
    }
    const milliseconds left = std::chrono::ceil<milliseconds>(LeaseLeft());
    return std::clamp(left, milliseconds(0), kLongestNap);
}

void CandidateCore::OnSession()
{
    std::uint64_t stay = 0;
    {
        const MutexLock lock(mutex_);
        stay = stay_.number;
    }
    // What is known now, rather than what was told: calls may come late, of states before this stay.
    const SessionStatus status = session_->Status();
    const Access access(*this);
    if (stay != 0 && stay == stay_.number && SessionOver(status, stay_.session))
    {
        NoticeLapse();
        EndStay(LossReason::SessionExpired);
    }
    WakeWorker();
}

void CandidateCore::OnPosition(std::uint64_t stay, std::size_t position)
{
    const Access access(*this);
    if (stay_.number == stay)
    {
        ++stay_.findings;
        TakePosition(position);
    }
}

void CandidateCore::OnNews(std::uint64_t stay)
{
    const Access access(*this);
    if (stay_.number == stay)
    {
        stay_.news = true;
        WakeWorker();
    }
}

GuardedWrite CandidateCore::Write(std::uint64_t stay, const std::vector<Operation>& operations)
{
    std::vector<Operation> guarded;
    std::int64_t session = 0;
    {
        const Access access(*this);
        NoticeLapse();
        if (stay_.number != stay || stay_.over)
        {
            return {GuardedWrite::Outcome::NotLeading};
        }
        guarded = stay_.guards;
        session = stay_.session;
    }
    const std::size_t guards = guarded.size();
    guarded.insert(guarded.end(), operations.begin(), operations.end());

    TransactionResult result;
    const int rc = session_->TransactIn(session, guarded, result);
    if (rc == ZOK)
    {
        result.created.erase(result.created.begin(), result.created.begin() + static_cast<std::ptrdiff_t>(guards));
        return {GuardedWrite::Outcome::Applied, std::nullopt, ZOK, std::string(), std::move(result.created)};
    }
    if (result.refused && *result.refused < guards)
    {
        // The servers know better.
        OnSession();
        const Access access(*this);
        if (stay_.number == stay)
        {
            EndStay(LossReason::NodeDeleted);
        }
        return {GuardedWrite::Outcome::NotLeading};
    }
    if (result.refused)
    {
        return {GuardedWrite::Outcome::Refused, *result.refused - guards, rc, zerror(rc)};
    }
    // The only code that says by itself that nothing was sent.
    const auto outcome = rc == ZBADARGUMENTS ? GuardedWrite::Outcome::Refused : GuardedWrite::Outcome::Unknown;
    return {outcome, std::nullopt, rc, zerror(rc)};
}

}  // namespace kx::velmor
