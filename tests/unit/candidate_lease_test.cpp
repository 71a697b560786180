// Leases, by a clock that only the test moves.

#include "tests/unit/counting_session.h"
#include "tests/unit/member_fixture.h"

#include <future>
#include <thread>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;

class CandidateLeaseTest : public MemberTest
{};

TEST_F(CandidateLeaseTest, RunsOutTwoThirdsOfATimeoutAfterTheLastWord)
{
    Member ours(service_, "ours");
    ours.Become(Role::Leader);
    EXPECT_EQ(ours->LeaseLeft(), kLease);

    service_.Cut(ours.Session());
    service_.Advance(kLease - milliseconds(1));
    EXPECT_TRUE(ours->IsLeader());
    EXPECT_EQ(ours->LeaseLeft(), milliseconds(1));
    service_.Advance(milliseconds(1));

    // At once, whoever has been told by now.
    EXPECT_FALSE(ours->IsLeader());
    EXPECT_EQ(ours->LeaseLeft(), milliseconds(0));
    EXPECT_EQ(ours->CurrentRole(), Role::Joining);
    EXPECT_EQ(ours->CurrentLeadership(), std::nullopt);
    ours.Await("lost: lease ran out");
}

TEST_F(CandidateLeaseTest, DoesNotBeginWithLessThanAThirdOfTheTimeout)
{
    testing::MemorySessionOptions sessionOptions;
    sessionOptions.sessionTimeout = kTimeout;
    const auto session = std::make_shared<CountingSession>(service_.Open(sessionOptions));
    session->ShortenLeases(kLease - kTimeout / 3 + milliseconds(1));
    CandidateOptions options;
    options.electionPath = "/election";
    Candidate ours(session, options);
    ours.Start();
    AdvanceUntil("some attempts", [&] { return session->Count("data /election-identities/leader") >= 5; });
    EXPECT_EQ(ours.CurrentRole(), Role::Joining);
    session->ShortenLeases(kLease - kTimeout / 3);
    AdvanceUntil("the lead", [&] { return ours.IsLeader(); });
}

TEST_F(CandidateLeaseTest, ItsLapseIsToldWithoutAnyEvent)
{
    Member ours(service_, "ours");
    ours.Become(Role::Leader);
    service_.Cut(ours.Session());
    service_.AwaitQuiet();
    service_.Advance(kLease);
    ours.Await("lost: lease ran out");
    ours.Await("role joining", 2);
}

TEST_F(CandidateLeaseTest, LeadershipEndsWithItWhoeverAsks)
{
    Member ours(service_, "ours");
    ours.Become(Role::Leader);
    ours.Await("gained");
    const Leadership leadership = ours.LastLeadership();
    EXPECT_TRUE(leadership.Stands());
    service_.Cut(ours.Session());
    service_.Advance(kLease);
    EXPECT_FALSE(leadership.Stands());
}

TEST_F(CandidateLeaseTest, ShorterBlipCostsNothing)
{
    Member ours(service_, "ours");
    ours.Become(Role::Leader);
    ours.Await("gained");
    for (int i = 0; i < 5; ++i)
    {
        service_.Cut(ours.Session());
        service_.Advance(kLease - milliseconds(1));
        service_.Heal(ours.Session());
        Await("word from the servers", [&] { return ours->LeaseLeft() == kLease; });
        EXPECT_TRUE(ours->IsLeader());
    }
    EXPECT_THAT(ours.Lines(), ElementsAre("role joining", "role leader", "gained"));
    EXPECT_THAT(Queue(), ElementsAre("c-0000000000"));
}

TEST_F(CandidateLeaseTest, IsKeptFreshWhileServersAnswer)
{
    Member ours(service_, "ours");
    ours.Become(Role::Leader);
    service_.Advance(10 * kTimeout);
    EXPECT_TRUE(ours->IsLeader());
    EXPECT_GE(ours->LeaseLeft(), kLease - kTimeout / 8 - milliseconds(1));
}

TEST_F(CandidateLeaseTest, OneThatRanOutDoesNotComeBackWithTheSession)
{
    Member ours(service_, "ours");
    ours.Become(Role::Leader);
    const std::string node = ours->NodeName();
    ours.Await("gained");
    const Leadership former = ours.LastLeadership();
    service_.Cut(ours.Session());
    service_.Advance(kLease);
    ours.Await("lost: lease ran out");
    service_.Heal(ours.Session());
    AdvanceUntil("another leadership", [&] { return ours->IsLeader(); });
    ours.Await("gained", 2);

    EXPECT_NE(ours->NodeName(), node);
    EXPECT_GT(ours.LastLeadership().Epoch(), former.Epoch());
    EXPECT_FALSE(former.Stands());
    EXPECT_EQ(Queue().size(), 1U);
    EXPECT_THAT(ours.Lines(), ElementsAre("role joining", "role leader", "gained", "lost: lease ran out",
                                          "role joining", "role leader", "gained"));
}

TEST_F(CandidateLeaseTest, RunsOutBeforeTheNextOneLeads)
{
    Member first(service_, "first");
    Member second(service_, "second");
    QueueUp({&first, &second});
    service_.Cut(first.Session());
    for (milliseconds passed{0}; passed < 2 * kTimeout; passed += milliseconds(100))
    {
        service_.Advance(milliseconds(100));
        EXPECT_FALSE(second->IsLeader() && first->IsLeader());
    }
    EXPECT_TRUE(second->WaitForRole(Role::Leader, kPatience));
    first.Await("lost: lease ran out");
    service_.Heal(first.Session());
    AdvanceUntil("the return", [&] { return first->CurrentRole() == Role::NextLeader; });
    ExpectWhole({&first, &second});
}

TEST_F(CandidateLeaseTest, WaitersHearOfItsEndWhileACallbackIsBusy)
{
    std::promise<void> finished;
    Member ours(service_, "ours", [&](CandidateOptions& options) {
        options.onLeader = [done = finished.get_future().share()](const Leadership&) { done.wait(); };
    });
    ours.Become(Role::Leader);
    service_.Cut(ours.Session());
    auto change = std::async(std::launch::async, [&] { return ours->WaitForChange(Role::Leader, kPatience); });
    service_.Advance(kLease);
    EXPECT_EQ(change.get(), Role::Joining);
    finished.set_value();
    ours.Await("lost: lease ran out");
}

TEST_F(CandidateLeaseTest, WordThatComesTooLateDoesNotRevive)
{
    Member ours(service_, "ours");
    ours.Become(Role::Leader);
    service_.Cut(ours.Session());
    service_.Advance(kLease);
    service_.Heal(ours.Session());
    service_.AwaitQuiet();
    ours.Await("lost: lease ran out");
    const std::vector<std::string> lines = ours.Lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "gained"), 1);
}

}  // namespace
}  // namespace kx::velmor::testing_support
