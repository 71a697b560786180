#pragma once

#include "tests/chaos/fault_plan.h"
#include "tests/chaos/history.h"
#include "tests/chaos/stage.h"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace kx::velmor::chaos {

/// Does faults to what is on the stage, one at a time, and undoes them.
///
/// Threads: one. Throws what the stage throws.
class Injector
{
public:
    explicit Injector(Stage& stage) : stage_(stage) {}

    /// Its `when.end` is that of `when.begin` until it is undone.
    Fault Strike(const PlannedFault& planned);
    /// Ends what `Strike` began; blocks until servers that were gone serve again.
    void Undo();

    /// Has whoever leads leave and join again, once per leadership.
    void HaveLeaderLeave();

private:
    void StrikeNetwork(const PlannedFault& planned, std::size_t member);
    void StrikeRequest(const PlannedFault& planned, std::size_t member);
    void StrikeMember(const PlannedFault& planned, std::size_t member);
    void StrikeServers(const PlannedFault& planned);
    void StrikeNodes(const PlannedFault& planned, std::size_t member);
    void StrikeLease(const PlannedFault& planned, std::size_t member);
    void LowerTimeout(const PlannedFault& planned);
    void LoseServerAfterPause(const PlannedFault& planned, std::size_t member);

    void PauseMembers(const std::vector<std::size_t>& members);
    /// Kills the server and starts it with this limit for session timeouts.
    void RestartServer(std::size_t server, std::chrono::milliseconds maxSessionTimeout);
    void SilenceMembers(std::chrono::milliseconds time);
    /// Makes the members reconnect to this server. Gives up after some session timeouts.
    void MoveMembersTo(std::size_t server);
    void KillServers(const std::vector<std::size_t>& servers);
    void PauseServers(const std::vector<std::size_t>& servers);
    /// Uses up the faults of requests that have met none.
    void Drain(testing_support::Proxy& link, testing_support::Request request);

    Stage& stage_;
    std::function<void()> undo_;
    /// When the lead began whose holder was asked to leave.
    Instant asked_{};
};

}  // namespace kx::velmor::chaos
