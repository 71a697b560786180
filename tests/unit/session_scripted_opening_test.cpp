#include "tests/unit/no_threads.h"
#include "tests/unit/session_scripted_fixture.h"

#include <netdb.h>

#include <cerrno>
#include <system_error>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

/// What one attempt to make a handle comes to, in short.
Opening Connecting(std::vector<int> states = {ZOO_CONNECTED_STATE})
{
    Opening opening;
    opening.states = std::move(states);
    return opening;
}

Opening Silent()
{
    return Connecting({});
}

Opening Impossible(int error)
{
    Opening opening;
    opening.error = error;
    return opening;
}

class OpeningASession : public SessionScripted
{};

TEST_F(OpeningASession, GivesTheIdentityThatTheServerGave)
{
    options.sessionTimeout = milliseconds(12'345);
    const auto session = OpenConnected();
    EXPECT_EQ(library.SessionTimeout(1), 12'345);
    const auto identity = session->ClientId();
    ASSERT_TRUE(identity);
    EXPECT_EQ(identity->client_id, library.Identity(1));
    session->Close();
    EXPECT_EQ(library.ResolutionDelay(1), -1) << "the client library must not look servers up";
    EXPECT_THAT(library.Asked().Lines(), ElementsAre("1 open 127.0.0.1:2181", "1 close"));
    EXPECT_THAT(
        Logged("Session connecting -> connected"),
        ElementsAre("Session connecting -> connected: session 0x1001, server 127.0.0.1:1001, timeout 12345 ms"));
}

TEST_F(OpeningASession, SurvivesAServersWordBeforeItHasTheHandle)
{
    Barrier opened;
    Opening early = Connecting();
    early.early = true;
    // The session is connected, and its user knows, before there is a handle to ask anything of.
    early.during = [&] { opened.Pass(); };
    library.ExpectOpen(early);
    library.Expect(Sent::Exists, "/n");
    const auto session = Session::Open(options);
    auto exists = std::async(std::launch::async, [&] { return session->Exists("/n", nullptr); });
    EXPECT_EQ(exists.wait_for(milliseconds(20)), std::future_status::timeout);
    opened.Open();
    EXPECT_EQ(exists.get(), ZOK);
}

TEST_F(OpeningASession, SurvivesTheEndOfTheSessionBeforeItHasTheHandle)
{
    Opening early = Connecting({ZOO_CONNECTED_STATE, ZOO_EXPIRED_SESSION_STATE});
    early.early = true;
    early.during = [this] {
        journal.Await("[20] Session connected -> expired: session 0x1001, the servers have ended it");
    };
    library.ExpectOpen(early);
    library.ExpectOpen(Connecting());
    const auto session = Session::Open(options);
    library.Asked().Await("2 open 127.0.0.1:2181");
    library.Asked().Await("1 close");
    library.Expect(Sent::Sync, "/n");
    library.Expect(Sent::Exists, "/n");
    EXPECT_EQ(session->Exists("/n", nullptr), ZOK);
    EXPECT_EQ(session->ClientId()->client_id, library.Identity(2));
}

TEST_F(OpeningASession, TriesAgainWhenThereIsNoHandleToBeHad)
{
    library.ExpectOpen(Impossible(EMFILE));
    library.ExpectOpen(Impossible(EMFILE));
    library.ExpectOpen(Connecting());
    const auto session = Session::Open(options);
    EXPECT_EQ(session->ClientId()->client_id, library.Identity(1));
    EXPECT_THAT(library.Asked().Lines(),
                ElementsAre("no open 127.0.0.1:2181", "no open 127.0.0.1:2181", "1 open 127.0.0.1:2181"));
    EXPECT_THAT(Logged("No handle for servers 127.0.0.1:2181: Too many open files"), SizeIs(2));
}

TEST_F(OpeningASession, FailsWhenNobodyAnswersInTime)
{
    options.connectTimeout = milliseconds(30);
    library.ExpectOpen(Silent());
    EXPECT_EQ(ThrownCode([&] { Session::Open(options); }), ZOPERATIONTIMEOUT);
    EXPECT_THAT(library.Asked().Lines(), ElementsAre("1 open 127.0.0.1:2181", "1 close"));
    EXPECT_THAT(Logged("No server answered within 30 ms: 127.0.0.1:2181"), SizeIs(1));
}

TEST_F(OpeningASession, FailsInTimeWhileThereIsNoHandleToBeHad)
{
    options.connectTimeout = milliseconds(30);
    library.ExpectOpen(Impossible(EMFILE));
    EXPECT_EQ(ThrownCode([&] { Session::Open(options); }), ZOPERATIONTIMEOUT);
}

TEST_F(OpeningASession, RefusesBadOptionsBeforeAnythingElse)
{
    options.servers = "127.0.0.1";
    EXPECT_EQ(ThrownCode([&] { Session::Open(options); }), ZBADARGUMENTS);
    EXPECT_THAT(Logged("Bad session option servers: "), SizeIs(1));
    EXPECT_THAT(library.Asked().Lines(), IsEmpty());
}

TEST_F(OpeningASession, ReplacesAHandleThatStaysSilent)
{
    options.sessionTimeout = milliseconds(20);
    library.ExpectOpen(Silent());
    ExpectNext(20);
    const auto session = Session::Open(options);
    EXPECT_EQ(session->ClientId()->client_id, library.Identity(library.Handles()));
    EXPECT_GE(library.Handles(), 2);
    EXPECT_EQ(library.Asked().Count("1 close"), 1U);
}

TEST_F(OpeningASession, DropsTheLateWordOfAHandleThatIsBeingReplaced)
{
    options.sessionTimeout = milliseconds(20);
    Opening late = Silent();
    late.whenClosed = [&] {
        library.Report(1, ZOO_CONNECTED_STATE);
        library.AwaitArrivals(1);
    };
    library.ExpectOpen(late);
    ExpectNext(20);
    const auto session = Session::Open(options);
    EXPECT_EQ(session->ClientId()->client_id, library.Identity(library.Handles()));
    EXPECT_GE(library.Handles(), 2);
    session->Close();
    EXPECT_THAT(Logged("-> connected"), SizeIs(1));
}

TEST_F(OpeningASession, FallsToTheEventThreadWhenThereIsNoOtherToBeHad)
{
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/n", "a");
    const auto reason = [this] { return Logged("The event thread keeps the session, for want of a thread: "); };
    int handle = 1;
    // The thread that opened the last handle does it when it has not ended yet.
    for (; handle < 50 && reason().empty(); ++handle)
    {
        const NoThreads noThreads;
        library.ExpectOpen(Connecting());
        journal.Take();
        library.Report(handle, ZOO_EXPIRED_SESSION_STATE);
        journal.Await("a session connected");
    }
    EXPECT_THAT(reason(), SizeIs(1));
    EXPECT_EQ(session->ClientId()->client_id, library.Identity(handle));
}

TEST_F(OpeningASession, FailsWithoutAThreadAndLeavesNothing)
{
    const NoThreads noThreads;
    EXPECT_THROW(Session::Open(options), std::system_error);
    EXPECT_THAT(library.Asked().Lines(), IsEmpty());
}

class OpeningByName : public SessionScripted
{
protected:
    OpeningByName() { options.servers = "a.example:1,b.example:2"; }

    ScriptedNameService names;
};

TEST_F(OpeningByName, HandsNumericAddressesOverAndLooksThemUpAnewForEachHandle)
{
    names.Expect("a.example", {"127.0.0.2"});
    names.Expect("b.example", {"127.0.0.3"});
    const auto session = OpenConnected();
    EXPECT_EQ(library.Addresses(1), "127.0.0.2:1,127.0.0.3:2");

    names.Expect("a.example", {"127.0.0.4"});
    names.Expect("b.example", {"127.0.0.3"});
    library.ExpectOpen(Connecting());
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("2 open 127.0.0.4:1,127.0.0.3:2");
}

TEST_F(OpeningByName, GoesOnWithTheLastKnownAddressesWhenTheNameServiceFails)
{
    names.Expect("a.example", {"127.0.0.2"});
    names.Expect("b.example", {"127.0.0.3"});
    const auto session = OpenConnected();
    names.ExpectFailure("a.example", EAI_AGAIN);
    names.ExpectFailure("b.example", EAI_AGAIN);
    library.ExpectOpen(Connecting());
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("2 open 127.0.0.2:1,127.0.0.3:2");
    EXPECT_THAT(Logged("Servers that cannot be looked up: a.example ("), SizeIs(1));
}

TEST_F(OpeningByName, LooksAgainWhileNoNameIsKnown)
{
    names.ExpectFailure("a.example", EAI_NONAME);
    names.ExpectFailure("b.example", EAI_NONAME);
    names.Expect("a.example", {"127.0.0.2"});
    names.ExpectFailure("b.example", EAI_NONAME);
    const auto session = OpenConnected();
    EXPECT_EQ(library.Addresses(1), "127.0.0.2:1");
}

TEST_F(OpeningByName, FailsInTimeWhileTheNameServiceHangs)
{
    options.connectTimeout = milliseconds(30);
    names.Expect("a.example", {"127.0.0.2"});
    names.ExpectHanging("b.example");
    EXPECT_EQ(ThrownCode([&] { Session::Open(options); }), ZOPERATIONTIMEOUT);
    EXPECT_THAT(library.Asked().Lines(), IsEmpty());
    names.Release();
}

// Takes the five seconds that a look-up gets.
TEST_F(OpeningByName, DropsTheAnswerToALookUpThatALaterOneHasOvertaken)
{
    names.Expect("a.example", {"127.0.0.2"});
    names.ExpectFailure("b.example", EAI_AGAIN);
    const auto session = OpenConnected();

    names.ExpectHanging("a.example");
    ExpectNext();
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("2 open 127.0.0.2:1");

    names.Expect("a.example", {"127.0.0.3"});
    names.ExpectFailure("b.example", EAI_AGAIN);
    ExpectNext();
    library.Report(2, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("3 open 127.0.0.3:1");

    // Of the look-up that hangs.
    names.Expect("b.example", {"127.0.0.4"});
    const std::string late =
        "Servers that cannot be looked up: a.example (" + std::string(gai_strerror(EAI_AGAIN)) + ")";
    names.Release();
    journal.Await("[20] " + late);

    names.ExpectFailure("a.example", EAI_AGAIN);
    names.ExpectFailure("b.example", EAI_AGAIN);
    library.ExpectOpen(Connecting());
    library.Report(3, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("4 open 127.0.0.3:1");
}

TEST_F(OpeningByName, LooksNamesUpItselfWhenThereIsNoThreadForIt)
{
    names.Expect("a.example", {"127.0.0.2"});
    names.Expect("b.example", {"127.0.0.3"});
    const auto session = OpenConnected();
    names.Expect("a.example", {"127.0.0.4"});
    names.Expect("b.example", {"127.0.0.5"});
    const NoThreads noThreads;
    library.ExpectOpen(Connecting());
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("2 open 127.0.0.4:1,127.0.0.5:2");
}

}  // namespace
}  // namespace kx::velmor::testing_support
