#include "tests/ensemble/session_fixture.h"
#include "tests/support/network.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using ::testing::AllOf;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Optional;
using ::testing::SizeIs;
using Step = velmor::Operation;

/// A server takes requests of up to this size.
constexpr std::size_t kMostRequestBytes = 0xfffff;

/// Data and transactions on a real server.
class SessionDataTest : public SessionFixture
{
protected:
    struct Outcome
    {
        int rc;
        TransactionResult result;
    };

    static Outcome Transact(const Session& session, const std::vector<Step>& steps)
    {
        Outcome outcome{};
        outcome.rc = session.Transact(steps, outcome.result);
        return outcome;
    }

    static std::pair<int, std::string> Read(const Session& session, const std::string& path)
    {
        std::string data = "old";
        const int rc = session.GetData(path, data, nullptr);
        return {rc, data};
    }

    static std::pair<int, std::string> CodeAndData(int rc, const std::string& data) { return {rc, data}; }

    static Stat StatOf(const Session& session, const std::string& path)
    {
        Stat stat{};
        EXPECT_EQ(session.Exists(path, &stat), ZOK) << path;
        return stat;
    }
};

TEST_F(SessionDataTest, DataIsReadAsItWasWritten)
{
    const auto session = Open();
    const std::string binary("a\0b\xff", 4);
    const std::string large(1'000'000, 'x');
    ASSERT_EQ(session->Create("/n", binary, ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZOK);
    ASSERT_EQ(session->Create("/large", large, ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZOK);
    ASSERT_EQ(session->Create("/empty", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZOK);
    std::string data;
    Stat stat{};
    EXPECT_EQ(session->GetData("/n", data, &stat), ZOK);
    EXPECT_EQ(data, binary);
    EXPECT_EQ(stat.dataLength, 4);
    EXPECT_EQ(stat.czxid, StatOf(*session, "/n").czxid);
    EXPECT_EQ(Read(*session, "/large"), CodeAndData(ZOK, large));
    EXPECT_EQ(Read(*session, "/empty"), CodeAndData(ZOK, ""));
    EXPECT_EQ(Read(*session, "/"), CodeAndData(ZOK, ""));
    EXPECT_EQ(Read(*session, "/none"), CodeAndData(ZNONODE, "old"));
    observer_.Create("/theirs");
    writer_.Set("/theirs", "new");
    EXPECT_EQ(Read(*session, "/theirs").second, "new");
}

TEST_F(SessionDataTest, AllKindsOfOperationsInOneTransaction)
{
    const auto session = Open();
    ASSERT_EQ(Create(*session, "/set").first, ZOK);
    ASSERT_EQ(Create(*session, "/deleted").first, ZOK);
    ASSERT_EQ(Create(*session, "/checked").first, ZOK);
    const Outcome outcome = Transact(
        *session, {Step::Check("/checked", 0), Step::Create("/p", "p"), Step::Create("/p/e", "e", NodeMode::Ephemeral),
                   Step::Create("/p/s-", "s", NodeMode::PersistentSequential),
                   Step::Create("/p/b-", "b", NodeMode::EphemeralSequential), Step::Set("/set", "first", 0),
                   Step::Set("/set", "second"), Step::Delete("/deleted", 0), Step::Check("/p")});
    ASSERT_EQ(outcome.rc, ZOK);
    EXPECT_EQ(outcome.result.refused, std::nullopt);
    EXPECT_THAT(outcome.result.created,
                ElementsAre("", "/p", "/p/e", "/p/s-0000000001", "/p/b-0000000002", "", "", "", ""));
    const std::int64_t own = session->ClientId()->client_id;
    EXPECT_EQ(StatOf(*session, "/p").ephemeralOwner, 0);
    EXPECT_EQ(StatOf(*session, "/p/e").ephemeralOwner, own);
    EXPECT_EQ(StatOf(*session, "/p/s-0000000001").ephemeralOwner, 0);
    EXPECT_EQ(StatOf(*session, "/p/b-0000000002").ephemeralOwner, own);
    EXPECT_EQ(Read(*session, "/p/b-0000000002"), CodeAndData(ZOK, "b"));
    EXPECT_EQ(Read(*session, "/set"), CodeAndData(ZOK, "second"));
    EXPECT_EQ(StatOf(*session, "/set").version, 2);
    EXPECT_FALSE(observer_.Exists("/deleted"));
    // They happened at one moment.
    EXPECT_EQ(StatOf(*session, "/p").czxid, StatOf(*session, "/p/e").czxid);
    EXPECT_EQ(StatOf(*session, "/set").mzxid, StatOf(*session, "/p").czxid);

    session->Close();
    EXPECT_THAT(observer_.List("/p"), ElementsAre("s-0000000001"));
}

TEST_F(SessionDataTest, RefusedOperationIsNamedInEachPositionAndChangesNothing)
{
    const auto session = Open();
    ASSERT_EQ(Create(*session, "/there").first, ZOK);
    ASSERT_EQ(Create(*session, "/parent").first, ZOK);
    ASSERT_EQ(Create(*session, "/parent/child").first, ZOK);
    ASSERT_EQ(Create(*session, "/mine", ZOO_EPHEMERAL).first, ZOK);
    const std::vector<std::pair<int, Step>> refused{
        {ZNODEEXISTS, Step::Create("/there", "")},
        {ZNONODE, Step::Create("/none/n", "")},
        {ZNOCHILDRENFOREPHEMERALS, Step::Create("/mine/n", "")},
        {ZNONODE, Step::Set("/none", "")},
        {ZBADVERSION, Step::Set("/there", "", 7)},
        {ZNONODE, Step::Delete("/none")},
        {ZBADVERSION, Step::Delete("/there", 7)},
        {ZNOTEMPTY, Step::Delete("/parent")},
        {ZNONODE, Step::Check("/none")},
        {ZBADVERSION, Step::Check("/there", 7)},
        // A control character that the servers alone know for one.
        {ZBADARGUMENTS, Step::Create("/\xc2\x80", "")},
    };
    constexpr std::size_t kSteps = 4;
    for (const auto& [rc, step] : refused)
    {
        for (std::size_t position = 0; position < kSteps; ++position)
        {
            std::vector<Step> steps;
            for (std::size_t i = 0; i < kSteps; ++i)
            {
                steps.push_back(i == position ? step : Step::Create("/new-" + std::to_string(i), ""));
            }
            const Outcome outcome = Transact(*session, steps);
            EXPECT_EQ(outcome.rc, rc) << step.path << " in position " << position;
            EXPECT_THAT(outcome.result.refused, Optional(position)) << step.path;
            EXPECT_THAT(outcome.result.created, IsEmpty());
        }
        const Outcome alone = Transact(*session, {step});
        EXPECT_EQ(alone.rc, rc) << step.path;
        EXPECT_THAT(alone.result.refused, Optional(0U)) << step.path;
    }
    EXPECT_THAT(observer_.List("/"), ::testing::UnorderedElementsAre("there", "parent", "mine", "zookeeper"));
    EXPECT_EQ(StatOf(*session, "/there").version, 0);
}

TEST_F(SessionDataTest, LaterOperationsSeeWhatEarlierOnesDid)
{
    const auto session = Open();
    const Outcome outcome = Transact(*session, {Step::Create("/n", "1"), Step::Check("/n", 0), Step::Set("/n", "2", 0),
                                                Step::Check("/n", 1), Step::Delete("/n", 1), Step::Create("/n", "3")});
    EXPECT_EQ(outcome.rc, ZOK);
    EXPECT_EQ(Read(*session, "/n"), CodeAndData(ZOK, "3"));
}

TEST_F(SessionDataTest, PathsThatNoNodeCanHaveAreThoseThatTheClientLibraryRefuses)
{
    const auto session = Open();
    const std::size_t sent = proxy_.Forwarded(Request::Multi);
    for (const std::string path : {"/a/", "//a", "/a//b", "//", "/.", "/..", "/a/./b", "/a/..", "/../a", "/a\x01", ""})
    {
        EXPECT_EQ(session->Exists(path, nullptr), ZBADARGUMENTS) << path;
        EXPECT_EQ(Transact(*session, {Step::Check(path)}).rc, ZBADARGUMENTS) << path;
    }
    EXPECT_EQ(proxy_.Forwarded(Request::Multi), sent);
    for (const std::string path : {"/...", "/.a", "/a.", "/..a/b..", "/a/.b/c", "/\xc3\xa9", "/a b"})
    {
        EXPECT_EQ(session->Exists(path, nullptr), ZNONODE) << path;
        EXPECT_EQ(Transact(*session, {Step::Check(path)}).rc, ZNONODE) << path;
    }
    for (const std::string path : {"/", "/zookeeper/", "/.", "/.."})
    {
        EXPECT_EQ(Transact(*session, {Step::Create(path, "", NodeMode::EphemeralSequential)}).rc,
                  Create(*session, path, ZOO_EPHEMERAL | ZOO_SEQUENCE).first)
            << path;
    }
    EXPECT_EQ(Transact(*session, {}).rc, ZBADARGUMENTS);
}

TEST_F(SessionDataTest, LargestTransactionPassesAndALargerOneIsNotSent)
{
    const auto session = Open();
    // The header; kind, end mark, code and path; the data, the rights of everybody and the flags; and the end.
    const std::size_t around = 8 + (9 + 4 + 2) + 4 + (4 + 4 + 4 + 5 + 4 + 6) + 4 + 9;
    const std::string largest(kMostRequestBytes - around, 'd');
    EXPECT_EQ(Transact(*session, {Step::Create("/n", largest)}).rc, ZOK);
    EXPECT_EQ(Read(*session, "/n").second.size(), largest.size());
    const std::size_t sent = proxy_.Forwarded(Request::Multi);
    EXPECT_EQ(Transact(*session, {Step::Create("/m", largest + "d")}).rc, ZBADARGUMENTS);
    EXPECT_EQ(proxy_.Forwarded(Request::Multi), sent);
    EXPECT_EQ(proxy_.Accepted(), 1U) << "the connection was kept";

    std::vector<Step> many;
    for (int i = 0; i < 10'000; ++i)
    {
        many.push_back(Step::Create("/many-", "", NodeMode::PersistentSequential));
    }
    const Outcome outcome = Transact(*session, many);
    EXPECT_EQ(outcome.rc, ZOK);
    ASSERT_THAT(outcome.result.created, SizeIs(many.size()));
    EXPECT_EQ(outcome.result.created.back(), "/many-0000010000");
}

TEST_F(SessionDataTest, RootIsMadeForACreationAndForNothingElse)
{
    SessionOptions options = Options();
    options.rootPath = "/apps/x";
    const auto session = Session::Open(options);
    EXPECT_EQ(Transact(*session, {Step::Check("/"), Step::Create("/n", "")}).rc, ZNONODE);
    EXPECT_EQ(Transact(*session, {Step::Create("/a/b", "")}).rc, ZNONODE);
    EXPECT_FALSE(observer_.Exists("/apps"));

    const Outcome outcome =
        Transact(*session, {Step::Create("/n", "n"), Step::Create("/", "", NodeMode::PersistentSequential),
                            Step::Set("/n", "m"), Step::Check("/")});
    EXPECT_EQ(outcome.rc, ZOK);
    EXPECT_THAT(outcome.result.created, ElementsAre("/n", "/0000000001", "", ""));
    EXPECT_TRUE(observer_.Exists("/apps/x/n"));
    EXPECT_TRUE(observer_.Exists("/apps/x/0000000001"));
    EXPECT_EQ(Read(*session, "/n"), CodeAndData(ZOK, "m"));

    options.rootPath = "/theirs";
    options.createRoot = false;
    const Outcome left = Transact(*Session::Open(options), {Step::Create("/n", "")});
    EXPECT_EQ(left.rc, ZNONODE);
    EXPECT_THAT(left.result.refused, Optional(0U));
    EXPECT_FALSE(observer_.Exists("/theirs"));

    options.rootPath = "/itself";
    options.createRoot = true;
    EXPECT_THAT(Transact(*Session::Open(options), {Step::Create("/", "")}).result.created, ElementsAre("/"));
    EXPECT_TRUE(observer_.Exists("/itself"));
}

TEST_F(SessionDataTest, AccessListOfTheSessionGoesToTheNodesOfATransaction)
{
    SessionOptions options = Options();
    options.digestCredentials = "owner:secret";
    options.rootPath = "/root";
    options.accessList = {{ZOO_PERM_ALL, "auth", ""}};
    const auto owner = Session::Open(options);
    ASSERT_EQ(Transact(*owner, {Step::Create("/n", "theirs"), Step::Create("/n/c", "", NodeMode::Ephemeral)}).rc, ZOK);
    EXPECT_EQ(Read(*owner, "/n"), CodeAndData(ZOK, "theirs"));

    const auto stranger = Open();
    EXPECT_EQ(Read(*stranger, "/root/n"), CodeAndData(ZNOAUTH, "old"));
    const Outcome outcome = Transact(*stranger, {Step::Create("/free", ""), Step::Set("/root/n", "mine")});
    EXPECT_EQ(outcome.rc, ZNOAUTH);
    EXPECT_THAT(outcome.result.refused, Optional(1U));
    EXPECT_EQ(Transact(*stranger, {Step::Create("/root/m", "")}).rc, ZNOAUTH) << "the root has the list, too";
    EXPECT_EQ(Read(*owner, "/n"), CodeAndData(ZOK, "theirs"));
}

TEST_F(SessionDataTest, LostReplyOrRequestLeavesTheOutcomeOpenAndIsNotRepeated)
{
    const auto session = Open();
    struct Fault
    {
        std::function<void()> inject;
        bool applied;
    };
    const std::vector<Fault> faults{{[this] { proxy_.DropReply(Request::Multi); }, true},
                                    {[this] { proxy_.DropRequest(Request::Multi); }, false}};
    for (int round = 0; round < 5; ++round)
    {
        for (const Fault& fault : faults)
        {
            const std::string path = "/n-" + std::to_string(round) + (fault.applied ? "a" : "b");
            fault.inject();
            const Outcome outcome = Transact(*session, {Step::Create(path, ""), Step::Check(path)});
            EXPECT_EQ(outcome.rc, ZCONNECTIONLOSS);
            EXPECT_EQ(outcome.result.refused, std::nullopt);
            EXPECT_THAT(outcome.result.created, IsEmpty());
            EXPECT_EQ(proxy_.FaultsPending(), 0U);
            EXPECT_EQ(session->Exists(path, nullptr), fault.applied ? ZOK : ZNONODE);
        }
    }
}

TEST_F(SessionDataTest, ReadIsRepeatedAfterALostReplyAndSynchronised)
{
    const auto session = Open();
    ASSERT_EQ(Create(*session, "/n").first, ZOK);
    const std::size_t synchronised = proxy_.Forwarded(Request::Sync);
    proxy_.DropReply(Request::GetData);
    EXPECT_EQ(Read(*session, "/n"), CodeAndData(ZOK, "data"));
    EXPECT_EQ(proxy_.FaultsPending(), 0U);
    EXPECT_EQ(proxy_.Forwarded(Request::Sync), synchronised + 1);
}

TEST_F(SessionDataTest, ExpiryEndsATransactionThatIsUnderWay)
{
    const auto session = Open();
    for (int round = 0; round < 3; ++round)
    {
        const clientid_t identity = *session->ClientId();
        const std::size_t sent = proxy_.Forwarded(Request::Multi);
        proxy_.BlackHole(Proxy::Direction::ToClient);
        auto outcome = std::async(std::launch::async, [&] {
            return Transact(*session, {Step::Create("/mine", "", NodeMode::Ephemeral), Step::Check("/mine")});
        });
        Await("it has gone out", [&] { return proxy_.Forwarded(Request::Multi) > sent; });
        Disconnect();
        proxy_.Heal();
        Expire(identity);
        const Outcome got = outcome.get();
        // It has lost its connection first, and is not repeated.
        EXPECT_THAT(got.rc, AnyOf(ZCONNECTIONLOSS, ZSESSIONEXPIRED));
        EXPECT_EQ(got.result.refused, std::nullopt);
        Await("a new session", [&] {
            const auto now = session->ClientId();
            return now && now->client_id != identity.client_id;
        });
        Await("what the old one left is gone",
              [&] { return Transact(*session, {Step::Create("/mine", "", NodeMode::Ephemeral)}).rc == ZOK; });
        EXPECT_EQ(Transact(*session, {Step::Delete("/mine")}).rc, ZOK);
    }
}

TEST_F(SessionDataTest, ManyThreadsThroughCutsAndExpiriesGetWholeTransactions)
{
    const auto session = Open();
    ASSERT_EQ(Create(*session, "/counted").first, ZOK);
    std::atomic<int> known{0};
    std::atomic<int> unknown{0};
    std::vector<std::future<void>> callers;
    for (int caller = 0; caller < 8; ++caller)
    {
        callers.push_back(std::async(std::launch::async, [&, caller] {
            for (int i = 0; i < 100; ++i)
            {
                const std::string path = "/counted/" + std::to_string(caller) + "-" + std::to_string(i);
                const Outcome outcome = Transact(*session, {Step::Create(path, ""), Step::Set("/counted", path)});
                (outcome.rc == ZOK ? known : unknown)++;
                EXPECT_THAT(outcome.rc, AnyOf(ZOK, ZCONNECTIONLOSS, ZOPERATIONTIMEOUT, ZSESSIONEXPIRED));
                EXPECT_EQ(outcome.result.refused, std::nullopt);
            }
        }));
    }
    for (int i = 0; i < 10; ++i)
    {
        const int before = known;
        Await("a few more", [&] { return known > before + 5 || known + unknown > 700; });
        if (i % 3 == 2)
        {
            Expire(*session);
        }
        else
        {
            proxy_.Cut();
        }
        Await("a session", [&] { return session->ClientId() != nullptr; });
    }
    for (std::future<void>& caller : callers)
    {
        caller.get();
    }
    const int children = static_cast<int>(observer_.List("/counted").size());
    EXPECT_GE(children, known);
    EXPECT_LE(children, known + unknown);
    EXPECT_EQ(StatOf(*session, "/counted").version, children) << "both or neither";
    EXPECT_GT(known, 0);
}

TEST_F(SessionDataTest, ServersThatAreHeardFromAreToldOfBeforeTheAnswer)
{
    const auto session = Open();
    auto heard = std::make_shared<std::atomic<int>>(0);
    Registration listening = session->OnHeard([heard](std::int64_t, BootClock::time_point) { ++*heard; });
    for (int i = 1; i <= 100; ++i)
    {
        EXPECT_EQ(Transact(*session, {Step::Check("/")}).rc, ZOK);
        EXPECT_EQ(*heard, i);
    }
    EXPECT_EQ(Transact(*session, {Step::Check("/none")}).rc, ZNONODE);
    EXPECT_EQ(*heard, 101) << "a refusal is an agreement, too";
    std::string data;
    EXPECT_EQ(session->GetData("/", data, nullptr), ZOK);
    EXPECT_EQ(*heard, 101) << "a read proves nothing";
    listening.Cancel();
    EXPECT_EQ(Transact(*session, {Step::Check("/")}).rc, ZOK);
    EXPECT_EQ(*heard, 101);
}

TEST_F(SessionDataTest, SessionInTheBackgroundConnectsWhenTheServerStarts)
{
    const Resources before = ResourcesInUse();
    {
        server_->Kill();
        SessionOptions options = Options();
        options.servers = server_->Address();
        options.operationTimeout = kPatience;
        // A server that is only starting may take a connection and leave it at that. The client library waits for two
        // thirds of this before it tries again.
        options.sessionTimeout = seconds(5);
        const auto begin = steady_clock::now();
        const auto session = Session::OpenInBackground(options);
        EXPECT_LE(Since(begin), kSlack);
        EXPECT_EQ(session->Status().state, SessionState::Connecting);
        auto created = std::async(std::launch::async, [&] { return Create(*session, "/n", ZOO_EPHEMERAL).first; });
        EXPECT_EQ(created.wait_for(milliseconds(100)), std::future_status::timeout);
        server_->Start();
        EXPECT_EQ(created.get(), ZOK);
        EXPECT_EQ(session->Status().state, SessionState::Connected);
        session->Close();
        EXPECT_EQ(Session::Open(options)->Exists("/n", nullptr), ZNONODE);
    }
    AwaitResources(before);
}

TEST_F(SessionDataTest, SessionInTheBackgroundMayBeClosedBeforeAnyServerListens)
{
    const Resources before = ResourcesInUse();
    SessionOptions options = Options();
    options.servers = LoopbackAddress(ChooseFreePort());
    for (int round = 0; round < 20; ++round)
    {
        const auto session = Session::OpenInBackground(options);
        auto read = std::async(std::launch::async, [&] { return session->Exists("/", nullptr); });
        const auto begin = steady_clock::now();
        session->Close();
        EXPECT_LE(Since(begin), kSlack);
        EXPECT_EQ(read.get(), ZCLOSING);
        EXPECT_EQ(Transact(*session, {Step::Check("/")}).rc, ZCLOSING);
    }
    Session::OpenInBackground(options).reset();
    AwaitResources(before);
}

}  // namespace
}  // namespace kx::velmor::testing_support
