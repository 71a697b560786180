#pragma once

#include "source/sync.h"

#include <kx/velmor/connection.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace kx::velmor {

/// The watch states of a session by the path that they watch: the connection's share of each.
///
/// A state whose handle has let go of it (nobody but the registry refers to it) is dropped by `TakeReleased`.
/// No lock is held when a state, and so perhaps a callback, is destroyed: what is dropped is returned to the caller.
///
/// Threads: any.
class WatchRegistry
{
public:
    using State = std::shared_ptr<Connection::WatchState>;
    using States = std::vector<State>;

    /// A position in the order of arming and arriving: what is added after `Now` was called is not older than it.
    using Position = std::uint64_t;

    /// Called with a path that no state watches any more. Runs under the registry's lock, which keeps a new watch on
    /// the same path out until it is through, and must not block.
    using Unwatch = std::function<void(const std::string& path)>;

    Position Now() const;

    /// False when `path` is new and there is no room for it: after each loss of the connection the client library shows
    /// all watched paths to the next server in one request, and a server drops the connection of whoever sends it more
    /// than 1 MiB, so that one path too many would keep the session from ever connecting again.
    bool Add(const std::string& path, const State& state);

    /// Drops one state, armed or not.
    void Remove(const std::string& path, const State& state);

    /// Drops the states that were added to `path` before `position` and returns them.
    States Consume(const std::string& path, Position position);

    /// What was added before `position` and is still held, oldest first, without keeping it alive.
    std::vector<std::weak_ptr<Connection::WatchState>> Snapshot(Position position) const;

    /// Drops every state whose handle has let go of it.
    States TakeReleased(const Unwatch& unwatch);

    /// Drops everything.
    States TakeAll();

    /// Calls `unwatch` unless a state watches `path`.
    void UnwatchIfUnwatched(const std::string& path, const Unwatch& unwatch) const;

    /// How many states a handle still holds.
    std::size_t HeldCount() const;

private:
    struct Entry
    {
        State state;
        Position added;
    };
    using Entries = std::unordered_map<std::string, std::vector<Entry>>;

    /// Forgets a path that nobody watches any more; returns what comes after it.
    Entries::iterator Erase(Entries::iterator path) KX_REQUIRES(mutex_);

    mutable Mutex mutex_;
    mutable Position now_ KX_GUARDED_BY(mutex_) = 0;
    Entries entries_ KX_GUARDED_BY(mutex_);
    /// What the paths take in a request.
    std::size_t bytes_ KX_GUARDED_BY(mutex_) = 0;
};

}  // namespace kx::velmor
