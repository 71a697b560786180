#pragma once

#include "source/event_loop.h"
#include "source/fork_mark.h"
#include "source/state_listeners.h"
#include "source/sync.h"
#include "source/testing/activity.h"
#include "source/testing/listener_list.h"
#include "source/testing/node_tree.h"
#include "source/watch_registry.h"

#include <kx/velmor/testing/memory_service.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::testing {

/// One `MemorySession`, as it and its service know it. Its event thread keeps it alive.
struct MemorySessionRecord : std::enable_shared_from_this<MemorySessionRecord>
{
    MemorySessionRecord(std::shared_ptr<MemoryServiceCore> itsService, MemorySessionOptions itsOptions)
        : service(std::move(itsService)), options(std::move(itsOptions))
    {}

    /// The path in the tree.
    std::string InTree(const std::string& path, bool sequential = false) const
    {
        // "/" names the root itself, except where a sequence number follows.
        return path == "/" && !sequential && !options.rootPath.empty() ? options.rootPath : options.rootPath + path;
    }

    // Constant.
    const ForkMark made{};
    const std::shared_ptr<MemoryServiceCore> service;
    const MemorySessionOptions options;

    // Synchronise themselves.
    EventLoop events{};
    WatchRegistry watches{};
    StateListeners listeners{};
    ListenerList<std::int64_t, BootClock::time_point> heard{};
    ListenerList<std::int64_t> endings{};

    /// Held while `heard` is told, so that its listeners never hear of an older end of the lease after a newer one.
    /// Taken before the service's mutex.
    Mutex telling{};

    // Guarded by the service's mutex.

    SessionStatus status{};
    bool cut = false;
    bool losesReply = false;
    /// How often `KeepFresh` is in force.
    int freshHolds = 0;
    BootClock::time_point refreshAt{};
    /// The paths on which the service has a watch for this session, and whether there was a node when it was cut off.
    std::map<std::string, bool> watched{};
    /// The last transaction before that.
    std::int64_t cutAfter = 0;
    std::vector<std::string> pendingDeletes{};
};

/// What `MemoryService` is made of. Lives for as long as one of its sessions.
///
/// Threads: any.
class MemoryServiceCore : public std::enable_shared_from_this<MemoryServiceCore>
{
public:
    using Record = MemorySessionRecord;

    MemoryServiceCore();

    // See `MemoryService`.
    std::shared_ptr<Record> Open(MemorySessionOptions options);
    void Expire(Record& session);
    void Cut(Record& session);
    void Heal(Record& session);
    void LoseReply(Record& session);
    void Refuse(const std::string& path, int code);
    void Advance(BootClock::duration time);
    BootClock::time_point Now() const noexcept { return BootClock::time_point(BootClock::duration(now_)); }
    int Add(const std::string& path, const std::string& data);
    int Set(const std::string& path, const std::string& data);
    int Delete(const std::string& path);
    std::optional<NodeTree::Node> Find(const std::string& path) const;
    int Children(const std::string& path, std::vector<std::string>& children) const;
    bool AwaitQuiet(Clock::time_point deadline) const { return activity_.AwaitEnd(deadline); }

    // See `MemorySession`. All paths are the tree's.

    /// Without `wait`, a callback may still be running afterwards.
    void Close(Record& session, bool wait);
    SessionStatus Status(const Record& session) const;
    Registration OnStateChange(Record& session, ElectionSession::StateListener listener);
    Registration KeepFresh(Record& session);
    Registration OnClockJump(std::function<void()> listener) { return jumps_.Add(std::move(listener)); }

    int Create(Record& session, const std::string& path, const std::string& data, const ACL_vector& acl, int flags,
               std::string& created);
    int GetChildren(Record& session, const std::string& path, std::vector<std::string>& children);
    int Look(Record& session, const std::string& path, NodeTree::Node& node);
    int Watch(Record& session, const std::string& path, const WatchRegistry::State& state, NodeTree::Node& node);
    int GuaranteedDelete(Record& session, const std::string& path);
    /// With a `sessionId`, in that session only.
    int Transact(Record& session, std::optional<std::int64_t> sessionId, const std::vector<Operation>& operations,
                 TransactionResult& result);

private:
    /// A session that was heard from, which its listeners are told once the lock is released.
    struct Heard
    {
        std::shared_ptr<Record> session;
        std::int64_t id;
        BootClock::time_point leaseEnd;
    };
    using AllHeard = std::vector<Heard>;

