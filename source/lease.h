#pragma once

#include "source/sync.h"

#include <kx/velmor/boot_clock.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <utility>

namespace kx::velmor {

/// How long a leadership can be relied on without another word from the servers.
///
/// The servers keep a session for its timeout after they last heard from it. What is known of that is when the newest
/// write that was answered had been sent; they heard it later. A follower passes on whom it has heard once every half
/// tick, and a timeout is at least two ticks, so that up to a quarter of it may be lost when a follower fails. Two
/// thirds leave that much, and some more for clocks that do not run at one speed.
///
/// Threads: any. What asks takes no lock.
class Lease
{
public:
    /// The part of a session timeout that counts as certain.
    static std::chrono::milliseconds Length(std::chrono::milliseconds sessionTimeout) { return sessionTimeout * 2 / 3; }

    using Now = std::function<BootClock::time_point()>;

    /// `now` must not block.
    explicit Lease(Now now) : now_(std::move(now)) {}

    /// From now on `leadership` has the lease, while `session` was heard at `lastHeard`. False, with no lease to
    /// anybody, when that has run out, or the session has ended.
    bool Grant(std::uint64_t leadership, std::int64_t session, std::chrono::milliseconds sessionTimeout,
               BootClock::time_point lastHeard);

    /// `session` was heard again. A lease that has run out stays so: its end may have been seen.
    void Extend(std::int64_t session, BootClock::time_point lastHeard);

    void Revoke();

    /// `session` is over: revokes its lease, and grants it none any more.
    void EndSession(std::int64_t session);
    bool SessionEnded(std::int64_t session) const;

    /// Nobody has it once the clock shows this. The clock must be read after this call: a process may be stopped
    /// between the two for any length of time.
    BootClock::time_point End() const noexcept { return BootClock::time_point(BootClock::duration(end_)); }

    /// As `End`, for one leadership.
    BootClock::time_point EndOf(std::uint64_t leadership) const noexcept;

private:
    void Set(BootClock::time_point end) KX_REQUIRES(mutex_) { end_ = end.time_since_epoch().count(); }

    /// Since the machine was started; 0 for no lease.
    std::atomic<BootClock::rep> end_{0};
    /// Changes only while there is no lease.
    std::atomic<std::uint64_t> leadership_{0};

    const Now now_;

    mutable Mutex mutex_;
    std::int64_t ended_ KX_GUARDED_BY(mutex_) = 0;
    std::int64_t session_ KX_GUARDED_BY(mutex_) = 0;
    std::chrono::milliseconds length_ KX_GUARDED_BY(mutex_){0};
};

}  // namespace kx::velmor
