// The election recipe on a service in memory.

#include "source/candidate_impl.h"
#include "tests/unit/memory_fixture.h"

#include <kx/velmor/error.h>

namespace kx::velmor {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class MemoryElection : public MemoryTest
{
protected:
    MemoryElection() : third(service.Open({"", kTimeout})) {}

    /// A candidate keeps its session, whose watches keep the candidate.
    ~MemoryElection() override
    {
        for (const auto& each : {session, other, third})
        {
            each->Close();
        }
    }

    std::shared_ptr<CandidateImpl> Make(const std::shared_ptr<MemorySession>& owner, const std::string& name)
    {
        return std::make_shared<CandidateImpl>(
            owner, "/election", [this, name] { journal.Note(name + " leads"); },
            [this, name] { journal.Note(name + " is next"); });
    }

    std::shared_ptr<CandidateImpl> Started(const std::shared_ptr<MemorySession>& owner, const std::string& name)
    {
        auto candidate = Make(owner, name);
        candidate->Start();
        return candidate;
    }

    const std::shared_ptr<MemorySession> third;
};

TEST_F(MemoryElection, PassesLeadershipAlongTheQueue)
{
    const auto a = Started(session, "a");
    const auto b = Started(other, "b");
    const auto c = Started(third, "c");
    EXPECT_THAT(Told(), ElementsAre("a leads", "b is next"));
    EXPECT_THAT(service.Children("/election"), ElementsAre("c-0000000000", "c-0000000001", "c-0000000002"));

    a->Stop();
    EXPECT_THAT(Told(), ::testing::UnorderedElementsAre("b leads", "c is next"));
    service.Expire(*other);
    EXPECT_THAT(Told(), Contains("c leads"));
    EXPECT_TRUE(c->IsLeader());
    c->Stop();
    EXPECT_THAT(service.Children("/election"), IsEmpty());
}

TEST_F(MemoryElection, IsTakenOverWhenTheLeadersSessionTimesOut)
{
    const auto a = Started(session, "a");
    const auto b = Started(other, "b");
    EXPECT_THAT(Told(), ElementsAre("a leads", "b is next"));
    service.Cut(*session);
    service.Advance(kTimeout - 1ms);
    EXPECT_THAT(Told(), IsEmpty());
    service.Advance(1ms);
    EXPECT_THAT(Told(), ElementsAre("b leads"));

    service.Heal(*session);
    a->Stop();
    a->Start();
    EXPECT_THAT(Told(), ElementsAre("a is next"));
    EXPECT_EQ("c-0000000002", a->Name());
}

TEST_F(MemoryElection, SurvivesAnOutageThatIsShorterThanTheTimeout)
{
    const auto a = Started(session, "a");
    const auto b = Started(other, "b");
    EXPECT_THAT(Told(), ElementsAre("a leads", "b is next"));
    service.Cut(*session);
    service.Cut(*other);
    service.Advance(kTimeout / 2);
    service.Heal(*session);
    service.Heal(*other);
    EXPECT_THAT(Told(), ElementsAre("b is next"));
    service.Cut(*other);
    a->Stop();
    EXPECT_THAT(Told(), IsEmpty());
    service.Heal(*other);
    // The reconnection and the deletion that was missed both lead to a look at the queue.
    EXPECT_THAT(Told(), Contains("b leads"));
}

TEST_F(MemoryElection, FailedCheckOfTheNextLeaderIsMadeUpForByAReconnection)
{
    const auto a = Started(session, "a");
    const auto b = Started(other, "b");
    EXPECT_THAT(Told(), ElementsAre("a leads", "b is next"));
    const std::int64_t before = other->Status().sessionId;
    service.Refuse("/election", ZCONNECTIONLOSS);
    service.Delete("/election/" + a->Name());
    EXPECT_THAT(Told(), ElementsAre(::testing::HasSubstr("CheckLeader Failed: connection loss")));
    EXPECT_FALSE(b->IsLeader());
    service.Refuse("/election", ZOK);
    service.Cut(*other);
    service.Heal(*other);
    EXPECT_THAT(Told(), ElementsAre("b leads"));
    EXPECT_TRUE(b->IsLeader());
    EXPECT_EQ(before, other->Status().sessionId);

    // It watches nothing that would replace the watch that has fired, and so each reconnection is told to it.
    service.Cut(*other);
    service.Heal(*other);
    EXPECT_THAT(Told(), ElementsAre("b leads"));
    b->Stop();
    service.Cut(*other);
    service.Heal(*other);
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(MemoryElection, CandidateThatIsDroppedWithoutStopLivesUntilItsSessionIsClosed)
{
    const auto a = Started(session, "a");
    auto b = Started(other, "b");
    a->Stop();
    EXPECT_THAT(Told(), Contains("b leads"));
    const std::weak_ptr<CandidateImpl> alive = b;
    b.reset();
    EXPECT_FALSE(alive.expired());
    EXPECT_THAT(service.Children("/election"), ElementsAre("c-0000000001"));
    other->Close();
    EXPECT_TRUE(alive.expired());
    EXPECT_THAT(service.Children("/election"), IsEmpty());
}

TEST_F(MemoryElection, AdoptsTheNodeWhoseCreationWasNotAnswered)
{
    service.Add("/election");
    const auto a = Make(session, "a");
    service.LoseReply(*session);
    EXPECT_THROW(a->Start(), ZooError);
    EXPECT_THAT(service.Children("/election"), ElementsAre("c-0000000000"));
    EXPECT_THAT(Told(), ElementsAre(::testing::HasSubstr("connection loss")));
    a->Start();
    EXPECT_THAT(service.Children("/election"), ElementsAre("c-0000000000"));
    EXPECT_THAT(Told(), ElementsAre("a leads"));
}

TEST_F(MemoryElection, CannotBeJoinedWithoutTheRightTo)
{
    service.Refuse("/election", ZNOAUTH);
    const auto a = Make(session, "a");
    try
    {
        a->Start();
        FAIL() << "it was joined";
    }
    catch (const ZooError& error)
    {
        EXPECT_EQ(ZNOAUTH, error.Code());
    }
}

TEST_F(MemoryElection, ArmsNoMoreWatchesThanItNeedsHoweverOftenItReconnects)
{
    const auto a = Started(session, "a");
    const auto b = Started(other, "b");
    const auto c = Started(third, "c");
    Told();
    for (int i = 0; i < 100; ++i)
    {
        service.Cut(*other);
        service.Heal(*other);
        EXPECT_THAT(Told(), ElementsAre("b is next"));
    }
}

}  // namespace
}  // namespace kx::velmor