    static void Tell(const AllHeard& allHeard);

    // Sessions: memory_service_core.cpp

    void Post(Record& session, EventLoop::Task task);
    /// Takes the session to `state`, and tells its listeners.
    void Change(Record& session, SessionState state) KX_REQUIRES(mutex_);
    void Disconnect(Record& session) KX_REQUIRES(mutex_);
    /// The owner of a session that is cut off learns how it stands with it.
    void Reconnect(Record& session, AllHeard& heard) KX_REQUIRES(mutex_);
    void BeginSession(Record& session) KX_REQUIRES(mutex_);
    /// The service has it no more.
    void EndSession(std::int64_t id) KX_REQUIRES(mutex_);
    /// The service knows since now that it lives.
    void NoteHeard(Record& session, AllHeard& heard) KX_REQUIRES(mutex_);
    void TellEnding(const Record& session, std::int64_t before) const;
    void RefreshIfDue(Record& session, AllHeard& heard) KX_REQUIRES(mutex_);
    BootClock::time_point NextDue() const KX_REQUIRES(mutex_);
    void DoWhatIsDue(AllHeard& heard) KX_REQUIRES(mutex_);

    // Watches: memory_watches.cpp

    void PostSessionEvent(Record& session, int state) KX_REQUIRES(mutex_);
    void PostNodeEvent(Record& session, int type, const std::string& path) KX_REQUIRES(mutex_);
    /// Tells whoever watches the node, and is not cut off.
    void OnChange(int type, const std::string& path) KX_REQUIRES(mutex_);
    /// Tells a session that is connected again what became of the nodes that it watches.
    void TellMissedChanges(Record& session) KX_REQUIRES(mutex_);
    /// Lets go of the states whose handles are gone, and of the service's watches behind them.
    void DropReleasedWatches(Record& session);

    // Operations: memory_operations.cpp

    /// Whether an operation on `path` gets as far as the tree, and what it returns when it does not.
    int Reach(const Record& session, const std::string& path) const KX_REQUIRES(mutex_);
    int Refusal(const std::string& path) const KX_REQUIRES(mutex_);
    void BeginTransaction() KX_REQUIRES(mutex_);
    int CreateNode(const std::string& path, const std::string& data, std::int64_t owner, bool sequential,
                   std::string& created) KX_REQUIRES(mutex_);
    int DeleteNode(const std::string& path) KX_REQUIRES(mutex_);
    /// Makes the missing nodes of the session's root, of which `path`, about to be made, may itself be the last.
    /// `ZNONODE` when that is not what `path` lacks.
    int CreateRoot(const Record& session, const std::string& path) KX_REQUIRES(mutex_);
    /// All operations, or none; `created` and `refused` as in `TransactionResult`.
    int Apply(const Record& session, const std::vector<Operation>& operations, TransactionResult& result)
        KX_REQUIRES(mutex_);
    int ApplyOne(const Record& session, const Operation& operation, std::string& created) KX_REQUIRES(mutex_);
    /// What the session gets of a write's code.
    int Answer(Record& session, int rc, AllHeard& heard) KX_REQUIRES(mutex_);
    void RetryDeletes(Record& session, AllHeard& heard) KX_REQUIRES(mutex_);

    std::atomic<BootClock::rep> now_;
    /// Which time of day `now_` began at.
    const std::int64_t epochMilliseconds_;
    Activity activity_;
    ListenerList<> jumps_;

    mutable Mutex mutex_;
    NodeTree tree_ KX_GUARDED_BY(mutex_);
    /// Those that are not closed.
    std::vector<std::shared_ptr<Record>> sessions_ KX_GUARDED_BY(mutex_);
    /// The sessions that the service has, by number, and when it ends those that are cut off.
    std::map<std::int64_t, std::optional<BootClock::time_point>> alive_ KX_GUARDED_BY(mutex_);
    std::int64_t lastSession_ KX_GUARDED_BY(mutex_);
    std::map<std::string, int> refused_ KX_GUARDED_BY(mutex_);
};

}  // namespace kx::velmor::testing
