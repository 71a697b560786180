#pragma once

#include "tests/chaos/history.h"
#include "tests/support/proxy.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <set>
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
    // Of what a lease assumes about its session and its process.
    LowerTimeout,
    LoseServerAfterPause,
    Fork,
};

const char* Name(FaultKind kind);
/// As the command line takes them.
const std::map<std::string, FaultKind>& FaultKindsByName();

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
    /// For `LowerTimeout`: what the server grants meanwhile, whether the leader is silenced then, and whether sessions
    /// with the lower timeout are ended afterwards. Otherwise clients keep it until their sessions end.
    std::chrono::milliseconds grants{0};
    bool silences = false;
    bool renews = false;
    /// For `LoseServerAfterPause`: the part of its session timeout for which the leader's process is paused, how long
    /// it runs then before its server is lost, and whether the server is killed rather than paused.
    std::size_t pausedPercent = 0;
    std::chrono::milliseconds runs{0};
    bool kills = false;
};

/// What the faults of a run derive from.
struct PlanOptions
{
    std::uint64_t seed = 1;
    std::size_t members = 5;
    /// One, or at least three.
    std::size_t servers = 3;
    std::chrono::milliseconds sessionTimeout{1'000};
    Subject subject = Subject::Candidate;
    /// Kinds that do not happen.
    std::set<FaultKind> without{};
};

/// The faults of a run, one after the other, without end. They depend on the options and on nothing else.
///
/// They are the same for every subject, but for these. A candidate's session is not closed behind its back, because a
/// process that was granted a timeout cannot know of that: it is silenced until it has expired. The recipe has no
/// lease: it meets simpler faults in place of the last group.
///
/// A single server has no quorum to lose, and no leader: faults of either become faults of the server.
class FaultPlan
{
public:
    /// Throws `std::invalid_argument` when no kind of fault is left.
    explicit FaultPlan(PlanOptions options);

    PlannedFault Next();

private:
    /// 0 .. n-1, the same with every standard library, unlike its distributions.
    std::size_t Below(std::size_t n) { return static_cast<std::size_t>(engine_() % n); }
    std::chrono::milliseconds Between(std::chrono::milliseconds least, std::chrono::milliseconds most);
    /// The shorter one of two.
    std::chrono::milliseconds Shorter(std::chrono::milliseconds min, std::chrono::milliseconds max);
    Target NetworkTarget();
    Target MemberTarget();
    /// Draws what only the last group of kinds needs.
    void DrawDetails(PlannedFault& fault);
    void FitSubject(PlannedFault& fault, std::chrono::milliseconds expiring) const;
    void FitServers(PlannedFault& fault) const;
    std::chrono::milliseconds Duration(FaultKind kind);
    std::chrono::milliseconds LongerThanSession();
    std::chrono::milliseconds Pause();

    const PlanOptions options_;
    std::mt19937_64 engine_;
};

/// As in "Exists".
const char* Name(testing_support::Request request);

}  // namespace kx::velmor::chaos
