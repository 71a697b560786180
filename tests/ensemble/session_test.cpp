#include "tests/ensemble/loopback_door.h"
#include "tests/ensemble/session_fixture.h"
#include "tests/support/network.h"

#include <kx/velmor/error.h>

#include <gmock/gmock.h>

#include <atomic>
#include <climits>
#include <future>
#include <optional>
#include <thread>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using ::testing::AnyOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

using CodeAndPath = std::pair<int, std::string>;

class SessionTest : public SessionFixture
{
protected:
    std::shared_ptr<Session> OpenUnder(const std::string& rootPath, bool createRoot = true) const
    {
        SessionOptions options = Options();
        options.rootPath = rootPath;
        options.createRoot = createRoot;
        return Session::Open(options);
    }

    /// What `Open` throws as a `ZooError`.
    static std::optional<int> CodeOfOpening(const SessionOptions& options)
    {
        try
        {
            Session::Open(options);
            return std::nullopt;
        }
        catch (const ZooError& error)
        {
            return error.Code();
        }
    }
};

TEST_F(SessionTest, CreatesNodesOfEveryKind)
{
    const auto session = Open();
    const std::int64_t self = session->ClientId()->client_id;

    EXPECT_EQ(Create(*session, "/plain"), CodeAndPath(ZOK, "/plain"));
    EXPECT_EQ(observer_.Data("/plain"), "data");
    EXPECT_EQ(observer_.Exists("/plain")->ephemeralOwner, 0);

    EXPECT_EQ(Create(*session, "/mine", ZOO_EPHEMERAL), CodeAndPath(ZOK, "/mine"));
    EXPECT_EQ(observer_.Exists("/mine")->ephemeralOwner, self);

    EXPECT_EQ(Create(*session, "/plain/s-", ZOO_SEQUENCE), CodeAndPath(ZOK, "/plain/s-0000000000"));
    EXPECT_EQ(observer_.Exists("/plain/s-0000000000")->ephemeralOwner, 0);

    EXPECT_EQ(Create(*session, "/plain/c-", ZOO_SEQUENCE | ZOO_EPHEMERAL), CodeAndPath(ZOK, "/plain/c-0000000001"));
    EXPECT_EQ(observer_.Exists("/plain/c-0000000001")->ephemeralOwner, self);

    // A sequential node may have no name of its own.
    EXPECT_EQ(Create(*session, "/plain/", ZOO_SEQUENCE), CodeAndPath(ZOK, "/plain/0000000002"));

    EXPECT_EQ(session->Create("/quiet", std::string(), ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZOK);
    EXPECT_EQ(observer_.Data("/quiet"), "");
}

TEST_F(SessionTest, ReturnsTheCodesOfFailedCreations)
{
    const auto session = Open();
    ASSERT_EQ(Create(*session, "/mine", ZOO_EPHEMERAL).first, ZOK);
    EXPECT_EQ(Create(*session, "/mine").first, ZNODEEXISTS);
    EXPECT_EQ(Create(*session, "/mine/child").first, ZNOCHILDRENFOREPHEMERALS);
    EXPECT_EQ(Create(*session, "/nothing/child").first, ZNONODE);
    ASSERT_EQ(session->Create("/readonly", std::string(), ZOO_READ_ACL_UNSAFE, 0, nullptr), ZOK);
    EXPECT_EQ(Create(*session, "/readonly/child").first, ZNOAUTH);
}

TEST_F(SessionTest, CreatedPathMayFitItsRoomExactly)
{
    const auto session = Open();
    EXPECT_EQ(Create(*session, "/n-", 0, 3), CodeAndPath(ZOK, "/n-"));
    EXPECT_EQ(Create(*session, "/e-", ZOO_EPHEMERAL, 3), CodeAndPath(ZOK, "/e-"));
    EXPECT_EQ(Create(*session, "/n-", ZOO_SEQUENCE, 13), CodeAndPath(ZOK, "/n-0000000002"));
    EXPECT_EQ(Create(*session, "/n-", ZOO_SEQUENCE | ZOO_EPHEMERAL, 13), CodeAndPath(ZOK, "/n-0000000003"));
}

TEST_F(SessionTest, RoomTooSmallIsAnErrorThatLeavesNoNode)
{
    const auto session = Open();
    const std::vector<std::string> before = observer_.List("/");
    for (const int sequence : {0, static_cast<int>(ZOO_SEQUENCE)})
    {
        for (const int ephemeral : {0, static_cast<int>(ZOO_EPHEMERAL)})
        {
            const std::size_t needed = sequence != 0 ? 13 : 3;
            for (const std::size_t room : {needed - 1, std::size_t{1}, std::size_t{0}})
            {
                EXPECT_EQ(Create(*session, "/n-", sequence | ephemeral, room).first, ZBADARGUMENTS) << room;
            }
        }
    }
    EXPECT_EQ(observer_.List("/"), before);
    EXPECT_EQ(Create(*session, "/n-").first, ZOK);
}

TEST_F(SessionTest, PathsAreRelativeToTheRoot)
{
    const auto session = OpenUnder("/apps/x");
    EXPECT_EQ(session->RootPath(), "/apps/x");
    EXPECT_EQ(Create(*session, "/e"), CodeAndPath(ZOK, "/e"));
    // What a candidate grants.
    const std::string requested = "/e/c-";
    const std::size_t room = session->RootPath().size() + requested.size() + 12;
    EXPECT_EQ(Create(*session, requested, ZOO_SEQUENCE, room), CodeAndPath(ZOK, "/e/c-0000000000"));
    EXPECT_EQ(Create(*session, requested, ZOO_SEQUENCE, requested.size() + 10), CodeAndPath(ZOK, "/e/c-0000000001"));
    EXPECT_THAT(observer_.List("/apps/x/e"), ElementsAre("c-0000000000", "c-0000000001"));

    std::vector<std::string> children;
    EXPECT_EQ(session->GetChildren("/", children), ZOK);
    EXPECT_THAT(children, ElementsAre("e"));
    EXPECT_EQ(session->Exists("/e/c-0000000000", nullptr), ZOK);
    EXPECT_EQ(session->Exists("/", nullptr), ZOK);
    EXPECT_EQ(session->Exists("/apps/x/e", nullptr), ZNONODE);
    EXPECT_EQ(session->GuaranteedDelete("/e/c-0000000000"), ZOK);
    EXPECT_THAT(observer_.List("/apps/x/e"), ElementsAre("c-0000000001"));
    EXPECT_EQ(Create(*session, "/", ZOO_SEQUENCE), CodeAndPath(ZOK, "/0000000001"));
    EXPECT_EQ(Create(*session, "/").first, ZNODEEXISTS);
}

TEST_F(SessionTest, MissingRootIsMadeWhenTheFirstNodeIsCreatedUnderIt)
{
    const auto session = OpenUnder("/apps/x/y");
    std::vector<std::string> children;
    EXPECT_EQ(session->Exists("/", nullptr), ZNONODE);
    EXPECT_EQ(session->GetChildren("/", children), ZNONODE);
    EXPECT_EQ(session->GuaranteedDelete("/n"), ZNONODE);
    EXPECT_FALSE(observer_.Exists("/apps"));

    EXPECT_EQ(Create(*session, "/n", ZOO_EPHEMERAL), CodeAndPath(ZOK, "/n"));
    EXPECT_TRUE(observer_.Exists("/apps/x/y/n"));
    EXPECT_EQ(observer_.Exists("/apps/x/y")->ephemeralOwner, 0);
    // Below the root nothing is made unasked.
    EXPECT_EQ(Create(*session, "/a/b").first, ZNONODE);
}

TEST_F(SessionTest, MissingRootMayBeCreatedByItself)
{
    EXPECT_EQ(Create(*OpenUnder("/one"), "/"), CodeAndPath(ZOK, "/"));
    EXPECT_TRUE(observer_.Exists("/one"));
    EXPECT_EQ(Create(*OpenUnder("/two/levels"), "/"), CodeAndPath(ZOK, "/"));
    EXPECT_TRUE(observer_.Exists("/two/levels"));
}

TEST_F(SessionTest, MissingRootStaysMissingWhenItMustNotBeMade)
{
    const auto session = OpenUnder("/apps/x", false);
    EXPECT_EQ(Create(*session, "/n").first, ZNONODE);
    EXPECT_FALSE(observer_.Exists("/apps"));
    observer_.Create("/apps");
    observer_.Create("/apps/x");
    EXPECT_EQ(Create(*session, "/n").first, ZOK);
}

TEST_F(SessionTest, MissingRootIsMadeByManyAtOnce)
{
    const auto session = OpenUnder("/apps/x");
    const auto other = OpenUnder("/apps/x");
    std::vector<std::future<int>> created;
    for (int i = 0; i < 8; ++i)
    {
        const Session& creator = i % 2 == 0 ? *session : *other;
        created.push_back(
            std::async(std::launch::async, [&creator] { return Create(creator, "/n-", ZOO_SEQUENCE).first; }));
    }
    for (std::future<int>& code : created)
    {
        EXPECT_EQ(code.get(), ZOK);
    }
    EXPECT_THAT(observer_.List("/apps/x"), SizeIs(8));
}

TEST_F(SessionTest, ListsChildren)
{
    const auto session = Open();
    observer_.Create("/p");
    std::vector<std::string> children{"from", "before"};
    EXPECT_EQ(session->GetChildren("/p", children), ZOK);
    EXPECT_THAT(children, IsEmpty());
    observer_.Create("/p/b");
    observer_.Create("/p/a");
    observer_.Create("/p/a/c");
    EXPECT_EQ(session->GetChildren("/p", children), ZOK);
    EXPECT_THAT(children, UnorderedElementsAre("a", "b"));
    EXPECT_EQ(session->GetChildren("/nothing", children), ZNONODE);
}

TEST_F(SessionTest, TellsWhetherNodesExist)
{
    const auto session = Open();
    observer_.Create("/n", "four");
    observer_.Create("/mine", {}, ZOO_EPHEMERAL);
    writer_.Set("/n", "sixsix");
    Stat stat{};
    EXPECT_EQ(session->Exists("/n", &stat), ZOK);
    EXPECT_EQ(stat.version, 1);
    EXPECT_EQ(stat.dataLength, 6);
    EXPECT_EQ(session->Exists("/mine", &stat), ZOK);
    EXPECT_EQ(stat.ephemeralOwner, observer_.Id().client_id);
    EXPECT_EQ(session->Exists("/n", nullptr), ZOK);
    EXPECT_EQ(session->Exists("/nothing", &stat), ZNONODE);

    stat = Stat{};
    EXPECT_EQ(session->Exists("/mine", EventRecorder().Callback(), &stat).first, ZOK);
    EXPECT_EQ(stat.ephemeralOwner, observer_.Id().client_id);
    EXPECT_EQ(session->Exists("/nothing", EventRecorder().Callback(), &stat).first, ZNONODE);
}

TEST_F(SessionTest, DeletesWhateverTheVersion)
{
    const auto session = Open();
    observer_.Create("/n");
    writer_.Set("/n", "new");
    ASSERT_EQ(observer_.Exists("/n")->version, 1);
    EXPECT_EQ(session->GuaranteedDelete("/n"), ZOK);
    EXPECT_FALSE(observer_.Exists("/n"));
    EXPECT_EQ(session->GuaranteedDelete("/n"), ZNONODE);
    observer_.Create("/p");
    observer_.Create("/p/c");
    EXPECT_EQ(session->GuaranteedDelete("/p"), ZNOTEMPTY);
    EXPECT_TRUE(observer_.Exists("/p/c"));
}

TEST_F(SessionTest, ReturnsTheSamePlaceAndIdentityThroughReconnections)
{
    const auto session = Open();
    const std::unique_ptr<clientid_t> first = session->ClientId();
    ASSERT_TRUE(first);
    EXPECT_EQ(session->RootPath(), "");
    ASSERT_EQ(Create(*session, "/mine", ZOO_EPHEMERAL).first, ZOK);
    for (int i = 0; i < 5; ++i)
    {
        proxy_.Cut();
        Stat stat{};
        ASSERT_EQ(session->Exists("/mine", &stat), ZOK);
        EXPECT_EQ(stat.ephemeralOwner, first->client_id);
        EXPECT_EQ(session->ClientId()->client_id, first->client_id);
    }
}

TEST_F(SessionTest, BadPathsAreRefusedWithoutARequest)
{
    using std::string_literals::operator""s;
    const auto session = OpenUnder("/apps/x");
    ASSERT_EQ(Create(*session, "/n").first, ZOK);
    std::vector<std::size_t> sent;
    for (const Operation& operation : Operations())
    {
        sent.push_back(proxy_.Forwarded(operation.request));
    }
    for (const std::string& path : {""s, "n"s, "n/"s, "/n/"s, "//n"s, "/a//b"s, "/."s, "/.."s, "/a/./b"s, "/a/../b"s,
                                    "/a\0b"s, "/\0"s, "\0"s, "/a\x01"s})
    {
        for (const Operation& operation : Operations())
        {
            EXPECT_EQ(operation.call(*session, path), ZBADARGUMENTS)
                << operation.name << " " << ::testing::PrintToString(path);
        }
    }
    for (std::size_t i = 0; i < sent.size(); ++i)
    {
        EXPECT_EQ(proxy_.Forwarded(Operations()[i].request), sent[i]) << Operations()[i].name;
    }
    EXPECT_EQ(proxy_.Accepted(), 1U);
}

TEST_F(SessionTest, TooLargeRequestsAreRefusedWithoutBeingSent)
{
    const auto session = Open();
    const std::string huge(2 << 20, 'x');
    EXPECT_EQ(session->Create("/n", huge, ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZBADARGUMENTS);
    for (const Operation& operation : Operations())
    {
        EXPECT_EQ(operation.call(*session, "/" + huge), ZBADARGUMENTS) << operation.name;
        EXPECT_EQ(proxy_.Forwarded(operation.request), 0U) << operation.name;
    }
    EXPECT_EQ(proxy_.Accepted(), 1U);
    EXPECT_EQ(Create(*session, "/n").first, ZOK);
}

TEST_F(SessionTest, OnlyWhatServersRefuseIsTooLarge)
{
    const auto session = Open();
    std::size_t bytes = 1 << 20;
    int rc = ZBADARGUMENTS;
    while (rc == ZBADARGUMENTS)
    {
        rc = session->Create("/n", std::string(--bytes, 'x'), ZOO_OPEN_ACL_UNSAFE, 0, nullptr);
    }
    EXPECT_EQ(rc, ZOK);
    EXPECT_EQ(observer_.Exists("/n")->dataLength, static_cast<int>(bytes));
    EXPECT_EQ(proxy_.Accepted(), 1U);
    // One byte is kept in reserve; a server that gets one more than that drops the connection.
    RawClient unchecked(server_->Address());
    EXPECT_THROW(unchecked.Create("/m", std::string(bytes + 2, 'x')), std::runtime_error);
    EXPECT_FALSE(observer_.Exists("/m"));
}

TEST_F(SessionTest, BadOptionsAreRefusedByName)
{
    struct Case
    {
        const char* option;
        std::function<void(SessionOptions&)> spoil;
    };
    std::vector<Case> cases;
    for (const std::string servers :
         {"", "localhost", "localhost:", ":2181", "localhost:0", "localhost:65536", "localhost:99999", "localhost:-1",
          "localhost:2181x", "localhost:2181,", ",localhost:2181", "localhost:2181, localhost:2182", "a b:2181",
          "localhost:2181/x", "::1:2181", "[::1]", "[::1:2181"})
    {
        cases.push_back({"servers", [servers](SessionOptions& options) { options.servers = servers; }});
    }
    for (const std::string root : {"/", "x", "/x/", "//x", "/x//y", "/../x", "/x/."})
    {
        cases.push_back({"rootPath", [root](SessionOptions& options) { options.rootPath = root; }});
    }
    for (const milliseconds bad : {milliseconds(0), milliseconds(-1), milliseconds(INT_MAX + 1LL)})
    {
        cases.push_back({"sessionTimeout", [bad](SessionOptions& options) { options.sessionTimeout = bad; }});
        cases.push_back({"connectTimeout", [bad](SessionOptions& options) { options.connectTimeout = bad; }});
        cases.push_back({"operationTimeout", [bad](SessionOptions& options) { options.operationTimeout = bad; }});
    }
    const std::size_t connections = proxy_.Accepted();
    for (std::size_t i = 0; i < cases.size(); ++i)
    {
        SessionOptions options = Options();
        cases[i].spoil(options);
        const std::size_t before = log_.Records().size();
        EXPECT_EQ(CodeOfOpening(options), ZBADARGUMENTS) << cases[i].option << " " << i;
        const std::vector<LogRecord> records = log_.Records();
        ASSERT_EQ(records.size(), before + 1) << cases[i].option << " " << i;
        EXPECT_EQ(records.back().text.rfind(std::string("Bad session option ") + cases[i].option + ": ", 0), 0U)
            << records.back().text;
    }
    EXPECT_EQ(proxy_.Accepted(), connections);
}

TEST_F(SessionTest, OpeningGivesUpInTimeWhenNobodyListens)
{
    const Resources before = ResourcesInUse();
    SessionOptions options = Options();
    options.servers = LoopbackAddress(ChooseFreePort());
    options.connectTimeout = milliseconds(500);
    const auto begin = steady_clock::now();
    EXPECT_EQ(CodeOfOpening(options), ZOPERATIONTIMEOUT);
    EXPECT_GE(Since(begin), options.connectTimeout);
    EXPECT_LE(Since(begin), options.connectTimeout + kSlack);
    EXPECT_TRUE(Logged("No server answered within 500 ms: " + options.servers));
    AwaitResources(before);
}

TEST_F(SessionTest, OpeningGivesUpInTimeWhenNobodyAnswers)
{
    const Resources before = ResourcesInUse();
    SessionOptions options = Options();
    options.connectTimeout = milliseconds(500);
    proxy_.BlackHole();
    const auto begin = steady_clock::now();
    EXPECT_EQ(CodeOfOpening(options), ZOPERATIONTIMEOUT);
    EXPECT_GE(Since(begin), options.connectTimeout);
    EXPECT_LE(Since(begin), options.connectTimeout + kSlack);
    proxy_.Heal();
    AwaitResources(before);
}

TEST_F(SessionTest, OpeningWaitsForAServerThatStartsLate)
{
    server_->Stop();
    std::future<std::shared_ptr<Session>> session = std::async(std::launch::async, [this] { return Open(); });
    // The client's attempts end at the proxy, which finds no server.
    Await("an attempt to connect", [this] { return proxy_.Accepted() > 0; });
    server_->Start();
    EXPECT_EQ(Create(*session.get(), "/n").first, ZOK);
}

TEST_F(SessionTest, HostNamesAreLookedUp)
{
    SessionOptions options = Options();
    const std::string address = proxy_.Address();
    options.servers = "localhost" + address.substr(address.rfind(':'));
    const auto session = Session::Open(options);
    EXPECT_EQ(Create(*session, "/n").first, ZOK);
    proxy_.Cut();
    EXPECT_EQ(session->Exists("/n", nullptr), ZOK);
    Expire(*session);
    // And once more, for the next session.
    Await("the next session", [&] { return session->Exists("/n", nullptr) == ZOK; });
}

TEST_F(SessionTest, Ipv6AddressesAreTaken)
{
    std::unique_ptr<LoopbackDoor> door;
    try
    {
        door = std::make_unique<LoopbackDoor>(server_->Port());
    }
    catch (const std::system_error& error)
    {
        GTEST_SKIP() << "this machine has no IPv6: " << error.what();
    }
    SessionOptions options = Options();
    options.servers = "[::1]:" + std::to_string(door->Port());
    const auto session = Session::Open(options);
    EXPECT_EQ(Create(*session, "/n").first, ZOK);
    EXPECT_TRUE(observer_.Exists("/n"));

    // Beside others, too.
    options.servers = LoopbackAddress(ChooseFreePort()) + "," + options.servers;
    EXPECT_EQ(Session::Open(options)->Exists("/n", nullptr), ZOK);
}

TEST_F(SessionTest, DeadServersInTheListAreSkipped)
{
    SessionOptions options = Options();
    options.servers =
        LoopbackAddress(ChooseFreePort()) + "," + proxy_.Address() + "," + LoopbackAddress(ChooseFreePort());
    // The client library shuffles its list.
    for (int i = 0; i < 5; ++i)
    {
        EXPECT_EQ(Session::Open(options)->Exists("/", nullptr), ZOK);
    }
}

TEST_F(SessionTest, ReadsSurviveALostConnection)
{
    const auto session = Open();
    observer_.Create("/p");
    observer_.Create("/p/c");
    std::vector<std::string> children;
    proxy_.DropReply(Request::Exists);
    EXPECT_EQ(session->Exists("/p", nullptr), ZOK);
    proxy_.DropRequest(Request::GetChildren);
    EXPECT_EQ(session->GetChildren("/p", children), ZOK);
    EXPECT_THAT(children, ElementsAre("c"));
    proxy_.DropReply(Request::GetChildren);
    EXPECT_EQ(session->GetChildren("/p", children), ZOK);
    proxy_.CutAfterRequest(Request::Exists);
    EXPECT_EQ(session->Exists("/p", nullptr), ZOK);
    EXPECT_EQ(proxy_.FaultsPending(), 0U);

    EventRecorder recorder;
    proxy_.DropReply(Request::Exists);
    const auto [rc, handle] = session->Exists("/p/c", recorder.Callback(), nullptr);
    EXPECT_EQ(rc, ZOK);
    EXPECT_EQ(proxy_.FaultsPending(), 0U);
    observer_.Delete("/p/c");
    recorder.Await(NodeEvent(ZOO_DELETED_EVENT, "/p/c"));
}

TEST_F(SessionTest, FirstReadAfterAReconnectionSeesWhatWasWrittenBefore)
{
    const auto session = Open();
    EXPECT_EQ(session->Exists("/", nullptr), ZOK);
    EXPECT_EQ(proxy_.Forwarded(Request::Sync), 0U);
    // A server that is behind the others must catch up before it answers.
    proxy_.Cut();
    EXPECT_EQ(session->Exists("/", nullptr), ZOK);
    EXPECT_EQ(proxy_.Forwarded(Request::Sync), 1U);
    EXPECT_EQ(session->Exists("/", nullptr), ZOK);
    EXPECT_EQ(proxy_.Forwarded(Request::Sync), 1U);

    proxy_.Cut();
    proxy_.DropReply(Request::Sync);
    std::vector<std::string> children;
    EXPECT_EQ(session->GetChildren("/", children), ZOK);
    EXPECT_EQ(proxy_.FaultsPending(), 0U);
    EXPECT_EQ(proxy_.Forwarded(Request::Sync), 3U);
}

TEST_F(SessionTest, CreationWithoutAnAnswerIsNotRepeated)
{
    const auto session = Open();
    proxy_.DropReply(Request::Create);
    EXPECT_EQ(Create(*session, "/n-", ZOO_SEQUENCE).first, ZCONNECTIONLOSS);
    EXPECT_THAT(observer_.List("/"), UnorderedElementsAre("n-0000000000", "zookeeper"));
    proxy_.DropRequest(Request::Create);
    EXPECT_EQ(Create(*session, "/n-", ZOO_SEQUENCE).first, ZCONNECTIONLOSS);
    EXPECT_EQ(Create(*session, "/n-", ZOO_SEQUENCE), CodeAndPath(ZOK, "/n-0000000001"));
    EXPECT_EQ(proxy_.Forwarded(Request::Create), 2U);
}

TEST_F(SessionTest, OperationsWaitForAConnectionWithinTheirDeadline)
{
    SessionOptions options = Options();
    options.operationTimeout = milliseconds(300);
    const auto impatient = Session::Open(options);
    const auto patient = Open();
    Disconnect();
    std::future<int> created =
        std::async(std::launch::async, [&] { return Create(*patient, "/n", ZOO_EPHEMERAL).first; });
    std::future<int> read = std::async(std::launch::async, [&] { return patient->Exists("/", nullptr); });
    for (const Operation& operation : Operations())
    {
        const auto begin = steady_clock::now();
        const int rc = operation.call(*impatient, "/m");
        EXPECT_LE(Since(begin), *options.operationTimeout + kSlack) << operation.name;
        EXPECT_EQ(rc, ZCONNECTIONLOSS) << operation.name;
    }
    Reconnect();
    // Either may have met the connection just before it went.
    EXPECT_THAT(created.get(), AnyOf(ZOK, ZCONNECTIONLOSS));
    EXPECT_EQ(read.get(), ZOK);
    for (const Operation& operation : Operations())
    {
        EXPECT_THAT(AwaitAnswer([&] { return operation.call(*impatient, "/m"); }), AnyOf(ZOK, ZNODEEXISTS, ZNONODE))
            << operation.name;
    }
}

TEST_F(SessionTest, FrozenServerCostsAnOperationItsDeadlineAndNoMore)
{
    SessionOptions options = Options();
    options.operationTimeout = milliseconds(800);
    const auto session = Session::Open(options);
    const std::int64_t identity = session->ClientId()->client_id;
    server_->Pause();
    std::vector<std::future<void>> calls;
    for (const Operation& operation : Operations())
    {
        calls.push_back(std::async(std::launch::async, [&] {
            const auto begin = steady_clock::now();
            EXPECT_THAT(operation.call(*session, "/n"), AnyOf(ZOPERATIONTIMEOUT, ZCONNECTIONLOSS)) << operation.name;
            EXPECT_GE(Since(begin), *options.operationTimeout) << operation.name;
            EXPECT_LE(Since(begin), *options.operationTimeout + kSlack) << operation.name;
        }));
    }
    for (std::future<void>& call : calls)
    {
        call.get();
    }
    server_->Continue();
    for (const Operation& operation : Operations())
    {
        EXPECT_THAT(AwaitAnswer([&] { return operation.call(*session, "/m"); }), AnyOf(ZOK, ZNODEEXISTS, ZNONODE))
            << operation.name;
    }
    EXPECT_EQ(session->ClientId()->client_id, identity);
}

TEST_F(SessionTest, CreationThatHasToMakeTheRootHasOneDeadline)
{
    SessionOptions options = Options();
    options.rootPath = "/apps/x";
    options.operationTimeout = seconds(3);
    const auto session = Session::Open(options);
    proxy_.BlackHole(Proxy::Direction::ToClient);
    const auto begin = steady_clock::now();
    std::future<milliseconds> taken = std::async(std::launch::async, [&] {
        Create(*session, "/n");
        return Since(begin);
    });
    Await("most of the time that the creation has",
          [&] { return Since(begin) > *options.operationTimeout - milliseconds(500); });
    // Let it know that the root is missing, and nothing more.
    proxy_.Heal();
    proxy_.BlackHole(Proxy::Direction::ToClient);
    EXPECT_LE(taken.get(), *options.operationTimeout + kSlack);
}

/// The end of a session at its owner's word.
class SessionCloseTest : public SessionTest
{
protected:
    static void ExpectClosed(const Session& session)
    {
        for (const Operation& operation : Operations())
        {
            const auto begin = steady_clock::now();
            EXPECT_EQ(operation.call(session, "/n"), ZCLOSING) << operation.name;
            EXPECT_LE(Since(begin), kSlack) << operation.name;
        }
        EXPECT_FALSE(session.ClientId());
    }
};

TEST_F(SessionCloseTest, EndsTheSessionAtTheServer)
{
    const Resources before = ResourcesInUse();
    const auto session = Open();
    ASSERT_EQ(Create(*session, "/mine", ZOO_EPHEMERAL).first, ZOK);
    session->Close();
    EXPECT_FALSE(observer_.Exists("/mine"));
    ExpectClosed(*session);
    session->Close();
    ExpectClosed(*session);
    AwaitResources(before);
}

TEST_F(SessionCloseTest, HappensWithTheLastReference)
{
    const Resources before = ResourcesInUse();
    ASSERT_EQ(Create(*Open(), "/mine", ZOO_EPHEMERAL).first, ZOK);
    EXPECT_FALSE(observer_.Exists("/mine"));
    AwaitResources(before);
}

TEST_F(SessionCloseTest, MayBeAskedForByManyAtOnce)
{
    for (int round = 0; round < 10; ++round)
    {
        const auto session = Open();
        ASSERT_EQ(Create(*session, "/mine", ZOO_EPHEMERAL).first, ZOK);
        std::vector<std::future<void>> closings;
        for (int i = 0; i < 8; ++i)
        {
            closings.push_back(std::async(std::launch::async, [&] {
                session->Close();
                // Over for each of them.
                RawClient observer(server_->Address());
                EXPECT_FALSE(observer.Exists("/mine"));
            }));
        }
        for (std::future<void>& closing : closings)
        {
            closing.get();
        }
        ExpectClosed(*session);
    }
}

TEST_F(SessionCloseTest, MayComeFromACallback)
{
    const Resources before = ResourcesInUse();
    auto session = Open();
    ASSERT_EQ(Create(*session, "/mine", ZOO_EPHEMERAL).first, ZOK);
    EventRecorder late;
    std::promise<void> closed;
    const auto closing = session->Exists(
        "/n",
        [&](int, int, const std::string&) {
            session->Close();
            EXPECT_EQ(session->Exists("/", nullptr), ZCLOSING);
            closed.set_value();
        },
        nullptr);
    // Armed later, and so told later.
    const auto after = session->Exists("/n", late.Callback(), nullptr);
    ASSERT_EQ(closing.first, ZNONODE);
    ASSERT_EQ(after.first, ZNONODE);
    observer_.Create("/n");
    std::future<void> done = closed.get_future();
    ASSERT_EQ(done.wait_for(kPatience), std::future_status::ready);
    EXPECT_FALSE(observer_.Exists("/mine"));
    session->Close();
    EXPECT_THAT(late.Events(), IsEmpty());
    ExpectClosed(*session);
    session.reset();
    AwaitResources(before);
}

TEST_F(SessionCloseTest, HappensWithTheLastReferenceInACallback)
{
    const Resources before = ResourcesInUse();
    auto session = std::make_shared<std::shared_ptr<Session>>(Open());
    auto watch = (*session)->Exists(
        "/n", [session](int, int, const std::string&) { session->reset(); }, nullptr);
    ASSERT_EQ(watch.first, ZNONODE);
    session.reset();
    observer_.Create("/n");
    AwaitResources(before);
    // What is left of the watch is harmless.
    watch.second = Connection::WatchHandle();
}

TEST_F(SessionCloseTest, HappensWithTheLastReferenceInADisarmedCallback)
{
    const Resources before = ResourcesInUse();
    auto session = Open();
    {
        Session& theSession = *session;
        const auto watch = theSession.Exists(
            "/n", [kept = std::move(session)](int, int, const std::string&) {}, nullptr);
        ASSERT_EQ(watch.first, ZNONODE);
    }
    AwaitResources(before);
}

TEST_F(SessionCloseTest, WaitsForTheCallbackThatRuns)
{
    const auto session = Open();
    std::promise<void> begun;
    std::promise<void> released;
    std::atomic<bool> ended{false};
    const auto watch = session->Exists(
        "/n",
        [&](int, int, const std::string&) {
            begun.set_value();
            released.get_future().wait();
            ended = true;
        },
        nullptr);
    ASSERT_EQ(watch.first, ZNONODE);
    observer_.Create("/n");
    begun.get_future().wait();
    std::future<bool> closed = std::async(std::launch::async, [&] {
        session->Close();
        return ended.load();
    });
    EXPECT_EQ(closed.wait_for(milliseconds(100)), std::future_status::timeout);
    // Nobody else waits for the callback.
    ExpectClosed(*session);
    released.set_value();
    EXPECT_TRUE(closed.get());
}

TEST_F(SessionCloseTest, DropsTheWatchCallbacks)
{
    const auto session = Open();
    EventRecorder recorder;
    const auto watch = session->Exists("/n", recorder.Callback(), nullptr);
    EXPECT_EQ(recorder.Callbacks(), 1U);
    session->Close();
    EXPECT_EQ(recorder.Callbacks(), 0U);
    EXPECT_THAT(recorder.Events(), IsEmpty());
}

TEST_F(SessionCloseTest, ReleasesOperationsThatAreUnderWay)
{
    // Closing takes more than a second while a server keeps silent. The callers must not be kept that long, except by
    // a machine that is busy with other things, and it will not be so every time.
    bool releasedBeforeTheEnd = false;
    for (int attempt = 0; attempt < 5 && !releasedBeforeTheEnd; ++attempt)
    {
        const auto session = Open();
        std::vector<std::future<int>> calls = CallAllUnanswered(*session);
        const auto begin = steady_clock::now();
        std::future<void> closed = std::async(std::launch::async, [&] { session->Close(); });
        for (std::future<int>& call : calls)
        {
            EXPECT_EQ(call.get(), ZCLOSING);
        }
        releasedBeforeTheEnd = closed.wait_for(seconds(0)) == std::future_status::timeout;
        closed.get();
        EXPECT_LE(Since(begin), seconds(3) + kSlack);
        proxy_.Heal();
    }
    EXPECT_TRUE(releasedBeforeTheEnd);
}

TEST_F(SessionCloseTest, ReleasesOperationsThatWaitForAConnection)
{
    const auto session = Open();
    Disconnect();
    std::vector<std::future<int>> calls;
    for (const Operation& operation : Operations())
    {
        calls.push_back(
            std::async(std::launch::async, [&session, &operation] { return operation.call(*session, "/n"); }));
    }
    EXPECT_EQ(calls[2].wait_for(milliseconds(100)), std::future_status::timeout);
    const auto begin = steady_clock::now();
    session->Close();
    for (std::future<int>& call : calls)
    {
        // A change may have met the connection just before it went.
        EXPECT_THAT(call.get(), AnyOf(ZCLOSING, ZCONNECTIONLOSS));
    }
    EXPECT_LE(Since(begin), kSlack);
    ExpectClosed(*session);
}

TEST_F(SessionCloseTest, EndsInTimeWhileTheServerIsFrozen)
{
    const Resources before = ResourcesInUse();
    const auto session = Open();
    server_->Pause();
    const auto begin = steady_clock::now();
    session->Close();
    EXPECT_LE(Since(begin), seconds(3) + kSlack);
    server_->Continue();
    AwaitResources(before);
}

}  // namespace
}  // namespace kx::velmor::testing_support
