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
    if (session == session_ && now_() < End())
    {
        Set(end);
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

BootClock::time_point Lease::EndOf(std::uint64_t leadership) const noexcept
{
    if (leadership_ != leadership)
    {
        return BootClock::time_point();
    }
    const BootClock::time_point end = End();
    // Another leadership's lease may have begun in between.
    return leadership_ == leadership ? end : BootClock::time_point();
}

}  // namespace kx::velmor
