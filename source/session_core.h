#pragma once

#include "source/access_list.h"
#include "source/backoff.h"
#include "source/client_handle.h"
#include "source/event_loop.h"
#include "source/fork_mark.h"
#include "source/heard_listeners.h"
#include "source/server_list.h"
#include "source/session_lifetime.h"
#include "source/state_listeners.h"
#include "source/sync.h"
#include "source/watch_registry.h"

#include <kx/velmor/session.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kx::velmor {

/// What `Session` is made of. It outlives the `Session` for as long as one of its threads runs.
///
/// All paths here are the servers' own, root included.
///
/// Three kinds of thread meet here: callers of operations; the client library's, which report through `ClientEvents`
/// and must not block; and the event thread. A keeper thread comes and goes: it exists while something has to be done
/// about the session itself (to open a handle, to give up a session that nobody answers for, to repeat deletions, to
/// keep it fresh), so that a callback which occupies the event thread cannot hold that up.
class SessionCore final : private ClientEvents, public std::enable_shared_from_this<SessionCore>
{
public:
    /// Checks the options, starts, and waits for a first connection. See `Session::Open`.
    static std::shared_ptr<SessionCore> Open(SessionOptions options);
    /// See `Session::OpenInBackground`.
    static std::shared_ptr<SessionCore> OpenInBackground(SessionOptions options);

    SessionCore(SessionOptions options, std::vector<Server> servers);
    ~SessionCore() = default;
    SessionCore(const SessionCore&) = delete;
    SessionCore& operator=(const SessionCore&) = delete;

    /// Whether this is a forked child's copy: threads do not exist, locks may be held for ever, and the connection is
    /// the parent's. Nothing else here is to be called then, except `Options` and `Access`.
    bool Inherited() const noexcept { return made_.Inherited(); }

    /// See `Session::Close`. Without `wait`, a callback may still be running afterwards.
    void Close(bool wait);

    const SessionOptions& Options() const { return options_; }
    const AccessList& Access() const { return accessList_; }
    std::unique_ptr<clientid_t> ClientId() const;

    // See `Session`.
    SessionStatus Status() const;
    Registration OnStateChange(ElectionSession::StateListener callback);
    Registration OnHeard(ElectionSession::HeardListener callback);
    Registration OnEnding(ElectionSession::EndingListener callback);
    Registration KeepFresh();

    int Create(const std::string& path, const std::string& data, const ACL_vector& acl, int flags,
               std::string& createdPath);
    int GetChildren(const std::string& path, std::vector<std::string>& children);
    int Exists(const std::string& path, Stat* stat);
    int GetData(const std::string& path, std::string& data, Stat* stat);
    /// With a `sessionId`, in that session only.
    int Transact(std::optional<std::int64_t> sessionId, const std::vector<Operation>& operations, const ACL_vector& acl,
                 TransactionResult& result);
    int WatchExists(const std::string& path, const WatchRegistry::State& state, Stat* stat);
    /// Waits until `deadline`, and lets the deletion go on after it.
    int GuaranteedDelete(const std::string& path, Clock::time_point deadline);

    /// When an operation that begins now must be over.
    Clock::time_point Deadline() const;

private:
    /// A connection as an operation found it.
    struct LiveConnection
    {
        int rc;
        std::shared_ptr<ClientHandle> handle{};
        std::uint64_t generation = 0;
        std::uint64_t connection = 0;
        bool synced = false;
        bool deletesPending = false;
    };

    struct PendingDelete
    {
        explicit PendingDelete(std::string nodePath) : path(std::move(nodePath)) {}

        const std::string path;
        bool inFlight = false;
        /// Set once the caller has gone.
        bool abandoned = false;
        int attempts = 0;
        Clock::time_point retryAt{};
        /// Set once the outcome is known or the session over.
        bool done = false;
        /// The code of the last attempt.
        int rc = ZCONNECTIONLOSS;
    };
    using PendingDeletes = std::vector<std::shared_ptr<PendingDelete>>;

    /// Whether an operation may be repeated when its outcome is unknown.
    enum class Kind
    {
        Read,
        Write,
    };
    using Submission = std::function<int(ClientHandle&, const std::shared_ptr<Request>&)>;
    struct Answer
    {
        int rc;
        std::shared_ptr<Request> request;
    };

    // Phases: session_core.cpp

