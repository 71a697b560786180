#include "tests/unit/session_scripted_fixture.h"

#include <cstdint>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::IsEmpty;
using ::testing::Le;
using ::testing::SizeIs;

/// A server takes requests of up to this size.
constexpr std::size_t kMostRequestBytes = 0xfffff;

class OperationsOfASession : public SessionScripted
{
protected:
    static int Create(const Session& session, const std::string& path, int flags, std::string* createdPath)
    {
        return session.Create(path, "data", ZOO_OPEN_ACL_UNSAFE, flags, createdPath);
    }

    static int Exists(const Session& session, const std::string& path) { return session.Exists(path, nullptr); }

    /// A connection that knows nothing of what was written on the one before.
    void LoseConnection(const Session& session)
    {
        const auto watch = Watch(session, "/lost", "lost");
        Reconnect(1);
        journal.Await("lost session connected");
        journal.Take();
    }
};

TEST_F(OperationsOfASession, GiveWhatTheServerGave)
{
    const auto session = OpenConnected();
    Reply stat;
    stat.ephemeralOwner = 77;
    library.Expect(Sent::Exists, "/n", stat);
    Stat record{};
    EXPECT_EQ(session->Exists("/n", &record), ZOK);
    EXPECT_EQ(record.ephemeralOwner, 77);

    library.Expect(Sent::WatchExists, "/n", stat);
    record = {};
    EXPECT_EQ(session->Exists("/n", Noting("n"), &record).first, ZOK);
    EXPECT_EQ(record.ephemeralOwner, 77);

    Reply list;
    list.children = {"b", "a"};
    library.Expect(Sent::GetChildren, "/", list);
    std::vector<std::string> children = {"old"};
    EXPECT_EQ(session->GetChildren("/", children), ZOK);
    EXPECT_THAT(children, ElementsAre("b", "a")) << "in the service's order";

    library.Expect(Sent::GetChildren, "/n", Code(ZNONODE));
    EXPECT_EQ(session->GetChildren("/n", children), ZNONODE);
    EXPECT_THAT(children, SizeIs(2)) << "left alone";

    library.Expect(Sent::Create, "/n", Code(ZNODEEXISTS));
    std::string created = "room for it";
    EXPECT_EQ(Create(*session, "/n", 0, &created), ZNODEEXISTS);
    EXPECT_EQ(created, "room for it");
    EXPECT_THAT(AskedWith("sync"), IsEmpty()) << "the first connection has no earlier writes";
}

TEST_F(OperationsOfASession, GiveTheCreatedPathWithoutTheRoot)
{
    options.rootPath = "/apps/x";
    const auto session = OpenConnected();
    const std::string path = "/e/c-";
    std::string created(options.rootPath.size() + path.size() + 12, '\0');
    library.Expect(Sent::Create, "/apps/x/e/c-", Created("/apps/x/e/c-0000000012"));
    EXPECT_EQ(Create(*session, path, ZOO_EPHEMERAL | ZOO_SEQUENCE, &created), ZOK);
    EXPECT_EQ(created, "/e/c-0000000012");
}

TEST_F(OperationsOfASession, HonourTheRoomForTheCreatedPath)
{
    const auto session = OpenConnected();
    std::string created(5 + 10, '\0');
    library.Expect(Sent::Create, "/e/c-", Created("/e/c-0000000012"));
    EXPECT_EQ(Create(*session, "/e/c-", ZOO_SEQUENCE, &created), ZOK) << "it fits exactly";
    EXPECT_EQ(created, "/e/c-0000000012");

    created.assign(5 + 9, 'x');
    EXPECT_EQ(Create(*session, "/e/c-", ZOO_SEQUENCE, &created), ZBADARGUMENTS) << "nothing was sent";
    EXPECT_EQ(created, std::string(5 + 9, 'x'));

    created.assign(2, '\0');
    library.Expect(Sent::Create, "/n", Created("/n"));
    EXPECT_EQ(Create(*session, "/n", 0, &created), ZOK);
    EXPECT_EQ(created, "/n");
    created.assign(1, '\0');
    EXPECT_EQ(Create(*session, "/n", 0, &created), ZBADARGUMENTS);

    library.Expect(Sent::Create, "/n", Created("/n"));
    EXPECT_EQ(Create(*session, "/n", 0, nullptr), ZOK);
}

