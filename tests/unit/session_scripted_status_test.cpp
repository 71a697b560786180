#include "tests/support/await.h"
#include "tests/unit/no_threads.h"
#include "tests/unit/session_scripted_fixture.h"

#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

const std::string kNothing = "check /zookeeper/no-such-node";
const std::string kRefresh = "1 transact " + kNothing;

std::string Describe(const SessionStatus& status)
{
    return std::string(ToString(status.state)) + " " + std::to_string(status.sessionId - 0x1000) + " " +
           std::to_string(status.negotiatedTimeout.count()) + (status.lastHeard ? " heard" : "");
}

class StatusOfASession : public SessionScripted
{
protected:
    Session::StateListener NotingStates(const std::string& name)
    {
        return [this, name](const SessionStatus& status) { journal.Note(name + " " + Describe(status)); };
    }
};

TEST_F(StatusOfASession, FollowsEveryChange)
{
    library.ExpectOpen({});
    auto opening = std::async(std::launch::async, [&] { return Session::Open(options); });
    library.Asked().Await("1 open 127.0.0.1:2181");
    library.Report(1, ZOO_CONNECTED_STATE);
    const auto session = opening.get();
    EXPECT_EQ(Describe(session->Status()), "connected 1 20000");
    Write(*session);
    EXPECT_EQ(Describe(session->Status()), "connected 1 20000 heard");
    library.Report(1, ZOO_CONNECTING_STATE);
    library.AwaitArrivals(1);
    EXPECT_EQ(Describe(session->Status()), "suspended 1 20000 heard") << "the servers keep the session for a while";
    session->Close();
    EXPECT_EQ(Describe(session->Status()), "closed 1 20000");
}

TEST_F(StatusOfASession, ListenersAreToldThePresentAndThenEachChangeInOrder)
{
    const auto session = OpenConnected();
    const Registration listening = session->OnStateChange(NotingStates("a"));
    journal.Await("a connected 1 20000");
    library.ExpectOpen({});
    library.Report(1, ZOO_CONNECTING_STATE);
    library.Report(1, ZOO_CONNECTED_STATE);
    library.Report(1, ZOO_CONNECTING_STATE);
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("2 open 127.0.0.1:2181");
    library.Report(2, ZOO_CONNECTED_STATE);
    journal.Await("a connected 2 20000");
    session->Close();
    EXPECT_THAT(Told(),
                ElementsAre("a connected 1 20000", "a suspended 1 20000", "a connected 1 20000", "a suspended 1 20000",
                            "a expired 1 20000", "a connecting " + std::to_string(-0x1000) + " 20000",
                            "a connected 2 20000", "a closed 2 20000"));
}

TEST_F(StatusOfASession, ListenersAndWatchesAreToldInTheOrderOfWhatHappened)
{
    const auto session = OpenConnected();
    const Registration listening = session->OnStateChange(NotingStates("a"));
    const auto watch = Watch(*session, "/w", "w");
    journal.Await("a connected 1 20000");
    library.Report(1, ZOO_CONNECTING_STATE);
    library.Report(1, ZOO_CONNECTED_STATE);
    library.Fire(1, ZOO_DELETED_EVENT, "/w");
    journal.Await("w deleted /w");
    EXPECT_THAT(Told(), ElementsAre("a connected 1 20000", "a suspended 1 20000", "w session connecting",
                                    "a connected 1 20000", "w session connected", "w deleted /w"));
}

TEST_F(StatusOfASession, CancelledListenerIsToldNothingMore)
{
    const auto session = OpenConnected();
    Registration first = session->OnStateChange(NotingStates("first"));
    const Registration second = session->OnStateChange(NotingStates("second"));
    journal.Await("second connected 1 20000");
    first.Cancel();
    first.Cancel();
    Reconnect(1);
    journal.Await("second connected 1 20000", 2);
    session->Close();
    EXPECT_THAT(Told(), ElementsAre("first connected 1 20000", "second connected 1 20000", "second suspended 1 20000",
                                    "second connected 1 20000", "second closed 1 20000"));
}

