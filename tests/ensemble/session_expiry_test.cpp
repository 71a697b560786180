#include "tests/ensemble/session_fixture.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <future>
#include <thread>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class SessionExpiryTest : public SessionFixture
{
protected:
    static std::shared_ptr<EventRecorder> Watch(const Session& session, const std::string& path,
                                                Connection::WatchHandle& handle)
    {
        auto recorder = std::make_shared<EventRecorder>();
        auto [rc, watch] = session.Exists(path, recorder->Callback(), nullptr);
        EXPECT_TRUE(rc == ZOK || rc == ZNONODE) << rc;
        handle = std::move(watch);
        return recorder;
    }

    /// 0 while there is no session.
    static std::int64_t Identity(const Session& session)
    {
        const auto identity = session.ClientId();
        return identity ? identity->client_id : 0;
    }

    /// Waits until there is a session other than `old`, and shows that it works.
    void ExpectNewSession(const Session& session, std::int64_t old)
    {
        Await("a new session", [&] { return Identity(session) != 0 && Identity(session) != old; });
        EXPECT_EQ(Create(session, "/new", ZOO_EPHEMERAL).first, ZOK);
        EXPECT_EQ(observer_.Exists("/new")->ephemeralOwner, Identity(session));
        std::vector<std::string> children;
        EXPECT_EQ(session.GetChildren("/", children), ZOK);
        EXPECT_EQ(session.GuaranteedDelete("/new"), ZOK);
        Connection::WatchHandle handle;
        const auto recorder = Watch(session, "/new", handle);
        observer_.Create("/new");
        recorder->Await(NodeEvent(ZOO_CREATED_EVENT, "/new"));
        observer_.Delete("/new");
    }
};

TEST_F(SessionExpiryTest, WatchesAreToldAndANewSessionWorks)
{
    const auto session = Open();
    const std::int64_t first = Identity(*session);
    ASSERT_EQ(Create(*session, "/mine", ZOO_EPHEMERAL).first, ZOK);
    Connection::WatchHandle handle;
    const auto recorder = Watch(*session, "/n", handle);
    Connection::WatchHandle disarmed;
    const auto untold = Watch(*session, "/n", disarmed);
    disarmed = Connection::WatchHandle();

    Expire(*session);
    recorder->AwaitCount(3);
    EXPECT_FALSE(observer_.Exists("/mine"));
    EXPECT_THAT(recorder->Events(),
                ElementsAre(SessionEvent(ZOO_CONNECTING_STATE), SessionEvent(ZOO_EXPIRED_SESSION_STATE),
                            SessionEvent(ZOO_CONNECTED_STATE)));
    ExpectNewSession(*session, first);
    EXPECT_THAT(untold->Events(), IsEmpty());

    // The old session's watch died with it; only the session's events still reach who holds it.
    observer_.Create("/n");
    proxy_.Cut();
    recorder->AwaitCount(5);
    EXPECT_THAT(recorder->Events(),
                ElementsAre(SessionEvent(ZOO_CONNECTING_STATE), SessionEvent(ZOO_EXPIRED_SESSION_STATE),
                            SessionEvent(ZOO_CONNECTED_STATE), SessionEvent(ZOO_CONNECTING_STATE),
                            SessionEvent(ZOO_CONNECTED_STATE)));
}

TEST_F(SessionExpiryTest, HappensAnyNumberOfTimes)
{
    const auto session = Open();
    Connection::WatchHandle handle;
    const auto recorder = Watch(*session, "/n", handle);
    std::vector<Event> expected;
    for (int i = 0; i < 10; ++i)
    {
        const std::int64_t old = Identity(*session);
        Expire(*session);
        expected.push_back(SessionEvent(ZOO_CONNECTING_STATE));
        expected.push_back(SessionEvent(ZOO_EXPIRED_SESSION_STATE));
        expected.push_back(SessionEvent(ZOO_CONNECTED_STATE));
        recorder->AwaitCount(expected.size());
        ExpectNewSession(*session, old);
    }
    EXPECT_EQ(recorder->Events(), expected);
}

