#pragma once

#include "source/fork_mark.h"
#include "source/sync.h"

#include <kx/velmor/registration.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace kx::velmor::testing {

/// Who wants to be told something. Registrations may outlive it.
///
/// Threads: any.
template <typename... News>
class ListenerList
{
public:
    using Callback = std::function<void(News...)>;

    /// No call begins any more once the registration is cancelled; one that runs goes on.
    Registration Add(Callback callback)
    {
        const auto listener = std::make_shared<const Callback>(std::move(callback));
        const MutexLock lock(data_->mutex);
        data_->listeners.push_back(listener);
        return Registration([data = data_, weak = std::weak_ptr<const Callback>(listener)] {
            if (data->made.Inherited())
            {
                return;
            }
            // Destroyed after the lock: its captures may cancel something else.
            const Listener gone = weak.lock();
            const MutexLock cancelLock(data->mutex);
            auto& all = data->listeners;
            all.erase(std::remove(all.begin(), all.end(), gone), all.end());
        });
    }

    /// Calls all, with no lock held.
    void Tell(News... news) const
    {
        for (const std::weak_ptr<const Callback>& weak : Snapshot())
        {
            if (const Listener listener = Find(weak))
            {
                (*listener)(news...);
            }
        }
    }

private:
    using Listener = std::shared_ptr<const Callback>;

    struct Data
    {
        const ForkMark made{};
        Mutex mutex;
        std::vector<Listener> listeners KX_GUARDED_BY(mutex);
    };

    std::vector<std::weak_ptr<const Callback>> Snapshot() const
    {
        const MutexLock lock(data_->mutex);
        return {data_->listeners.begin(), data_->listeners.end()};
    }

    /// Null once it is cancelled, although a call of it may still run elsewhere.
    Listener Find(const std::weak_ptr<const Callback>& weak) const
    {
        Listener listener = weak.lock();
        Data& data = *data_;
        const MutexLock lock(data.mutex);
        const auto found = std::find(data.listeners.begin(), data.listeners.end(), listener);
        return found != data.listeners.end() ? listener : nullptr;
    }

    const std::shared_ptr<Data> data_ = std::make_shared<Data>();
};

}  // namespace kx::velmor::testing
