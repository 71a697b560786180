#pragma once

#include <kx/velmor/transaction.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor {

class CandidateCore;
class ElectionSession;
class Lease;

/// Where a candidate stands.
enum class Role
{
    /// It takes no part.
    Stopped,
    /// It takes part and has no place in the queue yet, or none any more: it tries to get one.
    Joining,
    /// It waits, with at least two ahead of it.
    Follower,
    /// It is the first to take over.
    NextLeader,
    /// It leads.
    Leader,
};

/// "stopped", "joining", "follower", "next leader", "leader".
const char* ToString(Role role) noexcept;

/// Why a leadership is over.
enum class LossReason
{
    /// The candidate was stopped, or has given up for lack of permission: `Candidate::Error` says why.
    Left,
    /// The servers have ended its session, or its owner has closed it, or the candidate has, for `maxCallbackTime`.
    SessionExpired,
    /// Its node, its identity or its claim was deleted by another client.
    NodeDeleted,
    /// The servers have answered no write for so long that they may have ended the session by now.
    LeaseRanOut,
    /// Another node of the election path came to stand ahead of its own.
    Displaced,
    /// `onLeader` threw.
    CallbackFailed,
};

/// "left", "session expired", "node deleted", "lease ran out", "displaced", "callback failed".
const char* ToString(LossReason reason) noexcept;

/// What became of a guarded write.
struct GuardedWrite
{
    enum class Outcome
    {
        /// All operations are applied.
        Applied,
        /// The leadership does not stand any more. Nothing has changed.
        NotLeading,
        /// The servers refused one of the operations. Nothing has changed.
        Refused,
        /// No answer came: all operations may have been applied, or none; they may yet be, but only if the leadership
        /// still stands then.
        Unknown,
    };

    /// Whether it was applied.
    explicit operator bool() const noexcept { return outcome == Outcome::Applied; }

    Outcome outcome = Outcome::Unknown;
    /// `Refused`: the index of the operation; empty when all together could not even be sent.
    std::optional<std::size_t> refused{};
    /// Except for `Applied` and `NotLeading`: the ZooKeeper code, and its text.
    int code = 0;
    std::string error{};
    /// `Applied`: the paths that were created, one per operation, empty for those that create nothing.
    std::vector<std::string> created{};
};

/// One leadership of one candidate, from its gain to its loss. A leadership that is lost does not come back: the next
/// one has another epoch.
///
/// A handle, cheap to copy. May outlive its candidate and its session, and keeps neither alive: once they are gone it
/// does not stand, and `Write` returns `NotLeading`. Threads: any.
class Leadership
{
public:
    /// The fencing token: greater than that of every leadership of this election before it. Hand it to whatever the
    /// leader writes to, and have that refuse smaller ones than it has seen. (The number of the transaction that
    /// created the candidate's node, as ZooKeeper counts them.)
    std::int64_t Epoch() const noexcept { return epoch_; }

    /// Whether it stands; as `Candidate::IsLeader`, for this leadership alone. False in a forked child. Lock-free.
    bool Stands() const noexcept;

    /// Applies the operations, all or none, if this leadership stands at that moment on the servers: whatever delays
    /// this call, nobody else can have become leader before the operations are applied.
    ///
    /// Blocks for one round trip, for as long as an operation of the session may take at most.
    GuardedWrite Write(const std::vector<Operation>& operations) const;

private:
    friend class CandidateCore;
    Leadership(std::weak_ptr<CandidateCore> core, std::shared_ptr<Lease> lease, std::uint64_t stay, std::int64_t epoch);

    std::weak_ptr<CandidateCore> core_;
    std::shared_ptr<Lease> lease_;
    std::uint64_t stay_;
    std::int64_t epoch_;
};

/// What a candidate is made with.
///
/// The callbacks, each of which may be empty, run one after the other, in the order of what they tell, on a thread of
/// the candidate's own and with no lock held. They may take their time and call anything. Until they have returned the
/// candidate does not join again, and the next in line is not let in, unless the session ends first. A callback that
/// runs for longer than a session timeout is logged as a warning, and again after each further one, while the candidate
/// has a place in the queue or leaves it. The time of `onLeader`, which may work for as long as its leadership stands,
/// counts from the end of the leadership.
///
/// What they throw is logged. When `onLeader` throws, the candidate also gives up that leadership, with
/// `LossReason::CallbackFailed`, and queues up again; the delays before that grow until a leadership has lasted for a
/// session timeout and has not ended so.
///
/// A child that is forked in a callback must end there, by `exec` or `_exit`. If it returns from the callback, it exits
/// with `EXIT_FAILURE`.
struct CandidateOptions
{
    /// Where the election takes place, as in "/services/billing/leader". Candidates of one election use one path, and
    /// no other client creates nodes there, nor in its sibling with "-identities" behind its name. Must name a node.
    std::string electionPath;

    /// The candidate leads. Once per leadership.
    std::function<void(const Leadership&)> onLeader{};
    /// The leadership is over. Once for each `onLeader`, before the next one.
    std::function<void(LossReason)> onLeaderLost{};
    /// The candidate is next in line: time to warm up. Once per stay in second place.
    std::function<void()> onNextLeader{};
    /// It is no longer next, because it is about to lead, too. Once for each `onNextLeader`.
    std::function<void()> onNextLeaderLost{};
    /// The role has changed, to this one. Comes before the more specific callback for a gain, and after it for a loss.
    std::function<void(Role)> onRoleChange{};

