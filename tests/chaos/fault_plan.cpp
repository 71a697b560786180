#include "tests/chaos/fault_plan.h"

#include <algorithm>
#include <iterator>

namespace kx::velmor::chaos {

namespace {

using std::chrono::milliseconds;
using testing_support::Request;

enum class Lasting
{
    /// It is over when it has been done.
    Moment,
    Short,
    /// Around the session timeout, shorter and longer.
    AroundTimeout,
    /// Longer than the session timeout.
    Long,
};

struct Trait
{
    const char* name;
    /// How often it comes, compared with the others.
    std::size_t weight;
    FaultKind kind;
    Lasting lasting;
};

constexpr Trait kTraits[] = {
    {"cut", 4, FaultKind::Cut, Lasting::Moment},
    {"refuse", 4, FaultKind::Refuse, Lasting::AroundTimeout},
    {"silence to server", 3, FaultKind::SilenceToServer, Lasting::AroundTimeout},
    {"silence to client", 3, FaultKind::SilenceToClient, Lasting::AroundTimeout},
    {"silence", 3, FaultKind::Silence, Lasting::AroundTimeout},
    {"drop reply", 5, FaultKind::DropReply, Lasting::Short},
    {"drop request", 4, FaultKind::DropRequest, Lasting::Short},
    {"cut after request", 4, FaultKind::CutAfterRequest, Lasting::Short},
    {"leave in turn", 8, FaultKind::LeaveInTurn, Lasting::AroundTimeout},
    {"expire session", 6, FaultKind::ExpireSession, Lasting::Moment},
    {"kill member", 5, FaultKind::KillMember, Lasting::AroundTimeout},
    {"pause member briefly", 3, FaultKind::PauseMemberBriefly, Lasting::Short},
    {"pause member", 4, FaultKind::PauseMemberLong, Lasting::Long},
    {"pause all members", 1, FaultKind::PauseAllMembers, Lasting::AroundTimeout},
    {"kill server", 2, FaultKind::KillServer, Lasting::AroundTimeout},
    {"pause server", 2, FaultKind::PauseServer, Lasting::AroundTimeout},
    {"kill servers' leader", 2, FaultKind::KillServersLeader, Lasting::AroundTimeout},
    {"pause servers' leader", 2, FaultKind::PauseServersLeader, Lasting::AroundTimeout},
    {"lose quorum", 1, FaultKind::LoseQuorum, Lasting::AroundTimeout},
    {"pause all servers", 1, FaultKind::PauseAllServers, Lasting::Long},
    {"delete node", 5, FaultKind::DeleteNode, Lasting::Moment},
    {"delete path", 1, FaultKind::DeletePath, Lasting::Moment},
};

const Trait& TraitOf(FaultKind kind)
{
    return *std::find_if(std::begin(kTraits), std::end(kTraits),
                         [&](const Trait& trait) { return trait.kind == kind; });
}

constexpr Request kRequests[] = {Request::Create,      Request::Delete, Request::Exists, Request::GetData,
                                 Request::GetChildren, Request::Sync,   Request::Multi};

}  // namespace

const char* Name(FaultKind kind)
{
    return TraitOf(kind).name;
}

const char* Name(Request request)
{
    switch (request)
    {
        case Request::Create:
            return "create";
        case Request::Delete:
            return "delete";
        case Request::Exists:
            return "exists";
        case Request::GetData:
            return "getData";
        case Request::GetChildren:
            return "getChildren";
        case Request::Multi:
            return "multi";
        case Request::Sync:
            return "sync";
        default:
            return "?";
    }
}

FaultPlan::FaultPlan(std::uint64_t seed, std::size_t members, std::size_t servers, milliseconds sessionTimeout,
                     Subject subject)
    : engine_(seed), members_(members), servers_(servers), sessionTimeout_(sessionTimeout), subject_(subject)
{}

PlannedFault FaultPlan::Next()
{
    std::size_t total = 0;
    for (const Trait& trait : kTraits)
    {
        total += trait.weight;
    }
    std::size_t lot = Below(total);
    const Trait* drawn = std::begin(kTraits);
    while (lot >= drawn->weight)
    {
        lot -= drawn->weight;
        ++drawn;
    }

    PlannedFault fault{};
    fault.kind = drawn->kind;
    fault.target = drawn->kind <= FaultKind::Silence ? NetworkTarget() : MemberTarget();
    if (drawn->kind == FaultKind::KillServer || drawn->kind == FaultKind::PauseServer)
    {
        fault.target.server = Below(servers_);
    }
    fault.request = kRequests[Below(std::size(kRequests))];
    fault.duration = Duration(drawn->kind);
    fault.pause = Pause();
    fault.leaving = drawn->kind == FaultKind::LeaveInTurn || Below(3) == 0;
    // Drawn for every fault, so that all subjects meet the same ones.
    const milliseconds expiring = LongerThanSession();
    if (drawn->kind == FaultKind::ExpireSession && subject_ == Subject::Candidate)
    {
        fault.kind = FaultKind::Silence;
        fault.duration = expiring;
    }
    return fault;
}

milliseconds FaultPlan::Between(milliseconds least, milliseconds most)
{
    return least + milliseconds(Below(static_cast<std::size_t>((most - least).count() + 1)));
}

Target FaultPlan::NetworkTarget()
{
    Target target = MemberTarget();
    switch (Below(4))
    {
        case 0:
            target.server = Below(servers_);
            break;
        case 1:
            target.server = Below(servers_);
            target.allMembers = true;
            break;
        default:
            break;
    }
    return target;
}

Target FaultPlan::MemberTarget()
{
    Target target;
    // The leader has the most to lose.
    if (Below(2) == 0)
    {
        target.member = Below(members_);
    }
    return target;
}

milliseconds FaultPlan::Duration(FaultKind kind)
{
    switch (TraitOf(kind).lasting)
    {
        case Lasting::Moment:
            return milliseconds(0);
        case Lasting::Short:
            return Between(milliseconds(100), sessionTimeout_ / 2);
        case Lasting::AroundTimeout:
            return Between(sessionTimeout_ / 10, 2 * sessionTimeout_);
        case Lasting::Long:
            break;
    }
    return LongerThanSession();
}

milliseconds FaultPlan::LongerThanSession()
{
    return Between(sessionTimeout_ + sessionTimeout_ / 4, 3 * sessionTimeout_);
}

milliseconds FaultPlan::Pause()
{
    // Now and then the next fault comes into the middle of the recovery, and now and then all is quiet for a while.
    switch (Below(6))
    {
        case 0:
            return milliseconds(0);
        case 1:
            return Between(3 * sessionTimeout_, 5 * sessionTimeout_);
        default:
            return Between(milliseconds(50), sessionTimeout_);
    }
}

}  // namespace kx::velmor::chaos
