// Falling out of the queue and coming back.

#include "tests/unit/member_fixture.h"

#include <kx/velmor/error.h>

#include <future>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CandidateRejoinTest : public MemberTest
{};

TEST_F(CandidateRejoinTest, AfterItsSessionExpired)
{
    Member ours(service_, "ours");
    ours.Become(Role::Leader);
    ours.Await("gained");
    const std::int64_t before = ours.LastLeadership().Epoch();
    service_.Expire(ours.Session());
    AdvanceUntil("another leadership", [&] { return ours.Lines().size() == 7U; });
    EXPECT_THAT(ours.Lines(), ElementsAre("role joining", "role leader", "gained", "lost: session expired",
                                          "role joining", "role leader", "gained"));
    EXPECT_GT(ours.LastLeadership().Epoch(), before);
    ExpectWhole({&ours});
}

TEST_F(CandidateRejoinTest, AfterItsNodeWasDeleted)
{
    Member ours(service_, "ours");
    ours.Become(Role::Leader);
    ours.Await("gained");
    service_.Delete("/election/" + ours->NodeName());
    AdvanceUntil("another leadership", [&] { return ours.Lines().size() == 7U; });
    EXPECT_EQ(ours.Lines()[3], "lost: node deleted");
    ExpectWhole({&ours});
}

TEST_F(CandidateRejoinTest, AfterAFollowersNodeWasDeleted)
{
    Member first(service_, "first");
    Member second(service_, "second");
    Member third(service_, "third");
    QueueUp({&first, &second, &third});
    for (Member* const member : {&second, &third})
    {
        const std::string node = (*member)->NodeName();
        service_.Delete("/election/" + node);
        AdvanceUntil("the return", [&] { return Queue().size() == 3U && (*member)->NodeName() > node; });
    }
    ExpectWhole({&first, &second, &third});
    first.Await("gained");
    EXPECT_EQ(first.Lines().size(), 3U);
}

TEST_F(CandidateRejoinTest, AfterItWasDisplaced)
{
    Member ours(service_, "ours");
    ours.Become(Role::Leader);
    service_.Add("/election/a-stranger");
    AdvanceUntil("the loss", [&] { return !ours->IsLeader(); });
    ours.Await("lost: displaced");
    AdvanceUntil("the return", [&] { return ours->CurrentRole() == Role::NextLeader; });
    service_.Delete("/election/a-stranger");
    EXPECT_TRUE(ours->WaitForRole(Role::Leader, kPatience));
}

TEST_F(CandidateRejoinTest, AfterTheElectionPathWasDeleted)
{
    Member first(service_, "first");
    Member second(service_, "second");
    QueueUp({&first, &second});
    first.Await("gained");
    const std::int64_t before = first.LastLeadership().Epoch();
    for (const std::string& node : Queue())
    {
        service_.Delete("/election/" + node);
    }
    service_.Delete("/election");
    AdvanceUntil("a new queue", [&] { return Queue().size() == 2U && first->IsLeader() + second->IsLeader() == 1; });
    Member& leader = first->IsLeader() ? first : second;
    EXPECT_GT(leader->CurrentLeadership()->Epoch(), before);
    ExpectWhole({&first, &second});
}

TEST_F(CandidateRejoinTest, NeverBeforeItsCallbacksHaveReturned)
{
    std::promise<void> finished;
    Member ours(service_, "ours", [&](CandidateOptions& options) {
        options.onLeaderLost = [done = finished.get_future().share()](LossReason) { done.wait(); };
    });
    ours.Become(Role::Leader);
    service_.Expire(ours.Session());
    ASSERT_TRUE(ours->WaitForRole(Role::Joining, kPatience));
    for (int i = 0; i < 20; ++i)
    {
        service_.Advance(milliseconds(500));
    }
    EXPECT_THAT(Queue(), IsEmpty());
    finished.set_value();
    AdvanceUntil("the return", [&] { return ours->IsLeader(); });
}

TEST_F(CandidateRejoinTest, NotWhenItIsNotWanted)
{
    Member ours(service_, "ours", [](CandidateOptions& options) { options.rejoin = false; });
    ours.Become(Role::Leader);
    service_.Delete("/election/" + ours->NodeName());
    ASSERT_TRUE(ours->WaitForRole(Role::Stopped, kPatience));
    EXPECT_EQ(ours->Error(), "Out of the queue: node deleted");
    Await("its nodes to go", [&] { return Identities().empty(); });

    ours->Start();
    EXPECT_EQ(ours->Error(), "");
    // After a pause when it is still about to leave: its nodes go before it is through.
    AdvanceUntil("its return", [&] { return ours->IsLeader(); });
}

