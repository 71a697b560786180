#include "source/session_core.h"

#include "source/client_log.h"
#include "source/session_log.h"
#include "source/session_options.h"

#include <kx/velmor/error.h>

#include <algorithm>
#include <cassert>
#include <cstdio>

namespace kx::velmor {

namespace {

using logging::LogLevel;

constexpr std::chrono::milliseconds kFirstReopenDelay{100};
constexpr std::chrono::milliseconds kMostReopenDelay{5'000};

struct Edge
{
    SessionState from;
    SessionState to;
};

/// All that may happen to a session.
constexpr Edge kEdges[] = {
    {SessionState::Connecting, SessionState::Connected},  // a server has answered
    {SessionState::Connecting, SessionState::Expired},    // the servers refuse to have a session with us
    {SessionState::Connected, SessionState::Suspended},   // the connection is lost
    {SessionState::Connected, SessionState::Expired},     // another process ended the session
    {SessionState::Suspended, SessionState::Connected},   // reconnected in time
    {SessionState::Suspended, SessionState::Expired},     // reconnected too late, or nobody answers any more
    {SessionState::Expired, SessionState::Connecting},    // the next session
    {SessionState::Connecting, SessionState::Closed},    {SessionState::Connected, SessionState::Closed},
    {SessionState::Suspended, SessionState::Closed},     {SessionState::Expired, SessionState::Closed},
};

[[maybe_unused]] bool IsEdge(SessionState from, SessionState to)
{
    return std::any_of(std::begin(kEdges), std::end(kEdges),
                       [&](const Edge& edge) { return edge.from == from && edge.to == to; });
}

LogLevel Level(SessionState phase)
{
    return phase == SessionState::Suspended || phase == SessionState::Expired ? LogLevel::Warning : LogLevel::Info;
}

/// As the servers print it.
std::string Printed(const std::optional<clientid_t>& identity)
{
    if (!identity)
    {
        return "none";
    }
    char text[2 + 16 + 1];
    std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(identity->client_id));
    return text;
}

}  // namespace

std::shared_ptr<SessionCore> SessionCore::OpenInBackground(SessionOptions options)
{
    std::vector<Server> servers = CheckOptions(options);
    auto core = std::make_shared<SessionCore>(std::move(options), std::move(servers));
    core->events_.Start([core] { core->RunEventThread(); });
    ClientLog::Attach(core->events_);
    const MutexLock lock(core->mutex_);
    core->EnsureKeeper();
    return core;
}

std::shared_ptr<SessionCore> SessionCore::Open(SessionOptions options)
{
    const Clock::time_point begin = Clock::now();
    auto core = OpenInBackground(std::move(options));
    const Clock::time_point deadline = begin + core->options_.connectTimeout;
    bool connected = false;
    {
        const MutexLock lock(core->mutex_);
        bool inTime = true;
        while (core->connection_ == 0 && inTime)
        {
            inTime = core->changed_.WaitUntil(core->mutex_, deadline);
        }
        connected = core->connection_ > 0;
    }
    if (!connected)
    {
        core->Close(true);
        KX_LOG(LogLevel::Error, SessionLog()) << "No server answered within " << core->options_.connectTimeout.count()
                                              << " ms: " << core->options_.servers;
        throw ZooError(ZOPERATIONTIMEOUT);
    }
    return core;
}

SessionCore::SessionCore(SessionOptions options, std::vector<Server> servers)
    : options_(std::move(options)),
      servers_(std::move(servers)),
      numericServers_(AllNumeric(servers_)),
      accessList_(options_.accessList),
      reopening_(kFirstReopenDelay, kMostReopenDelay),
      negotiatedTimeout_(options_.sessionTimeout),
      silentSince_(Clock::now())
{}

void SessionCore::Close(bool wait)
{
    std::shared_ptr<ClientHandle> handle;
    bool first = false;
    std::int64_t ending = 0;
    {
        const MutexLock lock(mutex_);
        first = phase_ != SessionState::Closed;
        ending = sessionId_;
        if (first)
        {
            lifetime_ = SessionLifetime();
            Advance(SessionState::Closed, "");
            ++generation_;
            identity_.reset();
            handle = std::move(handle_);
            FinishDeletes(ZCLOSING);
            changed_.NotifyAll();
        }
    }
    if (first)
    {
        TellEnding(ending);
    }
    if (handle)
    {
        handle->Close(ZCLOSING);
    }
    if (first)
    {
        ClientLog::Detach(events_);
        events_.Finish();
    }
    {
        const MutexLock lock(mutex_);
        closeDone_ = closeDone_ || first;
        changed_.NotifyAll();
        // A log handler may close the session from the keeper; and the event thread may be the one that is to do the
        // keeper's work later.
        const bool awaitKeeper = wait && !events_.OnEventThread() && keeperThread_ != std::this_thread::get_id();
        while (!closeDone_ || (awaitKeeper && keeperRunning_))
        {
            changed_.Wait(mutex_);
        }
    }
    if (wait && events_.OnEventThread())
    {
        // What is queued would come after the return from here.
        const SessionStatus status = Status();
        for (const StateListeners::Shared& listener : listeners_.All())
        {
            listener->Tell(status);
        }
    }
    if (wait)
    {
        events_.Join();
    }
    if (first)
    {
        // Last, since what a listener keeps alive may close the session once more when it goes.
        heardListeners_.RemoveAll();
        endingListeners_.RemoveAll();
    }
}

std::unique_ptr<clientid_t> SessionCore::ClientId() const
{
    const MutexLock lock(mutex_);
    return identity_ ? std::make_unique<clientid_t>(*identity_) : nullptr;
}

SessionStatus SessionCore::Status() const
{
    const MutexLock lock(mutex_);
    return StatusNow();
}

SessionStatus SessionCore::StatusNow() const
{
    const std::chrono::milliseconds minTimeout = lifetime_.MinTimeout();
    return {phase_,
            sessionId_,
            negotiatedTimeout_,
            lifetime_.LastAgreed(),
            minTimeout.count() != 0 ? minTimeout : negotiatedTimeout_,
            lifetime_.LeaseEnd()};
}

Registration SessionCore::OnStateChange(ElectionSession::StateListener callback)
{
    StateListeners::Shared listener;
    {
        // Together, so that the listener misses no change and is told none twice.
        const MutexLock lock(mutex_);
        if (phase_ == SessionState::Closed)
        {
            return Registration();
        }
        listener = listeners_.Add(std::move(callback));
        events_.Post([listener, status = StatusNow()] { listener->Tell(status); });
    }
    return Registration([weak = weak_from_this(), listener] {
        if (const auto self = weak.lock(); self && !self->Inherited())
        {
            self->listeners_.Remove(listener);
        }
    });
}

Registration SessionCore::OnHeard(ElectionSession::HeardListener callback)
{
    return AddListener(&SessionCore::heardListeners_, std::move(callback));
}

Registration SessionCore::OnEnding(ElectionSession::EndingListener callback)
{
    return AddListener(
        &SessionCore::endingListeners_,
        [callback = std::move(callback)](std::int64_t sessionId, BootClock::time_point) { callback(sessionId); });
}

Registration SessionCore::AddListener(HeardListeners SessionCore::*listeners, ElectionSession::HeardListener callback)
{
    HeardListeners::Shared listener;
    {
        const MutexLock lock(mutex_);
        if (phase_ == SessionState::Closed)
        {
            return Registration();
        }
        listener = (this->*listeners).Add(std::move(callback));
    }
    return Registration([weak = weak_from_this(), listeners, listener] {
        if (const auto self = weak.lock(); self && !self->Inherited())
        {
            ((*self).*listeners).Remove(listener);
        }
    });
}

void SessionCore::TellEnding(std::int64_t sessionId)
{
    const HeardListeners::List listeners = endingListeners_.All();
    for (const HeardListeners::Shared& listener : *listeners)
    {
        listener->Tell(sessionId, BootClock::time_point());
    }
}

void SessionCore::Advance(SessionState to, const std::string& detail)
{
    assert(IsEdge(phase_, to));
    std::string text =
        std::string("Session ") + ToString(phase_) + " -> " + ToString(to) + ": session " + Printed(identity_);
    if (!detail.empty())
    {
        text += ", " + detail;
    }
    if (to == SessionState::Connecting)
    {
        sessionId_ = 0;
    }
    phase_ = to;
    changed_.NotifyAll();
    events_.Post([listeners = listeners_.All(), status = StatusNow()] {
        for (const StateListeners::Shared& listener : listeners)
        {
            listener->Tell(status);
        }
    });
    // Written by the event thread: a log handler may block, and the client library's threads must not.
    events_.Post([level = Level(to), text = std::move(text)] { KX_LOG(level, SessionLog()) << text; });
}

void SessionCore::EndSession(int state, const std::string& detail)
{
    lifetime_ = SessionLifetime();
    endedInOrder_ = phase_ != SessionState::Connecting && state == ZOO_EXPIRED_SESSION_STATE;
    Advance(SessionState::Expired, detail);
    ++generation_;
    identity_.reset();
    FinishDeletes(ZSESSIONEXPIRED);
    PostSessionEvent(state);
    EnsureKeeper();
}

void SessionCore::OnSessionEvent(std::uint64_t generation, const SessionEvent& event) noexcept
{
    std::int64_t session = 0;
    bool ended = false;
    std::optional<BootClock::time_point> leaseBefore;
    std::optional<BootClock::time_point> leaseEnd;
    {
        const MutexLock lock(mutex_);
        if (generation != generation_)
        {
            return;
        }
        session = sessionId_;
        leaseBefore = lifetime_.LeaseEnd();
        Note(event);
        leaseEnd = lifetime_.LeaseEnd();
        ended = phase_ == SessionState::Expired;
    }
    if (ended && session != 0)
    {
        TellEnding(session);
    }
    else if (leaseEnd && leaseEnd != leaseBefore)
    {
        // A smaller timeout was granted. No answer can extend the lease before this returns.
        TellLeaseEnd(session, *leaseEnd);
    }
}

void SessionCore::Note(const SessionEvent& event)
{
    if (event.state == ZOO_CONNECTED_STATE)
    {
        identity_ = event.identity;
        sessionId_ = event.identity.client_id;
        negotiatedTimeout_ = event.negotiatedTimeout;
        lifetime_.Grant(event.minTimeout);
        ++connection_;
        Advance(SessionState::Connected,
                "server " + event.server + ", timeout " + std::to_string(negotiatedTimeout_.count()) + " ms");
        PostSessionEvent(event.state);
        refreshAt_ = Clock::now();
        readAt_ = refreshAt_;
        if (!pendingDeletes_.empty() || freshHolds_ > 0)
        {
            EnsureKeeper();
        }
    }
    else if (event.state == ZOO_EXPIRED_SESSION_STATE)
    {
        EndSession(event.state, "the servers have ended it");
    }
    else if (event.state == ZOO_AUTH_FAILED_STATE)
    {
        EndSession(event.state, "the servers refuse the credentials");
    }
    else if (event.state == ZOO_CONNECTING_STATE && phase_ == SessionState::Connected)
    {
        silentSince_ = Clock::now();
        Advance(SessionState::Suspended, "no server answers");
        PostSessionEvent(event.state);
        EnsureKeeper();
    }
}

void SessionCore::OnNodeEvent(std::uint64_t generation, int type, int state, const char* path) noexcept
{
    {
        const MutexLock lock(mutex_);
        if (generation != generation_)
        {
            return;
        }
        events_.Enqueue([this, type, state, node = std::string(path), position = watches_.Now()] {
            DeliverNodeEvent(type, state, node, position);
        });
    }
    events_.Wake();
}

void SessionCore::OnLateWatch(std::uint64_t generation, const std::string& path) noexcept
{
    const MutexLock lock(mutex_);
    if (generation != generation_)
    {
        return;
    }
    events_.Post([this, path] { Unwatch(path); });
}

void SessionCore::OnServerAnswer(std::uint64_t generation, BootClock::time_point sent, bool agreed) noexcept
{
    std::int64_t sessionId = 0;
    std::optional<BootClock::time_point> leaseEnd;
    {
        const MutexLock lock(mutex_);
        if (generation != generation_)
        {
            return;
        }
        const std::optional<BootClock::time_point> before = lifetime_.LeaseEnd();
        lifetime_.NoteAnswer(sent, BootClock::now(), agreed);
        leaseEnd = lifetime_.LeaseEnd();
        if (leaseEnd == before)
        {
            return;
        }
        sessionId = sessionId_;
    }
    TellLeaseEnd(sessionId, *leaseEnd);
}

void SessionCore::TellLeaseEnd(std::int64_t sessionId, BootClock::time_point leaseEnd)
{
    const HeardListeners::List listeners = heardListeners_.All();
    for (const HeardListeners::Shared& listener : *listeners)
    {
        listener->Tell(sessionId, leaseEnd);
    }
}

}  // namespace kx::velmor