TEST_F(SessionExpiryTest, OperationsThatAreUnderWayEndWithIt)
{
    for (int round = 0; round < 5; ++round)
    {
        const auto session = Open();
        const clientid_t identity = *session->ClientId();
        std::vector<std::future<int>> calls = CallAllUnanswered(*session);
        // Nothing of it gets to the client before the session is over.
        const auto begin = steady_clock::now();
        proxy_.Refuse();
        proxy_.Cut();
        proxy_.Heal();
        Expire(identity);
        for (std::size_t i = 0; i < calls.size(); ++i)
        {
            const Request request = Operations()[i].request;
            const bool repeated = request != Request::Create && request != Request::Multi;
            // A change that lost its connection is not repeated, and ends with that.
            EXPECT_EQ(calls[i].get(), repeated ? ZSESSIONEXPIRED : ZCONNECTIONLOSS) << Operations()[i].name;
        }
        EXPECT_LE(Since(begin), kSlack);
        ExpectNewSession(*session, identity.client_id);
        session->GuaranteedDelete("/n");
    }
}

TEST_F(SessionExpiryTest, OperationsThatWaitForAConnectionEndWithIt)
{
    const auto session = Open();
    const clientid_t identity = *session->ClientId();
    Connection::WatchHandle handle;
    const auto recorder = Watch(*session, "/n", handle);
    Disconnect();
    recorder->Await(SessionEvent(ZOO_CONNECTING_STATE));
    std::vector<std::vector<std::future<int>>> calls;
    for (const Operation& operation : Operations())
    {
        std::vector<std::future<int>>& same = calls.emplace_back();
        for (int i = 0; i < 4; ++i)
        {
            same.push_back(
                std::async(std::launch::async, [&session, &operation] { return operation.call(*session, "/n"); }));
        }
    }
    EXPECT_EQ(calls.back().back().wait_for(milliseconds(200)), std::future_status::timeout);
    Expire(identity);
    for (std::size_t i = 0; i < calls.size(); ++i)
    {
        // One that began to wait only after the session's end would be the next session's; not all of a kind do.
        int ended = 0;
        for (std::future<int>& call : calls[i])
        {
            ended += call.get() == ZSESSIONEXPIRED ? 1 : 0;
        }
        EXPECT_GT(ended, 0) << Operations()[i].name;
    }
}

