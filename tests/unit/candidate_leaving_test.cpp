// Taking a place back when servers refuse, answers are lost, or others have made the nodes anew.

#include "source/bound_connection.h"
#include "source/election_nodes.h"
#include "source/queue_place.h"
#include "tests/unit/counting_session.h"
#include "tests/unit/member_fixture.h"

#include <kx/velmor/error.h>

#include <algorithm>
#include <future>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;

const std::string kElection = "/election";
const std::string kIdentities = "/election-identities";
const std::string kClaim = "/election-identities/leader";

class CandidateLeavingTest : public MemberTest
{
protected:
    static std::string PathOf(Member& member) { return kElection + "/" + member->NodeName(); }

    static std::string IdentityOf(Member& member)
    {
        return IdentityPath(kElection, member->NodeName(), member.Session().ClientId()->client_id);
    }

    std::ptrdiff_t TimesLogged(const std::string& part) const
    {
        const std::vector<std::string> lines = logJournal_.Lines();
        return std::count_if(lines.begin(), lines.end(),
                             [&](const std::string& line) { return line.find(part) != std::string::npos; });
    }
};

TEST_F(CandidateLeavingTest, RefusedLeaderTriesAgainUntilItsNodesAreGone)
{
    Member first(service_, "first");
    Member second(service_, "second");
    QueueUp({&first, &second});
    const std::string identity = IdentityOf(first);
    const std::string node = PathOf(first);
    service_.Refuse(identity, ZNOAUTH);

    first->Stop();
    EXPECT_EQ(first->CurrentRole(), Role::Stopped);
    EXPECT_EQ(first->Error(), "could not take back " + node + ": not authenticated");
    EXPECT_EQ(Queue().size(), 2U);
    EXPECT_EQ(second->CurrentRole(), Role::NextLeader);

    service_.Refuse(identity, ZOK);
    AdvanceUntil("the takeover", [&] { return second->IsLeader(); });
    ExpectWhole({&second});
    Await("the error to go", [&] { return first->Error().empty(); });
}

TEST_F(CandidateLeavingTest, RefusedFollowerTriesAgainUntilItsNodesAreGone)
{
    Member first(service_, "first");
    Member second(service_, "second");
    QueueUp({&first, &second});
    const std::string identity = IdentityOf(second);
    service_.Refuse(identity, ZNOAUTH);
    second->Stop();
    EXPECT_NE(second->Error(), "");
    service_.Refuse(identity, ZOK);
    AdvanceUntil("its nodes to go", [&] { return Queue().size() == 1U && Identities().size() == 2U; });
    Await("the error to go", [&] { return second->Error().empty(); });
}

TEST_F(CandidateLeavingTest, EachCauseIsLoggedOnce)
{
    const auto session = std::make_shared<CountingSession>(service_.Open());
    CandidateOptions options;
    options.electionPath = kElection;
    Candidate candidate(session, options);
    candidate.Start();
    ASSERT_TRUE(candidate.WaitForRole(Role::Leader, kPatience));
    const std::string read = "exists " + kElection + "/" + candidate.NodeName();
    const std::string identity = IdentityPath(kElection, candidate.NodeName(), session->ClientId()->client_id);
    service_.Refuse(identity, ZNOAUTH);
    candidate.Stop();
    constexpr int kRepetitions = 3;
    for (const int code : {ZNOAUTH, ZINVALIDACL, ZNOAUTH})
    {
        service_.Refuse(identity, code);
        session->Forget();
        AdvanceUntil("repetitions", [&] { return session->Count(read) >= kRepetitions; });
    }
    EXPECT_EQ(TimesLogged("could not take back"), 2);
    service_.Refuse(identity, ZOK);
    AdvanceUntil("the end", [&] { return Logged("has left /election after all"); });
    ExpectNobody();
}

TEST_F(CandidateLeavingTest, StartTakesThePlaceBeforeBackFirst)
{
    Member ours(service_, "ours");
    ours.Become(Role::Leader);
    ours.Await("gained");
    const std::string node = ours->NodeName();
    const std::string identity = IdentityOf(ours);
    const std::int64_t epoch = ours.LastLeadership().Epoch();
    service_.Refuse(identity, ZNOAUTH);
    ours->Stop();

    ours->Start();
    EXPECT_EQ(ours->Error(), "");
    for (int i = 0; i < 20; ++i)
    {
        service_.Advance(milliseconds(500));
        EXPECT_FALSE(ours->WaitForRole(Role::Leader, milliseconds(5)));
    }
    EXPECT_EQ(ours->CurrentRole(), Role::Joining);
    service_.Refuse(identity, ZOK);
    AdvanceUntil("its turn", [&] { return ours->IsLeader(); });
    EXPECT_NE(ours->NodeName(), node);
    EXPECT_GT(ours->CurrentLeadership()->Epoch(), epoch);
    ExpectWhole({&ours});
}

