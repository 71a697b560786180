#include "tests/unit/session_scripted_fixture.h"

#include <atomic>
#include <thread>
#include <utility>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

Opening Reporting(std::vector<int> states)
{
    Opening opening;
    opening.states = std::move(states);
    return opening;
}

class EndOfASession : public SessionScripted
{};

TEST_F(EndOfASession, ExpiryOpensTheNextAndTellsWhoStillWatches)
{
    const auto session = OpenConnected();
    const auto a = Watch(*session, "/a", "a");
    const auto b = Watch(*session, "/b", "b");
    auto letGo = Watch(*session, "/c", "c");
    letGo = Connection::WatchHandle();
    ExpectNext();
    library.Report(1, ZOO_CONNECTING_STATE);
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    journal.Await("b session connected");
    EXPECT_EQ(session->ClientId()->client_id, library.Identity(2));
    session->Close();
    EXPECT_THAT(Told(), ElementsAre("a session connecting", "b session connecting", "a session expired",
                                    "b session expired", "a session connected", "b session connected"));
    EXPECT_THAT(AskedWith(" open "), SizeIs(2));
    EXPECT_THAT(AskedWith(" close"), ElementsAre("1 close", "2 close"));
    EXPECT_THAT(Logged("Session suspended -> expired: session 0x1001"), SizeIs(1));
}

TEST_F(EndOfASession, ThereIsNoIdentityUntilTheNext)
{
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/a", "a");
    library.ExpectOpen({});
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("2 open 127.0.0.1:2181");
    EXPECT_EQ(session->ClientId(), nullptr);
    library.Report(2, ZOO_CONNECTED_STATE);
    journal.Await("a session connected");
    EXPECT_EQ(session->ClientId()->client_id, library.Identity(2));
}

TEST_F(EndOfASession, RefusedCredentialsEndItToo)
{
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/a", "a");
    ExpectNext();
    library.Report(1, ZOO_AUTH_FAILED_STATE);
    journal.Await("a session connected");
    EXPECT_THAT(Told(), ElementsAre("a session refused", "a session connected"));
}

TEST_F(EndOfASession, SessionsThatEndAtOnceAreReplacedWithBackOffByTheClock)
{
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/a", "a");
    for (int i = 0; i < 2; ++i)
    {
        library.ExpectOpen(Reporting({ZOO_EXPIRED_SESSION_STATE}));
    }
    ExpectNext();
    const Clock::time_point begin = Clock::now();
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    journal.Await("a session connected");
    // The delays double from 100 ms, each shortened by at most half.
    EXPECT_GE(Clock::now() - begin, milliseconds(50 + 100 + 200));
    EXPECT_THAT(AskedWith(" open "), SizeIs(4));
    EXPECT_EQ(session->ClientId()->client_id, library.Identity(4));
    session->Close();
    EXPECT_EQ(journal.Count("a session expired"), 3U);
}

TEST_F(EndOfASession, LongSilenceEndsIt)
{
    options.sessionTimeout = milliseconds(50);
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/a", "a");
    ExpectNext(20);
    const Clock::time_point begin = Clock::now();
    library.Report(1, ZOO_CONNECTING_STATE);
    journal.Await("a session connected");
    EXPECT_GE(Clock::now() - begin, milliseconds(4 * 50)) << "not sooner, since servers may come back with their data";
    EXPECT_THAT(Told(), ElementsAre("a session connecting", "a session expired", "a session connected"));
    EXPECT_EQ(library.Asked().Count("1 close"), 1U);
    EXPECT_EQ(session->ClientId()->client_id, library.Identity(library.Handles()));
    EXPECT_THAT(Logged("given up after silence, ms: "), SizeIs(1));
}

TEST_F(EndOfASession, ReconnectionInTimeIsNone)
{
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/a", "a");
    Reconnect(1);
    journal.Await("a session connected");
    EXPECT_EQ(session->ClientId()->client_id, library.Identity(1));
    EXPECT_THAT(Told(), ElementsAre("a session connecting", "a session connected"));
    EXPECT_THAT(AskedWith(" open "), SizeIs(1));
}

