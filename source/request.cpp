#include "source/request.h"

namespace kx::velmor {

int Request::Await(Clock::time_point deadline)
{
    const MutexLock lock(mutex_);
    while (phase_ == Phase::Pending)
    {
        if (!finished_.WaitUntil(mutex_, deadline) && phase_ == Phase::Pending)
        {
            phase_ = Phase::Abandoned;
            return ZOPERATIONTIMEOUT;
        }
    }
    return rc_;
}

bool Request::Finish(int rc, const std::function<void(Request&)>& store)
{
    {
        const MutexLock lock(mutex_);
        if (phase_ != Phase::Pending)
        {
            return phase_ == Phase::Finished;
        }
        if (store)
        {
            store(*this);
        }
        rc_ = rc;
        phase_ = Phase::Finished;
    }
    // Not under the lock, which who wakes takes at once.
    finished_.NotifyAll();
    if (listener_)
    {
        listener_(rc);
    }
    return true;
}

}  // namespace kx::velmor
