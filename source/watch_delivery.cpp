#include "source/watch_delivery.h"

#include "source/session_log.h"

#include <exception>
#include <memory>
#include <mutex>
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

/// Runs what `fetch` gets from a state. Nothing that either throws leaves it.
void RunCallback(const std::function<Connection::WatchCallback()>& fetch, int type, int state, const std::string& path,
                 const ClosedCheck& closed)
{
    try
    {
        const Connection::WatchCallback callback = fetch();
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

}  // namespace

void TellSessionEvent(const WatchRegistry& watches, WatchRegistry::Position position, int state,
                      const ClosedCheck& closed)
{
    // A callback that checks again arms anew and lets go of what it held, so each state is looked at just before its
    // turn: who was let go of meanwhile is not told.
    for (const std::weak_ptr<WatchRegistry::Watch>& weak : watches.Snapshot(position))
    {
        const auto fetch = [&] {
            const WatchRegistry::State watch = weak.lock();
            return watch && watch->Held() ? CopyCallback(*watch) : Connection::WatchCallback();
        };
        RunCallback(fetch, ZOO_SESSION_EVENT, state, std::string(), closed);
    }
}

void TellNodeEvent(WatchRegistry& watches, WatchRegistry::Position position, int type, int state,
                   const std::string& path, const std::string& nodePath, const ClosedCheck& closed)
{
    for (WatchRegistry::State& consumed : watches.Consume(path, position))
    {
        const auto fetch = [&] { return consumed->Held() ? TakeCallback(*consumed) : Connection::WatchCallback(); };
        RunCallback(fetch, type, state, nodePath, closed);
        consumed.reset();
    }
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
