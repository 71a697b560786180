#pragma once

#include "source/fork_mark.h"
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

    /// `now` must neither block nor throw.
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

    /// How much longer it lasts unless it is extended; 0 when no leadership has it. Once this was 0, or `Holds` false,
    /// within a leadership, it stays so on every thread until the next `Grant`. Always 0 in a forked child. Lock-free.
    BootClock::duration Left() noexcept;

    /// Whether `leadership` has it. Lock-free.
    bool Holds(std::uint64_t leadership) noexcept;

    /// When it ends as far as is known; the beginning of the clock when it is over.
    BootClock::time_point End() const noexcept { return BootClock::time_point(BootClock::duration(end_)); }

private:
    void Set(BootClock::time_point end) KX_REQUIRES(mutex_) { end_ = end.time_since_epoch().count(); }

    /// False, with nothing changed, when the end is another than `from` by now.
    bool Replace(BootClock::time_point from, BootClock::time_point to) noexcept;

    /// Since the machine was started; 0 for no lease. `mutex_` is held for each change but one: a reader that finds the
    /// lease over takes the end that it has seen back to 0.
    std::atomic<BootClock::rep> end_{0};
    /// Changes only while there is no lease.
    std::atomic<std::uint64_t> leadership_{0};

    const Now now_;
    const ForkMark mark_;

    mutable Mutex mutex_;
    std::int64_t ended_ KX_GUARDED_BY(mutex_) = 0;
    std::int64_t session_ KX_GUARDED_BY(mutex_) = 0;
    /// The last `Update`.
    std::int64_t updated_ KX_GUARDED_BY(mutex_) = 0;
    BootClock::time_point newestEnd_ KX_GUARDED_BY(mutex_){};
};

}  // namespace kx::velmor
