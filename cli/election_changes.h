#pragma once

#include <kx/velmor/observer.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace kx::velmor::cli {

/// One thing that has become of an election.
struct ElectionChange
{
    enum class Kind
    {
        /// The servers do not answer any more: nothing else is known until `Connected`.
        Disconnected,
        Connected,
        Left,
        Joined,
        /// Somebody who has joined says who it is.
        Named,
        /// Somebody leads, or somebody else.
        Leader,
        NoLeader,
        /// Somebody is the second in the queue, or somebody else.
        Next,
    };

    Kind kind;
    /// Of whom this is told, as far as it is known.
    std::string node{};
    std::string identity{};
    std::int64_t session = 0;
    std::int64_t epoch = 0;
};

/// "leader", "no leader", "next", "joined", ...
const char* ToString(ElectionChange::Kind kind) noexcept;

/// One line for people, as in "2026-05-01T13:37:00.123Z leader alpha c-0000000042 epoch 4294967301".
std::string ChangeText(const ElectionChange& change, std::chrono::system_clock::time_point time);

/// What has happened between two views, in the order in which it is told: who has left, who has come, who leads, who is
/// next. With nothing known before: what is there.
std::vector<ElectionChange> Changes(const ElectionView& before, const ElectionView& now);

}  // namespace kx::velmor::cli