TEST_F(CandidateLeavingTest, DestructorEndsTheRepetitions)
{
    std::weak_ptr<testing::MemorySession> session;
    {
        Member ours(service_, "ours");
        ours.Become(Role::Leader);
        session = ours.SharedSession();
        service_.Refuse(IdentityOf(ours), ZNOAUTH);
        ours->Stop();
        ours.Destroy();
    }
    // Nothing keeps the session open but the repetitions.
    Await("the end of the session", [&] { return session.expired(); });
    EXPECT_TRUE(Logged("leaves its nodes in /election to the end of the session"));
    ExpectNobody();
}

TEST_F(CandidateLeavingTest, ClosingTheSessionEndsTheRepetitions)
{
    Member ours(service_, "ours");
    ours.Become(Role::Leader);
    service_.Refuse(IdentityOf(ours), ZNOAUTH);
    ours->Stop();
    EXPECT_NE(ours->Error(), "");
    ours.Session().Close();
    Await("the end", [&] { return ours->Error().empty(); });
    ExpectNobody();
}

TEST_F(CandidateLeavingTest, RepetitionLeavesTheNodeOfAnotherThatHasItsName)
{
    Member ours(service_, "ours");
    ours.Become(Role::Leader);
    const std::string node = PathOf(ours);
    const std::string identity = IdentityOf(ours);
    service_.Refuse(identity, ZNOAUTH);
    ours->Stop();
    service_.Delete(node);
    service_.Add(node);
    service_.Refuse(identity, ZOK);
    AdvanceUntil("the end of its leaving", [&] { return Identities().empty(); });
    Await("the error to go", [&] { return ours->Error().empty(); });
    EXPECT_TRUE(service_.Has(node));
}

TEST_F(CandidateLeavingTest, AdoptedNodeThatHasLedDoesNotLeadAgain)
{
    Member ours(service_, "ours");
    service_.Add(kElection);
    std::string node(64, '\0');
    ASSERT_EQ(ours.Session().Create(kElection + "/c-", "", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL | ZOO_SEQUENCE, &node),
              ZOK);
    Stat stat{};
    ASSERT_EQ(ours.Session().Exists(node, &stat), ZOK);
    service_.Add(kIdentities, EncodeEpoch(stat.czxid));
    ours->Start();
    AdvanceUntil("its turn", [&] { return ours->IsLeader(); });
    ours.Await("gained");
    EXPECT_GT(ours.LastLeadership().Epoch(), stat.czxid);
    EXPECT_FALSE(service_.Has(node));
}

/// The election's nodes are deleted while its leader's loss callback runs, and a successor makes them anew.
TEST_F(CandidateLeavingTest, LateLeaverLeavesTheClaimOfItsSuccessor)
{
    std::promise<void> told;
    std::promise<void> finished;
    Member ours(service_, "ours", [&](CandidateOptions& options) {
        options.rejoin = false;
        options.onLeaderLost = [&](LossReason) {
            told.set_value();
            finished.get_future().wait();
        };
    });
    ours.Become(Role::Leader);
    service_.Delete(PathOf(ours));
    told.get_future().wait();
    for (const std::string& name : service_.Children(kIdentities))
    {
        service_.Delete(kIdentities + "/" + name);
    }
    service_.Delete(kIdentities);
    service_.Delete(kElection);
    Member other(service_, "other");
    other.Become(Role::Leader);
    finished.set_value();
    ours->Stop();
    EXPECT_THAT(Identities(), Contains("leader"));
    EXPECT_TRUE(other->IsLeader());
    other.Await("gained");
    EXPECT_TRUE(other.LastLeadership().Write({kx::velmor::Operation::Check(kElection)}));
}

/// Places in the queue without the candidate around them.
class QueuePlaceTest : public CandidateLeavingTest
{
protected:
    static std::shared_ptr<QueuePlace> Join(const std::shared_ptr<ElectionSession>& session,
                                            const std::string& instance)
    {
        auto place =
            std::make_shared<QueuePlace>(session, kElection, session->ClientId()->client_id,
                                         Signature{instance, "someone"}, QueuePlace::Events{[] {}, [] {}, [] {}});
        place->Join();
        return place;
    }

