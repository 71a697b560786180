// Epochs, claims and guarded writes.

#include "tests/unit/member_fixture.h"

#include <kx/velmor/error.h>
#include <kx/velmor/participants.h>

#include <future>
#include <optional>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Outcome = GuardedWrite::Outcome;

class CandidateFencingTest : public MemberTest
{
protected:
    /// Keeps the session's event thread busy, so that the candidate hears of nothing, until the object goes.
    class Deafness
    {
    public:
        explicit Deafness(testing::MemoryService& service, testing::MemorySession& session)
        {
            service.Add("/noise");
            // The callback may still be about to return when this object has gone.
            watch_ = session
                         .Exists(
                             "/noise",
                             [state = state_](int type, int, const std::string&) {
                                 if (type != ZOO_SESSION_EVENT)
                                 {
                                     state->busy.set_value();
                                     state->quiet.get_future().wait();
                                 }
                             },
                             nullptr)
                         .second;
            service.Delete("/noise");
            state_->busy.get_future().wait();
        }
        ~Deafness() { state_->quiet.set_value(); }
        Deafness(const Deafness&) = delete;
        Deafness& operator=(const Deafness&) = delete;

    private:
        struct State
        {
            std::promise<void> busy;
            std::promise<void> quiet;
        };

        const std::shared_ptr<State> state_ = std::make_shared<State>();
        Connection::WatchHandle watch_;
    };

    Leadership Gained(Member& member)
    {
        member.Become(Role::Leader);
        // It looks once more as soon as it leads; what comes later, tests decide.
        Await("a look", [&] { return Logged("looked after /election/" + member->NodeName()); });
        return member->CurrentLeadership().value();
    }
};

TEST_F(CandidateFencingTest, EpochIsTheCreationOfItsNodeAndGrows)
{
    std::int64_t last = 0;
    Member first(service_, "first");
    Member second(service_, "second");
    for (int i = 0; i < 5; ++i)
    {
        for (Member* const member : {&first, &second})
        {
            const Leadership leadership = Gained(*member);
            Stat stat{};
            ASSERT_EQ(member->Session().Exists("/election/" + (*member)->NodeName(), &stat), ZOK);
            EXPECT_EQ(leadership.Epoch(), stat.czxid);
            EXPECT_GT(leadership.Epoch(), last);
            EXPECT_EQ((*member)->CurrentLeadership()->Epoch(), leadership.Epoch());
            last = leadership.Epoch();
            (*member)->Stop();
            EXPECT_FALSE(leadership.Stands());
        }
    }
}

TEST_F(CandidateFencingTest, GuardedWriteIsAppliedWhileItLeads)
{
    service_.Add("/data", "old");
    service_.Add("/junk");
    Member ours(service_, "ours");
    const Leadership leadership = Gained(ours);

    const GuardedWrite write =
        leadership.Write({Operation::Check("/data", 0), Operation::Set("/data", "new"), Operation::Delete("/junk"),
                          Operation::Create("/job-", "1", NodeMode::PersistentSequential)});

    EXPECT_EQ(write.outcome, Outcome::Applied);
    EXPECT_TRUE(write);
    EXPECT_THAT(write.created, ElementsAre("", "", "", ::testing::StartsWith("/job-")));
    EXPECT_EQ(service_.Data("/data"), "new");
    EXPECT_FALSE(service_.Has("/junk"));
    EXPECT_EQ(service_.Data(write.created[3]), "1");
}

TEST_F(CandidateFencingTest, RefusedOperationIsNamedAndNothingChanges)
{
    service_.Add("/data", "old");
    Member ours(service_, "ours");
    const Leadership leadership = Gained(ours);

    const GuardedWrite write = leadership.Write({Operation::Set("/data", "new"), Operation::Delete("/missing")});

    EXPECT_EQ(write.outcome, Outcome::Refused);
    EXPECT_EQ(write.refused, 1U);
    EXPECT_EQ(write.code, ZNONODE);
    EXPECT_EQ(write.error, "no node");
    EXPECT_FALSE(write);
    EXPECT_EQ(service_.Data("/data"), "old");
}

