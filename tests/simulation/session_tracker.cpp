#include "tests/simulation/session_tracker.h"

#include "tests/simulation/stream.h"

#include <utility>

namespace kx::velmor::simulation {

SessionTracker::SessionTracker(VirtualMachine& machine, Time tick, std::function<void(SessionId)> onExpired)
    : machine_(machine),
      tick_(tick),
      phase_(machine.Random(static_cast<std::uint64_t>(tick.count()))),
      onExpired_(std::move(onExpired))
{}

SessionTracker::~SessionTracker()
{
    if (event_)
    {
        machine_.Cancel(*event_);
    }
}

Time SessionTracker::RoundUp(Time time) const
{
    // Also what is a multiple already.
    return phase_ + ((time - phase_) / tick_ + 1) * tick_;
}

void SessionTracker::Track(SessionId session, std::chrono::milliseconds timeout)
{
    if (sessions_.count(session) == 0)
    {
        sessions_[session];
        Touch(session, timeout);
    }
}

bool SessionTracker::Touch(SessionId session, std::chrono::milliseconds timeout)
{
    const auto found = sessions_.find(session);
    if (found == sessions_.end() || found->second.closing)
    {
        return false;
    }
    Move(session, found->second, RoundUp(machine_.Now() + timeout));
    return true;
}

void SessionTracker::SetClosing(SessionId session)
{
    const auto found = sessions_.find(session);
    if (found != sessions_.end())
    {
        found->second.closing = true;
        Leave(session, found->second);
    }
}

void SessionTracker::Forget(SessionId session)
{
    SetClosing(session);
    sessions_.erase(session);
}

void SessionTracker::SetOwner(SessionId session, std::size_t server)
{
    const auto found = sessions_.find(session);
    if (found != sessions_.end())
    {
        found->second.owner = server;
    }
}

int SessionTracker::CheckWrite(SessionId session, std::size_t server)
{
    const auto found = sessions_.find(session);
    if (found == sessions_.end() || found->second.closing)
    {
        return ZSESSIONEXPIRED;
    }
    if (!found->second.owner)
    {
        found->second.owner = server;
    }
    return *found->second.owner == server ? ZOK : static_cast<int>(ZSESSIONMOVED);
}

void SessionTracker::Suspend()
{
    suspended_ = true;
}

void SessionTracker::Resume()
{
    suspended_ = false;
    if (!buckets_.empty())
    {
        Schedule(buckets_.begin()->first);
    }
}

void SessionTracker::Move(SessionId id, Session& session, Time expiry)
{
    if (session.expiry == expiry)
    {
        return;
    }
    Leave(id, session);
    session.expiry = expiry;
    buckets_[expiry].insert(id);
    Schedule(expiry);
}

void SessionTracker::Leave(SessionId id, const Session& session)
{
    const auto bucket = buckets_.find(session.expiry);
    if (bucket != buckets_.end() && bucket->second.erase(id) > 0 && bucket->second.empty())
    {
        buckets_.erase(bucket);
    }
}

void SessionTracker::Schedule(Time earliest)
{
    if (suspended_)
    {
        return;
    }
    if (event_)
    {
        if (eventAt_ <= earliest)
        {
            return;
        }
        machine_.Cancel(*event_);
    }
    // A server that has stood still for a while may see that time is up before or after what has arrived meanwhile.
    eventAt_ = earliest > machine_.Now() ? earliest : machine_.Now() + RandomLatency(machine_);
    event_ = machine_.At(eventAt_, [this] { Expire(); });
}

void SessionTracker::Expire()
{
    event_.reset();
    if (suspended_)
    {
        return;
    }
    std::vector<SessionId> expired;
    while (!buckets_.empty() && buckets_.begin()->first <= machine_.Now())
    {
        expired.insert(expired.end(), buckets_.begin()->second.begin(), buckets_.begin()->second.end());
        buckets_.erase(buckets_.begin());
    }
    if (!buckets_.empty())
    {
        Schedule(buckets_.begin()->first);
    }
    for (const SessionId session : expired)
    {
        SetClosing(session);
        onExpired_(session);
    }
}

}  // namespace kx::velmor::simulation