TEST_F(OperationsOfASession, TakeBackANodeWhosePathDoesNotFit)
{
    const auto session = OpenConnected();
    // The counter of the parent has overflowed.
    library.Expect(Sent::Create, "/e/c-", Created("/e/c--2147483648"));
    library.Expect(Sent::Delete, "/e/c--2147483648");
    std::string created(5 + 10, '\0');
    EXPECT_EQ(Create(*session, "/e/c-", ZOO_SEQUENCE, &created), ZBADARGUMENTS);
    EXPECT_THAT(Logged("Taken back, since its path does not fit the room: /e/c--2147483648"), SizeIs(1));
}

TEST_F(OperationsOfASession, MakeTheRootOnDemand)
{
    options.rootPath = "/apps/x";
    const auto session = OpenConnected();
    library.Expect(Sent::Create, "/apps/x/e", Code(ZNONODE));
    library.Expect(Sent::Exists, "/apps/x", Code(ZNONODE));
    library.Expect(Sent::Exists, "/apps", Code(ZNONODE));
    library.Expect(Sent::Create, "/apps", Code(ZNODEEXISTS));
    library.Expect(Sent::Create, "/apps/x", Created("/apps/x"));
    library.Expect(Sent::Create, "/apps/x/e", Created("/apps/x/e"));
    EXPECT_EQ(Create(*session, "/e", 0, nullptr), ZOK);

    library.Expect(Sent::Create, "/apps/x/e/f", Code(ZNONODE));
    EXPECT_EQ(Create(*session, "/e/f", 0, nullptr), ZNONODE) << "that parent is the user's to make";
}

TEST_F(OperationsOfASession, LeaveTheRootToOthersWhenToldSo)
{
    options.rootPath = "/apps/x";
    options.createRoot = false;
    const auto session = OpenConnected();
    library.Expect(Sent::Create, "/apps/x/e", Code(ZNONODE));
    EXPECT_EQ(Create(*session, "/e", 0, nullptr), ZNONODE);
}

TEST_F(OperationsOfASession, NameTheRootItselfByASlash)
{
    options.rootPath = "/apps/x";
    const auto session = OpenConnected();
    library.Expect(Sent::Exists, "/apps/x");
    EXPECT_EQ(Exists(*session, "/"), ZOK);
    library.Expect(Sent::Create, "/apps/x", Created("/apps/x"));
    std::string created = "?";
    EXPECT_EQ(Create(*session, "/", 0, &created), ZOK);
    EXPECT_EQ(created, "/");
}

TEST_F(OperationsOfASession, RefuseWhatNamesNoNode)
{
    const auto session = OpenConnected();
    std::vector<std::string> children;
    for (const std::string& path : {std::string(), std::string("n"), std::string("/a\0b", 4)})
    {
        EXPECT_EQ(Create(*session, path, 0, nullptr), ZBADARGUMENTS);
        EXPECT_EQ(Exists(*session, path), ZBADARGUMENTS);
        EXPECT_EQ(session->Exists(path, Noting("n"), nullptr).first, ZBADARGUMENTS);
        EXPECT_EQ(session->GetChildren(path, children), ZBADARGUMENTS);
        EXPECT_EQ(session->GuaranteedDelete(path), ZBADARGUMENTS);
    }
    EXPECT_THAT(library.Asked().Lines(), SizeIs(1)) << "only the handle was asked for";
}

