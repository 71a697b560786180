#pragma once

#include <kx/velmor/connection.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kx::velmor {

/// One participant in a leader election: the recipe, and nothing around it.
///
/// A started candidate owns one ephemeral, sequential node under the election path. Sorted by name, the first child
/// leads and the second is next. A candidate that does not lead watches the node ahead and, unless it is next, the one
/// two places ahead, and checks again when one of them changes or the session reconnects. Nothing is retried here: a
/// check that fails is logged, and the next event brings the next one.
///
/// Own it by a `std::shared_ptr`: each watch holds another reference, before and after its node's event, so that a
/// candidate lives on while the connection still holds one of its callbacks. A candidate that was not stopped may live
/// until its connection is closed. May be started again after `Stop` or after a `Start` that threw.
class CandidateImpl : public std::enable_shared_from_this<CandidateImpl>
{
public:
    /// `connection` must not be null. `electionPath` is normalised; `leaderCallback` runs on every check that finds
    /// this candidate first, `nextLeaderCallback` on every check that finds it second, on the checking thread and under
    /// the candidate's lock: they must not call `Start` or `Stop` of this candidate. An empty one is accepted here, and
    /// throws `std::bad_function_call` out of the check that would call it.
    ///
    /// Makes no call to the service. Throws `VelmorError` for a path that names no node.
    CandidateImpl(std::shared_ptr<Connection> connection, const std::string& electionPath,
                  std::function<void()> leaderCallback, std::function<void()> nextLeaderCallback);

    /// Disarms the watches. Does not leave the election: the node stays until the session ends.
    ~CandidateImpl() = default;

    CandidateImpl(const CandidateImpl&) = delete;
    CandidateImpl& operator=(const CandidateImpl&) = delete;

    /// Joins the election: ensures the path, adopts the node that this session owns there or creates one, and checks.
    /// Does nothing on a candidate that is started.
    ///
    /// Blocks for a few round trips and one per child, holding the candidate's lock. Threads: any, except a role
    /// callback of this candidate.
    /// Throws `VelmorError`, `ZooError` among them, `std::bad_weak_ptr` when no shared pointer owns the candidate, and
    /// what the callbacks throw; the candidate is not started then, but its node may exist, and a later `Start` in the
    /// same session adopts it.
    void Start();

    /// Leaves the election and deletes the candidate's node. Does nothing on a candidate that is not started.
    ///
    /// Blocks for one round trip, holding the candidate's lock. Threads: any, except a role callback of this candidate.
    /// Throws `ZooError` when the node may still exist; the candidate is stopped all the same.
    void Stop();

    /// Whether this candidate leads: set by the check that finds it first, cleared by one that finds it second and by
    /// `Stop`. It stays as it is while the session is cut off or over. Lock-free; any thread.
    bool IsLeader() const { return isLeader_; }

    /// Whether this candidate is next: set by the check that finds it second, cleared by one that finds it first and by
    /// `Stop`. Lock-free; any thread.
    bool IsNextLeader() const { return isNextLeader_; }

    /// The bare name of the candidate's node, as in "c-0000000042"; empty before the first `Start`. Takes no lock: not
    /// to be read while `Start` runs on another thread.
    const std::string& Name() const { return name_; }

private:
    /// The full path of a child that this session owns; empty when there is none.
    std::string FindOurNode() const;

    /// Decides leader, next leader or follower, tells, and watches the nodes ahead.
    void CheckLeader();

    std::string GetChildrenString(const std::vector<std::string>& children) const;

    /// Watches a node ahead; false when it is gone.
    bool SetupWatcher(const std::string& child, Connection::WatchHandle& handle);

    /// What an armed watch calls.
    void OnNodeUpdate(int type, int state, std::string path);

    /// Guards everything below that is neither constant nor atomic; held across service calls and role callbacks.
    std::mutex mutex_;
    std::shared_ptr<Connection> connection_;
    std::string electionPath_;
    std::string name_;
    std::function<void()> leaderCallback_;
    std::function<void()> nextLeaderCallback_;
    Connection::WatchHandle predecessorWatch_;
    Connection::WatchHandle secondPredecessorWatch_;
    bool started_;
    std::atomic<bool> isLeader_;
    std::atomic<bool> isNextLeader_;
};

}  // namespace kx::velmor
