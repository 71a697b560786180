#include "tests/chaos/fault_plan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

namespace kx::velmor::chaos {
namespace {

using std::chrono::seconds;
using ::testing::SizeIs;

std::string Text(const PlannedFault& fault)
{
    const Target& target = fault.target;
    return std::string(Name(fault.kind)) + " " + (target.member ? std::to_string(*target.member) : "leader") + " " +
           (target.server ? std::to_string(*target.server) : "all") + (target.allMembers ? " everybody " : " ") +
           Name(fault.request) + " " + std::to_string(fault.duration.count()) + " " +
           std::to_string(fault.pause.count()) + (fault.leaving ? " leaving" : "");
}

std::vector<std::string> Faults(std::uint64_t seed, std::size_t count, Subject subject = Subject::Recipe)
{
    FaultPlan plan(seed, 5, 3, seconds(2), subject);
    std::vector<std::string> faults;
    for (std::size_t i = 0; i < count; ++i)
    {
        faults.push_back(Text(plan.Next()));
    }
    return faults;
}

TEST(ChaosFaultPlan, DerivesFromItsSeedAlone)
{
    EXPECT_EQ(Faults(42, 100), Faults(42, 100));
    EXPECT_NE(Faults(42, 100), Faults(43, 100));
}

TEST(ChaosFaultPlan, StaysTheSameFromReleaseToRelease)
{
    EXPECT_EQ(Faults(1, 2), (std::vector<std::string>{"leave in turn 0 all sync 3212 1732 leaving",
                                                      "kill server 1 2 exists 3913 880"}));
}

TEST(ChaosFaultPlan, HasTheSameFaultsForEverySubjectButClosesNoCandidatesSession)
{
    FaultPlan recipe(3, 5, 3, seconds(2), Subject::Recipe);
    FaultPlan candidate(3, 5, 3, seconds(2), Subject::Candidate);
    int closed = 0;
    for (int i = 0; i < 500; ++i)
    {
        const PlannedFault one = recipe.Next();
        const PlannedFault other = candidate.Next();
        if (one.kind != FaultKind::ExpireSession)
        {
            ASSERT_EQ(Text(one), Text(other));
            continue;
        }
        ++closed;
        EXPECT_EQ(other.kind, FaultKind::Silence);
        EXPECT_GT(other.duration, seconds(2));
        EXPECT_EQ(other.target.server, std::nullopt);
        EXPECT_EQ(other.target.member, one.target.member);
    }
    EXPECT_GT(closed, 10);
}

TEST(ChaosFaultPlan, BringsEveryKindOfFaultToEveryMemberAndServer)
{
    FaultPlan plan(1, 5, 3, seconds(2), Subject::Recipe);
    std::set<FaultKind> kinds;
    std::set<std::size_t> members;
    std::set<std::size_t> servers;
    bool leader = false;
    bool leaving = false;
    for (int i = 0; i < 2'000; ++i)
    {
        const PlannedFault fault = plan.Next();
        kinds.insert(fault.kind);
        leader |= !fault.target.member;
        leaving |= fault.leaving && fault.kind != FaultKind::LeaveInTurn;
        members.insert(fault.target.member.value_or(0));
        servers.insert(fault.target.server.value_or(0));
        EXPECT_GE(fault.duration.count(), 0);
        EXPECT_LE(fault.duration, seconds(6));
        EXPECT_LE(fault.pause, seconds(10));
    }
    EXPECT_THAT(kinds, SizeIs(static_cast<std::size_t>(FaultKind::DeletePath) + 1));
    EXPECT_EQ(members, (std::set<std::size_t>{0, 1, 2, 3, 4}));
    EXPECT_EQ(servers, (std::set<std::size_t>{0, 1, 2}));
    EXPECT_TRUE(leader);
    EXPECT_TRUE(leaving);
}

}  // namespace
}  // namespace kx::velmor::chaos