TEST_F(StatusOfASession, CancellingDestroysTheListener)
{
    const auto session = OpenConnected();
    auto probe = std::make_shared<int>(0);
    Registration listening = session->OnStateChange([this, probe](const SessionStatus&) { journal.Note("told"); });
    journal.Await("told");
    AwaitQuiet(*session, 1);
    EXPECT_EQ(probe.use_count(), 2);
    // What is registered goes with what replaces it.
    listening = session->OnStateChange(NotingStates("next"));
    EXPECT_EQ(probe.use_count(), 1);
}

TEST_F(StatusOfASession, ListenerMayCancelItself)
{
    const auto session = OpenConnected();
    Registration listening;
    Barrier registered;
    listening = session->OnStateChange([&](const SessionStatus& status) {
        registered.Pass();
        listening.Cancel();
        journal.Note("told " + Describe(status));
    });
    registered.Open();
    journal.Await("told connected 1 20000");
    Reconnect(1);
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), ElementsAre("told connected 1 20000"));
}

TEST_F(StatusOfASession, ListenerThatThrowsIsReportedAndToldAgain)
{
    const auto session = OpenConnected();
    const Registration throwing = session->OnStateChange([this](const SessionStatus& status) {
        journal.Note("throwing " + Describe(status));
        if (status.state == SessionState::Suspended)
        {
            throw std::runtime_error("a bad listener");
        }
        throw 1;
    });
    const Registration other = session->OnStateChange(NotingStates("other"));
    Reconnect(1);
    journal.Await("other connected 1 20000", 2);
    EXPECT_EQ(journal.Count("throwing connected 1 20000"), 2U);
    EXPECT_THAT(Logged("A state listener threw: a bad listener"), SizeIs(1));
    EXPECT_THAT(Logged("A state listener threw something that is no std::exception"), SizeIs(2));
}

TEST_F(StatusOfASession, ListenerMayCloseTheSessionAndIsToldOnItsOwnStack)
{
    const auto session = OpenConnected();
    const Registration closing = session->OnStateChange([&](const SessionStatus& status) {
        journal.Note("closing " + Describe(status));
        if (status.state == SessionState::Suspended)
        {
            session->Close();
            journal.Note("done");
        }
    });
    const Registration other = session->OnStateChange(NotingStates("other"));
    journal.Await("other connected 1 20000");
    library.Report(1, ZOO_CONNECTING_STATE);
    journal.Await("done");
    session->Close();
    EXPECT_THAT(Told(), ElementsAre("closing connected 1 20000", "other connected 1 20000", "closing suspended 1 20000",
                                    "closing closed 1 20000", "other closed 1 20000", "done"));
}

TEST_F(StatusOfASession, ListenerMayCloseTheSessionOnceMoreWhenToldThatItIsClosed)
{
    const auto session = OpenConnected();
    const Registration closing = session->OnStateChange([&](const SessionStatus& status) {
        journal.Note("told " + Describe(status));
        if (status.state != SessionState::Connected)
        {
            session->Close();
            journal.Note("done " + Describe(status));
        }
    });
    journal.Await("told connected 1 20000");
    library.Report(1, ZOO_CONNECTING_STATE);
    journal.Await("done suspended 1 20000");
    session->Close();
    EXPECT_THAT(Told(), ElementsAre("told connected 1 20000", "told suspended 1 20000", "told closed 1 20000",
                                    "done closed 1 20000", "done suspended 1 20000"));
}

