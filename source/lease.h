#pragma once

#include "source/sync.h"

#include <kx/velmor/boot_clock.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <utility>

namespace kx::velmor {

/// How long a leadership can be relied on without another word from the servers: until the end of its session's lease,
/// which `SessionLifetime` reckons.
///
/// Threads: any. What asks takes no lock.
class Lease
{
public:
    using Now = std::function<BootClock::time_point()>;

    /// `now` must not block.
    explicit Lease(Now now) : now_(std::move(now)) {}

    /// From now on `leadership` has the lease, until `end` as far as the caller knows. False, with no lease to any
    /// leadership, when it has run out or the session has ended.
    bool Grant(std::uint64_t leadership, std::int64_t session, BootClock::time_point end);

    /// The lease of `session` ends at `end` by now, sooner or later than before. A lease that has run out stays so: its
    /// end may have been seen.
    void Update(std::int64_t session, BootClock::time_point end);

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
    /// The last `Update`.
    std::int64_t updated_ KX_GUARDED_BY(mutex_) = 0;
    BootClock::time_point newestEnd_ KX_GUARDED_BY(mutex_){};
};

}  // namespace kx::velmor
