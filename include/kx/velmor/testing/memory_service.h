#pragma once

#include <kx/velmor/election_session.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// For the unit tests of programs that use Velmor. Link `velmor::testing`.
namespace kx::velmor::testing {

class MemoryService;
class MemoryServiceCore;
struct MemorySessionRecord;

/// What a session in memory is opened with, as in `SessionOptions`.
struct MemorySessionOptions
{
    std::string rootPath{};
    /// Granted as it is.
    std::chrono::milliseconds sessionTimeout{10'000};
    bool createRoot = true;
};

/// A session with a `MemoryService`, which opens it. It behaves like a `Session`, with these differences:
///
/// - Operations never block. While the session is cut off they return `ZCONNECTIONLOSS` at once, where a `Session`
///   waits for a connection until `operationTimeout` is over; so it is with what is tested: it should wait for
///   `OnStateChange` or a while before it asks again.
/// - Nothing is lost or late but what the test asks for, and a session that is cut off learns how it stands with it
///   only when it is healed. (A `Session` gives up by itself after four timeouts of silence.)
/// - Access lists are not kept. `MemoryService::Refuse` stands in for them.
/// - Requests may be of any size.
///
/// In a forked child, a session of the parent is closed, as a `Session` is.
///
/// What the service has ended is followed by a new session without a pause, as part of the same verb.
///
/// Threads: one, the event thread, which alone runs watch callbacks and state listeners. All functions may be called
/// from any thread, callbacks included.
class MemorySession final : public ElectionSession
{
public:
    /// Closes the session, as `Close` does.
    ~MemorySession() override;

    /// Ends the session: its ephemeral nodes go, unless it is cut off; then they stay until it has timed out. Its watch
    /// callbacks are dropped, and every operation returns `ZCLOSING` from now on. A second call does nothing but wait
    /// for the first.
    ///
    /// Blocks while a callback runs, unless called from one; afterwards no callback runs, except the one that called.
    /// Threads: any, holding no lock that a watch callback or a state listener takes.
    void Close() override;

    SessionStatus Status() const override;
    Registration OnStateChange(StateListener listener) override;
    /// As `ElectionSession::OnHeard`. Listeners run on the thread of the write, or of `Advance` or `Heal` for what
    /// keeps the session fresh, and on the event thread for the first of that. While the clock stands still they are
    /// told the same time again.
    Registration OnHeard(HeardListener listener) override;
    /// As `ElectionSession::OnEnding`. Listeners run on the thread of `Close`, `Expire` or `Heal`.
    Registration OnEnding(EndingListener listener) override;
    /// As `ElectionSession::KeepFresh`: at once, at each connection, and at every eighth of the timeout that `Advance`
    /// passes while the session is connected.
    Registration KeepFresh() override;

    const std::string& RootPath() const override;
    /// As `Connection::Create`. `ZBADARGUMENTS` when the room cannot hold the created path.
    int Create(std::string path, const std::string& data, const ACL_vector& acl, int flags,
               std::string* createdPath) const override;
    /// The newest child first.
    int GetChildren(std::string path, std::vector<std::string>& children) const override;
    int Exists(std::string path, Stat* stat) const override;
    std::pair<int, WatchHandle> Exists(std::string path, WatchCallback callback, Stat* stat) const override;
    /// As `Connection::GuaranteedDelete`. What was asked for while the session was cut off is done when it is healed.
    int GuaranteedDelete(std::string path) const override;
    std::unique_ptr<clientid_t> ClientId() const override;
    int GetData(std::string path, std::string& data, Stat* stat) const override;
    int Transact(const std::vector<Operation>& operations, TransactionResult& result) const override;
    int TransactIn(std::int64_t sessionId, const std::vector<Operation>& operations,
                   TransactionResult& result) const override;

    /// The service's clock.
    BootClock::time_point Now() const noexcept override;
    std::function<BootClock::time_point()> TimeSource() const override;
    /// As `ElectionSession::OnClockJump`. Listeners run on the thread of `Advance`, after each of its steps.
    Registration OnClockJump(std::function<void()> listener) override;

private:
    friend class MemoryService;
    int Transact(std::optional<std::int64_t> sessionId, const std::vector<Operation>& operations,
                 TransactionResult& result) const;
    explicit MemorySession(std::shared_ptr<MemorySessionRecord> record);