TEST_F(CandidateFencingTest, NothingIsWrittenAfterTheLoss)
{
    service_.Add("/data", "old");
    Member ours(service_, "ours");
    const Leadership former = Gained(ours);
    ours->Stop();
    EXPECT_EQ(former.Write({Operation::Set("/data", "new")}).outcome, Outcome::NotLeading);

    const Leadership present = Gained(ours);
    EXPECT_EQ(former.Write({Operation::Set("/data", "new")}).outcome, Outcome::NotLeading);
    EXPECT_EQ(service_.Data("/data"), "old");
    EXPECT_EQ(present.Write({Operation::Set("/data", "new")}).outcome, Outcome::Applied);
}

TEST_F(CandidateFencingTest, NothingIsWrittenByWhoDoesNotKnowOfTheLossYet)
{
    service_.Add("/data", "old");
    for (const char* const what : {"node", "identity"})
    {
        Member ours(service_, "ours");
        const Leadership leadership = Gained(ours);
        {
            const Deafness deafness(service_, ours.Session());
            if (std::string(what) == "node")
            {
                service_.Delete("/election/" + ours->NodeName());
            }
            else
            {
                service_.Delete("/election-identities/" + Identities().front());
            }
            EXPECT_TRUE(ours->IsLeader());
            EXPECT_EQ(leadership.Write({Operation::Set("/data", what)}).outcome, Outcome::NotLeading) << what;
            EXPECT_EQ(service_.Data("/data"), "old");
        }
        ours->Stop();
    }
}

TEST_F(CandidateFencingTest, WriteThatMeetsNodesOfTheSameNameIsRefused)
{
    service_.Add("/data", "old");
    Member ours(service_, "ours");
    const Leadership leadership = Gained(ours);
    {
        const Deafness deafness(service_, ours.Session());
        // The path is made anew, and numbers begin again.
        service_.Delete("/election/" + ours->NodeName());
        service_.Delete("/election");
        Member other(service_, "other");
        other->Start();
        Await("the same name", [&] { return Queue() == std::vector<std::string>{"c-0000000000"}; });
        // Ours has not let go of the lead yet.
        EXPECT_FALSE(other->WaitForRole(Role::Leader, milliseconds(50)));
        service_.Expire(ours.Session());
        EXPECT_TRUE(other->WaitForRole(Role::Leader, kPatience));
        EXPECT_NE(leadership.Write({Operation::Set("/data", "new")}).outcome, Outcome::Applied);
        EXPECT_EQ(service_.Data("/data"), "old");
    }
}

TEST_F(CandidateFencingTest, LostReplyLeavesTheOutcomeUnknown)
{
    service_.Add("/data", "old");
    Member ours(service_, "ours");
    const Leadership leadership = Gained(ours);
    service_.LoseReply(ours.Session());
    const GuardedWrite write = leadership.Write({Operation::Set("/data", "new")});
    EXPECT_EQ(write.outcome, Outcome::Unknown);
    EXPECT_EQ(write.code, ZCONNECTIONLOSS);
    EXPECT_EQ(write.error, "connection loss");
}

TEST_F(CandidateFencingTest, NobodyLeadsWhileAnothersClaimStands)
{
    Member first(service_, "first");
    Member second(service_, "second");
    Gained(first);
    second.Become(Role::NextLeader);
    {
        const Deafness deafness(service_, first.Session());
        service_.Delete("/election/" + first->NodeName());
        Await("the wait", [&] { return Logged("waits for the one before to have finished"); });
        EXPECT_FALSE(second->IsLeader());
        EXPECT_TRUE(first->IsLeader());
    }
    ASSERT_TRUE(second->WaitForRole(Role::Leader, kPatience));
    EXPECT_FALSE(first->IsLeader());
    first.Await("lost: node deleted");
}

TEST_F(CandidateFencingTest, ClaimOfOneThatIsCutOffGoesWithItsSession)
{
    Member first(service_, "first");
    Member second(service_, "second");
    Gained(first);
    second.Become(Role::NextLeader);
    service_.Cut(first.Session());
    service_.Delete("/election/" + first->NodeName());
    Await("the wait", [&] { return Logged("waits for the one before to have finished"); });
    service_.Advance(kTimeout - milliseconds(1));
    EXPECT_FALSE(second->IsLeader());
    EXPECT_FALSE(first->IsLeader());
    service_.Advance(milliseconds(2));
    EXPECT_TRUE(second->WaitForRole(Role::Leader, kPatience));
}

