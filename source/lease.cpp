#include "source/lease.h"

#include <algorithm>

namespace kx::velmor {

bool Lease::Grant(std::uint64_t leadership, std::int64_t session, BootClock::time_point end)
{
    const MutexLock lock(mutex_);
    end_ = 0;
    leadership_ = leadership;
    session_ = session;
    if (session == updated_)
    {
        // A smaller timeout may have been granted since the caller asked.
        end = std::min(end, newestEnd_);
    }
    if (session == ended_ || end <= now_())
    {
        return false;
    }
    Set(end);
    return true;
}

void Lease::Update(std::int64_t session, BootClock::time_point end)
{
    const MutexLock lock(mutex_);
    updated_ = session;
    newestEnd_ = end;
    const BootClock::time_point present = End();
    if (session == session_ && now_() < present)
    {
        // The clock goes on meanwhile. When a reader has seen the end by now, the lease stays over.
        Replace(present, end);
    }
}

void Lease::Revoke()
{
    const MutexLock lock(mutex_);
    end_ = 0;
}

void Lease::EndSession(std::int64_t session)
{
    const MutexLock lock(mutex_);
    ended_ = session;
    if (session == session_)
    {
        end_ = 0;
    }
}

bool Lease::SessionEnded(std::int64_t session) const
{
    const MutexLock lock(mutex_);
    return session == ended_;
}

// A reader that would answer no takes the end which it has compared with the clock back to 0 before it does so. An
// extension replaces the end on which it was decided, and no other. So of a reader and an extension that meet, one
// finds the end changed:
// - the reader came first: the extension changes nothing, and 0 stays until the next `Grant`;
// - the extension came first: the reader looks again, at the new end and a newer time, and has answered nothing yet.
// A reader answers yes only by an end that it found in place, so none does after the first no.
//
// The end may be that of a later leadership which ends at the same time. By the clock that one is over as well.
BootClock::duration Lease::Left() noexcept
{
    for (;;)
    {
        const BootClock::time_point end = End();
        // Most candidates do not lead, and the clock takes many times as long to read as the lease.
        if (end == BootClock::time_point())
        {
            return BootClock::duration::zero();
        }
        // After the end: the process may be stopped between the two for any length of time.
        const BootClock::time_point now = now_();
        if (now < end)
        {
            return mark_.Inherited() ? BootClock::duration::zero() : end - now;
        }
        Replace(end, BootClock::time_point());
    }
}

bool Lease::Holds(std::uint64_t leadership) noexcept
{
    // Another leadership's lease may begin in between.
    return leadership_ == leadership && Left() > BootClock::duration::zero() && leadership_ == leadership;
}

bool Lease::Replace(BootClock::time_point from, BootClock::time_point to) noexcept
{
    BootClock::rep expected = from.time_since_epoch().count();
    return end_.compare_exchange_strong(expected, to.time_since_epoch().count());
}

}  // namespace kx::velmor
