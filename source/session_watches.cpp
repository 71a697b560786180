// Session events and node events on their way from the client library to the watch callbacks.

#include "source/session_core.h"
#include "source/watch_delivery.h"

namespace kx::velmor {

void SessionCore::RunEventThread()
{
    events_.Run([this] { return ReadRegularly(); });
    DropWatches(watches_);
}

/// In place of the client library's heartbeats, whose answers it keeps to itself: the first write after a long silence
/// would prove little (see `SessionLifetime`).
Clock::time_point SessionCore::ReadRegularly()
{
    std::shared_ptr<ClientHandle> handle;
    Clock::time_point next;
    {
        const MutexLock lock(mutex_);
        const Clock::time_point now = Clock::now();
        const Clock::duration interval = SessionLifetime::ReadInterval(StatusNow().minTimeout);
        if (phase_ == SessionState::Connected && handle_ && readAt_ <= now)
        {
            handle = handle_;
            readAt_ = now + interval;
        }
        next = std::max(readAt_, now + interval / 4);
    }
    if (handle)
    {
        handle->ReadNothing(std::make_shared<Request>());
    }
    return next;
}

void SessionCore::PostSessionEvent(int state)
{
    events_.Post([this, state, position = watches_.Now()] { DeliverSessionEvent(state, position); });
}

void SessionCore::DeliverSessionEvent(int state, WatchRegistry::Position position)
{
    TellSessionEvent(watches_, position, state, [this] { return Closed(); });
    DropReleasedWatches();
}

void SessionCore::DeliverNodeEvent(int type, int state, const std::string& path, WatchRegistry::Position position)
{
    const std::string nodePath = path.size() > options_.rootPath.size() ? path.substr(options_.rootPath.size()) : "/";
    TellNodeEvent(watches_, position, type, state, path, nodePath, [this] { return Closed(); });
    DropReleasedWatches();
    // The event may have ended a watch that was armed in the client library only after it.
    Unwatch(path);
}

void SessionCore::DropReleasedWatches()
{
    const std::shared_ptr<ClientHandle> handle = Handle();
    // Destroyed here, with no lock held: the callbacks' captures may destroy anything.
    const WatchRegistry::States released = watches_.TakeReleased([&](const std::string& path) {
        if (handle)
        {
            handle->ForgetWatch(path);
        }
    });
}

void SessionCore::Unwatch(const std::string& path) const
{
    const std::shared_ptr<ClientHandle> handle = Handle();
    watches_.UnwatchIfUnwatched(path, [&](const std::string& unwatched) {
        if (handle)
        {
            handle->ForgetWatch(unwatched);
        }
    });
}

bool SessionCore::Connected() const
{
    const MutexLock lock(mutex_);
    return phase_ == SessionState::Connected;
}

bool SessionCore::Closed() const
{
    const MutexLock lock(mutex_);
    return phase_ == SessionState::Closed;
}

std::shared_ptr<ClientHandle> SessionCore::Handle() const
{
    const MutexLock lock(mutex_);
    return handle_;
}

}  // namespace kx::velmor
