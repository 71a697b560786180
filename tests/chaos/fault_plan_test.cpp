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
           std::to_string(fault.pause.count());
}

std::vector<std::string> Faults(std::uint64_t seed, std::size_t count)
{
    FaultPlan plan(seed, 5, 3, seconds(2));
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
    EXPECT_EQ(Faults(1, 2),
              (std::vector<std::string>{"drop request 0 all delete 701 1732", "drop reply 4 all delete 834 358"}));
}

TEST(ChaosFaultPlan, BringsEveryKindOfFaultToEveryMemberAndServer)
{
    FaultPlan plan(1, 5, 3, seconds(2));
    std::set<FaultKind> kinds;
    std::set<std::size_t> members;
    std::set<std::size_t> servers;
    bool leader = false;
    for (int i = 0; i < 2'000; ++i)
    {
        const PlannedFault fault = plan.Next();
        kinds.insert(fault.kind);
        leader |= !fault.target.member;
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
}

}  // namespace
}  // namespace kx::velmor::chaos
