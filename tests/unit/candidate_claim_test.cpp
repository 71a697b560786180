// What a leader leaves behind for the next one, and how long the next one waits for it.

#include "tests/unit/member_fixture.h"

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;

class CandidateClaimTest : public MemberTest
{
protected:
    static constexpr milliseconds kShortTimeout{1'500};

    /// Ends the session behind its owner's back, which leads on until its lease is over.
    void EndSessionOf(Member& member, milliseconds timeout)
    {
        service_.Cut(member.Session());
        service_.Advance(timeout);
    }
};

TEST_F(CandidateClaimTest, RecordsTheLongestLeaseUntilTheLeadIsGivenBack)
{
    Member ours(service_, "ours");
    EXPECT_EQ(LeftLease(), "");
    ours.Become(Role::Leader);
    EXPECT_EQ(LeftLease(), "6000");
    ours->Stop();
    EXPECT_EQ(LeftLease(), "");
}

TEST_F(CandidateClaimTest, NextOneLeadsAtOnceWhenTheLeadIsGivenBack)
{
    Member first(service_, "first");
    Member second(service_, "second", {}, kShortTimeout);
    QueueUp({&first, &second});
    first->Stop();
    ASSERT_TRUE(second->WaitForRole(Role::Leader, std::chrono::seconds(20))) << "the clock stands still";
    EXPECT_EQ(LeftLease(), "1000");
}

TEST_F(CandidateClaimTest, NextOneLeadsAtOnceAfterACrashBetweenEqualTimeouts)
{
    Member first(service_, "first");
    Member second(service_, "second");
    QueueUp({&first, &second});
    EndSessionOf(first, kTimeout);
    ASSERT_TRUE(second->WaitForRole(Role::Leader, std::chrono::seconds(20))) << "the clock stands still";
    EXPECT_EQ(LeftLease(), "6000");
    EXPECT_FALSE(Logged("waits until the lease of the last leader is surely over"));
}

TEST_F(CandidateClaimTest, NextOneLeadsAtOnceWhenItsTimeoutIsLonger)
{
    Member first(service_, "first", {}, kShortTimeout);
    Member second(service_, "second");
    QueueUp({&first, &second});
    EndSessionOf(first, kShortTimeout);
    ASSERT_TRUE(second->WaitForRole(Role::Leader, std::chrono::seconds(20))) << "the clock stands still";
    EXPECT_EQ(LeftLease(), "6000");
}

TEST_F(CandidateClaimTest, NextOneThatIsGrantedLessWaitsForTheLeaseOfALeaderThatCrashed)
{
    Member first(service_, "first");
    Member second(service_, "second", {}, kShortTimeout);
    QueueUp({&first, &second});
    EndSessionOf(first, kTimeout);
    Await("the wait", [&] { return Logged("waits until the lease of the last leader is surely over"); });
    EXPECT_NE(second->CurrentRole(), Role::Leader);
    EXPECT_EQ(LeftLease(), "6000");
    const auto begin = service_.Now();
    AdvanceUntil("the takeover", [&] { return second->IsLeader(); });
    EXPECT_GE(service_.Now() - begin, kLease);
    EXPECT_EQ(LeftLease(), "1000");
    second->Stop();
    EXPECT_EQ(LeftLease(), "");
}

TEST_F(CandidateClaimTest, RecordThatIsDeletedDuringTheWaitIsMadeAnew)
{
    Member first(service_, "first");
    Member second(service_, "second", {}, kShortTimeout);
    QueueUp({&first, &second});
    EndSessionOf(first, kTimeout);
    Await("the wait", [&] { return Logged("waits until the lease of the last leader is surely over"); });
    service_.Delete("/election-identities/lease");
    AdvanceUntil("the takeover", [&] { return second->IsLeader(); });
    EXPECT_EQ(LeftLease(), "1000");
}

TEST_F(CandidateClaimTest, NodeThatHoldsNoLengthIsNotWaitedFor)
{
    service_.Add("/election-identities/lease", "what is this?");
    Member ours(service_, "ours", {}, kShortTimeout);
    ours.Become(Role::Leader);
    EXPECT_EQ(LeftLease(), "1000");
}

}  // namespace
}  // namespace kx::velmor::testing_support
