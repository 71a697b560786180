#pragma once

#include <kx/velmor/election_session.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor {

class SessionCore;

/// One entry of an access list: who may do what with a node.
struct AccessRule
{
    /// `ZOO_PERM_READ`, `ZOO_PERM_CREATE`, ... or their sum, `ZOO_PERM_ALL`.
    int permissions = 0;
    /// "auth" with an empty `id` is whoever created the node, "digest" takes "user:<hash>", "ip" an address, "world"
    /// "anyone".
    std::string scheme;
    std::string id;
};

/// What a session is opened with. All durations must be positive.
struct SessionOptions
{
    /// "host:port,host:port": names, IPv4 addresses or IPv6 addresses in brackets. Names are looked up whenever
    /// connections are set up anew, never by the client library.
    std::string servers;
    /// Put in front of every path of the session: empty, or like "/apps/x".
    std::string rootPath{};
    /// How long the servers keep the session and its ephemeral nodes after they last heard from it. The servers may
    /// negotiate another value.
    std::chrono::milliseconds sessionTimeout{10'000};
    /// How long `Open` waits for a first server to answer.
    std::chrono::milliseconds connectTimeout{10'000};
    /// The longest that one operation blocks. Empty: as long as `sessionTimeout`.
    std::optional<std::chrono::milliseconds> operationTimeout{};
    /// Create the nodes of `rootPath` when the first node is created under it and they are missing. When false, that
    /// creation fails with `ZNONODE`.
    bool createRoot = true;
    /// "user:password", shown to every server under the scheme "digest"; empty for none. Crosses the network in clear
    /// and is never logged.
    std::string digestCredentials{};
    /// Given to the nodes that the session creates, those of the root included, in place of the open access list
    /// (`ZOO_OPEN_ACL_UNSAFE`), which grants everything to everybody. Other lists are left as they are. Empty: so is
    /// the open one.
    std::vector<AccessRule> accessList{};
};

/// A live ZooKeeper session: the `ElectionSession` that talks to servers.
///
/// It survives the loss of its connection and of its servers: the client library reconnects within the session, and
/// when the session is over (expired, or several session timeouts without a word from any server) a new one is opened,
/// with back-off and addresses looked up anew. Watches that are still held are told of each such change by session
/// events; ephemeral nodes of the old session are gone or go, and making them and arming watches on nodes again is
/// their owner's business.
///
/// While connected it sends a small read every quarter of the session timeout, in place of the client library's
/// heartbeats, so that the lease that begins with a first write is long enough. A callback that occupies the event
/// thread holds these reads up.
///
/// Threads: three while connected, two of the client library and one event thread, which alone runs watch callbacks, in
/// the order in which events arrived. A fourth exists while there is no connection, a deletion is pending or
/// `KeepFresh` is in force, and a fifth while a name is looked up. A callback may take its time: later callbacks wait,
/// the session lives on. A session that is still open when the process exits runs no callback any more once the static
/// objects begin to go that are older than the process's first session.
///
/// Every operation returns within `operationTimeout`. Reads are repeated after a lost connection, with back-off, until
/// then; writes are not, since they may have happened (but see `GuaranteedDelete`). An operation that was under way
/// when its session ended returns `ZSESSIONEXPIRED`.
///
/// In a forked child, a session of the parent is closed: `Status` says so, operations return `ZCLOSING` at once, and
/// registrations do nothing. `Close` and the destructor return at once, and leak what the session consists of. None of
/// them takes a lock or sends anything, and the parent's session goes on as before. The child may open sessions of its
/// own. It has a copy of the descriptor of the parent's connection, which the client library does not mark
/// close-on-exec: a program that the child executes has it, too.
class Session : public ElectionSession
{
public:
    /// Opens a session and waits until a server has answered.
    ///
    /// Blocks for up to `connectTimeout`. Throws `ZooError(ZBADARGUMENTS)` at once, after a log line that names the
    /// option, when an option is wrong; `ZooError(ZOPERATIONTIMEOUT)` when nobody answered in time.
    static std::shared_ptr<Session> Open(SessionOptions options);

    /// As `Open`, without waiting for a server: for a service that may start before its servers do. Until one answers
    /// the session is `Connecting`, and operations wait for it as they do between sessions.
    ///
    /// Does not block; `connectTimeout` does not matter. Throws `ZooError(ZBADARGUMENTS)` as above.
    static std::shared_ptr<Session> OpenInBackground(SessionOptions options);

    /// Closes the session, as `Close` does.
    ~Session() override;

    /// Ends the session: its ephemeral nodes go, its watch callbacks are dropped, and every operation returns an error
    /// code at once from now on. A second call does nothing but wait for the first.
    ///
    /// Blocks while a callback runs, unless called from one; afterwards no callback runs, except the one that called.
    /// Takes up to three seconds when a server hangs. Threads: any, holding no lock that a watch callback or a state
    /// listener takes.
    void Close() override;

    SessionStatus Status() const override;
    /// As `ElectionSession::OnStateChange`. The last call comes before `Close` returns, on the stack of a callback that
    /// closes the session; on a closed session there is none. It may come later when the session is destroyed by what
    /// destroys the handle of one of its watches.
    Registration OnStateChange(StateListener listener) override;
    /// As `ElectionSession::OnHeard`. Calls come on a thread of the client library. On a closed session there is none;
    /// its listeners are destroyed.
    Registration OnHeard(HeardListener listener) override;
    /// As `ElectionSession::OnEnding`. Calls come on the thread that closes the session, or on one of the client
    /// library.
    Registration OnEnding(EndingListener listener) override;
    /// As `ElectionSession::KeepFresh`. The session sends a request of its own when it is connected, and the next one
    /// an eighth of the smallest granted timeout after the last one was answered. The request is a write that changes
    /// nothing (a transaction that checks for a node that does not exist), since reads prove nothing. It needs no
    /// permission. It costs what a write costs: an entry in the servers' transaction logs.
    Registration KeepFresh() override;

    const std::string& RootPath() const override;
    /// As `Connection::Create`. A request that a server would refuse for its size (1 MiB) is `ZBADARGUMENTS` before it
    /// is sent, and so is room that cannot hold the created path.
    int Create(std::string path, const std::string& data, const ACL_vector& acl, int flags,
               std::string* createdPath) const override;
    int GetChildren(std::string path, std::vector<std::string>& children) const override;
    int GetData(std::string path, std::string& data, Stat* stat) const override;
    int Exists(std::string path, Stat* stat) const override;
    /// As `Connection::Exists`. Also `ZMARSHALLINGERROR`, with nothing sent: the paths that the session watches would
    /// come to more than 1 MB, which servers do not take at a reconnection.
    std::pair<int, WatchHandle> Exists(std::string path, WatchCallback callback, Stat* stat) const override;
    /// As `Connection::GuaranteedDelete`. Reads of this session that start later come after the deletion, also after
    /// one that is still pending.
    int GuaranteedDelete(std::string path) const override;
    /// As `ElectionSession::Transact`. Operations that together make a request which a server would refuse for its size
    /// (1 MiB), or of which one has a path that no node can have, are `ZBADARGUMENTS` before anything is sent. Nodes of
    /// the root that a creation misses are made beforehand, and stay whatever becomes of the operations.
    int Transact(const std::vector<Operation>& operations, TransactionResult& result) const override;
    int TransactIn(std::int64_t sessionId, const std::vector<Operation>& operations,
                   TransactionResult& result) const override;
    std::unique_ptr<clientid_t> ClientId() const override;
    std::function<BootClock::time_point()> TimeSource() const override;

private:
    explicit Session(std::shared_ptr<SessionCore> core);

    std::string FullPath(const std::string& path, bool sequential) const;
    int Transact(std::optional<std::int64_t> sessionId, const std::vector<Operation>& operations,
                 TransactionResult& result) const;
    /// The inverse of `FullPath`.
    std::string RelativePath(const std::string& fullPath) const;

    const std::shared_ptr<SessionCore> core_;
};

}  // namespace kx::velmor
