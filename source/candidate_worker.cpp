// What a candidate does that blocks, in the order in which it happens: wait for a session, join, claim the lead, look
// after the place, leave.

#include "source/candidate_core.h"
#include "source/candidate_log.h"
#include "source/exit_gate.h"
#include "source/session_lifetime.h"

#include <kx/velmor/error.h>

#include <algorithm>
#include <utility>

namespace kx::velmor {

namespace {

using logging::LogLevel;
using std::chrono::milliseconds;

/// How often a leader looks whether it still has its place, and how often everybody else does, in session timeouts.
constexpr int kLeadersLooksPerTimeout = 3;

constexpr int kRetriesPerTimeout = 10;

/// The one that leads now may still be claiming the lead, which outdates what was read before.
constexpr milliseconds kPreparationDelay{20};

/// Waits by a clock that stands still while the machine sleeps. What the session has to tell ends them sooner, but who
/// leads looks after its place by itself, too.
constexpr std::chrono::seconds kLongestNap{10};
constexpr std::chrono::seconds kLeadersLongestNap{1};

/// What no repetition mends.
bool CanNeverSucceed(const std::exception& error)
{
    const auto* const refused = dynamic_cast<const ZooError*>(&error);
    if (refused == nullptr)
    {
        return false;
    }
    switch (refused->Code())
    {
        case ZNOAUTH:
        case ZINVALIDACL:
        case ZBADARGUMENTS:
        case ZNOCHILDRENFOREPHEMERALS:
        case ZUNIMPLEMENTED:
            return true;
        default:
            return false;
    }
}

}  // namespace

void CandidateCore::Work()
{
    const std::weak_ptr<CandidateCore> weak = weak_from_this();
    const auto awaken = [weak] {
        if (const auto self = weak.lock())
        {
            self->OnSession();
            self->teller_.Wake();
        }
    };
    const Registration states = session_->OnStateChange([awaken](const SessionStatus&) { awaken(); });
    const Registration jumps = session_->OnClockJump(awaken);
    const Registration hearing = session_->OnHeard(
        [lease = lease_](std::int64_t session, BootClock::time_point end) { lease->Update(session, end); });
    const Registration endings =
        session_->OnEnding([lease = lease_](std::int64_t session) { lease->EndSession(session); });

    for (;;)
    {
        {
            const MutexLock lock(mutex_);
            while (!wanted_ && !shutDown_)
            {
                changed_.Wait(mutex_);
            }
            if (!wanted_)
            {
                return;
            }
            busy_ = true;
        }
        TakePart();
        const MutexLock lock(mutex_);
        busy_ = false;
        changed_.NotifyAll();
    }
}

void CandidateCore::TakePart()
{
    rejoining_.Reset();
    failsToLead_ = false;
    {
        const MutexLock lock(mutex_);
        startedAnew_ = false;
    }
    while (const std::optional<std::int64_t> session = AwaitSession())
    {
        const bool lasted = StayInQueue(*session);
        milliseconds delay{0};
        {
            const Access access(*this);
            if (!wanted_)
            {
                return;
            }
            const bool anew = std::exchange(startedAnew_, false);
            if (anew || lasted)
            {
                rejoining_.Reset();
                failsToLead_ = false;
            }
            delay = rejoining_.Next();
            Log(LogLevel::Info, "Candidate " + signature_.identity + " joins " + electionPath_ + " again in " +
                                    std::to_string(delay.count()) + " ms");
        }
        if (!Pause(delay))
        {
            return;
        }
    }
}

std::optional<std::int64_t> CandidateCore::AwaitSession()
{
    for (;;)
    {
        const SessionStatus status = session_->Status();
        const Access access(*this);
        if (!wanted_)
        {
            return std::nullopt;
        }
        if (status.state == SessionState::Connected)
        {
            return status.sessionId;
        }
        if (status.state == SessionState::Closed)
        {
            Fail("the session is closed");
            return std::nullopt;
        }
        AwaitNews(BootClock::time_point::max());
    }
}

bool CandidateCore::StayInQueue(std::int64_t session)
{
    std::uint64_t number = 0;
    const milliseconds timeout = SessionTimeout();
    {
        const MutexLock lock(mutex_);
        if (!wanted_)
        {
            return false;
        }
        number = ++stays_;
        stay_ = Stay{};
        stay_.number = number;
        stay_.session = session;
        stay_.sessionTimeout = timeout;
        stay_.since = session_->Now();
        leavingLate_ = false;
    }
    // What happened before there was a stay to note it in.
    OnSession();

    const std::weak_ptr<CandidateCore> weak = weak_from_this();
    const auto tell = [weak, number](void (CandidateCore::*event)(std::uint64_t)) {
        return [weak, number, event] {
            if (const auto self = weak.lock())
            {
                (self.get()->*event)(number);
            }
        };
    };
    QueuePlace place(session_, electionPath_, session, signature_,
                     {tell(&CandidateCore::OnFirst), tell(&CandidateCore::OnSecond), tell(&CandidateCore::OnNews)});
    if (Join(place))
    {
        HoldPlace(place);
    }
    // The next one in line begins when we have left, and so whatever the user has to finish comes first.
    AwaitCallbacks();
    Leave(place);
    const MutexLock lock(mutex_);
    const bool lasted = HasLasted();
    stay_ = Stay{};
    leavingLate_ = false;
    leavingError_.clear();
    return lasted;
}

bool CandidateCore::HasLasted()
{
    if (stay_.over == LossReason::CallbackFailed)
    {
        failsToLead_ = true;
    }
    if (failsToLead_)
    {
        // Time as a follower says nothing about the next attempt to lead.
        return stay_.led && stay_.over != LossReason::CallbackFailed &&
               stay_.overSince - stay_.ledSince >= stay_.sessionTimeout;
    }
    return session_->Now() - stay_.since >= stay_.sessionTimeout;
}

bool CandidateCore::Join(QueuePlace& place)
{
    try
    {
        const ExitGate::Pass pass;
        if (!pass)
        {
            EndWithTheProcess();
            return false;
        }
        place.Join();
    }
    catch (const std::exception& error)
    {
        Report("could not join", error);
        return false;
    }
    const Access access(*this);
    if (stay_.over)
    {
        return false;
    }
    stay_.node = place.Node();
    stay_.epoch = place.Epoch();
    stay_.joined = true;
    Log(LogLevel::Info, "Candidate " + signature_.identity + " has joined: " + place.Path());
    SetRole(RoleInQueue(), LossReason::Left);
    return true;
}

void CandidateCore::HoldPlace(QueuePlace& place)
{
    Registration freshness;
    BootClock::time_point claimAt{};
    BootClock::time_point lookAt{};
    bool leading = false;
    for (;;)
    {
        const Duty duty = AwaitDuty(claimAt, lookAt);
        const ExitGate::Pass pass;
        if (duty == Duty::Leave)
        {
            return;
        }
        if (!pass)
        {
            EndWithTheProcess();
            return;
        }
        if (duty == Duty::CheckCallback)
        {
            CheckCallback();
        }
        else if (duty == Duty::Claim)
        {
            leading = true;
            claimAt = Claim(place, freshness);
            // At once, since it sets up what tells of the end.
            lookAt = BootClock::time_point();
        }
        else if (duty == Duty::Prepare)
        {
            Prepare(place);
        }
        else
        {
            Look(place);
            lookAt = session_->Now() + SessionTimeout() / (leading ? kLeadersLooksPerTimeout : 1);
        }
    }
}

void CandidateCore::EndWithTheProcess()
{
    const MutexLock lock(mutex_);
    lease_->Revoke();
    stay_.over = LossReason::Left;
    wanted_ = false;
    role_ = Role::Stopped;
    changed_.NotifyAll();
}

CandidateCore::Duty CandidateCore::AwaitDuty(BootClock::time_point claimAt, BootClock::time_point lookAt)
{
    const Access access(*this);
    for (;;)
    {
        if (stay_.over)
        {
            return Duty::Leave;
        }
        const BootClock::time_point now = session_->Now();
        const BootClock::time_point callbackAt = CallbackDue();
        if (callbackAt <= now)
        {
            return Duty::CheckCallback;
        }
        const bool claiming = stay_.first && !stay_.led;
        const bool claimDue = claiming && (stay_.news || claimAt <= now);
        if (claimDue || stay_.news || lookAt <= now)
        {
            stay_.news = false;
            return claimDue ? Duty::Claim : Duty::Look;
        }
        const BootClock::time_point prepareAt = stay_.second ? stay_.prepareAt : BootClock::time_point::max();
        if (prepareAt <= now)
        {
            stay_.prepareAt = BootClock::time_point::max();
            return Duty::Prepare;
        }
        AwaitNews(std::min({claiming ? claimAt : lookAt, lookAt, prepareAt, callbackAt}));
    }
}

BootClock::time_point CandidateCore::Claim(QueuePlace& place, Registration& freshness)
{
    const SessionStatus status = session_->Status();
    const BootClock::time_point soon = session_->Now() + status.negotiatedTimeout / kRetriesPerTimeout;
    try
    {
        switch (place.TryToClaim(SessionLifetime::LeaseLength(status.minTimeout)))
        {
            case QueuePlace::Claim::Made:
                // Not sooner: the answer to the claim is word enough to begin with, and nothing should be in its way.
                freshness = session_->KeepFresh();
                return Lead(place) ? BootClock::time_point::max() : soon;
            case QueuePlace::Claim::Taken: {
                const Access access(*this);
                Log(LogLevel::Info, "Candidate " + signature_.identity + " is first in " + electionPath_ +
                                        " and waits for the one before to have finished");
                return session_->Now() + SessionTimeout() / kLeadersLooksPerTimeout;
            }
            case QueuePlace::Claim::Waiting: {
                const Access access(*this);
                Log(LogLevel::Info, "Candidate " + signature_.identity + " is first in " + electionPath_ +
                                        " and waits until the lease of the last leader is surely over");
                return place.LastLeaseEnd();
            }
            case QueuePlace::Claim::Gone: {
                const Access access(*this);
                EndStay(LossReason::NodeDeleted);
                return soon;
            }
            case QueuePlace::Claim::Outdated: {
                const Access access(*this);
                Log(LogLevel::Warning, "Candidate " + signature_.identity + " has a place in " + electionPath_ +
                                           " that is not newer than the last leadership");
                EndStay(LossReason::Displaced);
                return soon;
            }
        }
    }
    catch (const std::exception& error)
    {
        Report("could not claim the lead", error);
    }
    return soon;
}

bool CandidateCore::Lead(const QueuePlace& place)
{
    const SessionStatus status = session_->Status();
    const Access access(*this);
    if (stay_.over)
    {
        return true;
    }
    if (status.sessionId != stay_.session || !status.leaseEnd ||
        *status.leaseEnd - session_->Now() < SessionLifetime::MinFirstLease(status.minTimeout) ||
        !lease_->Grant(stay_.number, stay_.session, *status.leaseEnd))
    {
        return false;
    }
    stay_.led = true;
    stay_.ledSince = session_->Now();
    stay_.guards = place.Guards();
    SetRole(Role::Leader, LossReason::Left);
    teller_.Wake();
    return true;
}

void CandidateCore::Prepare(QueuePlace& place)
{
    try
    {
        place.PrepareToClaim();
    }
    catch (const std::exception& error)
    {
        Report("could not prepare to lead", error);
    }
}

void CandidateCore::Look(QueuePlace& place)
{
    int findings = 0;
    {
        const MutexLock lock(mutex_);
        findings = stay_.findings;
    }
    try
    {
        const std::optional<std::size_t> position = place.Look();
        OnSession();
        const Access access(*this);
        Log(LogLevel::Debug, "Candidate " + signature_.identity + " looked after " + electionPath_ + "/" + stay_.node +
                                 ", in position " + (position ? std::to_string(*position) : "none"));
        if (position && findings != stay_.findings)
        {
            // What the recipe found meanwhile may be newer.
            stay_.news = true;
            return;
        }
        const bool wasSecond = stay_.second;
        TakePosition(position);
        if (wasSecond && stay_.second)
        {
            // Once more: somebody may have claimed the lead since the last time.
            stay_.prepareAt = session_->Now();
        }
    }
    catch (const std::exception& error)
    {
        // The state of the session says whether that matters.
        Report("could not look at the queue", error);
    }
}

void CandidateCore::TakePosition(std::optional<std::size_t> position)
{
    if (stay_.over)
    {
        return;
    }
    NoticeLapse();
    if (!position)
    {
        EndStay(LossReason::NodeDeleted);
        return;
    }
    if (stay_.led)
    {
        if (*position != 0)
        {
            EndStay(LossReason::Displaced);
        }
        return;
    }
    // Found by the recipe, or by a look: a check of the recipe's that got no answer is not repeated, and of somebody
    // who came to stand ahead it does not hear.
    stay_.first = *position == 0;
    if (*position == 1 && !stay_.second)
    {
        stay_.prepareAt = session_->Now() + kPreparationDelay;
    }
    stay_.second = *position == 1;
    if (stay_.joined)
    {
        SetRole(RoleInQueue(), LossReason::Displaced);
    }
    WakeWorker();
}

void CandidateCore::Leave(QueuePlace& place)
{
    {
        const MutexLock lock(mutex_);
        if (stay_.over == LossReason::NodeDeleted)
        {
            place.NodeIsLost();
        }
    }
    constexpr int kTriesWithCompany = 3;
    Backoff retrying(options_.firstRejoinDelay, options_.mostRejoinDelay);
    LeavingFailures failures;
    for (int tries = 1; !TryToLeave(place, failures); ++tries)
    {
        const MutexLock lock(mutex_);
        leavingLate_ = leavingLate_ || failures.refused || tries >= kTriesWithCompany;
        changed_.NotifyAll();
        AwaitNews(session_->Now() + retrying.Next());
    }
}

bool CandidateCore::TryToLeave(QueuePlace& place, LeavingFailures& failures)
{
    // For one attempt only, since the exit of the process waits for it.
    const ExitGate::Pass pass;
    if (!pass)
    {
        // No callback was called, and so nothing is given up: it all goes with the session.
        return true;
    }
    try
    {
        place.Leave();
    }
    catch (const std::exception& error)
    {
        failures.refused = CanNeverSucceed(error);
        const Access access(*this);
        const std::string text = "could not take back " +
                                 (place.Path().empty() ? "its nodes in " + electionPath_ : place.Path()) + ": " +
                                 error.what();
        const bool givesUp = failures.refused && shutDown_;
        if (failures.causes.insert(error.what()).second)
        {
            Log(failures.refused ? LogLevel::Error : LogLevel::Warning,
                "Candidate " + signature_.identity + " " + text + (givesUp ? "" : ", and tries again"));
        }
        if (failures.refused)
        {
            leavingError_ = text;
        }
        if (givesUp)
        {
            Log(LogLevel::Error, "Candidate " + signature_.identity + " leaves its nodes in " + electionPath_ +
                                     " to the end of the session");
        }
        return givesUp;
    }
    if (!failures.causes.empty())
    {
        const Access access(*this);
        Log(LogLevel::Info, "Candidate " + signature_.identity + " has left " + electionPath_ + " after all");
    }
    return true;
}

void CandidateCore::Report(const std::string& what, const std::exception& error)
{
    const Access access(*this);
    if (CanNeverSucceed(error))
    {
        Fail(what + ": " + error.what());
        return;
    }
    Log(LogLevel::Warning,
        "Candidate " + signature_.identity + " of " + electionPath_ + " " + what + ": " + error.what());
}

bool CandidateCore::Pause(milliseconds delay)
{
    const BootClock::time_point end = session_->Now() + delay;
    const MutexLock lock(mutex_);
    while (wanted_ && session_->Now() < end)
    {
        AwaitNews(end);
    }
    return wanted_;
}

void CandidateCore::AwaitNews(BootClock::time_point until)
{
    for (BootClock::time_point now = session_->Now(); !awake_ && now < until; now = session_->Now())
    {
        const auto nap = std::min<BootClock::duration>(until - now, stay_.led ? kLeadersLongestNap : kLongestNap);
        changed_.WaitUntil(mutex_, Clock::now() + nap);
    }
    awake_ = false;
}

void CandidateCore::WakeWorker()
{
    awake_ = true;
    changed_.NotifyAll();
}

}  // namespace kx::velmor