TEST_F(SessionExpiryTest, ServersThatHaveLostTheirDataGetANewSession)
{
    SessionOptions options = Options();
    options.operationTimeout = seconds(5);
    options.sessionTimeout = milliseconds(1'500);
    const auto session = Session::Open(options);
    const std::int64_t old = Identity(*session);
    ASSERT_EQ(Create(*session, "/mine", ZOO_EPHEMERAL).first, ZOK);
    Connection::WatchHandle handle;
    const auto recorder = Watch(*session, "/mine", handle);
    observer_.Close();

    server_->Kill();
    server_->WipeData();
    const auto begin = steady_clock::now();
    server_->Start();
    // Such a server only ever hangs up on who knows of later changes than it does.
    recorder->Await(SessionEvent(ZOO_EXPIRED_SESSION_STATE));
    EXPECT_GE(Since(begin), options.sessionTimeout);
    Await("a new session", [&] { return Identity(*session) != 0 && Identity(*session) != old; });
    EXPECT_EQ(session->Exists("/mine", nullptr), ZNONODE);
    EXPECT_EQ(Create(*session, "/mine", ZOO_EPHEMERAL).first, ZOK);
    recorder->Await(SessionEvent(ZOO_CONNECTED_STATE));
    EXPECT_THAT(recorder->Events(),
                ElementsAre(SessionEvent(ZOO_CONNECTING_STATE), SessionEvent(ZOO_EXPIRED_SESSION_STATE),
                            SessionEvent(ZOO_CONNECTED_STATE)));
    EXPECT_TRUE(Logged("given up after silence"));
}

TEST_F(SessionExpiryTest, SessionOutlivesAServerThatComesBackWithItsData)
{
    SessionOptions options = Options();
    options.sessionTimeout = seconds(2);
    const auto session = Session::Open(options);
    const std::int64_t identity = Identity(*session);
    ASSERT_EQ(Create(*session, "/mine", ZOO_EPHEMERAL).first, ZOK);
    Connection::WatchHandle handle;
    const auto recorder = Watch(*session, "/mine", handle);
    server_->Kill();
    const auto begin = steady_clock::now();
    Await("longer than the session timeout", [&] { return Since(begin) > options.sessionTimeout + milliseconds(500); });
    server_->Start();
    EXPECT_EQ(session->Exists("/mine", nullptr), ZOK);
    EXPECT_EQ(Identity(*session), identity);
    recorder->AwaitCount(2);
    EXPECT_THAT(recorder->Events(), ElementsAre(SessionEvent(ZOO_CONNECTING_STATE), SessionEvent(ZOO_CONNECTED_STATE)));
}

TEST_F(SessionExpiryTest, ServerFrozenForLongEndsTheSessionAndGetsAnother)
{
    SessionOptions options = Options();
    options.sessionTimeout = milliseconds(1'500);
    const auto session = Session::Open(options);
    const std::int64_t old = Identity(*session);
    Connection::WatchHandle handle;
    const auto recorder = Watch(*session, "/n", handle);
    server_->Pause();
    std::future<int> read = std::async(std::launch::async, [&] { return session->Exists("/n", nullptr); });
    recorder->Await(SessionEvent(ZOO_EXPIRED_SESSION_STATE));
    EXPECT_FALSE(session->ClientId());
    EXPECT_THAT(read.get(), AnyOf(ZSESSIONEXPIRED, ZCONNECTIONLOSS, ZOPERATIONTIMEOUT));
    std::vector<std::future<void>> calls;
    for (const Operation& operation : Operations())
    {
        calls.push_back(std::async(std::launch::async, [&] {
            const auto begin = steady_clock::now();
            EXPECT_EQ(operation.call(*session, "/n"), ZCONNECTIONLOSS) << operation.name;
            EXPECT_LE(Since(begin), options.sessionTimeout + kSlack) << operation.name;
        }));
    }
    for (std::future<void>& call : calls)
    {
        call.get();
    }
    server_->Continue();
    recorder->Await(SessionEvent(ZOO_CONNECTED_STATE));
    Await("a new session", [&] { return Identity(*session) != 0 && Identity(*session) != old; });
    EXPECT_EQ(AwaitAnswer([&] { return session->Exists("/n", nullptr); }), ZNONODE);
    EXPECT_THAT(recorder->Events(),
                ElementsAre(SessionEvent(ZOO_CONNECTING_STATE), SessionEvent(ZOO_EXPIRED_SESSION_STATE),
                            SessionEvent(ZOO_CONNECTED_STATE)));
}

TEST_F(SessionExpiryTest, ServerFrozenBeyondTheSessionTimeoutIsFollowedByWorkingOperations)
{
    SessionOptions options = Options();
    options.sessionTimeout = seconds(1);
    const auto session = Session::Open(options);
    const std::int64_t old = Identity(*session);
    Connection::WatchHandle handle;
    const auto recorder = Watch(*session, "/n", handle);
    server_->Pause();
    const auto begin = steady_clock::now();
    Await("twice the session timeout", [&] { return Since(begin) > 2 * options.sessionTimeout; });
    server_->Continue();
    // Whether the server then lets the session live on is between its clock and its queue.
    Await("an answer", [&] { return session->Exists("/n", nullptr) == ZNONODE; });
    const bool expired = Identity(*session) != old;
    recorder->Await(SessionEvent(ZOO_CONNECTED_STATE));
    const std::vector<Event> events = recorder->Events();
    EXPECT_EQ(std::count(events.begin(), events.end(), SessionEvent(ZOO_EXPIRED_SESSION_STATE)), expired ? 1 : 0);
}

TEST_F(SessionExpiryTest, SilentNetworkEndsTheSessionOnBothSides)
{
    SessionOptions options = Options();
    options.sessionTimeout = milliseconds(1'500);
    const auto session = Session::Open(options);
    const std::int64_t old = Identity(*session);
    ASSERT_EQ(Create(*session, "/mine", ZOO_EPHEMERAL).first, ZOK);
    Connection::WatchHandle handle;
    const auto recorder = Watch(*session, "/mine", handle);
    proxy_.BlackHole();
    Await("the server ends the session", [&] { return !observer_.Exists("/mine"); });
    recorder->Await(SessionEvent(ZOO_CONNECTING_STATE));
    proxy_.Heal();
    recorder->Await(SessionEvent(ZOO_CONNECTED_STATE));
    EXPECT_THAT(recorder->Events(),
                ElementsAre(SessionEvent(ZOO_CONNECTING_STATE), SessionEvent(ZOO_EXPIRED_SESSION_STATE),
                            SessionEvent(ZOO_CONNECTED_STATE)));
    ExpectNewSession(*session, old);
}

TEST_F(SessionExpiryTest, CallbackThatBlocksDoesNotHideIt)
{
    const auto session = Open();
    const std::int64_t old = Identity(*session);
    std::promise<void> blocked;
    std::promise<void> released;
    const auto blocking = session->Exists(
        "/block",
        [&](int, int, const std::string&) {
            blocked.set_value();
            released.get_future().wait();
        },
        nullptr);
    Connection::WatchHandle handle;
    const auto recorder = Watch(*session, "/n", handle);
    observer_.Create("/block");
    blocked.get_future().wait();

    Expire(*session);
    Await("a new session", [&] { return Identity(*session) != 0 && Identity(*session) != old; });
    EXPECT_EQ(Create(*session, "/mine", ZOO_EPHEMERAL).first, ZOK);
    EXPECT_THAT(recorder->Events(), IsEmpty());
    released.set_value();
    recorder->AwaitCount(3);
    EXPECT_THAT(recorder->Events(),
                ElementsAre(SessionEvent(ZOO_CONNECTING_STATE), SessionEvent(ZOO_EXPIRED_SESSION_STATE),
                            SessionEvent(ZOO_CONNECTED_STATE)));
}

TEST_F(SessionExpiryTest, WatchesArmedInsideTheEventsOfTheNewSessionWork)
{
    const auto session = Open();
    EventRecorder recorder;
    Connection::WatchHandle fresh;
    const auto handle = session->Exists(
        "/n",
        [&](int type, int state, const std::string&) {
            if (type == ZOO_SESSION_EVENT && state == ZOO_CONNECTED_STATE)
            {
                fresh = session->Exists("/n", recorder.Callback(), nullptr).second;
                recorder.Callback()(type, state, "armed");
            }
        },
        nullptr);
    Expire(*session);
    recorder.AwaitCount(1);
    observer_.Create("/n");
    recorder.AwaitCount(2);
    EXPECT_EQ(recorder.Events().back(), NodeEvent(ZOO_CREATED_EVENT, "/n"));
}

TEST_F(SessionExpiryTest, NothingIsLeftBehindInTheProcess)
{
    const Resources before = ResourcesInUse();
    const int rounds = VELMOR_SANITIZED ? 5 : 20;
    for (int i = 0; i < rounds; ++i)
    {
        const auto session = Open();
        Connection::WatchHandle handle;
        const auto recorder = Watch(*session, "/n", handle);
        Expire(*session);
        if (i % 2 == 0)
        {
            recorder->Await(SessionEvent(ZOO_CONNECTED_STATE));
        }
        // Otherwise somewhere between the two sessions.
        session->Close();
        EXPECT_FALSE(session->ClientId());
        EXPECT_EQ(recorder->Callbacks(), 0U);
    }
    AwaitResources(before);
}

TEST_F(SessionExpiryTest, NothingIsLeftBehindByAClosureBetweenTwoSessions)
{
    const Resources before = ResourcesInUse();
    {
        SessionOptions options = Options();
        options.sessionTimeout = milliseconds(500);
        const auto session = Session::Open(options);
        Connection::WatchHandle handle;
        const auto recorder = Watch(*session, "/n", handle);
        Disconnect();
        recorder->Await(SessionEvent(ZOO_EXPIRED_SESSION_STATE));
        const auto begin = steady_clock::now();
        session->Close();
        EXPECT_LE(Since(begin), kSlack);
    }
    AwaitResources(before);
}

}  // namespace
}  // namespace kx::velmor::testing_support