TEST_F(OperationsOfASession, RefuseRequestsThatNoServerTakes)
{
    options.rootPath = "/x";
    const auto session = OpenConnected();
    const std::string data(kMostRequestBytes, 'd');
    EXPECT_EQ(session->Create("/n", data, ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZBADARGUMENTS);
    EXPECT_THAT(Logged("bytes was not sent, since servers take 1048575: /x/n"), SizeIs(1));

    // With the root in front it is too long; without it, it would not be.
    const std::string path = "/" + std::string(kMostRequestBytes - 25, 'p');
    std::vector<std::string> children;
    EXPECT_EQ(Exists(*session, path), ZBADARGUMENTS);
    EXPECT_EQ(session->Exists(path, Noting("n"), nullptr).first, ZBADARGUMENTS);
    EXPECT_EQ(session->GetChildren(path, children), ZBADARGUMENTS);
    EXPECT_EQ(session->GuaranteedDelete(path), ZBADARGUMENTS);
    EXPECT_EQ(Create(*session, path, 0, nullptr), ZBADARGUMENTS);
}

TEST_F(OperationsOfASession, EndAtTheirDeadlineWhenNoAnswerComes)
{
    options.operationTimeout = milliseconds(100);
    const auto session = OpenConnected();
    std::vector<std::string> children;
    library.Expect(Sent::Create, "/n", Held());
    EXPECT_EQ(Create(*session, "/n", 0, nullptr), ZOPERATIONTIMEOUT);
    library.Expect(Sent::GetChildren, "/n", Held());
    EXPECT_EQ(session->GetChildren("/n", children), ZOPERATIONTIMEOUT);
    library.Expect(Sent::Exists, "/n", Held());
    EXPECT_EQ(Exists(*session, "/n"), ZOPERATIONTIMEOUT);
    library.Expect(Sent::WatchExists, "/n", Held());
    EXPECT_EQ(session->Exists("/n", Noting("n"), nullptr).first, ZOPERATIONTIMEOUT);

    // Answers that come after all find nobody.
    library.Answer(1, Sent::Create, "/n", Created("/n"));
    Reply list;
    list.children = {"late"};
    library.Answer(1, Sent::GetChildren, "/n", list);
    library.Answer(1, Sent::Exists, "/n");
    library.Answer(1, Sent::WatchExists, "/n");
    AwaitQuiet(*session, 1);
    EXPECT_THAT(children, IsEmpty());
    EXPECT_THAT(library.Armed(1), IsEmpty());
}

TEST_F(OperationsOfASession, EndAtTheirDeadlineWhileThereIsNoConnection)
{
    options.operationTimeout = milliseconds(100);
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/a", "a");
    library.Report(1, ZOO_CONNECTING_STATE);
    journal.Await("a session connecting");
    EXPECT_EQ(Create(*session, "/n", 0, nullptr), ZCONNECTIONLOSS);
    EXPECT_EQ(Exists(*session, "/n"), ZCONNECTIONLOSS);
}

TEST_F(OperationsOfASession, WaitForTheConnectionToComeBack)
{
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/a", "a");
    library.Report(1, ZOO_CONNECTING_STATE);
    journal.Await("a session connecting");
    library.Expect(Sent::Create, "/n", Created("/n"));
    auto create = std::async(std::launch::async, [&] { return Create(*session, "/n", 0, nullptr); });
    EXPECT_EQ(create.wait_for(milliseconds(20)), std::future_status::timeout);
    EXPECT_THAT(AskedWith("create"), IsEmpty());
    library.Report(1, ZOO_CONNECTED_STATE);
    EXPECT_EQ(create.get(), ZOK);
}

TEST_F(OperationsOfASession, RepeatReadsAndNeverWritesAfterALostReply)
{
    options.sessionTimeout = milliseconds(1'000);
    const auto session = OpenConnected();
    for (const int rc : {ZCONNECTIONLOSS, ZOPERATIONTIMEOUT})
    {
        library.Expect(Sent::Exists, "/n", Code(rc));
        library.Expect(Sent::GetChildren, "/n", Code(rc));
        library.Expect(Sent::WatchExists, "/n", Code(rc));
        library.Expect(Sent::Create, "/n", Code(rc));
    }
    library.Expect(Sent::Exists, "/n", Code(ZNONODE));
    EXPECT_EQ(Exists(*session, "/n"), ZNONODE);
    library.Expect(Sent::GetChildren, "/n");
    std::vector<std::string> children;
    EXPECT_EQ(session->GetChildren("/n", children), ZOK);
    library.Expect(Sent::WatchExists, "/n");
    EXPECT_EQ(session->Exists("/n", Noting("n"), nullptr).first, ZOK);
    EXPECT_EQ(Create(*session, "/n", 0, nullptr), ZCONNECTIONLOSS);
    EXPECT_EQ(Create(*session, "/n", 0, nullptr), ZOPERATIONTIMEOUT);
}

TEST_F(OperationsOfASession, RepeatReadsWithBackOffByTheClock)
{
    // Delays begin at 10 ms and end at 100 ms, each shortened by at most half.
    options.sessionTimeout = milliseconds(600);
    options.operationTimeout = milliseconds(300);
    const auto session = OpenConnected();
    library.Expect(Sent::Exists, "/n", Always(Code(ZCONNECTIONLOSS)));
    const Clock::time_point begin = Clock::now();
    EXPECT_THAT(Exists(*session, "/n"), AnyOf(ZCONNECTIONLOSS, ZOPERATIONTIMEOUT));
    EXPECT_GE(Clock::now() - begin, milliseconds(300)) << "until the deadline";
    // At 5, 15, 35, 75, 125, 175, 225 and 275 ms at the earliest, after the first.
    EXPECT_THAT(AskedWith("exists"), SizeIs(AllOf(Ge(2U), Le(10U))));
}

TEST_F(OperationsOfASession, GiveOtherCodesAsTheyAre)
{
    const auto session = OpenConnected();
    library.Expect(Sent::Exists, "/n", Code(ZNOAUTH));
    EXPECT_EQ(Exists(*session, "/n"), ZNOAUTH);
    library.Expect(Sent::Exists, "/n/", Refused(ZBADARGUMENTS));
    EXPECT_EQ(Exists(*session, "/n/"), ZBADARGUMENTS);
    library.Expect(Sent::Create, "/n", Refused(ZMARSHALLINGERROR));
    EXPECT_EQ(Create(*session, "/n", 0, nullptr), ZMARSHALLINGERROR) << "the session lives";
}

TEST_F(OperationsOfASession, SynchroniseTheFirstReadAfterAReconnectionAndNoOther)
{
    const auto session = OpenConnected();
    library.Expect(Sent::Exists, "/n", Always({}));
    library.Expect(Sent::Create, "/n", Always(Created("/n")));
    library.Expect(Sent::GetChildren, "/n", Always({}));
    EXPECT_EQ(Exists(*session, "/n"), ZOK);
    LoseConnection(*session);
    EXPECT_EQ(Create(*session, "/n", 0, nullptr), ZOK) << "writes see everything";
    library.Expect(Sent::Sync, "/n");
    EXPECT_EQ(Exists(*session, "/n"), ZOK);
    std::vector<std::string> children;
    EXPECT_EQ(session->GetChildren("/n", children), ZOK);
    EXPECT_THAT(AskedWith(" /n"),
                ElementsAre("1 exists /n", "1 create /n", "1 sync /n", "1 exists /n", "1 children /n"));
}

TEST_F(OperationsOfASession, SynchroniseTheFirstReadOfTheNextSession)
{
    const auto session = OpenConnected();
    Opening next;
    next.states = {ZOO_CONNECTED_STATE};
    library.ExpectOpen(next);
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("2 open 127.0.0.1:2181");
    library.Expect(Sent::Sync, "/n");
    library.Expect(Sent::GetChildren, "/n");
    std::vector<std::string> children;
    EXPECT_EQ(session->GetChildren("/n", children), ZOK);
    EXPECT_THAT(AskedWith(" /n"), ElementsAre("2 sync /n", "2 children /n"));
}

TEST_F(OperationsOfASession, RepeatAReadWhoseSynchronisationWasLost)
{
    options.sessionTimeout = milliseconds(1'000);
    const auto session = OpenConnected();
    LoseConnection(*session);
    library.Expect(Sent::Sync, "/n", Code(ZCONNECTIONLOSS));
    library.Expect(Sent::Exists, "/n", Code(ZNONODE));
    library.Expect(Sent::Sync, "/n");
    library.Expect(Sent::Exists, "/n");
    EXPECT_EQ(Exists(*session, "/n"), ZOK) << "the second answer counts";
}

TEST_F(OperationsOfASession, RepeatAReadThatWasAnsweredOverALaterConnection)
{
    const auto session = OpenConnected();
    library.Expect(Sent::Exists, "/n", Held());
    auto exists = std::async(std::launch::async, [&] { return Exists(*session, "/n"); });
    library.Asked().Await("1 exists /n");
    library.Expect(Sent::Sync, "/n");
    library.Expect(Sent::Exists, "/n");
    Reconnect(1);
    library.Answer(1, Sent::Exists, "/n", Code(ZNONODE));
    EXPECT_EQ(exists.get(), ZOK) << "that server may have lagged behind";
    EXPECT_THAT(AskedWith(" /n"), ElementsAre("1 exists /n", "1 sync /n", "1 exists /n"));
}

TEST_F(OperationsOfASession, RefuseAMalformedPathAfterAReconnectionAtOnce)
{
    options.operationTimeout = milliseconds(500);
    const auto session = OpenConnected();
    LoseConnection(*session);
    library.Expect(Sent::Sync, "/n/", Refused(ZBADARGUMENTS));
    EXPECT_EQ(Exists(*session, "/n/"), ZBADARGUMENTS);
    library.Expect(Sent::Sync, "/n");
    library.Expect(Sent::Exists, "/n");
    EXPECT_EQ(Exists(*session, "/n"), ZOK) << "not synchronised yet";
}

}  // namespace
}  // namespace kx::velmor::testing_support
