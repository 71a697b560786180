// What the servers are asked for while the lead changes hands.

#include "tests/unit/counting_session.h"
#include "tests/unit/member_fixture.h"

#include <future>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;

const std::string kLastClaim = "data /election-identities";

class CandidateHandoverTest : public MemberTest
{
protected:
    /// Has a candidate whose reads are counted come to be next, and prepare to lead. They count from then on.
    void Prepare(Candidate& candidate)
    {
        candidate.Start();
        ASSERT_TRUE(candidate.WaitForRole(Role::NextLeader, kPatience));
        AdvanceUntil("preparation", [&] { return counting_->Count(kLastClaim) > 0; });
        counting_->Forget();
    }

    CandidateOptions Options() const
    {
        CandidateOptions options;
        options.electionPath = "/election";
        options.identity = "counted";
        return options;
    }

    std::int64_t LastChangeBelow(const std::string& path)
    {
        Stat stat{};
        EXPECT_EQ(witness_->Exists(path, &stat), ZOK);
        return stat.pzxid;
    }

    const std::shared_ptr<CountingSession> counting_ = std::make_shared<CountingSession>(service_.Open());
    const std::shared_ptr<testing::MemorySession> witness_ = service_.Open();
};

TEST_F(CandidateHandoverTest, LeaderLeavesWithOneWrite)
{
    Member ours(service_, "ours");
    ours.Become(Role::Leader);
    ours->Stop();
    ExpectNobody();
    EXPECT_EQ(LastChangeBelow("/election"), LastChangeBelow("/election-identities"));
}

TEST_F(CandidateHandoverTest, NextOneHasReadBeforehandWhatItNeedsToLead)
{
    Member first(service_, "first");
    first.Become(Role::Leader);
    std::promise<int> reads;
    CandidateOptions options = Options();
    options.onLeader = [&](const Leadership&) { reads.set_value(counting_->Count(kLastClaim)); };
    Candidate second(counting_, options);
    Prepare(second);
    first->Stop();
    EXPECT_EQ(reads.get_future().get(), 0);
}

TEST_F(CandidateHandoverTest, NextOneReadsAgainWhatHasChangedSince)
{
    Member first(service_, "first");
    first.Become(Role::Leader);
    Candidate second(counting_, Options());
    Prepare(second);
    service_.Set("/election-identities", service_.Data("/election-identities"));
    first->Stop();
    EXPECT_TRUE(second.WaitForRole(Role::Leader, kPatience));
    EXPECT_GE(counting_->Count(kLastClaim), 1);
}

TEST_F(CandidateHandoverTest, NextOneReadsAnewAsTimePasses)
{
    Member first(service_, "first");
    first.Become(Role::Leader);
    Candidate second(counting_, Options());
    Prepare(second);
    service_.Advance(counting_->Status().negotiatedTimeout);
    Await("another preparation", [&] { return counting_->Count(kLastClaim) > 0; });
    EXPECT_EQ(second.CurrentRole(), Role::NextLeader);
}

TEST_F(CandidateHandoverTest, PromotedLeaderThatIsFoundFirstAgainStaysTheLeaderItIs)
{
    Member first(service_, "first");
    first.Become(Role::Leader);
    const auto session = service_.Open();
    const auto counted = std::make_shared<CountingSession>(session);
    Journal told;
    CandidateOptions options = Options();
    options.onLeader = [&](const Leadership&) { told.Note("gained"); };
    options.onLeaderLost = [&](LossReason) { told.Note("lost"); };
    Candidate second(counted, options);
    second.Start();
    ASSERT_TRUE(second.WaitForRole(Role::NextLeader, kPatience));
    first->Stop();
    told.Await("gained");
    const std::string listing = "children /election";
    for (int reconnection = 0; reconnection < 3; ++reconnection)
    {
        const int before = counted->Count(listing);
        service_.Cut(*session);
        service_.Heal(*session);
        Await("a check of the recipe", [&] { return counted->Count(listing) > before; });
    }
    EXPECT_TRUE(second.IsLeader());
    EXPECT_EQ(second.CurrentRole(), Role::Leader);
    EXPECT_THAT(told.Lines(), ElementsAre("gained"));

    second.Stop();
    EXPECT_THAT(told.Lines(), ElementsAre("gained", "lost"));
    ExpectNobody();
    const int before = counted->Count(listing);
    service_.Cut(*session);
    service_.Heal(*session);
    service_.AwaitQuiet();
    EXPECT_EQ(counted->Count(listing), before) << "its recipe has gone";
}

TEST_F(CandidateHandoverTest, NodeOfItsNameThatIsAnothersStays)
{
    std::promise<void> finished;
    std::promise<void> told;
    Member ours(service_, "ours", [&](CandidateOptions& options) {
        options.rejoin = false;
        options.onLeaderLost = [&](LossReason) {
            told.set_value();
            finished.get_future().wait();
        };
    });
    ours.Become(Role::Leader);
    const std::string node = ours->NodeName();
    service_.Delete("/election/" + node);
    told.get_future().wait();
    service_.Add("/election/" + node);
    finished.set_value();
    Await("the end of its leaving", [&] { return Identities().empty(); });
    ours->Stop();
    EXPECT_THAT(Queue(), ElementsAre(node));
}

}  // namespace
}  // namespace kx::velmor::testing_support
