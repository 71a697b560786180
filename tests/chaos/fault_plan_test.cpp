#include "tests/chaos/fault_plan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace kx::velmor::chaos {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::IsSupersetOf;
using ::testing::SizeIs;

std::string Text(const PlannedFault& fault)
{
    const Target& target = fault.target;
    return std::string(Name(fault.kind)) + " " + (target.member ? std::to_string(*target.member) : "leader") + " " +
           (target.server ? std::to_string(*target.server) : "all") + (target.allMembers ? " everybody " : " ") +
           Name(fault.request) + " " + std::to_string(fault.duration.count()) + " " +
           std::to_string(fault.pause.count()) + (fault.leaving ? " leaving" : "");
}

PlanOptions Options(std::uint64_t seed, Subject subject, std::size_t servers = 3)
{
    PlanOptions options;
    options.seed = seed;
    options.servers = servers;
    options.sessionTimeout = seconds(2);
    options.subject = subject;
    return options;
}

/// Those of what a lease assumes about its session and its process.
const std::set<FaultKind> kOfLeases{FaultKind::LowerTimeout, FaultKind::LoseServerAfterPause, FaultKind::Fork};

std::vector<std::string> Faults(std::uint64_t seed, std::size_t count, const std::set<FaultKind>& without = {})
{
    PlanOptions options = Options(seed, Subject::Candidate);
    options.without = without;
    FaultPlan plan(options);
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
    EXPECT_EQ(Faults(1, 2, kOfLeases), (std::vector<std::string>{"leave in turn 0 all sync 3212 1732 leaving",
                                                                 "kill server 1 2 exists 3913 880"}));
    EXPECT_EQ(Faults(1, 2),
              (std::vector<std::string>{"delete node 0 all sync 0 0 leaving", "kill member 4 all sync 2917 358"}));
}

TEST(ChaosFaultPlan, HasTheSameFaultsForEverySubjectButClosesNoCandidatesSessionAndTestsNoLeaseOfTheRecipe)
{
    FaultPlan recipe(Options(3, Subject::Recipe));
    FaultPlan candidate(Options(3, Subject::Candidate));
    int closed = 0;
    int ofLeases = 0;
    for (int i = 0; i < 500; ++i)
    {
        const PlannedFault one = recipe.Next();
        const PlannedFault other = candidate.Next();
        EXPECT_EQ(kOfLeases.count(one.kind), 0U);
        if (kOfLeases.count(other.kind) != 0)
        {
            ++ofLeases;
            EXPECT_EQ(other.duration, one.duration);
            continue;
        }
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
    EXPECT_GT(ofLeases, 10);
}

TEST(ChaosFaultPlan, GivesFaultsOfLeasesWhatTheyNeed)
{
    FaultPlan plan(Options(1, Subject::Candidate));
    std::set<FaultKind> kinds;
    std::set<bool> silenced;
    std::set<bool> renewed;
    std::set<bool> killed;
    for (int i = 0; i < 1'000; ++i)
    {
        const PlannedFault fault = plan.Next();
        kinds.insert(fault.kind);
        if (fault.kind == FaultKind::LowerTimeout)
        {
            // Two ticks of a server, and what members ask for.
            EXPECT_GE(fault.grants, milliseconds(200));
            EXPECT_LE(fault.grants, seconds(2));
            EXPECT_TRUE(fault.target.server);
            EXPECT_FALSE(fault.target.member);
            silenced.insert(fault.silences);
            renewed.insert(fault.renews);
        }
        if (fault.kind == FaultKind::LoseServerAfterPause)
        {
            EXPECT_FALSE(fault.target.member);
            EXPECT_GE(fault.pausedPercent, 30U);
            EXPECT_LE(fault.pausedPercent, 90U);
            EXPECT_LE(fault.runs, milliseconds(50));
            killed.insert(fault.kills);
        }
    }
    EXPECT_THAT(kinds, IsSupersetOf(kOfLeases));
    EXPECT_THAT(silenced, SizeIs(2));
    EXPECT_THAT(renewed, SizeIs(2));
    EXPECT_THAT(killed, SizeIs(2));
}

TEST(ChaosFaultPlan, DoesToASingleServerWhatItWouldDoToSeveral)
{
    FaultPlan plan(Options(1, Subject::Candidate, 1));
    std::set<FaultKind> kinds;
    for (int i = 0; i < 1'000; ++i)
    {
        const PlannedFault fault = plan.Next();
        kinds.insert(fault.kind);
        EXPECT_EQ(fault.target.server.value_or(0), 0U);
    }
    EXPECT_THAT(kinds, IsSupersetOf({FaultKind::KillServer, FaultKind::PauseServer, FaultKind::PauseAllServers}));
    EXPECT_EQ(kinds.count(FaultKind::KillServersLeader), 0U);
    EXPECT_EQ(kinds.count(FaultKind::PauseServersLeader), 0U);
    EXPECT_EQ(kinds.count(FaultKind::LoseQuorum), 0U);
}

TEST(ChaosFaultPlan, LeavesOutWhatItIsTold)
{
    PlanOptions options = Options(1, Subject::Candidate);
    for (const auto& [name, kind] : FaultKindsByName())
    {
        EXPECT_EQ(Name(kind), name);
        if (kind != FaultKind::Fork)
        {
            options.without.insert(kind);
        }
    }
    EXPECT_EQ(FaultPlan(options).Next().kind, FaultKind::Fork);
    options.without.insert(FaultKind::Fork);
    EXPECT_THROW(FaultPlan{options}, std::invalid_argument);
}

TEST(ChaosFaultPlan, BringsEveryKindOfFaultToEveryMemberAndServer)
{
    PlanOptions options = Options(1, Subject::Recipe);
    options.without = kOfLeases;
    FaultPlan plan(options);
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
    EXPECT_THAT(kinds, SizeIs(FaultKindsByName().size() - kOfLeases.size()));
    EXPECT_EQ(members, (std::set<std::size_t>{0, 1, 2, 3, 4}));
    EXPECT_EQ(servers, (std::set<std::size_t>{0, 1, 2}));
    EXPECT_TRUE(leader);
    EXPECT_TRUE(leaving);
}

}  // namespace
}  // namespace kx::velmor::chaos
