#pragma once

#include <zookeeper/zookeeper.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor {

/// The coordination service as an election needs it: a few operations on one ZooKeeper session.
///
/// `Session` (session.h) talks to real servers; tests put a tree in memory behind the same face.
///
/// Result codes are plain ZooKeeper codes (`ZOK`, `ZNONODE`, ...); `zerror` gives their text. Operations report through
/// them and do not throw. After `ZCONNECTIONLOSS`, `ZOPERATIONTIMEOUT`, `ZSESSIONEXPIRED` or `ZCLOSING` a change may
/// have happened, or may still happen while the session lives.
///
/// Paths are absolute: "/" or "/a/b", relative to `RootPath()`.
///
/// Threads: every operation may be called from any thread, a watch callback included. Operations may block for round
/// trips to the servers.
class Connection
{
public:
    /// Called with the ZooKeeper event type, the ZooKeeper connection state and the node's path. Session events
    /// (`ZOO_SESSION_EVENT`) have an empty path.
    ///
    /// Runs on the connection's event thread, with no lock of the connection held.
    using WatchCallback = std::function<void(int, int, std::string)>;

    /// One registered watch, shared by the connection and at most one `WatchHandle`.
    ///
    /// The connection locks `mutex` to look for a callback and never while it runs one: callbacks take their owner's
    /// lock, and owners destroy handles while they hold that lock.
    struct WatchState
    {
        /// Guards the fields below.
        std::mutex mutex;
        /// While false, no event is delivered through this state.
        bool active = false;
        /// Set while `callback` holds something that the handle may still drop.
        bool hasCallback = false;
        WatchCallback callback;
    };

    /// The owner's side of one watch. Destroying it disarms the watch: an event that arrives afterwards finds no
    /// callback.
    ///
    /// Move-only. May be destroyed on any thread, also while the connection delivers an event for the same watch; a
    /// delivery that has begun goes on. What the callback captured must not, when destroyed, destroy this same handle.
    class WatchHandle
    {
    public:
        /// An empty handle: no watch.
        WatchHandle() noexcept = default;
        /// A handle for `state`, which the connection has registered.
        explicit WatchHandle(std::shared_ptr<WatchState> state) noexcept;
        WatchHandle(WatchHandle&& other) noexcept = default;
        /// Takes over the other's watch. The watch that this handle held before is let go of, not disarmed: its
        /// callback stays wherever the connection still holds it, and may run once more.
        WatchHandle& operator=(WatchHandle&& other) noexcept = default;
        WatchHandle(const WatchHandle&) = delete;
        WatchHandle& operator=(const WatchHandle&) = delete;
        /// Disarms the watch and destroys its callback, under the state's mutex. Takes no lock when empty.
        ~WatchHandle();

    private:
        std::shared_ptr<WatchState> state_;
    };

    virtual ~Connection() = default;

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// The prefix under which all paths of this connection live: empty, or like "/apps/x". Never blocks.
    virtual const std::string& RootPath() const = 0;

    /// Creates a node with `flags` (a combination of `ZOO_EPHEMERAL` and `ZOO_SEQUENCE`).
    ///
    /// `createdPath` may be null. Otherwise its length on entry is the room for the created path, and after `ZOK` it
    /// holds exactly that path, sequence suffix included and relative to `RootPath()`. A path that does not fit is an
    /// error code, never a truncated name.
    virtual int Create(std::string path, const std::string& data, const ACL_vector& acl, int flags,
                       std::string* createdPath) const = 0;

    /// Fills `children` with the bare names of the node's children, in the service's order.
    virtual int GetChildren(std::string path, std::vector<std::string>& children) const = 0;

    /// Whether there is a node: `ZOK`, with `stat` (which may be null) filled, or `ZNONODE`.
    virtual int Exists(std::string path, Stat* stat) const = 0;

    /// As above, and watches the node: after `ZOK` or `ZNONODE` the callback runs on the node's next event, once, and
    /// on every event of the session, before and after the node's. Both end with the returned handle. The callback may
    /// run before this call returns. After any other code nothing is watched.
    ///
    /// The end of the session ends the watch on the node: a callback that was told "expired" receives only events of
    /// the session, until it is armed again.
    virtual std::pair<int, WatchHandle> Exists(std::string path, WatchCallback callback, Stat* stat) const = 0;

    /// Deletes a node, whatever its version. When the outcome is unknown, goes on trying after the call has returned,
    /// until it is known or the session is over. `ZNONODE` when there was no such node.
    virtual int GuaranteedDelete(std::string path) const = 0;

    /// A copy of the session's identity; empty while there is no session.
    virtual std::unique_ptr<clientid_t> ClientId() const = 0;

protected:
    Connection() = default;
};

}  // namespace kx::velmor