TEST_F(EndOfASession, LossOfTheConnectionIsToldOnce)
{
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/a", "a");
    library.Report(1, ZOO_CONNECTING_STATE);
    library.Report(1, ZOO_CONNECTING_STATE);
    library.Report(1, ZOO_CONNECTED_STATE);
    journal.Await("a session connected");
    EXPECT_THAT(Told(), ElementsAre("a session connecting", "a session connected"));
}

TEST_F(EndOfASession, LateSessionNewsIsDropped)
{
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/a", "a");
    library.WhenClosed(1, [&] {
        library.Report(1, ZOO_CONNECTED_STATE);
        library.Report(1, ZOO_CONNECTING_STATE);
        library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    });
    ExpectNext();
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    journal.Await("a session connected");
    EXPECT_EQ(session->ClientId()->client_id, library.Identity(2));
    EXPECT_THAT(Told(), ElementsAre("a session expired", "a session connected"));
    EXPECT_THAT(AskedWith(" open "), SizeIs(2));
}

TEST_F(EndOfASession, LateNodeEventIsDropped)
{
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/a", "a");
    library.WhenClosed(1, [&] { library.Fire(1, ZOO_DELETED_EVENT, "/a"); });
    ExpectNext();
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    journal.Await("a session connected");
    EXPECT_THAT(Told(), ElementsAre("a session expired", "a session connected"));
}

TEST_F(EndOfASession, WatchThatWasArmedLateIsNotTakenOutOfTheNext)
{
    options.operationTimeout = milliseconds(100);
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/a", "a");
    library.Expect(Sent::WatchExists, "/late", Held());
    EXPECT_EQ(session->Exists("/late", Noting("late"), nullptr).first, ZOPERATIONTIMEOUT);

    // Whatever comes of the answer comes when the next session is there.
    Barrier nextIsThere;
    library.Expect(Sent::WatchExists, "/busy");
    const auto busy = session->Exists(
        "/busy", [&](int, int, const std::string&) { nextIsThere.Pass(); }, nullptr);
    library.WhenClosed(1, [&] { library.Answer(1, Sent::WatchExists, "/late"); });
    ExpectNext();
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("2 open 127.0.0.1:2181");
    library.Expect(Sent::Sync, "/n");
    library.Expect(Sent::Exists, "/n");
    EXPECT_EQ(session->Exists("/n", nullptr), ZOK) << "the next session is there";
    nextIsThere.Open();
    journal.Await("a session connected");
    session->Close();
    EXPECT_THAT(AskedWith("2 forget /late"), IsEmpty());
}

TEST_F(EndOfASession, IsNoticedAndMendedWhileACallbackIsBusy)
{
    const auto session = OpenConnected();
    Barrier release;
    library.Expect(Sent::WatchExists, "/n");
    bool was = false;
    const auto watch = session->Exists(
        "/n",
        [&](int type, int state, const std::string&) {
            if (!std::exchange(was, true))
            {
                release.Pass();
            }
            Noting("n")(type, state, "");
        },
        nullptr);
    library.Report(1, ZOO_CONNECTING_STATE);
    ExpectNext();
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("2 open 127.0.0.1:2181");
    library.Expect(Sent::Sync, "/m");
    library.Expect(Sent::Exists, "/m");
    EXPECT_EQ(session->Exists("/m", nullptr), ZOK);
    EXPECT_EQ(session->ClientId()->client_id, library.Identity(2));
    EXPECT_THAT(Told(), IsEmpty()) << "the callback is busy all the while";
    release.Open();
    journal.Await("n session connected");
    EXPECT_THAT(Told(), ElementsAre("n session connecting", "n session expired", "n session connected"));
}

TEST_F(EndOfASession, RequestThatIsNeverAnsweredEndsWithIt)
{
    library.LoseAnswersAtClose();
    const auto session = OpenConnected();
    library.Expect(Sent::Create, "/n", Held());
    library.Expect(Sent::GetChildren, "/n", Held());
    auto create =
        std::async(std::launch::async, [&] { return session->Create("/n", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr); });
    std::vector<std::string> children;
    auto list = std::async(std::launch::async, [&] { return session->GetChildren("/n", children); });
    library.Asked().Await("1 create /n");
    library.Asked().Await("1 children /n");
    // The next session is silent, so that whoever waits for it waits in vain.
    EndForGood(1);
    EXPECT_EQ(create.get(), ZSESSIONEXPIRED);
    EXPECT_EQ(list.get(), ZSESSIONEXPIRED);
}