    SessionStatus StatusNow() const KX_REQUIRES(mutex_);
    /// Takes an edge of the phase table, tells listeners, and says so in the log.
    void Advance(SessionState to, const std::string& detail) KX_REQUIRES(mutex_);
    /// Ends the session of this generation: what is reported of it later is dropped, its watches are told `state`.
    void EndSession(int state, const std::string& detail) KX_REQUIRES(mutex_);
    void TellEnding(std::int64_t sessionId) KX_EXCLUDES(mutex_);
    Registration AddListener(HeardListeners SessionCore::*listeners, ElectionSession::HeardListener callback);
    /// Tells listeners that the end of the lease has changed.
    void TellLeaseEnd(std::int64_t sessionId, BootClock::time_point leaseEnd) KX_EXCLUDES(mutex_);
    void Note(const SessionEvent& event) KX_REQUIRES(mutex_);
    void OnSessionEvent(std::uint64_t generation, const SessionEvent& event) noexcept override;
    void OnNodeEvent(std::uint64_t generation, int type, int state, const char* path) noexcept override;
    void OnLateWatch(std::uint64_t generation, const std::string& path) noexcept override;
    void OnServerAnswer(std::uint64_t generation, BootClock::time_point sent, bool agreed) noexcept override;

    // Watches: session_watches.cpp

    void RunEventThread();
    /// Sends a read when one is due. Returns when the next one is.
    Clock::time_point ReadRegularly();
    void PostSessionEvent(int state) KX_REQUIRES(mutex_);
    void DeliverSessionEvent(int state, WatchRegistry::Position position);
    void DeliverNodeEvent(int type, int state, const std::string& path, WatchRegistry::Position position);
    /// Lets go of the states whose handles are gone, and of the client library's watches behind them.
    void DropReleasedWatches();
    void Unwatch(const std::string& path) const;
    bool Connected() const;
    bool Closed() const;
    std::shared_ptr<ClientHandle> Handle() const;

    // The keeper: session_keeper.cpp

    enum class Duty
    {
        None,
        OpenHandle,
        RepeatDeletes,
        Refresh,
    };

    /// Makes sure that a keeper runs.
    void EnsureKeeper() KX_REQUIRES(mutex_);
    void Keep();
    /// Waits until there is something to do; `None` ends the keeper. A handle to be replaced goes into `finished`.
    /// `standingIn`: on the event thread, which stays no longer than it has to.
    Duty AwaitDuty(bool standingIn, std::shared_ptr<ClientHandle>& finished);
    /// What is to be done while connected. With `None`, when to look again: `time_point::max` for never.
    std::pair<Duty, Clock::time_point> DutyWhileConnected() const KX_REQUIRES(mutex_);
    /// Sends the write that keeps the lease long.
    void Refresh();
    void OnRefreshed(std::uint64_t connection);
    void OpenHandle(std::shared_ptr<ClientHandle> finished);
    /// Waits where the next handle would follow the last one too soon.
    void PaceReopening();
    /// Numeric addresses of the servers: the last known ones while they cannot be looked up, empty if there are none.
    std::string AwaitAddresses();
    void OnAddresses(std::uint64_t ticket, const Addresses& addresses);
    void Pause(std::chrono::milliseconds delay);

    // Operations: session_operations.cpp

    /// With a `generation`, fails as soon as that one is over; with a `sessionId`, as soon as that session is.
    LiveConnection AwaitConnection(std::optional<std::uint64_t> generation, std::optional<std::int64_t> sessionId,
                                   Clock::time_point deadline);
    Answer Call(Kind kind, const std::string& path, Clock::time_point deadline, const Submission& submit,
                std::optional<std::int64_t> sessionId = std::nullopt);
    /// One request, sent over the connection of `live`.
    Answer Attempt(Kind kind, const LiveConnection& live, const std::string& path, Clock::time_point deadline,
                   const Submission& submit);
    Answer CreateOnce(const std::string& path, const std::string& data, const ACL_vector& acl, int flags,
                      Clock::time_point deadline);
    Answer TransactOnce(std::optional<std::int64_t> sessionId, const std::vector<Operation>& operations,
                        const ACL_vector& acl, Clock::time_point deadline);
    /// Whether a creation of `path` that found no parent is to be repeated once the root is there.
    bool MissesRoot(const std::string& path) const;
    /// False when there is no room for another watched path.
    bool AddWatch(const std::string& path, const WatchRegistry::State& state);
    Answer ExistsBefore(const std::string& path, Clock::time_point deadline);
    /// The code that a caller gets for what the client library said.
    int Settle(int rc, std::uint64_t generation) const;
    /// Whether a read's answer came over the connection on which it was asked; remembers that it was synchronised.
    bool Trustworthy(const LiveConnection& live, bool synced);
    void AwaitNewConnection(const LiveConnection& live, std::chrono::milliseconds delay, Clock::time_point deadline);
    /// Makes the nodes of the root, of which `path`, about to be made, may itself be the last.
    int CreateRoot(const std::string& path, Clock::time_point deadline);