    const std::shared_ptr<MemorySessionRecord> record_;
};

/// A ZooKeeper service in memory: a tree of nodes, any number of sessions, and a clock that stands still until a test
/// moves it. It opens no sockets, and nothing in it waits for time to pass.
///
///     TEST(Billing, IsTakenOverWhenItsProcessIsCutOff)
///     {
///         kx::velmor::testing::MemoryService service;
///         const auto first = service.Open();
///         const auto second = service.Open();
///         Billing ours(first);     // takes a std::shared_ptr<kx::velmor::ElectionSession>
///         Billing theirs(second);
///         ours.AwaitActive();
///
///         service.Cut(*first);
///         service.Advance(std::chrono::seconds(20));    // twice the session's timeout
///
///         EXPECT_FALSE(ours.IsActive());
///         theirs.AwaitActive();
///
///         service.Heal(*first);
///         service.AwaitQuiet();
///         EXPECT_FALSE(ours.IsActive());
///         EXPECT_TRUE(theirs.IsActive());
///     }
///
/// Sessions may outlive the service object. Verbs take sessions of this service, and throw `std::invalid_argument` for
/// others. Paths are the service's own, with no session's root taken off.
///
/// In a forked child, only the destructor of the parent's service may be called; the child makes a service of its own.
///
/// Threads: any, callbacks included, as far as nothing else is said. No function blocks, except `AwaitQuiet`. No lock
/// is held while a callback or a listener runs, except that listeners of `OnHeard` of one session are called one at a
/// time.
class MemoryService
{
public:
    MemoryService();
    ~MemoryService();

    MemoryService(const MemoryService&) = delete;
    MemoryService& operator=(const MemoryService&) = delete;

    /// A new session, which is connected.
    ///
    /// Throws `ZooError(ZBADARGUMENTS)`, after a log line that names the option, when an option is wrong.
    std::shared_ptr<MemorySession> Open(MemorySessionOptions options = {});

    /// The service ends the session now: its nodes go. Its owner learns of it and gets a new session; at once, or when
    /// it is healed.
    void Expire(const MemorySession& session);

    /// Nothing of the session reaches the service any more, or the other way round: its state is `Suspended`. The
    /// service ends it when it has not been healed until the clock passes its timeout.
    void Cut(const MemorySession& session);

    /// The session has its connection again: it is told what happened to the nodes that it watches, and its pending
    /// deletions are done; or it is told that it is expired, and a new one opens.
    void Heal(const MemorySession& session);

    /// The session's next write is done and returns `ZCONNECTIONLOSS`: the connection is lost before the answer comes,
    /// and is there again at once.
    void LoseReply(const MemorySession& session);

    /// From now on operations of all sessions on `path`, or on what is below it, do nothing but return `code`, as in
    /// `ZNOAUTH`. `ZOK` ends that. The path that is closest to an operation's own decides.
    void Refuse(const std::string& path, int code);

    /// Moves the clock on, in steps: at its due time each session that is cut off ends, and each one that is kept fresh
    /// is heard from. Other sessions that are connected are in touch with the service all the time. Does not wait for
    /// the callbacks to which that leads.
    ///
    /// Throws `std::invalid_argument` for a negative `time`. Threads: one at a time.
    void Advance(std::chrono::nanoseconds time);

    /// What the clock shows. Takes no lock.
    BootClock::time_point Now() const noexcept;

    // What other parties do. All throw `ZooError` with the code when the service refuses.

    /// Makes a persistent node, and its missing ancestors.
    void Add(const std::string& path, const std::string& data = {});
    void Set(const std::string& path, const std::string& data);
    void Delete(const std::string& path);

    bool Has(const std::string& path) const;
    std::string Data(const std::string& path) const;
    /// The names of a node's children, sorted.
    std::vector<std::string> Children(const std::string& path) const;

    /// Blocks until no session has an event that is queued or a callback that runs. It knows nothing of other threads
    /// that callbacks set to work.
    ///
    /// Throws `std::runtime_error` after half a minute: a callback hangs. Threads: any but event threads.
    void AwaitQuiet() const;

private:
    const std::shared_ptr<MemoryServiceCore> core_;
};

}  // namespace kx::velmor::testing
