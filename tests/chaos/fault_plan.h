#pragma once

#include "tests/chaos/history.h"
#include "tests/support/proxy.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace kx::velmor::chaos {

enum class FaultKind
{
    // Of the network between a member and the servers, or one server and the members.
    Cut,
    Refuse,
    SilenceToServer,
    SilenceToClient,
    Silence,
    // Of one request of a member that leaves the queue and joins it again.
    DropReply,
    DropRequest,
    CutAfterRequest,
    // Of whoever leads: it leaves and joins again, and so does who leads next, and so on.
    LeaveInTurn,
    // Of a member.
    ExpireSession,
    KillMember,
    PauseMemberBriefly,
    PauseMemberLong,
    PauseAllMembers,
    // Of the servers.
    KillServer,
    PauseServer,
    KillServersLeader,
    PauseServersLeader,
    LoseQuorum,
    PauseAllServers,
    // Of an operator.
    DeleteNode,
    DeletePath,
};

const char* Name(FaultKind kind);

/// Whom a fault hits.
struct Target
{
    /// Empty: whoever leads the election at that moment.
    std::optional<std::size_t> member{};
    /// For faults of the network: one server; empty: all. For faults of servers: which.
    std::optional<std::size_t> server{};
    /// For faults of the network: the links of all members to `server`.
    bool allMembers = false;
};

struct PlannedFault
{
    FaultKind kind;
    Target target{};
    /// For faults of one request.
    testing_support::Request request = testing_support::Request::Create;
    std::chrono::milliseconds duration;
    /// From its end to the next one's beginning.
    std::chrono::milliseconds pause;
    /// All the while, the pause included, whoever leads leaves and joins again.
    bool leaving = false;
};

/// The faults of a run, one after the other, without end. They depend on what is given here and on nothing else.
///
/// They are the same for every subject, but for one: a candidate's session is not closed behind its back, which nobody
/// can know who was granted its timeout, but silenced until it has expired.
class FaultPlan
{
public:
    FaultPlan(std::uint64_t seed, std::size_t members, std::size_t servers, std::chrono::milliseconds sessionTimeout,
              Subject subject);

    PlannedFault Next();

private:
    /// 0 .. n-1, the same with every standard library, unlike its distributions.
    std::size_t Below(std::size_t n) { return static_cast<std::size_t>(engine_() % n); }
    std::chrono::milliseconds Between(std::chrono::milliseconds least, std::chrono::milliseconds most);
    Target NetworkTarget();
    Target MemberTarget();
    std::chrono::milliseconds Duration(FaultKind kind);
    std::chrono::milliseconds LongerThanSession();
    std::chrono::milliseconds Pause();

    std::mt19937_64 engine_;
    const std::size_t members_;
    const std::size_t servers_;
    const std::chrono::milliseconds sessionTimeout_;
    const Subject subject_;
};

/// As in "Exists".
const char* Name(testing_support::Request request);

}  // namespace kx::velmor::chaos