    // Deletions: session_deletes.cpp

    /// Sends the deletions that are pending and not under way; with `dueOnly` those whose time has come.
    void SubmitDeletes(bool dueOnly) KX_EXCLUDES(submittingDeletes_);
    void OnDeleted(const std::shared_ptr<PendingDelete>& deletion, int rc);
    /// When the next deletion is to be tried again.
    Clock::time_point NextDelete() const KX_REQUIRES(mutex_);
    void FinishDelete(PendingDelete& deletion, int rc) KX_REQUIRES(mutex_);
    /// Ends all that are pending.
    void FinishDeletes(int rc) KX_REQUIRES(mutex_);

    const ForkMark made_;
    const SessionOptions options_;
    const std::vector<Server> servers_;
    const bool numericServers_;
    const AccessList accessList_;

    EventLoop events_;
    WatchRegistry watches_;
    StateListeners listeners_;
    HeardListeners heardListeners_;
    /// Told no time.
    HeardListeners endingListeners_;

    /// The delays between attempts to open a handle. Of the keeper alone.
    Backoff reopening_;

    /// Held while deletions are handed to the client library, so that what is asked later is asked after them.
    /// Taken before `mutex_`.
    Mutex submittingDeletes_;

    mutable Mutex mutex_;
    /// Notified of every change below.
    CondVar changed_;
    SessionState phase_ KX_GUARDED_BY(mutex_) = SessionState::Connecting;
    bool closeDone_ KX_GUARDED_BY(mutex_) = false;
    std::shared_ptr<ClientHandle> handle_ KX_GUARDED_BY(mutex_);
    /// Counts handles, and ends of sessions: what is reported of an older one is late.
    std::uint64_t generation_ KX_GUARDED_BY(mutex_) = 0;
    /// Counts connections, over all handles.
    std::uint64_t connection_ KX_GUARDED_BY(mutex_) = 0;
    /// The connection on which reads are known to see all earlier writes. The first one has no earlier writes.
    std::uint64_t syncedConnection_ KX_GUARDED_BY(mutex_) = 1;
    std::optional<clientid_t> identity_ KX_GUARDED_BY(mutex_);
    /// Outlives `identity_` until the next session is asked for.
    std::int64_t sessionId_ KX_GUARDED_BY(mutex_) = 0;
    SessionLifetime lifetime_ KX_GUARDED_BY(mutex_);
    std::chrono::milliseconds negotiatedTimeout_ KX_GUARDED_BY(mutex_);
    /// Since when no server has answered.
    Clock::time_point silentSince_ KX_GUARDED_BY(mutex_);
    /// When the present handle was opened.
    std::optional<Clock::time_point> openedAt_ KX_GUARDED_BY(mutex_);
    /// Whether the session that ended last had been granted, and was not refused.
    bool endedInOrder_ KX_GUARDED_BY(mutex_) = false;
    bool keeperRunning_ KX_GUARDED_BY(mutex_) = false;
    std::thread::id keeperThread_ KX_GUARDED_BY(mutex_);
    /// What the last look-up that succeeded gave.
    std::string addresses_ KX_GUARDED_BY(mutex_);
    std::uint64_t lookUpsAsked_ KX_GUARDED_BY(mutex_) = 0;
    std::uint64_t lookUpsAnswered_ KX_GUARDED_BY(mutex_) = 0;
    PendingDeletes pendingDeletes_ KX_GUARDED_BY(mutex_);
    /// How often `KeepFresh` is in force.
    int freshHolds_ KX_GUARDED_BY(mutex_) = 0;
    bool refreshing_ KX_GUARDED_BY(mutex_) = false;
    Clock::time_point refreshAt_ KX_GUARDED_BY(mutex_){};
    Clock::time_point readAt_ KX_GUARDED_BY(mutex_){};
};

}  // namespace kx::velmor
