#pragma once

#include <kx/velmor/connection.h>
#include <kx/velmor/observer.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor {

/// Reads an election, again and again, and each time no more than what may have changed.
///
/// Two numbers of a node count all creations and deletions of its children. While neither the election path's nor its
/// sibling's have moved, nothing has. Who has a place in the queue is the same for as long as its node is there.
///
/// Blocks for round trips; throws `ZooError` for what a server refuses or does not answer. Used by one thread.
class ElectionReader
{
public:
    /// `news` is called when a claim is made or given back, or when one of the first two nodes goes, once per `Read` at
    /// least; on the session's event thread, also after this object has gone. Empty: nothing is watched.
    /// `session` must outlive this object.
    ElectionReader(const ElectionSession& session, std::string electionPath, std::function<void()> news);

    /// Fills in the queue and the leader.
    void Read(ElectionView& view);

    /// Nothing that was read before counts any more, and no watch that was armed: another session has begun, with
    /// servers that may have lost their data.
    void Forget();

private:
    /// The transactions that made the election path, and its sibling; that last changed the children of each; and that
    /// last wrote to the sibling. 0 for what is not there.
    struct Stand
    {
        std::int64_t queueMade = 0;
        std::int64_t queueChanged = 0;
        std::int64_t identitiesMade = 0;
        std::int64_t identitiesChanged = 0;
        std::int64_t epochWritten = 0;

        bool operator==(const Stand& other) const;
    };
    struct Watch
    {
        Connection::WatchHandle handle;
        /// Cleared by the watch itself, on the event thread.
        std::shared_ptr<std::atomic<bool>> armed = std::make_shared<std::atomic<bool>>(false);
    };

    Stand ReadStand() const;
    void ReadQueue(const Stand& stand);
    void ReadLeader(const Stand& stand);
    void FindPlace(Leader& leader) const;
    void WatchFront();
    void Arm(const std::string& path, Watch& watch) const;

    const ElectionSession& session_;
    const std::string electionPath_;
    const std::function<void()> news_;

    /// What `queue_` and `leader_` were read at; empty when they have to be read again.
    std::optional<Stand> seen_;
    /// What `queue_` was read at, changed since or not.
    std::optional<Stand> queueStand_;
    std::vector<std::string> names_;
    std::vector<Participant> queue_;
    std::optional<Leader> leader_;
    /// By path.
    std::map<std::string, Watch> watches_;
};

}  // namespace kx::velmor