TEST_F(EndOfASession, ReadThatIsBeingRepeatedEndsWithIt)
{
    const auto session = OpenConnected();
    Reply lost = Code(ZCONNECTIONLOSS);
    lost.during = [&] { library.Report(1, ZOO_CONNECTING_STATE); };
    library.Expect(Sent::Exists, "/n", lost);
    auto exists = std::async(std::launch::async, [&] { return session->Exists("/n", nullptr); });
    library.Asked().Await("1 exists /n");
    EndForGood(1);
    EXPECT_EQ(exists.get(), ZSESSIONEXPIRED);
}

TEST_F(EndOfASession, OperationThatWaitsForTheConnectionEndsWithIt)
{
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/a", "a");
    library.Report(1, ZOO_CONNECTING_STATE);
    journal.Await("a session connecting");
    auto create =
        std::async(std::launch::async, [&] { return session->Create("/n", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr); });
    EXPECT_EQ(create.wait_for(milliseconds(20)), std::future_status::timeout);
    EndForGood(1);
    EXPECT_EQ(create.get(), ZSESSIONEXPIRED);
}

TEST_F(EndOfASession, OperationThatBeginsBetweenSessionsWaitsForTheNext)
{
    const auto session = OpenConnected();
    library.ExpectOpen({});
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("2 open 127.0.0.1:2181");
    library.Expect(Sent::Create, "/n", Created("/n"));
    auto create =
        std::async(std::launch::async, [&] { return session->Create("/n", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr); });
    EXPECT_EQ(create.wait_for(milliseconds(20)), std::future_status::timeout);
    library.Report(2, ZOO_CONNECTED_STATE);
    EXPECT_EQ(create.get(), ZOK);
    EXPECT_THAT(AskedWith("create"), ElementsAre("2 create /n"));
}

TEST_F(EndOfASession, LibraryThatKnowsOfItFirstRefusesRequests)
{
    const auto session = OpenConnected();
    library.Break(1);
    library.Expect(Sent::Exists, "/n", Refused(ZINVALIDSTATE));
    EXPECT_EQ(session->Exists("/n", nullptr), ZSESSIONEXPIRED);
    library.Expect(Sent::GetChildren, "/n", Refused(ZMARSHALLINGERROR));
    std::vector<std::string> children;
    EXPECT_EQ(session->GetChildren("/n", children), ZSESSIONEXPIRED);
    library.Expect(Sent::Create, "/n", Refused(ZINVALIDSTATE));
    EXPECT_EQ(session->Create("/n", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZSESSIONEXPIRED);
}

TEST_F(EndOfASession, MayComeAgainAndAgainUnderLoad)
{
    options.sessionTimeout = milliseconds(500);
    const auto session = OpenConnected();
    library.Expect(Sent::Exists, "/n", Always({}));
    library.Expect(Sent::WatchExists, "/n", Always({}));
    library.Expect(Sent::Sync, "/n", Always({}));
    library.Expect(Sent::Delete, "/n", Always(Code(ZNONODE)));
    std::atomic<bool> done{false};
    std::vector<std::thread> users;
    for (int i = 0; i < 4; ++i)
    {
        users.emplace_back([&, i] {
            while (!done)
            {
                std::this_thread::sleep_for(milliseconds(1));
                const int rc = i == 0   ? session->GuaranteedDelete("/n")
                               : i == 1 ? session->Exists("/n", Noting("n"), nullptr).first
                                        : session->Exists("/n", nullptr);
                EXPECT_TRUE(rc == ZOK || rc == ZNONODE || rc == ZSESSIONEXPIRED || rc == ZCLOSING) << zerror(rc);
            }
        });
    }
    for (int round = 1; round <= 5; ++round)
    {
        ExpectNext();
        library.Report(round, ZOO_CONNECTING_STATE);
        library.Report(round, ZOO_EXPIRED_SESSION_STATE);
        library.Asked().Await(std::to_string(round + 1) + " exists /n");
    }
    session->Close();
    done = true;
    for (std::thread& user : users)
    {
        user.join();
    }
    EXPECT_THAT(AskedWith(" close"), SizeIs(6));
}

}  // namespace
}  // namespace kx::velmor::testing_support
