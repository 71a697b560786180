#include "tests/chaos/fault_plan.h"

#include "tests/support/zookeeper_server.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <utility>

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
    {"lower timeout", 6, FaultKind::LowerTimeout, Lasting::Long},
    {"lose server after pause", 8, FaultKind::LoseServerAfterPause, Lasting::AroundTimeout},
    {"fork", 3, FaultKind::Fork, Lasting::Moment},
};

const Trait& TraitOf(FaultKind kind)
{
    return *std::find_if(std::begin(kTraits), std::end(kTraits),
                         [&](const Trait& trait) { return trait.kind == kind; });
}

/// Servers grant no session timeout below this.
constexpr int kMinTicksPerTimeout = 2;

constexpr Request kRequests[] = {Request::Create,      Request::Delete, Request::Exists, Request::GetData,
                                 Request::GetChildren, Request::Sync,   Request::Multi};

}  // namespace

const char* Name(FaultKind kind)
{
    return TraitOf(kind).name;
}

const std::map<std::string, FaultKind>& FaultKindsByName()
{
    static const std::map<std::string, FaultKind> kinds = [] {
        std::map<std::string, FaultKind> made;
        for (const Trait& trait : kTraits)
        {
            made.emplace(trait.name, trait.kind);
        }
        return made;
    }();
    return kinds;
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

FaultPlan::FaultPlan(PlanOptions options) : options_(std::move(options)), engine_(options_.seed)
{
    if (options_.without.size() >= std::size(kTraits))
    {
        throw std::invalid_argument("no fault is left to happen");
    }
}

PlannedFault FaultPlan::Next()
{
    const auto weight = [this](const Trait& trait) {
        return options_.without.count(trait.kind) == 0 ? trait.weight : 0;
    };
    std::size_t total = 0;
    for (const Trait& trait : kTraits)
    {
        total += weight(trait);
    }
    std::size_t lot = Below(total);
    const Trait* drawn = std::begin(kTraits);
    while (lot >= weight(*drawn))
    {
        lot -= weight(*drawn);
        ++drawn;
    }

    PlannedFault fault{};
    fault.kind = drawn->kind;
    fault.target = drawn->kind <= FaultKind::Silence ? NetworkTarget() : MemberTarget();
    if (drawn->kind == FaultKind::KillServer || drawn->kind == FaultKind::PauseServer)
    {
        fault.target.server = Below(options_.servers);
    }
    fault.request = kRequests[Below(std::size(kRequests))];
    fault.duration = Duration(drawn->kind);
    fault.pause = Pause();
    fault.leaving = drawn->kind == FaultKind::LeaveInTurn || Below(3) == 0;
    // Drawn for every fault, so that all subjects meet the same ones.
    const milliseconds expiring = LongerThanSession();
    DrawDetails(fault);
    FitSubject(fault, expiring);
    FitServers(fault);
    return fault;
}

void FaultPlan::DrawDetails(PlannedFault& fault)
{
    const milliseconds timeout = options_.sessionTimeout;
    switch (fault.kind)
    {
        case FaultKind::LowerTimeout:
            fault.target = {std::nullopt, Below(options_.servers)};
            fault.grants = Shorter(kMinTicksPerTimeout * testing_support::ServerOptions().tickTime, timeout);
            fault.silences = Below(3) != 0;
            fault.renews = Below(2) == 0;
            break;
        case FaultKind::LoseServerAfterPause:
            fault.target = {};
            fault.pausedPercent = 30 + Below(61);
            // The sooner, the more of what the server heard is lost with it.
            fault.runs = Shorter(milliseconds(0), milliseconds(50));
            fault.kills = Below(4) == 0;
            break;
        default:
            break;
    }
}

void FaultPlan::FitSubject(PlannedFault& fault, milliseconds expiring) const
{
    if (options_.subject == Subject::Candidate)
    {
        if (fault.kind == FaultKind::ExpireSession)
        {
            fault.kind = FaultKind::Silence;
            fault.duration = expiring;
        }
        return;
    }
    switch (fault.kind)
    {
        case FaultKind::LowerTimeout:
            fault.kind = FaultKind::KillServer;
            break;
        case FaultKind::LoseServerAfterPause:
            fault.kind = FaultKind::PauseMemberBriefly;
            break;
        case FaultKind::Fork:
            fault.kind = FaultKind::Cut;
            break;
        default:
            break;
    }
}

void FaultPlan::FitServers(PlannedFault& fault) const
{
    if (options_.servers > 1)
    {
        return;
    }
    switch (fault.kind)
    {
        case FaultKind::KillServersLeader:
        case FaultKind::LoseQuorum:
            fault.kind = FaultKind::KillServer;
            fault.target.server = 0;
            break;
        case FaultKind::PauseServersLeader:
            fault.kind = FaultKind::PauseServer;
            fault.target.server = 0;
            break;
        default:
            break;
    }
}

milliseconds FaultPlan::Between(milliseconds least, milliseconds most)
{
    return least + milliseconds(Below(static_cast<std::size_t>((most - least).count() + 1)));
}

milliseconds FaultPlan::Shorter(milliseconds min, milliseconds max)
{
    const milliseconds one = Between(min, max);
    return std::min(one, Between(min, max));
}

Target FaultPlan::NetworkTarget()
{
    Target target = MemberTarget();
    switch (Below(4))
    {
        case 0:
            target.server = Below(options_.servers);
            break;
        case 1:
            target.server = Below(options_.servers);
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
        target.member = Below(options_.members);
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
            return Between(milliseconds(100), options_.sessionTimeout / 2);
        case Lasting::AroundTimeout:
            return Between(options_.sessionTimeout / 10, 2 * options_.sessionTimeout);
        case Lasting::Long:
            break;
    }
    return LongerThanSession();
}

milliseconds FaultPlan::LongerThanSession()
{
    return Between(options_.sessionTimeout + options_.sessionTimeout / 4, 3 * options_.sessionTimeout);
}

milliseconds FaultPlan::Pause()
{
    // Now and then the next fault comes into the middle of the recovery, and now and then all is quiet for a while.
    switch (Below(6))
    {
        case 0:
            return milliseconds(0);
        case 1:
            return Between(3 * options_.sessionTimeout, 5 * options_.sessionTimeout);
        default:
            return Between(milliseconds(50), options_.sessionTimeout);
    }
}

}  // namespace kx::velmor::chaos
