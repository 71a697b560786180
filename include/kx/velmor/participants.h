#pragma once

#include <kx/velmor/candidate.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor {

/// One place in the queue of an election.
struct Participant
{
    /// `Leader` for the first, `NextLeader` for the second, `Follower` for everybody else. The first in the queue may
    /// not have taken the lead yet.
    Role role = Role::Follower;
    /// As in "c-0000000042".
    std::string node{};
    /// The session that the node goes with; 0 for a node that somebody made by hand.
    std::int64_t session = 0;
    /// Its fencing token, should it lead.
    std::int64_t epoch = 0;
    /// When it joined, by the clock of the server that led the ensemble then.
    std::chrono::system_clock::time_point joined{};
    /// How long ago that is by the clock of this machine; not negative.
    std::chrono::milliseconds age{0};
    /// Who it is; empty when it does not say.
    std::string identity{};
};

/// Who takes part in the election at `electionPath`, in the order of the queue. It need not be one that we take part
/// in. Nobody takes part in an election that nobody has ever joined.
///
/// Blocks for two round trips per participant. Threads: any.
/// Throws `VelmorError` for a path that names no node, `ZooError` when a server refuses or does not answer.
std::vector<Participant> Participants(const ElectionSession& session, const std::string& electionPath);

/// The identity of the first in the queue; empty when there is none, or it does not say. Otherwise as above, for a few
/// round trips.
std::optional<std::string> LeaderIdentity(const ElectionSession& session, const std::string& electionPath);

}  // namespace kx::velmor
