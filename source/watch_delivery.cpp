#include "source/watch_delivery.h"

#include "source/session_log.h"

#include <exception>
#include <memory>
#include <mutex>
#include <utility>

namespace kx::velmor {

namespace {

using logging::LogLevel;

/// The state's callback, which stays in place for later events; empty when nothing may be delivered.
Connection::WatchCallback CopyCallback(const std::weak_ptr<WatchRegistry::Watch>& weak)
{
    const WatchRegistry::State watch = weak.lock();
    if (!watch || !watch->Held())
    {
        return Connection::WatchCallback();
    }
    const std::lock_guard<std::mutex> lock(watch->mutex);
    return watch->active && watch->hasCallback ? watch->callback : Connection::WatchCallback();
}

/// Runs the callbacks of the states that are still held, one after the other. Nothing that one throws leaves this.
void Tell(const WatchRegistry::WeakStates& watches, int type, int state, const std::string& path,
          const ClosedCheck& closed)
{
    for (const std::weak_ptr<WatchRegistry::Watch>& watch : watches)
    {
        try
        {
            // Only now: a callback that checks again arms anew and releases the states that it held.
            const Connection::WatchCallback callback = CopyCallback(watch);
            if (callback && !closed())
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
}

}  // namespace

void TellSessionEvent(const WatchRegistry& watches, WatchRegistry::Position position, int state,
                      const ClosedCheck& closed)
{
    Tell(watches.Snapshot(position), ZOO_SESSION_EVENT, state, std::string(), closed);
}

void TellNodeEvent(WatchRegistry& watches, WatchRegistry::Position position, int type, int state,
                   const std::string& path, const std::string& nodePath, const ClosedCheck& closed)
{
    Tell(watches.Consume(path, position), type, state, nodePath, closed);
}

void DropWatches(WatchRegistry& watches)
{
    for (const WatchRegistry::State& state : watches.TakeAll())
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

}  // namespace kx::velmor
