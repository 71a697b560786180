// Sessions of a service in memory, and its clock.

#include "source/testing/memory_service_core.h"

#include "source/session_lifetime.h"
#include "source/watch_delivery.h"

#include <algorithm>

namespace kx::velmor::testing {

namespace {

/// Any time will do, but for 0, which stands for none in too many programs.
constexpr std::chrono::hours kBeginning{24};

constexpr std::int64_t kFirstSession = 0x100'0000'0001;

std::int64_t Milliseconds(std::chrono::nanoseconds time)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

}  // namespace

MemoryServiceCore::MemoryServiceCore()
    : now_(BootClock::duration(kBeginning).count()),
      epochMilliseconds_(Milliseconds(std::chrono::system_clock::now().time_since_epoch() - kBeginning)),
      lastSession_(kFirstSession - 1)
{}

std::shared_ptr<MemorySessionRecord> MemoryServiceCore::Open(MemorySessionOptions options)
{
    auto session = std::make_shared<Record>(shared_from_this(), std::move(options));
    session->events.Start([session] {
        session->events.Run();
        DropWatches(session->watches);
    });
    const MutexLock lock(mutex_);
    sessions_.push_back(session);
    session->status.negotiatedTimeout = session->options.sessionTimeout;
    session->status.minTimeout = session->options.sessionTimeout;
    BeginSession(*session);
    return session;
}

void MemoryServiceCore::Expire(Record& session)
{
    AllHeard heard;
    const std::int64_t before = Status(session).sessionId;
    {
        const MutexLock lock(mutex_);
        EndSession(session.status.sessionId);
        if (session.status.state == SessionState::Connected)
        {
            Disconnect(session);
            Reconnect(session, heard);
        }
    }
    TellEnding(session, before);
    Tell(heard);
}

void MemoryServiceCore::Cut(Record& session)
{
    const MutexLock lock(mutex_);
    if (session.status.state == SessionState::Connected)
    {
        Disconnect(session);
    }
}

void MemoryServiceCore::Heal(Record& session)
{
    AllHeard heard;
    const std::int64_t before = Status(session).sessionId;
    {
        const MutexLock lock(mutex_);
        if (session.status.state == SessionState::Suspended)
        {
            Reconnect(session, heard);
        }
    }
    TellEnding(session, before);
    Tell(heard);
}

/// Unless the session is still that one.
void MemoryServiceCore::TellEnding(const Record& session, std::int64_t before) const
{
    if (Status(session).sessionId != before)
    {
        session.endings.Tell(before);
    }
}

void MemoryServiceCore::LoseReply(Record& session)
{
    const MutexLock lock(mutex_);
    session.losesReply = true;
}

void MemoryServiceCore::Refuse(const std::string& path, int code)
{
    AllHeard heard;
    {
        const MutexLock lock(mutex_);
        refused_.erase(path);
        if (code != ZOK)
        {
            refused_[path] = code;
        }
        for (const auto& session : sessions_)
        {
            RetryDeletes(*session, heard);
        }
    }
    Tell(heard);
}

void MemoryServiceCore::Advance(BootClock::duration time)
{
    const BootClock::time_point end = Now() + time;
    bool reached = false;
    while (!reached)
    {
        AllHeard heard;
        {
            const MutexLock lock(mutex_);
            const BootClock::time_point next = std::min(end, std::max(NextDue(), Now()));
            reached = next == end;
            now_ = next.time_since_epoch().count();
            DoWhatIsDue(heard);
        }
        Tell(heard);
        jumps_.Tell();
    }
}

void MemoryServiceCore::Close(Record& session, bool wait)
{
    bool first = false;
    // Before its nodes go.
    session.endings.Tell(Status(session).sessionId);
    {
        const MutexLock lock(mutex_);
        first = session.status.state != SessionState::Closed;
        if (first)
        {
            const bool reachable = session.status.state == SessionState::Connected;
            session.status.lastHeard.reset();
            session.status.leaseEnd.reset();
            Change(session, SessionState::Closed);
            session.pendingDeletes.clear();
            sessions_.erase(std::remove(sessions_.begin(), sessions_.end(), session.shared_from_this()),
                            sessions_.end());
            if (reachable)
            {
                EndSession(session.status.sessionId);
            }
        }
    }
    if (first)
    {
        session.events.Finish();
    }
    if (!wait)
    {
        return;
    }
    if (session.events.OnEventThread())
    {
        // What is queued would come after the return from here.
        const SessionStatus status = Status(session);
        for (const StateListeners::Shared& listener : session.listeners.All())
        {
            listener->Tell(status);
        }
    }
    session.events.Join();
}

SessionStatus MemoryServiceCore::Status(const Record& session) const
{
    const MutexLock lock(mutex_);
    return session.status;
}

Registration MemoryServiceCore::OnStateChange(Record& session, ElectionSession::StateListener callback)
{
    StateListeners::Shared listener;
    {
        // Together, so that the listener misses no change and is told none twice.
        const MutexLock lock(mutex_);
        if (session.status.state == SessionState::Closed)
        {
            return Registration();
        }
        listener = session.listeners.Add(std::move(callback));
        Post(session, [listener, status = session.status] { listener->Tell(status); });
    }
    return Registration([weak = session.weak_from_this(), listener] {
        if (const auto alive = weak.lock(); alive && !alive->made.Inherited())
        {
            alive->listeners.Remove(listener);
        }
    });
}

Registration MemoryServiceCore::KeepFresh(Record& session)
{
    {
        const MutexLock lock(mutex_);
        ++session.freshHolds;
        AllHeard heard;
        RefreshIfDue(session, heard);
        if (!heard.empty())
        {
            // Not here: the caller does not expect to be called back.
            Post(session, [weak = session.weak_from_this(), id = heard[0].id, end = heard[0].leaseEnd] {
                if (const auto alive = weak.lock())
                {
                    Tell({{alive, id, end}});
                }
            });
        }
    }
    return Registration([weak = session.weak_from_this()] {
        if (const auto alive = weak.lock(); alive && !alive->made.Inherited())
        {
            const MutexLock lock(alive->service->mutex_);
            --alive->freshHolds;
        }
    });
}

void MemoryServiceCore::Tell(const AllHeard& allHeard)
{
    for (const Heard& heard : allHeard)
    {
        const MutexLock order(heard.session->telling);
        // Other threads may have moved the clock and the end of the lease meanwhile.
        const SessionStatus status = heard.session->service->Status(*heard.session);
        const bool present = status.sessionId == heard.id && status.leaseEnd;
        heard.session->heard.Tell(heard.id, present ? *status.leaseEnd : heard.leaseEnd);
    }
}

void MemoryServiceCore::Post(Record& session, EventLoop::Task task)
{
    session.events.Post([underWay = activity_.Begin(), task = std::move(task)] { task(); });
}

void MemoryServiceCore::Change(Record& session, SessionState state)
{
    session.status.state = state;
    Post(session, [listeners = session.listeners.All(), status = session.status] {
        for (const StateListeners::Shared& listener : listeners)
        {
            listener->Tell(status);
        }
    });
}

void MemoryServiceCore::Disconnect(Record& session)
{
    session.cut = true;
    session.cutAfter = tree_.LastTransaction();
    for (auto& [path, wasThere] : session.watched)
    {
        wasThere = tree_.Find(path) != nullptr;
    }
    const auto alive = alive_.find(session.status.sessionId);
    if (alive != alive_.end())
    {
        alive->second = Now() + session.status.negotiatedTimeout;
    }
    Change(session, SessionState::Suspended);
    PostSessionEvent(session, ZOO_CONNECTING_STATE);
}

void MemoryServiceCore::Reconnect(Record& session, AllHeard& heard)
{
    session.cut = false;
    const auto alive = alive_.find(session.status.sessionId);
    if (alive != alive_.end())
    {
        alive->second.reset();
        Change(session, SessionState::Connected);
        PostSessionEvent(session, ZOO_CONNECTED_STATE);
        TellMissedChanges(session);
    }
    else
    {
        session.status.lastHeard.reset();
        session.status.leaseEnd.reset();
        Change(session, SessionState::Expired);
        session.watched.clear();
        session.pendingDeletes.clear();
        PostSessionEvent(session, ZOO_EXPIRED_SESSION_STATE);
        session.status.sessionId = 0;
        Change(session, SessionState::Connecting);
        BeginSession(session);
        PostSessionEvent(session, ZOO_CONNECTED_STATE);
    }
    RetryDeletes(session, heard);
    session.refreshAt = Now();
    RefreshIfDue(session, heard);
}

void MemoryServiceCore::BeginSession(Record& session)
{
    session.status.sessionId = ++lastSession_;
    session.refreshAt = Now();
    alive_[session.status.sessionId].reset();
    Change(session, SessionState::Connected);
}

void MemoryServiceCore::EndSession(std::int64_t id)
{
    if (alive_.erase(id) == 0)
    {
        return;
    }
    BeginTransaction();
    for (const std::string& path : tree_.OwnedBy(id))
    {
        tree_.Delete(path);
        OnChange(ZOO_DELETED_EVENT, path);
    }
}

void MemoryServiceCore::NoteHeard(Record& session, AllHeard& heard)
{
    // The one server hears everything itself.
    session.status.lastHeard = Now();
    session.status.leaseEnd = Now() + SessionLifetime::LeaseLength(session.status.minTimeout);
    heard.push_back({session.shared_from_this(), session.status.sessionId, *session.status.leaseEnd});
}

void MemoryServiceCore::RefreshIfDue(Record& session, AllHeard& heard)
{
    if (session.status.state == SessionState::Connected && session.freshHolds > 0 && session.refreshAt <= Now())
    {
        NoteHeard(session, heard);
        session.refreshAt = Now() + SessionLifetime::WriteInterval(session.status.minTimeout);
    }
}

BootClock::time_point MemoryServiceCore::NextDue() const
{
    BootClock::time_point next = BootClock::time_point::max();
    for (const auto& [id, diesAt] : alive_)
    {
        next = std::min(next, diesAt.value_or(next));
    }
    for (const auto& session : sessions_)
    {
        if (session->status.state == SessionState::Connected && session->freshHolds > 0)
        {
            next = std::min(next, session->refreshAt);
        }
    }
    return next;
}

void MemoryServiceCore::DoWhatIsDue(AllHeard& heard)
{
    std::vector<std::int64_t> dying;
    for (const auto& [id, diesAt] : alive_)
    {
        if (diesAt && *diesAt <= Now())
        {
            dying.push_back(id);
        }
    }
    for (const std::int64_t id : dying)
    {
        EndSession(id);
    }
    for (const auto& session : sessions_)
    {
        RefreshIfDue(*session, heard);
        RetryDeletes(*session, heard);
    }
}

}  // namespace kx::velmor::testing