TEST_F(CandidateFencingTest, PlaceThatIsOlderThanTheLastLeadershipDoesNotLead)
{
    Member ours(service_, "ours");
    Member older(service_, "older");
    Gained(ours);
    older.Become(Role::NextLeader);
    const std::string place = older->NodeName();
    // As if somebody who joined later had led already.
    Stat stat{};
    ASSERT_EQ(older.Session().Exists("/election/" + place, &stat), ZOK);
    service_.Set("/election-identities", std::to_string(stat.czxid + 1));
    ours->Stop();
    AdvanceUntil("its turn, later", [&] { return older->IsLeader(); });
    EXPECT_NE(older->NodeName(), place);
    Await("the log", [&] { return Logged("not newer than the last leadership"); });
}

TEST_F(CandidateFencingTest, EpochThatNobodyCanHaveHadKeepsNobodyAway)
{
    Member ours(service_, "ours");
    service_.Add("/election-identities", "9000000000000000000");
    ours.Become(Role::Leader);
    ours->Stop();
    service_.Set("/election-identities", "what is this?");
    ours.Become(Role::Leader);
}

TEST_F(CandidateFencingTest, ParticipantsAreToldInTheOrderOfTheQueue)
{
    const auto watcher = service_.Open();
    EXPECT_THAT(Participants(*watcher, "/election"), IsEmpty());
    EXPECT_EQ(LeaderIdentity(*watcher, "/election"), std::nullopt);

    Member first(service_, "first one");
    Member second(service_, "second");
    Member third(service_, "third");
    const Leadership leadership = Gained(first);
    second.Become(Role::NextLeader);
    third.Become(Role::Follower);

    const std::vector<Participant> all = Participants(*watcher, "//election/");
    ASSERT_EQ(all.size(), 3U);
    EXPECT_EQ(all[0].role, Role::Leader);
    EXPECT_EQ(all[0].node, first->NodeName());
    EXPECT_EQ(all[0].session, first.Session().ClientId()->client_id);
    EXPECT_EQ(all[0].epoch, leadership.Epoch());
    EXPECT_EQ(all[0].identity, "first one");
    EXPECT_EQ(all[1].role, Role::NextLeader);
    EXPECT_EQ(all[1].identity, "second");
    EXPECT_EQ(all[2].role, Role::Follower);
    EXPECT_EQ(all[2].identity, "third");
    EXPECT_GE(all[2].age, milliseconds(0));
    EXPECT_EQ(LeaderIdentity(*watcher, "/election"), "first one");
}

TEST_F(CandidateFencingTest, LeadershipThatIsKeptKeepsNoSessionOpen)
{
    std::optional<Leadership> kept;
    {
        testing::MemoryService service;
        std::shared_ptr<testing::MemorySession> session = service.Open();
        const std::weak_ptr<testing::MemorySession> weak = session;
        CandidateOptions options;
        options.electionPath = "/election";
        {
            Candidate candidate(session, options);
            candidate.Start();
            ASSERT_TRUE(candidate.WaitForRole(Role::Leader, kPatience));
            kept = candidate.CurrentLeadership();
            EXPECT_TRUE(kept->Stands());
        }
        session = nullptr;
        Await("the end of the session", [&] { return weak.expired(); });
        EXPECT_FALSE(kept->Stands());
        EXPECT_EQ(kept->Write({Operation::Check("/election")}).outcome, Outcome::NotLeading);
    }
    EXPECT_FALSE(kept->Stands());
}

TEST_F(CandidateFencingTest, ParticipantsThatDoNotSayWhoTheyAreAreToldAllTheSame)
{
    const auto watcher = service_.Open();
    service_.Add("/election/by hand");
    Member ours(service_, "ours");
    ours.Become(Role::NextLeader);
    const std::vector<Participant> all = Participants(*watcher, "/election");
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(all[0].node, "by hand");
    EXPECT_EQ(all[0].session, 0);
    EXPECT_EQ(all[0].identity, "");
    EXPECT_EQ(LeaderIdentity(*watcher, "/election"), std::nullopt);
}

TEST_F(CandidateFencingTest, ParticipantsThatCannotBeAskedForAreAnError)
{
    const auto watcher = service_.Open();
    EXPECT_THROW(Participants(*watcher, "/"), VelmorError);
    service_.Add("/election");
    service_.Refuse("/election", ZNOAUTH);
    EXPECT_THROW(Participants(*watcher, "/election"), ZooError);
    EXPECT_THROW(LeaderIdentity(*watcher, "/election"), ZooError);
}

}  // namespace
}  // namespace kx::velmor::testing_support