    /// Deletes all nodes of the election. Then a place of another session makes them anew, and claims the lead.
    void MakeAnew()
    {
        for (const std::string& parent : {kElection, kIdentities})
        {
            for (const std::string& name : service_.Children(parent))
            {
                service_.Delete(parent + "/" + name);
            }
            service_.Delete(parent);
        }
        successor_ = Join(service_.Open(), "successor");
        ASSERT_EQ(successor_->TryToClaim(milliseconds(6'000)), QueuePlace::Claim::Made);
    }

    const std::shared_ptr<testing::MemorySession> memorySession_ = service_.Open();
    const std::shared_ptr<CountingSession> session_ = std::make_shared<CountingSession>(memorySession_);
    std::shared_ptr<QueuePlace> successor_;
};

TEST_F(QueuePlaceTest, ClaimWhoseReplyWasLostIsRecognised)
{
    const auto place = Join(session_, "1");
    service_.LoseReply(*memorySession_);
    EXPECT_THROW(place->TryToClaim(milliseconds(6'000)), ZooError);
    EXPECT_EQ(place->TryToClaim(milliseconds(6'000)), QueuePlace::Claim::Made);
    TransactionResult result;
    EXPECT_EQ(session_->Transact(place->Guards(), result), ZOK);
    place->Leave();
    ExpectNobody();
}

TEST_F(QueuePlaceTest, LostReplyOfAClaimThatIsGoneDoesNotLead)
{
    const auto place = Join(session_, "1");
    service_.LoseReply(*memorySession_);
    EXPECT_THROW(place->TryToClaim(milliseconds(6'000)), ZooError);
    service_.Delete(kClaim);
    EXPECT_EQ(place->TryToClaim(milliseconds(6'000)), QueuePlace::Claim::Outdated);
}

TEST_F(QueuePlaceTest, SecondPlaceOfOneNodeDoesNotLead)
{
    const auto first = Join(session_, "1");
    ASSERT_EQ(first->TryToClaim(milliseconds(6'000)), QueuePlace::Claim::Made);
    const auto second = Join(session_, "1");
    ASSERT_EQ(second->Path(), first->Path());
    EXPECT_EQ(second->TryToClaim(milliseconds(6'000)), QueuePlace::Claim::Outdated);
}

TEST_F(QueuePlaceTest, ClaimOfAnEarlierPlaceIsTakenBackAndDoesNotLead)
{
    const auto first = Join(session_, "1");
    ASSERT_EQ(first->TryToClaim(milliseconds(6'000)), QueuePlace::Claim::Made);
    const std::string name = first->Node();
    service_.Delete(kElection + "/" + name);
    const auto second = Join(session_, "1");
    ASSERT_NE(second->Node(), name);
    EXPECT_EQ(second->TryToClaim(milliseconds(6'000)), QueuePlace::Claim::Outdated);
    second->Leave();
    EXPECT_THAT(Identities(), Not(Contains("leader")));
}

TEST_F(QueuePlaceTest, NodesMadeAnewJustBeforeItLeavesStay)
{
    const auto place = Join(session_, "1");
    ASSERT_EQ(place->TryToClaim(milliseconds(6'000)), QueuePlace::Claim::Made);
    session_->Before("transaction", [this] { MakeAnew(); });
    place->Leave();
    EXPECT_THAT(Identities(), Contains("leader"));
}

TEST_F(QueuePlaceTest, NodesMadeAnewJustBeforeAFoundClaimIsDeletedStay)
{
    const auto place = Join(session_, "1");
    service_.LoseReply(*memorySession_);
    EXPECT_THROW(place->TryToClaim(milliseconds(6'000)), ZooError);
    // The last read before the claim is deleted comes after that of the parent.
    session_->Before("data " + kIdentities, [this] { session_->Before("transaction", [this] { MakeAnew(); }); });
    place->Leave();
    ASSERT_NE(successor_, nullptr);
    EXPECT_THAT(Identities(), Contains("leader"));
}

TEST_F(QueuePlaceTest, ClaimWithoutItsIdentityIsTakenBack)
{
    const auto place = Join(session_, "1");
    ASSERT_EQ(place->TryToClaim(milliseconds(6'000)), QueuePlace::Claim::Made);
    service_.Delete(IdentityPath(kElection, place->Node(), session_->ClientId()->client_id));
    place->Leave();
    ExpectNobody();
}

TEST_F(QueuePlaceTest, NodeWhoseOwnerIsNotToldIsNotDeleted)
{
    const std::string node = kElection + "/c-0000000000";
    service_.Add(node);
    const BoundConnection connection(memorySession_, memorySession_->ClientId()->client_id);
    service_.Refuse(node, ZOPERATIONTIMEOUT);
    EXPECT_EQ(connection.GuaranteedDelete(node), ZOPERATIONTIMEOUT);
    service_.Refuse(node, ZOK);
    // Now deletions that are pending would be done.
    service_.Cut(*memorySession_);
    service_.Heal(*memorySession_);
    EXPECT_TRUE(service_.Has(node));
}

}  // namespace
}  // namespace kx::velmor::testing_support