TEST_F(StatusOfASession, CallbackThatClosesWhileAnotherThreadIsAtItHearsOfNothingAfterwards)
{
    const auto session = OpenConnected();
    const Registration listening = session->OnStateChange(NotingStates("a"));
    journal.Await("a connected 1 20000");
    Barrier running;
    Barrier closing;
    library.WhenClosed(1, [&] { closing.Open(); });
    library.Expect(Sent::WatchExists, "/n");
    auto watched = session->Exists(
        "/n",
        [&](int, int, const std::string&) {
            running.Open();
            closing.Pass();
            session->Close();
            journal.Note("returned");
        },
        nullptr);
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    running.Pass();
    session->Close();
    EXPECT_THAT(Told(), ElementsAre("a connected 1 20000", "a closed 1 20000", "returned"));
}

TEST_F(StatusOfASession, ClosedSessionHasNothingToTell)
{
    const auto session = OpenConnected();
    session->Close();
    const Registration listening = session->OnStateChange(NotingStates("late"));
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(StatusOfASession, RegistrationsMayOutliveTheirSession)
{
    auto session = OpenConnected();
    library.Expect(Sent::Transact, kNothing, Always({}));
    Registration listening = session->OnStateChange(NotingStates("a"));
    Registration fresh = session->KeepFresh();
    session.reset();
    EXPECT_EQ(Told().back(), "a closed 1 20000");
}

TEST_F(StatusOfASession, LastHeardIsWhenTheNewestAnsweredRequestWasSent)
{
    const auto session = OpenConnected();
    EXPECT_FALSE(session->Status().lastHeard) << "nothing was asked";
    const auto before = BootClock::now();
    auto first = Writing(*session);
    const auto between = BootClock::now();
    EXPECT_FALSE(session->Status().lastHeard) << "nothing was answered";
    Write(*session, ZNONODE);
    const auto heard = session->Status().lastHeard;
    ASSERT_TRUE(heard);
    EXPECT_GE(*heard, between);
    library.Answer(1, Sent::Create, "/n");
    EXPECT_EQ(first.get(), ZOK);
    EXPECT_EQ(session->Status().lastHeard, heard) << "what was sent earlier tells nothing new";
    EXPECT_LT(before, *heard);
    EXPECT_LE(*heard, BootClock::now());
}

TEST_F(StatusOfASession, OnlyAnswersOfAMajorityCount)
{
    const auto session = OpenConnected();
    for (const int rc :
         std::initializer_list<int>{ZSESSIONMOVED, ZNOTHING, ZMARSHALLINGERROR, ZSYSTEMERROR, ZAUTHFAILED, ZNOAUTH,
                                    ZINVALIDACL, ZBADARGUMENTS, ZUNIMPLEMENTED, -127, -124})
    {
        Write(*session, rc);
        EXPECT_FALSE(session->Status().lastHeard) << rc;
    }
    for (const int rc : {ZOK, ZNONODE, ZNODEEXISTS, ZBADVERSION, ZNOTEMPTY, ZNOCHILDRENFOREPHEMERALS})
    {
        const auto before = BootClock::now();
        Write(*session, rc);
        ASSERT_TRUE(session->Status().lastHeard) << rc;
        EXPECT_GE(*session->Status().lastHeard, before) << rc;
    }
}

TEST_F(StatusOfASession, ReadsDoNotCount)
{
    const auto session = OpenConnected();
    std::vector<std::string> children;
    library.Expect(Sent::GetChildren, "/n");
    EXPECT_EQ(session->GetChildren("/n", children), ZOK);
    library.Expect(Sent::Exists, "/n");
    EXPECT_EQ(session->Exists("/n", nullptr), ZOK);
    const auto watch = Watch(*session, "/n", "n");
    Reconnect(1);
    AwaitQuiet(*session, 1);
    EXPECT_FALSE(session->Status().lastHeard);
    library.Expect(Sent::Delete, "/n");
    EXPECT_EQ(session->GuaranteedDelete("/n"), ZOK);
    EXPECT_TRUE(session->Status().lastHeard);
}

TEST_F(StatusOfASession, AnswerThatComesAfterTheSessionWasGivenUpDoesNotCount)
{
    options.sessionTimeout = milliseconds(60);
    Opening connected;
    connected.states = {ZOO_CONNECTED_STATE};
    connected.early = true;
    library.ExpectOpen(connected);
    const auto session = Session::Open(options);
    auto writing = Writing(*session);
    Opening next;
    next.optional = true;
    library.ExpectOpen(next);
    // The handle is closed as soon as its session is given up; until then its answers arrive.
    library.WhenClosed(1, [this] {
        library.Answer(1, Sent::Create, "/n");
        library.AwaitArrivals(1);
        journal.Note("answered");
    });
    library.Report(1, ZOO_CONNECTING_STATE);
    journal.Await("answered");
    EXPECT_FALSE(session->Status().lastHeard);
    EXPECT_EQ(writing.get(), ZSESSIONEXPIRED);
    session->Close();
}

TEST_F(StatusOfASession, LastHeardBelongsToOneSession)
{
    const auto session = OpenConnected();
    Write(*session);
    library.ExpectOpen({});
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("2 open 127.0.0.1:2181");
    EXPECT_FALSE(session->Status().lastHeard);
    EXPECT_EQ(session->Status().sessionId, 0);
    library.Report(2, ZOO_CONNECTED_STATE);
    library.AwaitArrivals(2);
    EXPECT_FALSE(session->Status().lastHeard);
    EXPECT_EQ(session->Status().sessionId, library.Identity(2));
}

class FreshSession : public StatusOfASession
{
protected:
    FreshSession() { options.sessionTimeout = milliseconds(60); }

    /// A session on a first handle that is connected before anybody could give it up.
    std::shared_ptr<Session> OpenAtOnce()
    {
        Opening connected;
        connected.states = {ZOO_CONNECTED_STATE};
        connected.early = true;
        library.ExpectOpen(connected);
        return Session::Open(options);
    }
};

TEST_F(FreshSession, IsAskedAboutAgainAndAgainWhileSomebodyWantsIt)
{
    const auto session = OpenAtOnce();
    library.Expect(Sent::Transact, kNothing, Always({}));
    Registration first = session->KeepFresh();
    Registration second = session->KeepFresh();
    library.Asked().Await(kRefresh, 3);
    const auto heard = session->Status().lastHeard;
    ASSERT_TRUE(heard);
    first.Cancel();
    library.Asked().Await(kRefresh, 6);
    EXPECT_GT(*session->Status().lastHeard, *heard);
    second.Cancel();
    // The one that is being sent, if any.
    AwaitQuiet(*session, 1);
    const std::size_t sent = library.Asked().Count(kRefresh);
    std::this_thread::sleep_for(milliseconds(40));
    EXPECT_LE(library.Asked().Count(kRefresh), sent + 1);
}

TEST_F(FreshSession, SendsReadsWhileItIsConnectedThoughNothingIsAsked)
{
    options.sessionTimeout = seconds(1);
    const auto session = OpenAtOnce();
    Await("heartbeats", [this] { return library.Heartbeats(1) >= 4; });
    const Registration states = session->OnStateChange(NotingStates("a"));
    library.Report(1, ZOO_CONNECTING_STATE);
    // The event thread reports this after a read that it was sending.
    journal.Await("a suspended 1 1000");
    const std::size_t sent = library.Heartbeats(1);
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_EQ(library.Heartbeats(1), sent);
    library.Report(1, ZOO_CONNECTED_STATE);
    Await("heartbeats after the reconnection", [&] { return library.Heartbeats(1) >= sent + 2; });
    EXPECT_FALSE(session->Status().lastHeard);
}

TEST_F(FreshSession, IsAskedAboutOnceAtATime)
{
    options.sessionTimeout = milliseconds(12);
    const auto session = OpenAtOnce();
    library.Expect(Sent::Transact, kNothing, Held());
    const Registration fresh = session->KeepFresh();
    library.Asked().Await(kRefresh);
    std::this_thread::sleep_for(milliseconds(40));
    EXPECT_EQ(library.Asked().Count(kRefresh), 1U);
    library.Expect(Sent::Transact, kNothing, Always({}));
    library.Answer(1, Sent::Transact, kNothing);
    library.Asked().Await(kRefresh, 3);
}

TEST_F(FreshSession, IsAskedAboutAtOnceAfterEachReconnection)
{
    options.sessionTimeout = seconds(600);
    const auto session = OpenAtOnce();
    library.Expect(Sent::Transact, kNothing, Always({}));
    const Registration fresh = session->KeepFresh();
    library.Asked().Await(kRefresh);
    Reconnect(1);
    library.Asked().Await(kRefresh, 2);
    ExpectNext();
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("2 transact " + kNothing);
}

TEST_F(FreshSession, GoesOnAfterARequestThatFailed)
{
    const auto session = OpenAtOnce();
    library.Expect(Sent::Transact, kNothing, Refused(ZSYSTEMERROR));
    library.Expect(Sent::Transact, kNothing, Code(ZCONNECTIONLOSS));
    library.Expect(Sent::Transact, kNothing, Always({}));
    const Registration fresh = session->KeepFresh();
    library.Asked().Await(kRefresh, 3);
}

TEST_F(FreshSession, LeavesTheEventThreadToItsCallbacksWhenThereIsNoOtherThread)
{
    options.sessionTimeout = seconds(600);
    const auto session = OpenAtOnce();
    library.Expect(Sent::Transact, kNothing, Always({}));
    Registration fresh;
    const auto standsIn = [this] {
        return !Logged("The event thread keeps the session, for want of a thread").empty();
    };
    // Not before the thread has gone that opened the session.
    for (int i = 0; i < 2'000 && !standsIn(); ++i)
    {
        fresh.Cancel();
        std::this_thread::sleep_for(milliseconds(10));
        const NoThreads none;
        fresh = session->KeepFresh();
        std::this_thread::sleep_for(milliseconds(10));
    }
    ASSERT_TRUE(standsIn());
    library.Asked().Await(kRefresh);
    const Registration listening = session->OnStateChange(
        [this](const SessionStatus& status) { journal.Note(std::string("told ") + ToString(status.state)); });
    journal.Await("told connected");
    Reconnect(1);
    library.Asked().Await(kRefresh, 2);
}

class SessionWithCredentials : public SessionScripted
{
protected:
    SessionWithCredentials() { options.digestCredentials = "user:secret"; }
};

TEST_F(SessionWithCredentials, ShowsThemOnceToEachHandleBeforeItAsksAnything)
{
    ExpectNext();
    const auto session = Session::Open(options);
    library.Expect(Sent::Exists, "/n");
    EXPECT_EQ(session->Exists("/n", nullptr), ZOK);
    Reconnect(1);
    library.AwaitArrivals(1);
    ExpectNext();
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("2 credentials digest user:secret");
    EXPECT_THAT(library.Asked().Lines(),
                ElementsAre("1 open 127.0.0.1:2181", "1 credentials digest user:secret", "1 exists /n", "1 close",
                            "2 open 127.0.0.1:2181", "2 credentials digest user:secret"));
}

TEST_F(SessionWithCredentials, NeverLogsThem)
{
    ExpectNext();
    Session::Open(options)->Close();
    for (const std::string& bad : {std::string("secret"), std::string(":secret")})
    {
        options.digestCredentials = bad;
        EXPECT_EQ(ThrownCode([&] { Session::Open(options); }), ZBADARGUMENTS);
    }
    EXPECT_THAT(Logged("Bad session option digestCredentials"), SizeIs(2));
    EXPECT_THAT(Logged("secret"), IsEmpty());
}

}  // namespace
}  // namespace kx::velmor::testing_support
