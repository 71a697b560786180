#pragma once

#include <kx/velmor/boot_clock.h>
#include <kx/velmor/connection.h>
#include <kx/velmor/registration.h>
#include <kx/velmor/session_status.h>
#include <kx/velmor/transaction.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kx::velmor {

/// What a `Candidate` needs of a session: a `Connection` that also tells where it stands, holds data, does several
/// things at once, and knows what time it is.
///
/// `Session` (session.h) talks to real servers; `testing::MemorySession` lives in a service in memory.
///
/// Threads: any, as far as nothing else is said.
class ElectionSession : public Connection
{
public:
    using StateListener = std::function<void(const SessionStatus&)>;
    /// Receives the session's number and its new `SessionStatus::leaseEnd`.
    using HeardListener = std::function<void(std::int64_t sessionId, BootClock::time_point leaseEnd)>;
    using EndingListener = std::function<void(std::int64_t sessionId)>;

    /// What is known now. Does not block.
    virtual SessionStatus Status() const = 0;

    /// Tells `listener` where the session stands, and then of each change, in order. Once the registration is
    /// cancelled no call begins any more; one that is under way may go on.
    ///
    /// Calls come on the event thread, in order with watch callbacks, with no lock held. The last one, `Closed`, comes
    /// before the session's closing is through. What a listener throws is logged. Does not block.
    virtual Registration OnStateChange(StateListener listener) = 0;

    /// Tells `listener` whenever `SessionStatus::leaseEnd` has changed, before the caller of the operation that changed
    /// it gets its answer. The end comes later with answers. It comes sooner when a server grants a smaller timeout;
    /// `listener` hears that before any later answer extends the lease. Cancelling is as above.
    ///
    /// Calls come on a thread that keeps the session alive: a listener must neither block nor throw nor call the
    /// session, except `Now`. They are not in order with changes of the state, so the session's number says which one
    /// was heard. Does not block.
    virtual Registration OnHeard(HeardListener listener) = 0;

    /// Tells `listener` the session's number when it is over: as soon as that is known, and before anything of it is
    /// sent to the servers when the session is closed here, so that nobody can follow its owner sooner than its owner
    /// knows. Not told of a session that is given up because no server has answered for very long. Cancelling, threads
    /// and what a listener may do are as for `OnHeard`.
    virtual Registration OnEnding(EndingListener listener) = 0;

    /// While registered, extends `SessionStatus::leaseEnd` for as long as servers answer. A quarter of the session
    /// timeout later more than half of the timeout is left at any time. Any number of registrations cost as much as
    /// one. Does not block.
    virtual Registration KeepFresh() = 0;

    /// Reads a node's data, and its `stat`, which may be null: `ZOK` or `ZNONODE`. A node without data has empty data.
    virtual int GetData(std::string path, std::string& data, Stat* stat) const = 0;

    /// Applies all operations or none. After `ZOK` all are applied. After the code of the one that was refused, whose
    /// index is in `result`, nothing has changed. After every other code nothing is known, as for every change.
    /// A list without operations is `ZBADARGUMENTS`.
    virtual int Transact(const std::vector<Operation>& operations, TransactionResult& result) const = 0;

    /// As `Transact`, in this session and no other: `ZSESSIONEXPIRED`, with nothing sent, once it is over, also when
    /// another one has taken its place meanwhile.
    virtual int TransactIn(std::int64_t sessionId, const std::vector<Operation>& operations,
                           TransactionResult& result) const = 0;

    /// Ends the session: its ephemeral nodes go, unless no server can be reached; then they stay until the session has
    /// timed out. Its watch callbacks are dropped, and every operation returns an error code at once from now on. A
    /// second call does nothing but wait for the first.
    ///
    /// Blocks while a callback of the session runs, unless called from one; afterwards no callback runs, except the one
    /// that called. Threads: any, holding no lock that a watch callback or a state listener takes.
    virtual void Close() = 0;

    /// The time by which `SessionStatus` is measured. Does not block, takes no lock.
    virtual BootClock::time_point Now() const noexcept { return BootClock::now(); }

    /// A function that returns what `Now` returns. It may outlive the session, and does not keep it open. It neither
    /// blocks nor throws, takes no lock, and may be called from any thread.
    virtual std::function<BootClock::time_point()> TimeSource() const = 0;

    /// Tells `listener` when `Now` has jumped, which only the clock of a session in memory does: it is time to look
    /// again what is due. Cancelling is as above. Does not block.
    virtual Registration OnClockJump(std::function<void()> /*listener*/) { return Registration(); }
};

}  // namespace kx::velmor
