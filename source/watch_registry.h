#pragma once

#include "source/sync.h"

#include <kx/velmor/connection.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace kx::velmor {

/// The watch states of a session by the path that they watch: the connection's share of each.
///
/// A node event ends a state's watch on its path. The state stays listed for session events until its handle releases
/// it: the owner's reaction to the node event may have failed for lack of a connection, and the reconnection is then
/// the only event that still comes.
///
/// A state that its handle has let go of is dropped by `TakeReleased`. It says so itself, so that looking for such
/// states, which every operation does, costs nothing per state that is held.
/// No lock is held when a state, and so perhaps a callback, is destroyed: what is dropped is returned to the caller.
///
/// Threads: any.
class WatchRegistry
{
public:
    class Watch;
    using State = std::shared_ptr<Watch>;
    using States = std::list<State>;
    /// States that are not kept alive.
    using WeakStates = std::vector<std::weak_ptr<Watch>>;

    /// An armed watch state. There is one handle to it, which owns what `ForHandle` returns.
    class Watch : public Connection::WatchState
    {
    public:
        explicit Watch(Connection::WatchCallback function);

        /// To be called once.
        static std::shared_ptr<Connection::WatchState> ForHandle(const State& watch);

        /// False once the handle has let go of it, for good.
        bool Held() const { return held_; }

    private:
        friend class WatchRegistry;
        struct Released;
        static void LetGo(State watch) noexcept;

        std::atomic<bool> held_{true};

        // Written under the registry's lock. First, because who looks through many states looks at nothing else.

        std::atomic<bool> listed_{false};
        /// The registry's key; null when the state watches no path.
        const std::string* path_ = nullptr;
        std::uint64_t added_ = 0;
        /// In the registry's list of its path, or in `fired_`.
        States::iterator where_;

        // Of whoever adds it, and then of whoever lets go of it.

        std::weak_ptr<Released> released_;
        /// Room in the list of those that are taken, so that letting go cannot fail.
        States place_;
        Watch* next_ = nullptr;
    };

    /// A position in the order of arming and arriving: what is added after `Now` was called is not older than it.
    using Position = std::uint64_t;

    /// Called with a path that no state watches any more. Runs under the registry's lock, which keeps a new watch on
    /// the same path out until it is through, and must not block.
    using Unwatch = std::function<void(const std::string& path)>;

    WatchRegistry();

    Position Now() const;

    /// False when `path` is new and there is no room for it: after each loss of the connection the client library shows
    /// all watched paths to the next server in one request, and a server drops the connection of whoever sends it more
    /// than 1 MiB, so that one path too many would keep the session from ever connecting again.
    ///
    /// The caller holds the handle meanwhile.
    bool Add(const std::string& path, const State& state);

    /// Drops one state, before or after its node event. Does nothing for a state that is not listed.
    void Remove(const State& state);

    /// Ends the watch on `path` of the states that were added to it before `position`, and returns these in the order
    /// of adding. They stay listed for `Snapshot` until they are released.
    WeakStates Consume(const std::string& path, Position position);

    /// What was added before `position` and is still held, oldest first: the states that have had their node event
    /// included.
    WeakStates Snapshot(Position position) const;

    /// Drops every state whose handle has let go of it; among what is returned may be some that were dropped before.
    States TakeReleased(const Unwatch& unwatch);

    /// Drops everything.
    States TakeAll();

    /// Calls `unwatch` unless a state watches `path`.
    void UnwatchIfUnwatched(const std::string& path, const Unwatch& unwatch) const;

    /// How many states a handle still holds, before or after their node events.
    std::size_t HeldCount() const;

private:
    using Entries = std::unordered_map<std::string, States>;

    /// Moves a listed state out. Calls `unwatch` if its path is left without states.
    void Unlist(Watch& watch, States& to, const Unwatch& unwatch) KX_REQUIRES(mutex_);

    /// Forgets a path that nobody watches any more.
    void Erase(Entries::iterator path) KX_REQUIRES(mutex_);

    const std::shared_ptr<Watch::Released> released_;

    mutable Mutex mutex_;
    mutable Position now_ KX_GUARDED_BY(mutex_) = 0;
    Entries entries_ KX_GUARDED_BY(mutex_);
    /// States whose watch has ended with a node event.
    States fired_ KX_GUARDED_BY(mutex_);
    /// What the paths take in a request.
    std::size_t bytes_ KX_GUARDED_BY(mutex_) = 0;
};

}  // namespace kx::velmor
