#pragma once

#include <kx/velmor/participants.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor {

class ElectionSession;
class ObserverCore;

/// Who has claimed the lead of an election and not given it back: by everything that the servers know, who leads. The
/// one may know better: it may have stopped leading a moment ago, because its lease has run out.
struct Leader
{
    /// As in "c-0000000042"; empty when nothing is left that says so.
    std::string node{};
    /// Who it is; empty when it does not say.
    std::string identity{};
    /// The session that the claim goes with.
    std::int64_t session = 0;
    /// Its fencing token; 0 when that is not known, because somebody has written where it stands.
    std::int64_t epoch = 0;
    /// Its index in the queue. Empty when it has lost its place: somebody has deleted its node, and it has not learned
    /// of it yet, or has not finished yet. Nobody else leads until it has.
    std::optional<std::size_t> position{};
};

/// An election as somebody sees it who takes no part.
struct ElectionView
{
    /// Whether the servers answer. While they do not, the rest is as it was read last.
    bool connected = false;
    /// Whether there is anything that was read.
    bool known = false;
    /// Why the servers, who answer, do not show it, as in "not authenticated"; empty when they do. The rest is as it
    /// was read last.
    std::string error{};
    /// The ZooKeeper code to `error`, otherwise `ZOK`.
    int code = 0;
    /// In the order of the queue. Of the first one it says `Role::Leader`, as `Participants` does, even when it has not
    /// claimed the lead yet: `leader` knows.
    std::vector<Participant> queue{};
    /// Empty when nobody leads. That may well be while there is a queue: the first one claims the lead when whoever led
    /// before has finished.
    std::optional<Leader> leader{};
};

/// Reads the election at `electionPath` once. It need not be one that we take part in, or one that anybody has ever
/// joined. What is returned did stand at one moment, unless the queue changes faster than it can be read.
///
/// Blocks for two round trips per participant, and a few more. Threads: any.
/// Throws `VelmorError` for a path that names no node, `ZooError` when a server refuses or does not answer.
ElectionView Look(const ElectionSession& session, const std::string& electionPath);

/// Watches an election without taking part in it.
///
/// What happens at the front of the queue is told at once: a claim that is made or given back, the end of one of the
/// first two. Who joins or leaves further back is noticed within half a second, by the clock of the session. At rest
/// that costs two small reads each half second, however long the queue is.
///
/// Whether there is a connection is told as the session has it, or when a read that was under way has ended: after
/// `operationTimeout` at the latest.
///
/// It may share a session with candidates. When that is closed it tells that it is not connected, and no more.
///
/// Threads: one of its own. All functions may be called from any thread, the callback included.
class Observer
{
public:
    using Callback = std::function<void(const ElectionView&)>;

    /// Calls `onView` with what is there, and then whenever that has become something else; that participants grow
    /// older is no change. While there is no connection yet, what is there is nothing known. The first call may come
    /// before the constructor has returned.
    ///
    /// Calls come one after the other, on the observer's thread, with no lock held; they may take their time, and what
    /// comes and goes meanwhile is not told. What `onView` throws is logged.
    ///
    /// Does not block, and makes no call to the service. `session` must not be null. Throws `VelmorError` for a path
    /// that names no node, and `std::system_error` when there is no thread to be had.
    Observer(std::shared_ptr<ElectionSession> session, const std::string& electionPath, Callback onView);

    /// Ends it: once this has returned, no call begins or runs any more.
    ///
    /// Blocks while `onView` runs, and while the read that is under way lasts: for as long as an operation of the
    /// session may take at most, no longer than until the session is closed. In `onView` it does not block: the call
    /// that destroys the observer is the last one, and is the one that goes on.
    /// In a forked child, the destructor of the parent's observer returns at once, and leaks what it consists of.
    /// Threads: any, holding no lock that `onView` takes.
    ~Observer();

    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;

private:
    const std::shared_ptr<ObserverCore> core_;
};

}  // namespace kx::velmor