TEST_F(CandidateRejoinTest, WithoutAServerItWaitsForOne)
{
    Member ours(service_, "ours");
    service_.Cut(ours.Session());
    ours->Start();
    EXPECT_FALSE(ours->WaitForRole(Role::Leader, milliseconds(20)));
    EXPECT_EQ(ours->CurrentRole(), Role::Joining);
    service_.Heal(ours.Session());
    EXPECT_TRUE(ours->WaitForRole(Role::Leader, kPatience));
    EXPECT_EQ(ours->Error(), "");
}

TEST_F(CandidateRejoinTest, WithDelaysThatAreLogged)
{
    Member ours(service_, "ours");
    service_.Refuse("/election-identities", ZOPERATIONTIMEOUT);
    ours->Start();
    Await("a failure", [&] { return Logged("could not join: operation timeout"); });
    Await("a delay", [&] { return Logged("joins /election again in "); });
    service_.Refuse("/election-identities", ZOK);
    AdvanceUntil("its turn", [&] { return ours->IsLeader(); });
}

TEST_F(CandidateRejoinTest, WhatCanNeverSucceedStopsIt)
{
    for (const char* const path : {"/election", "/election-identities"})
    {
        service_.Refuse(path, ZNOAUTH);
        Member ours(service_, "ours");
        ours->Start();
        ASSERT_TRUE(ours->WaitForRole(Role::Stopped, kPatience));
        Await("an error", [&] { return !ours->Error().empty(); });
        EXPECT_EQ(ours->Error(), "could not join: not authenticated");
        Await("the log", [&] { return Logged("gives up: could not join: not authenticated"); });
        ours->Stop();
        service_.Refuse(path, ZOK);
        ExpectNobody();

        ours.Become(Role::Leader);
        EXPECT_EQ(ours->Error(), "");
    }
}

TEST_F(CandidateRejoinTest, SessionThatIsClosedStopsIt)
{
    Member ours(service_, "ours");
    ours.Become(Role::Leader);
    ours.Session().Close();
    ASSERT_TRUE(ours->WaitForRole(Role::Joining, kPatience) || ours->CurrentRole() == Role::Stopped);
    AdvanceUntil("the end", [&] { return ours->CurrentRole() == Role::Stopped; });
    EXPECT_EQ(ours->Error(), "the session is closed");
    ours.Await("lost: session expired");
}

TEST_F(CandidateRejoinTest, LeavingWithoutAServerEndsInTheBackground)
{
    Member first(service_, "first");
    Member second(service_, "second");
    QueueUp({&first, &second});
    service_.Cut(first.Session());
    first->Stop();
    EXPECT_EQ(first->CurrentRole(), Role::Stopped);
    EXPECT_EQ(Queue().size(), 2U);
    service_.Heal(first.Session());
    AdvanceUntil("the takeover", [&] { return second->IsLeader(); });
    Await("its nodes to go", [&] { return Queue().size() == 1U && Identities().size() == 2U; });

    first->Start();
    AdvanceUntil("the return", [&] { return first->CurrentRole() == Role::NextLeader; });
}

TEST_F(CandidateRejoinTest, LeavingWithoutAServerOutlivesTheCandidate)
{
    Member first(service_, "first");
    Member second(service_, "second");
    QueueUp({&first, &second});
    service_.Cut(first.Session());
    first.Destroy();
    service_.Heal(first.Session());
    AdvanceUntil("the takeover", [&] { return second->IsLeader(); });
    Await("its nodes to go", [&] { return Queue().size() == 1U && Identities().size() == 2U; });
}

/// The session's n-th write loses its reply.
class LostReplyTest : public MemberTest, public ::testing::WithParamInterface<int>
{};

TEST_P(LostReplyTest, LeavesNothingTwice)
{
    Member ours(service_, "ours");
    Member next(service_, "next");
    ours.Become(Role::Leader);
    next.Become(Role::NextLeader);
    // Each of these begins with other writes: leaving, joining, claiming.
    for (int round = 0; round < GetParam(); ++round)
    {
        service_.LoseReply(ours.Session());
        ours->Stop();
        AdvanceUntil("the takeover", [&] { return next->IsLeader(); });
        service_.LoseReply(ours.Session());
        ours->Start();
        AdvanceUntil("the return", [&] { return ours->CurrentRole() == Role::NextLeader; });
        service_.LoseReply(ours.Session());
        next->Stop();
        AdvanceUntil("the turn", [&] { return ours->IsLeader(); });
        next->Start();
        AdvanceUntil("second place", [&] { return next->CurrentRole() == Role::NextLeader; });
        ExpectWhole({&ours, &next});
    }
    ours->Stop();
    next->Stop();
    AdvanceUntil("all to be gone", [&] { return Queue().empty() && Identities().empty(); });
}

INSTANTIATE_TEST_SUITE_P(InRounds, LostReplyTest, ::testing::Values(1, 3));

}  // namespace
}  // namespace kx::velmor::testing_support
