// Session events and node events on their way from the client library to the watch callbacks.

#include "source/session_core.h"
#include "source/session_log.h"

#include <exception>
#include <utility>

namespace kx::velmor {

namespace {

using logging::LogLevel;
using WatchState = Connection::WatchState;

/// The callback, left in place for the next event; empty when nothing may be delivered.
Connection::WatchCallback CopyCallback(WatchState& state)
{
    const std::lock_guard<std::mutex> lock(state.mutex);
    return state.active && state.hasCallback ? state.callback : Connection::WatchCallback();
}

/// The callback, which a node event uses up; empty when nothing may be delivered.
Connection::WatchCallback TakeCallback(WatchState& state)
{
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (!state.active || !state.hasCallback)
    {
        return Connection::WatchCallback();
    }
    state.hasCallback = false;
    return std::exchange(state.callback, nullptr);
}

}  // namespace

void SessionCore::RunEventThread()
{
    events_.Run();
    DropAllWatches();
}

void SessionCore::PostSessionEvent(int state)
{
    events_.Post([this, state, position = watches_.Now()] { DeliverSessionEvent(state, position); });
}

void SessionCore::DeliverSessionEvent(int state, WatchRegistry::Position position)
{
    // A callback that checks again arms anew and lets go of what it held, so each state is looked at just before its
    // turn: who was let go of meanwhile is not told.
    for (const std::weak_ptr<WatchState>& weak : watches_.Snapshot(position))
    {
        const auto fetch = [&] {
            const WatchRegistry::State held = weak.lock();
            // This reference, the registry's and the handle's.
            constexpr int kHeld = 3;
            return held && held.use_count() >= kHeld ? CopyCallback(*held) : Connection::WatchCallback();
        };
        RunCallback(fetch, ZOO_SESSION_EVENT, state, std::string());
    }
    DropReleasedWatches();
}

void SessionCore::DeliverNodeEvent(int type, int state, const std::string& path, WatchRegistry::Position position)
{
    const std::string nodePath = path.size() > options_.rootPath.size() ? path.substr(options_.rootPath.size()) : "/";
    for (WatchRegistry::State& consumed : watches_.Consume(path, position))
    {
        const auto fetch = [&] {
            // This reference and the handle's.
            constexpr int kHeld = 2;
            return consumed.use_count() >= kHeld ? TakeCallback(*consumed) : Connection::WatchCallback();
        };
        RunCallback(fetch, type, state, nodePath);
        consumed.reset();
    }
    DropReleasedWatches();
    // The event may have used up a state whose watch was armed only after it.
    Unwatch(path);
}

void SessionCore::RunCallback(const std::function<Connection::WatchCallback()>& fetch, int type, int state,
                              const std::string& path) const
{
    try
    {
        const Connection::WatchCallback callback = fetch();
        if (callback && !Closed())
        {
            callback(type, state, path);
        }
    }
    catch (const std::exception& error)
    {
        KX_LOG(LogLevel::Error, SessionLog()) << "A watch callback threw: " << error.what();
    }
    catch (...)
    {
        KX_LOG(LogLevel::Error, SessionLog()) << "A watch callback threw something that is no std::exception";
    }
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

void SessionCore::DropAllWatches()
{
    for (const WatchRegistry::State& state : watches_.TakeAll())
    {
        Connection::WatchCallback callback;
        const std::lock_guard<std::mutex> lock(state->mutex);
        state->active = false;
        if (state->hasCallback)
        {
            state->hasCallback = false;
            callback = std::exchange(state->callback, nullptr);
        }
    }
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
