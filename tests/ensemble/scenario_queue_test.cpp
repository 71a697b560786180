// What happens to the queue itself: nodes that vanish, strangers among them, crowds that come and go.
#include "tests/ensemble/scenario_fixture.h"

#include <kx/velmor/error.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <future>
#include <iterator>

namespace kx::velmor::testing_support {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class QueueScenario : public ScenarioFixture
{
protected:
    /// One attempt; the code with which it failed.
    static int FailingJoin(Member& member)
    {
        try
        {
            member.Join();
        }
        catch (const ZooError& error)
        {
            return error.Code();
        }
        return ZOK;
    }
};

TEST_F(QueueScenario, NodesThatAnOperatorDeletesAreMissedByTheirOwnersOnly)
{
    JoinMany(5);
    // A leader is told nothing, since nobody is ahead of it: it is its owner who has to look.
    Observer().Delete(members_[0].Path());
    members_[1].AwaitLeads();
    members_[2].AwaitIsNext();
    EXPECT_TRUE(members_[0].Leads());
    MendUntilWhole();

    // In the middle, those behind move up and nobody is promoted.
    Observer().Delete(members_[4].Path());
    Observer().Delete(members_[3].Path());
    members_[3].network->Cut();
    Await("a failing check", [this] { return Logged("CheckLeader Failed: Failed to find own node"); });
    MendUntilWhole();
    EXPECT_TRUE(members_[1].Leads());
    EXPECT_TRUE(members_[2].IsNext());

    // The next in line.
    Observer().Delete(members_[2].Path());
    members_[0].AwaitIsNext();
    EXPECT_TRUE(members_[2].IsNext());
    MendUntilWhole();
    EXPECT_TRUE(members_[1].Leads());
}

TEST_F(QueueScenario, ElectionPathThatIsDeletedUnderAllIsMadeAgainByWhoeverJoinsAgain)
{
    JoinMany(4);
    for (int round = 0; round < 3; ++round)
    {
        Observer().DeleteAll("/scenario");
        EXPECT_FALSE(Observer().Exists(kElection));
        MendUntilWhole();
    }
}

TEST_F(QueueScenario, StrangersBehindAreNobody)
{
    JoinMany(3);
    // Sorted behind "c-", whoever made them.
    Observer().Create(std::string(kElection) + "/d-0000000000");
    Observer().Create(std::string(kElection) + "/z");
    Observer().Create(std::string(kElection) + "/c-z");
    Member& late = Join();
    EXPECT_FALSE(late.Leads() || late.IsNext());
    members_[0].Leave();
    members_[1].AwaitLeads();
    members_[2].AwaitIsNext();
    members_[1].Leave();
    members_[2].AwaitLeads();
    late.AwaitIsNext();
    EXPECT_THAT(Queue(), SizeIs(5));
    for (const char* const stranger : {"d-0000000000", "z", "c-z"})
    {
        Observer().Delete(std::string(kElection) + "/" + stranger);
    }
    AwaitWhole();
}

TEST_F(QueueScenario, StrangersAheadStandInTheQueueLikeAnybody)
{
    const std::string stranger = std::string(kElection) + "/a";
    JoinMany(1);
    Observer().Create(stranger);
    // Behind the stranger and the leader, who has no reason to look again.
    JoinMany(2);
    EXPECT_TRUE(members_[0].Leads());
    EXPECT_FALSE(members_[1].IsNext());
    Observer().Delete(stranger);
    members_[1].AwaitIsNext();
    AwaitWhole();

    // One that stands there from the beginning holds everyone up.
    for (Member& member : members_)
    {
        member.Leave();
    }
    Observer().Create(stranger);
    members_[0].Join();
    EXPECT_TRUE(members_[0].IsNext());
    members_[1].Join();
    members_[0].Leave();
    members_[1].AwaitIsNext();
    EXPECT_FALSE(members_[1].Leads());
    Observer().Delete(stranger);
    members_[1].AwaitLeads();
    AwaitWhole();
}

TEST_F(QueueScenario, NodesAheadVanishOneByOneWhileAFollowerChecks)
{
    constexpr std::size_t kAhead = 11;
    JoinMany(kAhead);
    // Each check finds that the one ahead has gone since it listed the queue.
    std::size_t vanished = 0;
    log_.Watch([&](const LogRecord& record) {
        if (record.text.rfind("CheckLeader: after sorting", 0) == 0 && vanished + 1 < kAhead)
        {
            ++vanished;
            Observer().Delete(members_[kAhead - vanished].Path());
        }
    });
    // Theirs fail only when they look again.
    Member& last = Add();
    for (std::size_t i = 1; i < kAhead; ++i)
    {
        members_[i].network->Disconnect();
    }
    last.Join();
    log_.Watch({});
    EXPECT_EQ(vanished, kAhead - 1);
    EXPECT_TRUE(last.IsNext());
    EXPECT_THAT(Queue(), ElementsAre(members_[0].candidate->Name(), last.candidate->Name()));
    members_[0].Leave();
    last.AwaitLeads();
    for (std::size_t i = 1; i < kAhead; ++i)
    {
        members_[i].network->Reconnect();
    }
    MendUntilWhole();
}

TEST_F(QueueScenario, NobodyIsPromotedWhenTheMiddleLeavesAtOnce)
{
    constexpr std::size_t kMembers = 12;
    std::atomic<int> promotions{0};
    for (std::size_t i = 0; i < kMembers; ++i)
    {
        MemberSetup setup{Options()};
        setup.onLeader = [&, i] { promotions += i > 0 ? 1 : 0; };
        setup.onNextLeader = [&, i] { promotions += i > 1 ? 1 : 0; };
        Join(setup);
    }
    std::vector<std::future<void>> leaving;
    for (std::size_t i = 2; i + 1 < kMembers; ++i)
    {
        leaving.push_back(std::async(std::launch::async, [&, i] { members_[i].Leave(); }));
    }
    for (std::future<void>& gone : leaving)
    {
        gone.get();
    }
    AwaitWhole();
    EXPECT_EQ(promotions, 0);
    members_.clear();
}

TEST_F(QueueScenario, AllLeaveAtOnceAndComeBackAtOnce)
{
    constexpr std::size_t kMembers = 12;
    JoinMany(kMembers);
    for (int round = 0; round < 3; ++round)
    {
        std::vector<std::future<void>> leaving;
        for (Member& member : members_)
        {
            leaving.push_back(std::async(std::launch::async, [&] { member.Leave(); }));
        }
        for (std::future<void>& gone : leaving)
        {
            gone.get();
        }
        EXPECT_THAT(Queue(), IsEmpty());
        AwaitWhole();
        std::vector<std::future<void>> joining;
        for (Member& member : members_)
        {
            joining.push_back(std::async(std::launch::async, [&] { member.Join(); }));
        }
        for (std::future<void>& joined : joining)
        {
            joined.get();
        }
        AwaitWhole();
    }
}

TEST_F(QueueScenario, TwoHundredJoinAtOnce)
{
    constexpr std::size_t kMembers = 200;
    // Each check lists them all in the log.
    logging::g_minLogLevel = static_cast<std::int32_t>(logging::LogLevel::Warning);
    const auto network = MakeNetwork();
    for (std::size_t i = 0; i < kMembers; ++i)
    {
        MemberSetup setup{Options(std::chrono::seconds(30))};
        setup.network = network;
        Add(setup);
    }
    std::vector<std::future<void>> joining;
    for (Member& member : members_)
    {
        joining.push_back(std::async(std::launch::async, [&] { member.Join(); }));
    }
    for (std::future<void>& joined : joining)
    {
        joined.get();
    }
    AwaitWhole();
    // The first in the queue, half of them at once.
    std::vector<Member*> order;
    for (Member& member : members_)
    {
        order.push_back(&member);
    }
    std::sort(order.begin(), order.end(),
              [](Member* left, Member* right) { return left->candidate->Name() < right->candidate->Name(); });
    std::vector<std::future<void>> leaving;
    for (std::size_t i = 0; i < kMembers / 2; ++i)
    {
        leaving.push_back(std::async(std::launch::async, [&, i] { order[i]->Leave(); }));
    }
    for (std::future<void>& gone : leaving)
    {
        gone.get();
    }
    order[kMembers / 2]->AwaitLeads();
    AwaitWhole();
}

TEST_F(QueueScenario, NumbersThatRunOutKeepNewcomersAwayAndNobodyElse)
{
    constexpr std::int32_t kLast = 2'147'483'647;
    const std::string counting = std::string(kElection) + "/counting";
    Observer().Create("/scenario");
    Observer().Create(kElection);
    ForgetObserver();
    Server().Kill();
    Server().AddNode(counting, kLast - 3);
    Server().Start();
    Observer().Delete(counting);
    JoinMany(4);
    EXPECT_EQ(members_[0].candidate->Name(), "c-2147483644");
    EXPECT_EQ(members_[3].candidate->Name(), "c-2147483647");
    AwaitWhole();

    // The server gives the last number again and again.
    Member& late = Add();
    EXPECT_EQ(FailingJoin(late), ZNODEEXISTS);
    members_[0].Leave();
    members_[1].AwaitLeads();
    EXPECT_EQ(FailingJoin(late), ZNODEEXISTS);
    AwaitWhole();
    members_[3].Leave();
    late.Join();
    EXPECT_EQ(late.candidate->Name(), "c-2147483647");
    AwaitWhole();
}

TEST_F(QueueScenario, NoPermissionOnTheParentIsSaidAndLeavesNothing)
{
    Member& member = Add();
    ASSERT_EQ(member.session->Create("/scenario", {}, ZOO_READ_ACL_UNSAFE, 0, nullptr), ZOK);
    EXPECT_EQ(FailingJoin(member), ZNOAUTH);
    EXPECT_THAT(Observer().List("/scenario"), IsEmpty());
    EXPECT_FALSE(member.Leads() || member.IsNext());
    // It may try again, once somebody has made room.
    EXPECT_EQ(FailingJoin(member), ZNOAUTH);
    EXPECT_TRUE(Observer().Delete("/scenario"));
    member.Join();
    Join();
    AwaitWhole();
}

TEST_F(QueueScenario, NoPermissionOnTheElectionPathIsSaidAndLeavesNothing)
{
    Member& member = Add();
    ASSERT_EQ(member.session->Create("/scenario", {}, ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZOK);
    ASSERT_EQ(member.session->Create(kElection, {}, ZOO_READ_ACL_UNSAFE, 0, nullptr), ZOK);
    EXPECT_EQ(FailingJoin(member), ZNOAUTH);
    EXPECT_TRUE(Logged("Failed to create election node"));
    EXPECT_THAT(Queue(), IsEmpty());
    AwaitWhole();
    EXPECT_TRUE(Observer().Delete(kElection));
    member.Join();
    Join();
    AwaitWhole();
}

}  // namespace
}  // namespace kx::velmor::testing_support
