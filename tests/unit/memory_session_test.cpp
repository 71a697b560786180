// How sessions in memory live and end.

#include "tests/unit/memory_fixture.h"

#include <kx/velmor/error.h>

#include <future>

namespace kx::velmor {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using MemorySessions = MemoryTest;

TEST_F(MemorySessions, NewOneIsConnected)
{
    const SessionStatus status = session->Status();
    EXPECT_EQ(SessionState::Connected, status.state);
    EXPECT_EQ(kTimeout, status.negotiatedTimeout);
    EXPECT_FALSE(status.lastHeard);
    EXPECT_NE(0, status.sessionId);
    EXPECT_NE(status.sessionId, other->Status().sessionId);
    EXPECT_EQ(status.sessionId, session->ClientId()->client_id);
    const auto listener = Listen(*session);
    EXPECT_THAT(Told(), ElementsAre("state: connected"));
}

TEST_F(MemorySessions, WrongOptionsAreRefused)
{
    EXPECT_THROW(service.Open({"apps"}), ZooError);
    EXPECT_THROW(service.Open({"/apps/"}), ZooError);
    EXPECT_THROW(service.Open({"", 0ms}), ZooError);
    EXPECT_THAT(Told(), ::testing::SizeIs(3));
}

TEST_F(MemorySessions, VerbsRefuseTheSessionsOfAnotherService)
{
    MemoryService elsewhere;
    EXPECT_THROW(elsewhere.Cut(*session), std::invalid_argument);
    EXPECT_EQ(SessionState::Connected, session->Status().state);
}

TEST_F(MemorySessions, AnsweredWritesAloneSayThatTheSessionWasHeard)
{
    std::vector<std::string> children;
    EXPECT_EQ(ZOK, session->GetChildren("/", children));
    EXPECT_EQ(ZNONODE, session->Exists("/a", nullptr));
    EXPECT_FALSE(session->Status().lastHeard);

    const auto begin = service.Now();
    EXPECT_EQ(ZOK, Create(*session, "/a").first);
    EXPECT_EQ(begin, session->Status().lastHeard);
    service.Advance(1s);
    EXPECT_EQ(begin, session->Status().lastHeard);
    EXPECT_EQ(ZNODEEXISTS, Create(*session, "/a").first);
    EXPECT_EQ(begin + 1s, session->Status().lastHeard);
    service.Advance(1s);
    TransactionResult result;
    EXPECT_EQ(ZNONODE, session->Transact({Operation::Check("/b")}, result));
    EXPECT_EQ(begin + 2s, session->Status().lastHeard);
    service.Advance(1s);
    EXPECT_EQ(ZNONODE, session->GuaranteedDelete("/b"));
    EXPECT_EQ(begin + 3s, session->Status().lastHeard);
    service.Advance(1s);
    EXPECT_EQ(ZBADARGUMENTS, session->GuaranteedDelete("b"));
    service.Cut(*session);
    EXPECT_EQ(ZCONNECTIONLOSS, session->GuaranteedDelete("/b"));
    EXPECT_EQ(begin + 3s, session->Status().lastHeard);
}

TEST_F(MemorySessions, HeardIsToldBeforeTheWriteReturns)
{
    auto registration = Hear(*session);
    // Two thirds of the timeout, from the write on.
    const std::string line = "heard " + std::to_string(session->Status().sessionId) + " until 4000";
    EXPECT_EQ(ZNONODE, session->Exists("/a", nullptr));
    EXPECT_THAT(journal.Take(), IsEmpty());
    EXPECT_EQ(ZNONODE, session->GuaranteedDelete("/a"));
    EXPECT_THAT(journal.Take(), ElementsAre(line));
    EXPECT_EQ(ZOK, Create(*session, "/a").first);
    EXPECT_THAT(journal.Take(), ElementsAre(line));
    registration.Cancel();
    EXPECT_EQ(ZOK, session->GuaranteedDelete("/a"));
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(MemorySessions, KeptFreshOneIsHeardFromEachEighthOfItsTimeout)
{
    const auto listener = Hear(*session);
    const std::string heard = "heard " + std::to_string(session->Status().sessionId) + " until ";
    auto fresh = session->KeepFresh();
    const auto too = session->KeepFresh();
    EXPECT_EQ(began, session->Status().lastHeard);
    EXPECT_THAT(Told(), ElementsAre(heard + "4000"));
    service.Advance(kTimeout / 2);
    EXPECT_THAT(journal.Take(), ElementsAre(heard + "4750", heard + "5500", heard + "6250", heard + "7000"));
    EXPECT_EQ(began + 3s, session->Status().lastHeard);
    EXPECT_EQ(began + 7s, session->Status().leaseEnd);

    fresh.Cancel();
    service.Advance(750ms);
    EXPECT_THAT(journal.Take(), ElementsAre(heard + "7750"));

    service.Cut(*session);
    service.Advance(1750ms);
    EXPECT_EQ(began + 3750ms, session->Status().lastHeard);
    service.Heal(*session);
    EXPECT_EQ(began + 5500ms, session->Status().lastHeard);
    service.Advance(1s);
    EXPECT_THAT(Told(), ElementsAre(heard + "9500", heard + "10250"));
}

TEST_F(MemorySessions, ClockMovesOnlyWhenToldAndTellsItsListeners)
{
    EXPECT_EQ(began, session->Now());
    auto listener = other->OnClockJump([this] { journal.Note("jumped to " + At(other->Now())); });
    service.Advance(2s);
    EXPECT_THAT(Told(), ElementsAre("jumped to 2000"));
    const auto fresh = session->KeepFresh();
    service.Advance(1500ms);
    EXPECT_THAT(Told(), ElementsAre("jumped to 2750", "jumped to 3500"));
    EXPECT_THROW(service.Advance(-1ns), std::invalid_argument);
    listener.Cancel();
    service.Advance(1s);
    EXPECT_THAT(Told(), IsEmpty());
    EXPECT_EQ(began + 4500ms, session->Now());
}

TEST_F(MemorySessions, OneThatIsConnectedDoesNotTimeOut)
{
    EXPECT_EQ(ZOK, Create(*session, "/mine", ZOO_EPHEMERAL).first);
    service.Advance(1h);
    EXPECT_TRUE(service.Has("/mine"));
    EXPECT_EQ(SessionState::Connected, session->Status().state);
}

TEST_F(MemorySessions, ExpiredOneLosesItsNodesAndAnotherOpens)
{
    service.Add("/e");
    EXPECT_EQ(ZOK, Create(*session, "/e/mine", ZOO_EPHEMERAL).first);
    EXPECT_EQ(ZOK, Create(*session, "/e/kept").first);
    EXPECT_EQ(ZOK, Create(*other, "/e/other", ZOO_EPHEMERAL).first);
    const auto watch = Watching(*other, "/e/mine");
    const auto listener = Listen(*session);
    const auto id = session->Status().sessionId;
    service.Expire(*session);
    EXPECT_THAT(service.Children("/e"), ElementsAre("kept", "other"));
    EXPECT_EQ(SessionState::Connected, session->Status().state);
    EXPECT_NE(id, session->Status().sessionId);
    EXPECT_EQ(session->Status().sessionId, session->ClientId()->client_id);
    EXPECT_FALSE(session->Status().lastHeard);
    EXPECT_THAT(Told(),
                ::testing::UnorderedElementsAre("watch: deleted /e/mine", "state: connected", "state: suspended",
                                                "state: expired", "state: connecting", "state: connected"));
    EXPECT_EQ(ZOK, Create(*session, "/e/mine", ZOO_EPHEMERAL).first);
}

TEST_F(MemorySessions, StatesAreToldInOrderWithTheirNumbers)
{
    const auto listener = session->OnStateChange([this](const SessionStatus& status) {
        journal.Note(std::string(ToString(status.state)) + " " + std::to_string(status.sessionId));
    });
    const std::string first = std::to_string(session->Status().sessionId);
    service.Expire(*session);
    const std::string second = std::to_string(session->Status().sessionId);
    session->Close();
    EXPECT_THAT(Told(), ElementsAre("connected " + first, "suspended " + first, "expired " + first, "connecting 0",
                                    "connected " + second, "closed " + second));
}

TEST_F(MemorySessions, OneThatIsCutOffReachesNothing)
{
    service.Add("/a");
    service.Cut(*session);
    EXPECT_EQ(SessionState::Suspended, session->Status().state);
    std::vector<std::string> children;
    std::string data;
    TransactionResult result;
    EXPECT_EQ(ZCONNECTIONLOSS, Create(*session, "/b").first);
    EXPECT_EQ(ZCONNECTIONLOSS, session->GetChildren("/", children));
    EXPECT_EQ(ZCONNECTIONLOSS, session->Exists("/a", nullptr));
    EXPECT_EQ(ZCONNECTIONLOSS, session->GetData("/a", data, nullptr));
    EXPECT_EQ(ZCONNECTIONLOSS, session->Transact({Operation::Create("/b", "")}, result));
    EXPECT_FALSE(service.Has("/b"));
    service.Heal(*session);
    EXPECT_EQ(SessionState::Connected, session->Status().state);
    EXPECT_EQ(ZOK, session->Exists("/a", nullptr));
}

TEST_F(MemorySessions, OneThatIsHealedInTimeLivesOn)
{
    EXPECT_EQ(ZOK, Create(*session, "/mine", ZOO_EPHEMERAL).first);
    const auto listener = Listen(*session);
    const auto id = session->Status().sessionId;
    service.Cut(*session);
    service.Cut(*session);
    service.Advance(kTimeout - 1ms);
    service.Heal(*session);
    service.Heal(*session);
    service.Advance(1h);
    EXPECT_TRUE(service.Has("/mine"));
    EXPECT_EQ(id, session->Status().sessionId);
    EXPECT_THAT(Told(), ElementsAre("state: connected", "state: suspended", "state: connected"));
}

TEST_F(MemorySessions, OneThatIsCutOffTooLongEndsAtItsTimeAndLearnsItLater)
{
    EXPECT_EQ(ZOK, Create(*session, "/mine", ZOO_EPHEMERAL).first);
    service.Advance(1h);
    const auto listener = Listen(*session);
    const auto id = session->Status().sessionId;
    service.Cut(*session);
    service.Advance(kTimeout - 1ns);
    EXPECT_TRUE(service.Has("/mine"));
    const auto watch = Watching(*other, "/mine");
    service.Advance(1ns);
    EXPECT_FALSE(service.Has("/mine"));
    service.Advance(1h);
    EXPECT_EQ(SessionState::Suspended, session->Status().state);
    EXPECT_EQ(id, session->Status().sessionId);
    EXPECT_THAT(Told(),
                ::testing::UnorderedElementsAre("state: connected", "state: suspended", "watch: deleted /mine"));

    service.Heal(*session);
    EXPECT_NE(id, session->Status().sessionId);
    EXPECT_THAT(Told(), ElementsAre("state: expired", "state: connecting", "state: connected"));
}

TEST_F(MemorySessions, OneThatIsExpiredWhileItIsCutOffLearnsItLater)
{
    EXPECT_EQ(ZOK, Create(*session, "/mine", ZOO_EPHEMERAL).first);
    service.Cut(*session);
    const auto listener = Listen(*session);
    service.Expire(*session);
    EXPECT_FALSE(service.Has("/mine"));
    service.Expire(*session);
    EXPECT_EQ(ZCONNECTIONLOSS, session->Exists("/mine", nullptr));
    EXPECT_THAT(Told(), ElementsAre("state: suspended"));
    service.Heal(*session);
    EXPECT_THAT(Told(), ElementsAre("state: expired", "state: connecting", "state: connected"));
}

TEST_F(MemorySessions, PendingDeletionIsDoneAfterTheReconnection)
{
    service.Add("/a");
    service.Cut(*session);
    EXPECT_EQ(ZCONNECTIONLOSS, session->GuaranteedDelete("/a"));
    service.Advance(1s);
    EXPECT_TRUE(service.Has("/a"));
    service.Heal(*session);
    EXPECT_FALSE(service.Has("/a"));
    service.Add("/a");
    service.Cut(*session);
    service.Heal(*session);
    EXPECT_TRUE(service.Has("/a"));
}

TEST_F(MemorySessions, PendingDeletionEndsWithTheSession)
{
    service.Add("/a");
    service.Cut(*session);
    EXPECT_EQ(ZCONNECTIONLOSS, session->GuaranteedDelete("/a"));
    service.Expire(*session);
    service.Heal(*session);
    EXPECT_TRUE(service.Has("/a"));
}

TEST_F(MemorySessions, DeletionWithoutAnAnswerIsRepeatedUntilThereIsOne)
{
    service.Add("/a");
    service.Refuse("/a", ZOPERATIONTIMEOUT);
    EXPECT_EQ(ZOPERATIONTIMEOUT, session->GuaranteedDelete("/a"));
    EXPECT_FALSE(session->Status().lastHeard);
    service.Advance(1s);
    EXPECT_TRUE(service.Has("/a"));
    service.Refuse("/a", ZOK);
    EXPECT_FALSE(service.Has("/a"));
    EXPECT_EQ(service.Now(), session->Status().lastHeard);
}

TEST_F(MemorySessions, WriteWhoseReplyIsLostHappens)
{
    const auto listener = Listen(*session);
    service.LoseReply(*session);
    EXPECT_EQ(ZNONODE, session->Exists("/a", nullptr));
    EXPECT_EQ(ZBADARGUMENTS, Create(*session, "a").first);
    EXPECT_EQ(ZCONNECTIONLOSS, Create(*session, "/a").first);
    EXPECT_TRUE(service.Has("/a"));
    EXPECT_FALSE(session->Status().lastHeard);
    EXPECT_EQ(SessionState::Connected, session->Status().state);
    EXPECT_THAT(Told(), ElementsAre("state: connected", "state: suspended", "state: connected"));
    EXPECT_EQ(ZNODEEXISTS, Create(*session, "/a").first);

    service.LoseReply(*session);
    EXPECT_EQ(ZCONNECTIONLOSS, session->GuaranteedDelete("/a"));
    EXPECT_FALSE(service.Has("/a"));

    service.LoseReply(*session);
    TransactionResult result;
    EXPECT_EQ(ZCONNECTIONLOSS, session->Transact({Operation::Create("/a", "")}, result));
    EXPECT_TRUE(service.Has("/a"));
    EXPECT_THAT(result.created, IsEmpty());
    service.LoseReply(*session);
    EXPECT_EQ(ZCONNECTIONLOSS, session->Transact({Operation::Create("/a", "")}, result));
    EXPECT_FALSE(result.refused);
}

TEST_F(MemorySessions, ClosedOneAnswersNothingAndItsNodesAreGone)
{
    service.Add("/e");
    EXPECT_EQ(ZOK, Create(*session, "/e/mine", ZOO_EPHEMERAL).first);
    const auto watch = Watching(*session, "/e");
    const auto listener = Listen(*session);
    session->Close();
    EXPECT_THAT(journal.Take(), ElementsAre("state: connected", "state: closed"));
    session->Close();
    EXPECT_THAT(service.Children("/e"), IsEmpty());
    EXPECT_EQ(SessionState::Closed, session->Status().state);
    EXPECT_FALSE(session->Status().lastHeard);
    EXPECT_EQ(nullptr, session->ClientId());

    std::vector<std::string> children;
    std::string data;
    TransactionResult result;
    EXPECT_EQ(ZCLOSING, Create(*session, "/b").first);
    EXPECT_EQ(ZCLOSING, session->GetChildren("/", children));
    EXPECT_EQ(ZCLOSING, session->Exists("/e", nullptr));
    EXPECT_EQ(ZCLOSING, Watch(*session, "/e").first);
    EXPECT_EQ(ZCLOSING, session->GetData("/e", data, nullptr));
    EXPECT_EQ(ZCLOSING, session->GuaranteedDelete("/e"));
    EXPECT_EQ(ZCLOSING, session->Transact({Operation::Create("/b", "")}, result));
    const auto late = Listen(*session);
    const auto fresh = session->KeepFresh();
    service.Cut(*session);
    service.Heal(*session);
    service.Expire(*session);
    service.LoseReply(*session);
    service.Advance(1h);
    service.Delete("/e");
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(MemorySessions, NodesOfOneThatIsClosedWhileItIsCutOffStayUntilItTimesOut)
{
    EXPECT_EQ(ZOK, Create(*session, "/mine", ZOO_EPHEMERAL).first);
    service.Cut(*session);
    session->Close();
    service.Advance(kTimeout - 1ms);
    EXPECT_TRUE(service.Has("/mine"));
    service.Advance(1ms);
    EXPECT_FALSE(service.Has("/mine"));
}

TEST_F(MemorySessions, CloseWaitsForTheCallbackThatRunsAndLetsNoOtherBegin)
{
    const auto begun = std::make_shared<std::promise<void>>();
    std::promise<void> release;
    const auto runs = session->Exists(
        "/a",
        [this, begun, released = release.get_future().share()](int, int, const std::string&) {
            begun->set_value();
            released.wait();
            journal.Note("ran");
        },
        nullptr);
    const auto next = Watching(*session, "/a", "next");
    service.Add("/a");
    begun->get_future().wait();
    auto closed = std::async(std::launch::async, [this] {
        session->Close();
        journal.Note("closed");
    });
    EXPECT_EQ(std::future_status::timeout, closed.wait_for(50ms));
    release.set_value();
    closed.wait();
    EXPECT_THAT(Told(), ElementsAre("ran", "closed"));
}

TEST_F(MemorySessions, CallbackMayCloseItsSession)
{
    const auto listener = Listen(*session);
    const auto closes = session->Exists(
        "/a",
        [this](int, int, const std::string&) {
            session->Close();
            journal.Note("closed by the callback");
        },
        nullptr);
    const auto next = Watching(*session, "/a", "next");
    service.Add("/a");
    EXPECT_THAT(Told(), ElementsAre("state: connected", "state: closed", "closed by the callback"));
}

TEST_F(MemorySessions, CallbackMayDestroyItsSession)
{
    auto owned = std::make_shared<std::shared_ptr<MemorySession>>(service.Open());
    const auto watch = (*owned)->Exists(
        "/a",
        [this, owned](int, int, const std::string&) {
            owned->reset();
            journal.Note("gone");
        },
        nullptr);
    EXPECT_EQ(ZOK, Create(**owned, "/its", ZOO_EPHEMERAL).first);
    service.Add("/a");
    EXPECT_THAT(Told(), ElementsAre("gone"));
    EXPECT_FALSE(service.Has("/its"));
}

TEST_F(MemorySessions, HandleOfItsWatchMayDestroyASession)
{
    auto owned = service.Open();
    std::weak_ptr<MemorySession> weak = owned;
    auto handle = owned
                      ->Exists(
                          "/a", [owned](int, int, const std::string&) {}, nullptr)
                      .second;
    owned.reset();
    EXPECT_FALSE(weak.expired());
    {
        const Connection::WatchHandle gone = std::move(handle);
    }
    EXPECT_TRUE(weak.expired());
}

TEST_F(MemorySessions, SessionsMayOutliveTheirService)
{
    auto brief = std::make_unique<MemoryService>();
    const auto survivor = brief->Open();
    brief->Add("/a");
    const auto watch = Watching(*survivor, "/a");
    brief.reset();
    EXPECT_EQ(ZOK, survivor->GuaranteedDelete("/a"));
    journal.Await("watch: deleted /a");
}

TEST_F(MemorySessions, CancelledListenerIsToldNothing)
{
    auto listener = Listen(*session);
    service.AwaitQuiet();
    listener.Cancel();
    service.Expire(*session);
    session->Close();
    EXPECT_THAT(Told(), ElementsAre("state: connected"));
}

}  // namespace
}  // namespace kx::velmor
