#pragma once

#include "tests/simulation/protocol.h"
#include "tests/simulation/virtual_machine.h"

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <set>

namespace kx::velmor::simulation {

/// Where the ensemble's leader counts the time of sessions: no other server ends one.
///
/// A session ends at the next multiple of a tick after the time of its last touch plus its timeout, by the leader's own
/// clock, whose ticks have a random phase.
class SessionTracker
{
public:
    /// `onExpired` is called for each session whose time has run out, once.
    SessionTracker(VirtualMachine& machine, Time tick, std::function<void(SessionId)> onExpired);
    ~SessionTracker();
    SessionTracker(const SessionTracker&) = delete;
    SessionTracker& operator=(const SessionTracker&) = delete;

    void Track(SessionId session, std::chrono::milliseconds timeout);
    /// False for a session that is not tracked or is being closed.
    bool Touch(SessionId session, std::chrono::milliseconds timeout);
    /// From now on touches have no effect, and writes are refused.
    void SetClosing(SessionId session);
    void Forget(SessionId session);

    /// A session belongs to the server to which its client connected last.
    void SetOwner(SessionId session, std::size_t server);
    /// What a write of this session that came over `server` is refused with. The first server that asks owns a session
    /// without an owner.
    int CheckWrite(SessionId session, std::size_t server);

    /// The server does not run; sessions whose time runs out meanwhile end soon after it runs again.
    void Suspend();
    void Resume();

private:
    struct Session
    {
        Time expiry{0};
        bool closing = false;
        std::optional<std::size_t> owner{};
    };

    Time RoundUp(Time time) const;
    void Move(SessionId id, Session& session, Time expiry);
    void Leave(SessionId id, const Session& session);
    void Schedule(Time earliest);
    void Expire();

    VirtualMachine& machine_;
    const Time tick_;
    const Time phase_;
    const std::function<void(SessionId)> onExpired_;
    std::map<SessionId, Session> sessions_;
    std::map<Time, std::set<SessionId>> buckets_;
    std::optional<EventId> event_;
    Time eventAt_{0};
    bool suspended_ = false;
};

}  // namespace kx::velmor::simulation
