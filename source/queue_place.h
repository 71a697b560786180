#pragma once

#include "source/bound_connection.h"
#include "source/candidate_impl.h"
#include "source/election_nodes.h"

#include <kx/velmor/election_session.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor {

/// One place in the queue of an election, in one session: the recipe's node, the identity beside it, and the claim to
/// the lead while it leads.
///
/// The order of the queue alone does not keep two from leading: whoever deletes a leader's node promotes the next one
/// before the leader knows. Hence the claim. The first candidate in the queue makes it, in one transaction with the
/// check that it still is in the queue. It goes with the session, or when its owner has stopped leading. Until then
/// another candidate that is first waits. Each claim records how long its holder's lease can be. The record stays when
/// the claim goes without its owner giving the lead back.
///
/// Blocks for round trips; throws `ZooError` for what a server refuses or does not answer. Used by one thread.
class QueuePlace
{
public:
    /// What the queue and the nodes have to tell; on the session's event thread, or in `Join`.
    struct Events
    {
        /// The recipe has found the node first, or second. May come repeatedly.
        std::function<void()> first;
        std::function<void()> second;
        /// One of the nodes has changed: it is time to `Look`, or to `Claim`.
        std::function<void()> news;
    };

    enum class Claim
    {
        Made,
        /// Another one's still stands. `Events::news` says when it has changed.
        Taken,
        /// Our nodes are not there any more.
        Gone,
        /// There has been a claim with this epoch or a greater one: this place must not lead.
        Outdated,
        /// The last leader ended without giving the lead back, and its lease may last until `LastLeaseEnd`.
        Waiting,
    };

    QueuePlace(std::shared_ptr<ElectionSession> session, std::string electionPath, std::int64_t sessionId,
               Signature signature, Events events);

    /// Leaves nothing behind but what `Leave` would have taken back.
    ~QueuePlace();
    QueuePlace(const QueuePlace&) = delete;
    QueuePlace& operator=(const QueuePlace&) = delete;

    /// Takes a place at the end of the queue. When it throws, part of it may be there, and `Leave` takes it back.
    /// Throws `VelmorError` of other kinds, too.
    void Join();

    /// `lease` is the longest lease that the session can have. After `Made`, or `Gone`, there is nothing more to claim.
    /// `Waiting` when the last leader has left the record of a longer one, less than that long ago.
    Claim TryToClaim(std::chrono::milliseconds lease);

    /// After `Waiting`: when to claim again.
    BootClock::time_point LastLeaseEnd() const { return lastLease_.value().end; }

    /// Reads beforehand what `TryToClaim` needs, which is one round trip shorter then, and one longer if somebody
    /// claims the lead in between.
    void PrepareToClaim();

    /// The index in the queue now, 0 for the first; empty when the node is gone, or the identity, or the claim that was
    /// made.
    std::optional<std::size_t> Look();

    /// Takes everything back: of a leader all at once, or else the identity first. What went with its session is gone
    /// already, and costs no round trip. When it throws, call it again: until it returns, some of the nodes may stand.
    void Leave();

    /// Somebody has told that the node is lost: `Leave` takes care then not to delete another one's of its name.
    void NodeIsLost() { nodeStands_ = false; }

    /// What holds only while the lead is ours; after `Made`.
    std::vector<Operation> Guards() const;

    // Known after `Join`.
    const std::string& Node() const { return node_; }
    const std::string& Path() const { return path_; }
    /// The transaction that created the node.
    std::int64_t Epoch() const { return epoch_; }

private:
    /// The node that every claim writes: the epoch of the last one, and which write that was.
    struct LastClaim
    {
        std::int64_t epoch = 0;
        std::int64_t written = 0;
        int version = 0;
    };

    /// What the last leader left behind by ending without giving the lead back.
    struct LastLease
    {
        /// The transaction that wrote it.
        std::int64_t written = 0;
        int version = 0;
        std::chrono::milliseconds length{0};
        /// The latest end of that lease. It is not later than the end of the claim plus the length, and the claim had
        /// ended when this was read first.
        BootClock::time_point end{};
    };

    /// Empty when there is no such node.
    std::optional<LastClaim> ReadLastClaim() const;
    void ReadLastLease();
    void RefuseCompany() const;
    Stat WatchNode();
    void MakeIdentity();
    bool CreateIdentity();
    bool HaveIdentity() const;
    Claim LookAtClaim();
    Claim ReadClaim() const;
    void StopWatching();
    void DeleteIdentity();
    void ReleaseClaim();
    bool FindClaim();
    void DeleteOwnNodes() const;

    const std::shared_ptr<ElectionSession> session_;
    const std::shared_ptr<BoundConnection> connection_;
    const std::string electionPath_;
    const std::int64_t sessionId_;
    const std::string signature_;
    const std::string instance_;
    const Events events_;

    std::shared_ptr<CandidateImpl> recipe_;
    std::string node_;
    std::string path_;
    std::string identityPath_;
    std::int64_t epoch_ = 0;
    bool mayHaveIdentity_ = false;
    /// A claim was asked for here. Its answer may have been lost.
    bool mayHaveClaim_ = false;
    bool leaving_ = false;
    /// As it was when this was prepared.
    std::optional<LastClaim> lastClaim_;
    /// Empty until a claim has found it.
    std::optional<LastLease> lastLease_;
    /// The version of the identities' parent since our claim, which every claim raises.
    std::optional<int> claimVersion_;
    /// Whether the node is still ours, as far as anybody has told. In an election path that was made anew, one of the
    /// same name is somebody else's.
    bool nodeStands_ = false;
    Connection::WatchHandle nodeWatch_;
    Connection::WatchHandle claimWatch_;
    // Cleared by the watches themselves, on the event thread.
    const std::shared_ptr<std::atomic<bool>> watchingNode_ = std::make_shared<std::atomic<bool>>(false);
    const std::shared_ptr<std::atomic<bool>> watchingClaim_ = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace kx::velmor
