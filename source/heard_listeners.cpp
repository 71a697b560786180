#include "source/heard_listeners.h"

#include <algorithm>
#include <utility>

namespace kx::velmor {

HeardListeners::Listener::Listener(ElectionSession::HeardListener callback)
    : callback_(std::make_shared<const ElectionSession::HeardListener>(std::move(callback)))
{}

void HeardListeners::Listener::Tell(std::int64_t sessionId, BootClock::time_point leaseEnd) const
{
    std::shared_ptr<const ElectionSession::HeardListener> callback;
    {
        const MutexLock lock(mutex_);
        callback = callback_;
    }
    if (callback)
    {
        (*callback)(sessionId, leaseEnd);
    }
}

void HeardListeners::Listener::Cancel()
{
    std::shared_ptr<const ElectionSession::HeardListener> callback;
    const MutexLock lock(mutex_);
    // Destroyed after the lock: its captures may cancel something else.
    callback.swap(callback_);
}

HeardListeners::Shared HeardListeners::Add(ElectionSession::HeardListener callback)
{
    auto listener = std::make_shared<Listener>(std::move(callback));
    const MutexLock lock(mutex_);
    std::vector<Shared> listeners = *list_;
    listeners.push_back(listener);
    list_ = std::make_shared<const std::vector<Shared>>(std::move(listeners));
    return listener;
}

void HeardListeners::Remove(const Shared& listener)
{
    listener->Cancel();
    const MutexLock lock(mutex_);
    std::vector<Shared> listeners = *list_;
    listeners.erase(std::remove(listeners.begin(), listeners.end(), listener), listeners.end());
    list_ = std::make_shared<const std::vector<Shared>>(std::move(listeners));
}

void HeardListeners::RemoveAll()
{
    List removed = std::make_shared<const std::vector<Shared>>();
    {
        const MutexLock lock(mutex_);
        removed.swap(list_);
    }
    for (const Shared& listener : *removed)
    {
        listener->Cancel();
    }
}

HeardListeners::List HeardListeners::All() const
{
    const MutexLock lock(mutex_);
    return list_;
}

}  // namespace kx::velmor
