#pragma once

#include "source/sync.h"

#include <cstddef>
#include <memory>

namespace kx::velmor::testing {

/// What is queued or under way.
///
/// Threads: any.
class Activity
{
public:
    /// Something that is not over until all copies of this are gone.
    std::shared_ptr<void> Begin()
    {
        {
            const MutexLock lock(data_->mutex);
            ++data_->underWay;
        }
        return {nullptr, [data = data_](void*) {
                    const MutexLock lock(data->mutex);
                    --data->underWay;
                    data->changed.NotifyAll();
                }};
    }

    /// Waits until everything is over; false when it was not by `deadline`.
    bool AwaitEnd(Clock::time_point deadline) const
    {
        const MutexLock lock(data_->mutex);
        bool inTime = true;
        while (data_->underWay > 0 && inTime)
        {
            inTime = data_->changed.WaitUntil(data_->mutex, deadline);
        }
        return data_->underWay == 0;
    }

private:
    struct Data
    {
        Mutex mutex;
        CondVar changed;
        std::size_t underWay KX_GUARDED_BY(mutex) = 0;
    };

    const std::shared_ptr<Data> data_ = std::make_shared<Data>();
};

}  // namespace kx::velmor::testing
