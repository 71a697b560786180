// What a candidate does that blocks, in the order in which it happens: wait for a session, join, claim the lead, look
// after the place, leave.

#include "source/candidate_core.h"
#include "source/candidate_log.h"
#include "source/exit_gate.h"

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

/// A wait by a clock that stands still while the machine sleeps, or that only a test moves.
constexpr std::chrono::seconds kLongestNap{1};

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
    const Registration hearing = session_->OnHeard([weak](std::int64_t session, BootClock::time_point lastHeard) {
        if (const auto self = weak.lock())
        {
            self->lease_.Extend(session, lastHeard, self->session_->Now());
        }
    });

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
            leavingLate_ = false;
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
    while (const std::optional<std::int64_t> session = AwaitSession())
    {
        const BootClock::time_point joined = session_->Now();
        StayInQueue(*session);
        if (session_->Now() - joined >= SessionTimeout())
        {
            rejoining_.Reset();
        }
        const milliseconds delay = rejoining_.Next();
        {
            const Access access(*this);
            if (!wanted_)
            {
                return;
            }
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

void CandidateCore::StayInQueue(std::int64_t session)
{
    std::uint64_t number = 0;
    std::string electionPath;
    {
        const MutexLock lock(mutex_);
        number = ++stays_;
        stay_ = Stay{};
        stay_.number = number;
        stay_.session = session;
        electionPath = electionPath_;
    }
    outdatedLooks_ = 0;
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
    QueuePlace place(session_, electionPath, session, signature_,
                     {tell(&CandidateCore::OnFirst), tell(&CandidateCore::OnSecond), tell(&CandidateCore::OnNews)});
    if (Join(place))
    {
        HoldPlace(place);
    }
    // The next one in line begins when we have left, and so whatever the user has to finish comes first.
    teller_.AwaitSilence();
    Leave(place);
    const MutexLock lock(mutex_);
    stay_ = Stay{};
}

bool CandidateCore::Join(QueuePlace& place)
{
    try
    {
        const ExitGate::Pass pass;
        if (!pass)
        {
            return false;
        }
        place.Join();
    }
    catch (const VelmorError& error)
    {
        Report("could not join", error);
        return false;
    }
    const Access access(*this);
    stay_.node = place.Node();
    stay_.path = place.Path();
    stay_.identityPath = place.IdentityPath();
    stay_.epoch = place.Epoch();
    if (stay_.over)
    {
        return false;
    }
    stay_.joined = true;
    Log(LogLevel::Info, "Candidate " + signature_.identity + " has joined: " + stay_.path);
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
        if (duty == Duty::Leave || !pass)
        {
            return;
        }
        if (duty == Duty::Claim)
        {
            if (!leading)
            {
                leading = true;
                freshness = session_->KeepFresh();
            }
            claimAt = Claim(place);
        }
        else
        {
            Look(place);
            lookAt = session_->Now() + SessionTimeout() / (leading ? kLeadersLooksPerTimeout : 1);
        }
    }
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
        const bool claiming = stay_.first && !stay_.led;
        const bool claimDue = claiming && (stay_.news || claimAt <= now);
        if (claimDue || stay_.news || lookAt <= now)
        {
            stay_.news = false;
            return claimDue ? Duty::Claim : Duty::Look;
        }
        AwaitNews(claiming ? std::min(claimAt, lookAt) : lookAt);
    }
}

BootClock::time_point CandidateCore::Claim(QueuePlace& place)
{
    const BootClock::time_point soon = session_->Now() + SessionTimeout() / kRetriesPerTimeout;
    try
    {
        switch (place.TryToClaim())
        {
            case QueuePlace::Claim::Made:
                return Lead() ? BootClock::time_point::max() : soon;
            case QueuePlace::Claim::Taken: {
                const Access access(*this);
                Log(LogLevel::Info, "Candidate " + signature_.identity + " is first in " + electionPath_ +
                                        " and waits for the one before to have finished");
                return session_->Now() + SessionTimeout() / kLeadersLooksPerTimeout;
            }
            case QueuePlace::Claim::Gone: {
                const Access access(*this);
                EndStay(LossReason::NodeDeleted);
                return soon;
            }
            case QueuePlace::Claim::Outdated: {
                const Access access(*this);
                Log(LogLevel::Warning, "Candidate " + signature_.identity + " has a place in " + electionPath_ +
                                           " that is older than the last leadership");
                EndStay(LossReason::Displaced);
                return soon;
            }
        }
    }
    catch (const VelmorError& error)
    {
        Report("could not claim the lead", error);
    }
    return soon;
}

bool CandidateCore::Lead()
{
    const SessionStatus status = session_->Status();
    const Access access(*this);
    if (stay_.over)
    {
        return true;
    }
    if (status.sessionId != stay_.session || !status.lastHeard ||
        !lease_.Grant(stay_.number, stay_.session, status.negotiatedTimeout, *status.lastHeard, session_->Now()))
    {
        return false;
    }
    stay_.led = true;
    SetRole(Role::Leader, LossReason::Left);
    teller_.Wake();
    return true;
}

void CandidateCore::Look(QueuePlace& place)
{
    try
    {
        const std::optional<std::size_t> position = place.Look();
        const Access access(*this);
        Judge(position);
    }
    catch (const VelmorError& error)
    {
        // The state of the session says whether that matters.
        Report("could not look at the queue", error);
    }
}

void CandidateCore::Judge(std::optional<std::size_t> position)
{
    if (stay_.over)
    {
        return;
    }
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
    // Somebody came to stand ahead, of which the recipe does not hear.
    stay_.first = stay_.first && *position == 0;
    stay_.second = stay_.second && *position == 1;
    SetRole(RoleInQueue(), LossReason::Displaced);

    // A check of the recipe's that failed for want of an answer comes again with the next event only, which may never
    // come when the one that began it was the last.
    const bool outdated = (*position == 0 && !stay_.first) || (*position == 1 && !stay_.second);
    outdatedLooks_ = outdated ? outdatedLooks_ + 1 : 0;
    constexpr int kPatience = 2;
    if (outdatedLooks_ >= kPatience)
    {
        Log(LogLevel::Warning, "Candidate " + signature_.identity + " has missed its turn in " + electionPath_);
        EndStay(LossReason::Displaced);
    }
}

void CandidateCore::Leave(QueuePlace& place)
{
    Backoff retrying(options_.firstRejoinDelay, options_.mostRejoinDelay);
    for (;;)
    {
        try
        {
            place.Leave();
            return;
        }
        catch (const VelmorError& error)
        {
            KX_LOG(LogLevel::Warning, ElectionLog())
                << "Candidate " << signature_.identity << " could not take back its nodes yet: " << error.what();
        }
        const MutexLock lock(mutex_);
        leavingLate_ = true;
        changed_.NotifyAll();
        AwaitNews(session_->Now() + retrying.Next());
    }
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
        const auto nap = std::min<BootClock::duration>(until - now, kLongestNap);
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
