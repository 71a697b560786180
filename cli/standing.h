#pragma once

#include <kx/velmor/candidate.h>
#include <kx/velmor/session.h>

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kx::velmor::cli {

/// Where a participant stands at one moment, for people and for those who watch.
struct Standing
{
    std::string election;
    std::string identity;
    Role role = Role::Stopped;
    /// Empty while it has no place in the queue.
    std::string node;
    /// Of its leadership.
    std::optional<std::int64_t> epoch;
    std::chrono::milliseconds leaseLeft{0};
    SessionStatus session;
    /// When it was last known; empty until then.
    std::optional<std::size_t> queueLength;
    /// Of its command, while that runs.
    std::optional<pid_t> command;
};

/// Finds out where a participant stands. Threads: any.
class StandingReader
{
public:
    /// `candidate` must outlive this.
    StandingReader(std::shared_ptr<const Session> session, const Candidate& candidate, std::string election);

    /// Of what only others know. Blocks for one round trip when there is a connection, and not otherwise.
    Standing Read() const;

private:
    std::optional<std::size_t> QueueLength() const;

    const std::shared_ptr<const Session> session_;
    const Candidate& candidate_;
    const std::string election_;

    mutable std::mutex mutex_;
    /// Guarded by `mutex_`.
    mutable std::optional<std::size_t> queueLength_;
};

}  // namespace kx::velmor::cli
