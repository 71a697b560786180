// Sessions that end under an election, at every moment of it.
#include "tests/ensemble/scenario_fixture.h"

#include <kx/velmor/error.h>

#include <gmock/gmock.h>

#include <future>
#include <string>
#include <thread>

namespace kx::velmor::testing_support {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;

class SessionScenario : public ScenarioFixture
{
protected:
    /// Ends a member's session, and waits until it has another.
    void Replace(const Member& member)
    {
        const std::int64_t old = member.SessionId();
        Expire(member);
        member.AwaitSessionAfter(old);
    }
};

TEST_F(SessionScenario, EndsWhileLeadingWhileNextAndWhileWaiting)
{
    JoinMany(4);
    // The leader: the others move up at once, and it believes in its role until its owner looks.
    Replace(members_[0]);
    members_[1].AwaitLeads();
    members_[2].AwaitIsNext();
    EXPECT_TRUE(members_[0].Leads());
    members_[0].Rejoin();
    EXPECT_FALSE(members_[0].Leads() || members_[0].IsNext());
    AwaitWhole();

    // The next in line.
    Replace(members_[2]);
    Await("a failing check", [this] { return Logged("CheckLeader Failed: Failed to find own node"); });
    members_[3].AwaitIsNext();
    EXPECT_TRUE(members_[1].Leads());
    EXPECT_TRUE(members_[2].IsNext());
    members_[2].Rejoin();
    AwaitWhole();

    // One that waits: nobody is promoted.
    Replace(members_[0]);
    members_[0].Rejoin();
    AwaitWhole();
    EXPECT_TRUE(members_[1].Leads());
    EXPECT_TRUE(members_[3].IsNext());
}

TEST_F(SessionScenario, EndsTwiceInARow)
{
    JoinMany(3);
    for (const std::size_t lost : {0U, 1U, 2U})
    {
        // Before its owner has looked, and right after it has joined again.
        Replace(members_[lost]);
        Replace(members_[lost]);
        members_[lost].Rejoin();
        Replace(members_[lost]);
        members_[lost].Rejoin();
        MendUntilWhole();
    }
}

TEST_F(SessionScenario, EndsAtAnyPointOfAStart)
{
    JoinMany(3);
    for (const char* const point : {"Created candidate node", "CheckLeader: before sorting",
                                    "CheckLeader: after sorting", "Watching predecessor"})
    {
        for (int occurrence = 1; occurrence <= 2; ++occurrence)
        {
            SCOPED_TRACE(point);
            Member& member = Add();
            const std::thread::id starting = std::this_thread::get_id();
            int seen = 0;
            log_.Watch([&](const LogRecord& record) {
                if (std::this_thread::get_id() == starting && record.text.rfind(point, 0) == 0 && ++seen == occurrence)
                {
                    Replace(member);
                }
            });
            member.JoinInTheEnd();
            log_.Watch({});
            EXPECT_GE(seen, 1);
            MendUntilWhole();
            EXPECT_THAT(Queue(), SizeIs(4));
            member.Leave();
            members_.pop_back();
        }
    }
    AwaitWhole();
}

TEST_F(SessionScenario, EndsDuringAStop)
{
    JoinMany(5);
    for (const std::size_t leaving : {0U, 3U, 1U})
    {
        Member& member = members_[leaving];
        // The deletion waits for the connection; with it comes the news that there is nothing to delete.
        member.network->Disconnect();
        std::future<void> left = std::async(std::launch::async, [&] {
            try
            {
                member.Leave();
            }
            catch (const ZooError& error)
            {
                EXPECT_EQ(error.Code(), ZSESSIONEXPIRED);
            }
        });
        Expire(member);
        left.get();
        EXPECT_FALSE(member.Leads() || member.IsNext());
        AwaitRoles();
        member.JoinInTheEnd();
        AwaitRoles();
    }
    AwaitWhole();
}

TEST_F(SessionScenario, EndOfAllOfThemAtOnceIsANewElection)
{
    JoinMany(4);
    for (int round = 0; round < 2; ++round)
    {
        for (const Member& member : members_)
        {
            Replace(member);
        }
        EXPECT_THAT(Queue(), SizeIs(0));
        MendUntilWhole();
    }
}

}  // namespace
}  // namespace kx::velmor::testing_support
