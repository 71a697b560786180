#include "source/state_listeners.h"

#include "source/session_log.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace kx::velmor {

StateListeners::Listener::Listener(ElectionSession::StateListener callback)
    : callback_(std::make_shared<const ElectionSession::StateListener>(std::move(callback)))
{}

void StateListeners::Listener::Tell(const SessionStatus& status)
{
    std::shared_ptr<const ElectionSession::StateListener> callback;
    {
        const MutexLock lock(mutex_);
        callback = status.state == SessionState::Closed ? std::exchange(callback_, nullptr) : callback_;
    }
    if (!callback)
    {
        return;
    }
    try
    {
        (*callback)(status);
    }
    catch (const std::exception& error)
    {
        KX_LOG(logging::LogLevel::Error, SessionLog()) << "A state listener threw: " << error.what();
    }
    catch (...)
    {
        KX_LOG(logging::LogLevel::Error, SessionLog()) << "A state listener threw something that is no std::exception";
    }
}

void StateListeners::Listener::Cancel()
{
    std::shared_ptr<const ElectionSession::StateListener> callback;
    const MutexLock lock(mutex_);
    // Destroyed after the lock: its captures may cancel something else.
    callback.swap(callback_);
}

StateListeners::Shared StateListeners::Add(ElectionSession::StateListener callback)
{
    auto listener = std::make_shared<Listener>(std::move(callback));
    const MutexLock lock(mutex_);
    listeners_.push_back(listener);
    return listener;
}

void StateListeners::Remove(const Shared& listener)
{
    listener->Cancel();
    const MutexLock lock(mutex_);
    listeners_.erase(std::remove(listeners_.begin(), listeners_.end(), listener), listeners_.end());
}

std::vector<StateListeners::Shared> StateListeners::All() const
{
    const MutexLock lock(mutex_);
    return listeners_;
}

}  // namespace kx::velmor