    /// Who this is, for people to read. Empty: "<host name>:<process id>". At most 1,024 bytes.
    std::string identity{};
    /// Join again after having fallen out of the queue. When false, the candidate stops then.
    bool rejoin = true;
    /// How long to wait before joining again, at random between half of this and all of it, doubled after each attempt
    /// that failed, and at most the second. Both must be positive.
    std::chrono::milliseconds firstRejoinDelay{100};
    std::chrono::milliseconds mostRejoinDelay{10'000};
    /// When a callback has run for this long, the candidate gives up, and closes its session for all who share it, so
    /// that the next leader need not wait for the callback. The session's clock counts, and the time of `onLeader`
    /// counts as above. 0: a callback may run for ever. Must not be negative. When the last leader's lease could have
    /// been longer than the next one's, the next one still waits for that long.
    ///
    /// The callback runs on meanwhile, beside the next leader: what it does must be fenced.
    std::chrono::milliseconds maxCallbackTime{0};
};

/// One participant in a leader election, which joins, joins again when it has fallen out, and leads when its turn
/// comes.
///
/// At any moment at most one candidate of an election leads, by `IsLeader`: see docs/guarantees.md for what that takes.
///
/// Start and stop it as often as needed. Two candidates of one election need a session each.
///
/// In a forked child, a candidate of the parent is stopped from the child's first instruction on: `IsLeader` is false,
/// `CurrentRole` is `Stopped`, `Error` says why, and `Start` does nothing. All functions and the destructor return at
/// once, take no lock and call no server; the destructor leaks what the candidate consists of. The parent's candidate
/// goes on as before. The child may make sessions and candidates of its own. A child that shares the memory of its
/// parent (`vfork`, `CLONE_VM`) cannot be told from it and must not use either.
///
/// Threads: two of its own from the first `Start` on. All functions may be called from any thread, callbacks included.
class Candidate
{
public:
    /// Makes no call to the service, and starts nothing. `session` must not be null. Throws `VelmorError` for a path
    /// that names no node, and for other options that make no sense.
    Candidate(std::shared_ptr<ElectionSession> session, CandidateOptions options);

    /// Leaves the election, as `Stop` does. When the servers refuse to delete its nodes, it does not try again: they go
    /// with the session.
    ///
    /// In a callback of this candidate it does not block, and callbacks that are due come after it: `onLeaderLost` when
    /// the candidate leads, `onNextLeaderLost` when it is next, and `onRoleChange`. What they refer to must still be
    /// there then.
    ~Candidate();

    Candidate(const Candidate&) = delete;
    Candidate& operator=(const Candidate&) = delete;

    /// Takes part from now on: joins as soon as a server is reachable. Does nothing on a candidate that takes part.
    /// What can never succeed (no permission, a session that is closed, a candidate that a forked child has from its
    /// parent) ends in `Stopped`, with `Error` saying why. When `Stop` could not delete the nodes of the place before,
    /// they are deleted first.
    ///
    /// Does not block.
    void Start();

    /// Leaves the election. A leader's `onLeaderLost` has returned before its node is deleted, so that the next one
    /// does not begin before this one has finished. Does nothing on a candidate that takes no part.
    ///
    /// Blocks until callbacks have returned and the node is deleted. It does not wait for a server that cannot be
    /// reached, or that refuses the deletion (`Error` tells then, and the next one in line cannot lead): the deletion
    /// is repeated in the background until it succeeds or the session ends. The session is kept open for that. In a
    /// callback of this candidate `Stop` does not block: all of that happens when the callback has returned.
    void Stop();

    /// Whether this candidate leads: true only while no server can have ended its session, so that no other candidate
    /// can lead (docs/guarantees.md lists the exceptions). Right in the first instruction after a process was stopped
    /// for any length of time, or its machine slept.
    ///
    /// It says that the candidate led when it was asked, not that it still does when the next instruction runs: guard
    /// what must not be done twice with `Leadership`. Lock-free; costs one reading of the clock.
    bool IsLeader() const noexcept;

    /// How much longer `IsLeader` will be true if no server is heard from again; 0 when it is false. Lock-free.
    std::chrono::milliseconds LeaseLeft() const noexcept;

    /// The leadership that stands now, if any.
    std::optional<Leadership> CurrentLeadership() const;

    /// The role now. `Leader` exactly when `IsLeader`. Callbacks may be late to tell.
    Role CurrentRole() const;

    /// Waits until the role is this one; false when it was not within `timeout`, and at once when the candidate has
    /// stopped by itself: `Error` says why. In a callback of this candidate it waits like everywhere else.
    bool WaitForRole(Role role, std::chrono::milliseconds timeout) const;

    /// Waits until the role is another than `from`, and returns it; `from` when it was not within `timeout`, and at
    /// once when that is `Stopped` and the candidate has stopped by itself.
    Role WaitForChange(Role from, std::chrono::milliseconds timeout) const;

    /// The name of its node, as in "c-0000000042"; empty while it has no place in the queue.
    std::string NodeName() const;

    /// As it is told to others.
    const std::string& Identity() const noexcept;

    /// While it is stopped: why it has stopped by itself, and which nodes the servers refuse to delete. Empty without
    /// either. `Start` clears the first, except in a forked child. A deletion that succeeds clears the second.
    std::string Error() const;

private:
    const std::shared_ptr<CandidateCore> core_;
};

}  // namespace kx::velmor
