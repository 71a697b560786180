#include "source/candidate_impl.h"
#include "tests/ensemble/session_fixture.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>
#include <numeric>
#include <optional>
#include <thread>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

class SessionWatchesTest : public SessionFixture
{
protected:
    explicit SessionWatchesTest(std::int32_t minLogLevel = 10) : SessionFixture(minLogLevel) {}

    /// Watches a node; `rc` is what that is to return.
    static Connection::WatchHandle Watch(const Session& session, const std::string& path, const EventRecorder& recorder,
                                         int rc = ZOK)
    {
        auto [code, handle] = session.Exists(path, recorder.Callback(), nullptr);
        EXPECT_EQ(code, rc) << path;
        return std::move(handle);
    }

    /// Waits until everything that has happened to nodes up to now has been delivered to the session's watches.
    void AwaitDelivery(const Session& session)
    {
        const std::string path = session.RootPath() + "/sentinel";
        observer_.Create(path);
        EventRecorder sentinel;
        const auto handle = Watch(session, "/sentinel", sentinel);
        observer_.Delete(path);
        sentinel.Await(NodeEvent(ZOO_DELETED_EVENT, "/sentinel"));
    }

    /// Breaks the connection and waits until the session has another one.
    void Cut(const Session& session)
    {
        EventRecorder recorder;
        const auto handle = Watch(session, "/nobody-creates-this", recorder, ZNONODE);
        proxy_.Cut();
        recorder.Await(SessionEvent(ZOO_CONNECTED_STATE));
    }
};

TEST_F(SessionWatchesTest, NodeEventsArriveWithTheRelativePath)
{
    SessionOptions options = Options();
    options.rootPath = "/apps/x";
    const auto session = Session::Open(options);
    ASSERT_EQ(Create(*session, "/n").first, ZOK);
    EventRecorder recorder;

    auto handle = Watch(*session, "/n", recorder);
    writer_.Set("/apps/x/n", "new");
    recorder.AwaitCount(1);
    handle = Watch(*session, "/n", recorder);
    observer_.Delete("/apps/x/n");
    recorder.AwaitCount(2);
    handle = Watch(*session, "/n", recorder, ZNONODE);
    observer_.Create("/apps/x/n");
    recorder.AwaitCount(3);
    EXPECT_THAT(recorder.Events(), ElementsAre(NodeEvent(ZOO_CHANGED_EVENT, "/n"), NodeEvent(ZOO_DELETED_EVENT, "/n"),
                                               NodeEvent(ZOO_CREATED_EVENT, "/n")));

    EventRecorder root;
    handle = Watch(*session, "/", root);
    writer_.Set("/apps/x", "new");
    root.AwaitCount(1);
    EXPECT_THAT(root.Events(), ElementsAre(NodeEvent(ZOO_CHANGED_EVENT, "/")));
}

TEST_F(SessionWatchesTest, FirstNodeEventEndsTheWatchOnTheNodeOnly)
{
    const auto session = Open();
    observer_.Create("/n");
    EventRecorder recorder;
    const auto handle = Watch(*session, "/n", recorder);
    observer_.Delete("/n");
    observer_.Create("/n");
    observer_.Delete("/n");
    AwaitDelivery(*session);
    EXPECT_THAT(recorder.Events(), ElementsAre(NodeEvent(ZOO_DELETED_EVENT, "/n")));
    Cut(*session);
    observer_.Create("/n");
    AwaitDelivery(*session);
    EXPECT_THAT(recorder.Events(), ElementsAre(NodeEvent(ZOO_DELETED_EVENT, "/n"), SessionEvent(ZOO_CONNECTING_STATE),
                                               SessionEvent(ZOO_CONNECTED_STATE)));
    EXPECT_THAT(server_->Ask("wchp"), Not(HasSubstr("/n\n")));
}

TEST_F(SessionWatchesTest, AllWatchersOfANodeAreTold)
{
    const auto session = Open();
    observer_.Create("/n");
    EventRecorder recorder;
    std::vector<Connection::WatchHandle> handles;
    for (int i = 0; i < 10; ++i)
    {
        handles.push_back(Watch(*session, "/n", recorder));
    }
    observer_.Delete("/n");
    recorder.AwaitCount(10);
    AwaitDelivery(*session);
    EXPECT_THAT(recorder.Events(), SizeIs(10));
}

TEST_F(SessionWatchesTest, DisarmedWatchGetsNothing)
{
    const auto session = Open();
    observer_.Create("/n");
    EventRecorder disarmed;
    EventRecorder armed;
    const auto other = Watch(*session, "/n", armed);
    {
        const auto handle = Watch(*session, "/n", disarmed);
        const auto absent = Watch(*session, "/m", disarmed, ZNONODE);
        EXPECT_EQ(disarmed.Callbacks(), 2U);
    }
    EXPECT_EQ(disarmed.Callbacks(), 0U);
    Cut(*session);
    observer_.Delete("/n");
    observer_.Create("/m");
    AwaitDelivery(*session);
    EXPECT_THAT(disarmed.Events(), IsEmpty());
    EXPECT_THAT(armed.Events(), SizeIs(3));
}

TEST_F(SessionWatchesTest, WatchThatIsLetGoOfIsDropped)
{
    const auto session = Open();
    observer_.Create("/n");
    observer_.Create("/m");
    EventRecorder letGo;
    EventRecorder armed;
    auto handle = Watch(*session, "/n", letGo);
    auto other = Watch(*session, "/m", letGo);
    handle = Watch(*session, "/n", armed);
    other = Connection::WatchHandle();
    // Each operation drops what was let go of before.
    EXPECT_EQ(session->Exists("/", nullptr), ZOK);
    EXPECT_EQ(letGo.Callbacks(), 0U);
    EXPECT_EQ(armed.Callbacks(), 1U);
    observer_.Delete("/n");
    observer_.Delete("/m");
    AwaitDelivery(*session);
    Cut(*session);
    EXPECT_THAT(letGo.Events(), IsEmpty());
    EXPECT_THAT(armed.Events(), ElementsAre(NodeEvent(ZOO_DELETED_EVENT, "/n"), SessionEvent(ZOO_CONNECTING_STATE),
                                            SessionEvent(ZOO_CONNECTED_STATE)));
}

TEST_F(SessionWatchesTest, WatchThatIsLetGoOfGetsNothing)
{
    const auto session = Open();
    EventRecorder letGo;
    EventRecorder held;
    auto first = Watch(*session, "/n", letGo, ZNONODE);
    auto second = Watch(*session, "/m", letGo, ZNONODE);
    // Armed later, and so told later.
    const auto third = Watch(*session, "/n", held, ZNONODE);
    // No operation comes between this and the events.
    first = Connection::WatchHandle();
    second = Connection::WatchHandle();
    observer_.Create("/m");
    proxy_.Cut();
    held.Await(SessionEvent(ZOO_CONNECTED_STATE));
    EXPECT_THAT(letGo.Events(), IsEmpty());

    observer_.Create("/n");
    held.Await(NodeEvent(ZOO_CREATED_EVENT, "/n"));
    first = Watch(*session, "/n", letGo);
    const auto fourth = Watch(*session, "/n", held);
    first = Connection::WatchHandle();
    observer_.Delete("/n");
    held.Await(NodeEvent(ZOO_DELETED_EVENT, "/n"));
    EXPECT_THAT(letGo.Events(), IsEmpty());
}

TEST_F(SessionWatchesTest, NothingStaysBehindOfWatchesThatNobodyHolds)
{
    const auto session = Open();
    observer_.Create("/held");
    observer_.Create("/left");
    EventRecorder recorder;
    const auto held = Watch(*session, "/held", recorder);
    const auto absent = Watch(*session, "/held-absent", recorder, ZNONODE);
    for (int i = 0; i < 100; ++i)
    {
        Watch(*session, "/absent-" + std::to_string(i), recorder, ZNONODE);
        auto handle = Watch(*session, "/left", recorder);
        handle = Connection::WatchHandle();
    }
    EXPECT_EQ(session->Exists("/", nullptr), ZOK);
    EXPECT_EQ(recorder.Callbacks(), 2U);
    // The client library tells the next connection of every watch that it knows, before anything else.
    Cut(*session);
    EXPECT_EQ(session->Exists("/", nullptr), ZOK);
    const std::string watches = server_->Ask("wchp");
    EXPECT_THAT(watches, HasSubstr("/held\n"));
    EXPECT_THAT(watches, HasSubstr("/held-absent\n"));
    EXPECT_THAT(watches, Not(HasSubstr("/left")));
    EXPECT_THAT(watches, Not(HasSubstr("/absent-")));
}

TEST_F(SessionWatchesTest, OneWatcherGoingLeavesTheOthersOfItsNode)
{
    const auto session = Open();
    EventRecorder gone;
    EventRecorder held;
    const auto before = Watch(*session, "/n", held, ZNONODE);
    Watch(*session, "/n", gone, ZNONODE);
    const auto after = Watch(*session, "/n", held, ZNONODE);
    Watch(*session, "/n", gone, ZNONODE);
    EXPECT_EQ(session->Exists("/", nullptr), ZOK);
    Cut(*session);
    observer_.Create("/n");
    AwaitDelivery(*session);
    EXPECT_THAT(held.Events(), ElementsAre(SessionEvent(ZOO_CONNECTING_STATE), SessionEvent(ZOO_CONNECTING_STATE),
                                           SessionEvent(ZOO_CONNECTED_STATE), SessionEvent(ZOO_CONNECTED_STATE),
                                           NodeEvent(ZOO_CREATED_EVENT, "/n"), NodeEvent(ZOO_CREATED_EVENT, "/n")));
}

TEST_F(SessionWatchesTest, SessionEventsArriveInOrderAndUseNothingUp)
{
    const auto session = Open();
    EventRecorder recorder;
    const auto handle = Watch(*session, "/n", recorder, ZNONODE);
    std::vector<Event> expected;
    for (int i = 0; i < 5; ++i)
    {
        Disconnect();
        // However often the client library tries, the connection is lost once.
        const std::size_t refused = proxy_.Refused();
        Await("attempts in vain", [&] { return proxy_.Refused() >= refused + 2; });
        Reconnect();
        expected.push_back(SessionEvent(ZOO_CONNECTING_STATE));
        expected.push_back(SessionEvent(ZOO_CONNECTED_STATE));
        recorder.AwaitCount(expected.size());
    }
    EXPECT_EQ(recorder.Events(), expected);
    observer_.Create("/n");
    expected.push_back(NodeEvent(ZOO_CREATED_EVENT, "/n"));
    recorder.AwaitCount(expected.size());
    EXPECT_EQ(recorder.Events(), expected);
}

TEST_F(SessionWatchesTest, WhatHappenedDuringAnOutageIsToldAfterIt)
{
    const auto session = Open();
    observer_.Create("/n");
    EventRecorder deleted;
    EventRecorder created;
    const auto first = Watch(*session, "/n", deleted);
    const auto second = Watch(*session, "/m", created, ZNONODE);
    Disconnect();
    observer_.Delete("/n");
    observer_.Create("/m");
    Reconnect();
    deleted.AwaitCount(3);
    created.AwaitCount(3);
    EXPECT_THAT(deleted.Events(), ElementsAre(SessionEvent(ZOO_CONNECTING_STATE), SessionEvent(ZOO_CONNECTED_STATE),
                                              NodeEvent(ZOO_DELETED_EVENT, "/n")));
    EXPECT_THAT(created.Events(), ElementsAre(SessionEvent(ZOO_CONNECTING_STATE), SessionEvent(ZOO_CONNECTED_STATE),
                                              NodeEvent(ZOO_CREATED_EVENT, "/m")));
}

TEST_F(SessionWatchesTest, EveryWatchOnANodeThatKeepsChangingIsToldOnce)
{
    const auto session = Open();
    std::atomic<bool> done{false};
    std::thread flipping([&] {
        RawClient client(server_->Address());
        while (!done)
        {
            client.Create("/flip");
            client.Delete("/flip");
        }
    });
    std::vector<std::future<void>> watchers;
    for (int watcher = 0; watcher < 4; ++watcher)
    {
        watchers.push_back(std::async(std::launch::async, [&] {
            for (int i = 0; i < 300; ++i)
            {
                EventRecorder recorder;
                const auto [rc, handle] = session->Exists("/flip", recorder.Callback(), nullptr);
                ASSERT_TRUE(rc == ZOK || rc == ZNONODE) << rc;
                recorder.AwaitCount(1);
                EXPECT_EQ(recorder.Events().front().path, "/flip");
                EXPECT_THAT(recorder.Events(), SizeIs(1));
            }
        }));
    }
    for (std::future<void>& watcher : watchers)
    {
        watcher.wait();
    }
    done = true;
    flipping.join();
    for (std::future<void>& watcher : watchers)
    {
        watcher.get();
    }
}

TEST_F(SessionWatchesTest, WatchesMayBeArmedAndDroppedInsideCallbacks)
{
    const auto session = Open();
    observer_.Create("/n");
    std::promise<void> rearmed;
    EventRecorder recorder;
    Connection::WatchHandle second;
    const auto first = session->Exists(
        "/n",
        [&](int, int, const std::string&) {
            const auto dropped = session->Exists("/n", recorder.Callback(), nullptr);
            second = Watch(*session, "/n", recorder, ZNONODE);
            rearmed.set_value();
        },
        nullptr);
    observer_.Delete("/n");
    rearmed.get_future().wait();
    observer_.Create("/n");
    AwaitDelivery(*session);
    EXPECT_THAT(recorder.Events(), ElementsAre(NodeEvent(ZOO_CREATED_EVENT, "/n")));
}

TEST_F(SessionWatchesTest, CallbackThatThrowsIsReportedAndHurtsNobodyElse)
{
    const auto session = Open();
    EventRecorder recorder;
    const auto bad = session->Exists(
        "/n", [](int, int, const std::string&) { throw std::runtime_error("out of paper"); }, nullptr);
    const auto worse = session->Exists(
        "/n", [](int, int, const std::string&) { throw 7; }, nullptr);  // NOLINT: that is what is tested
    const auto good = Watch(*session, "/n", recorder, ZNONODE);
    observer_.Create("/n");
    recorder.Await(NodeEvent(ZOO_CREATED_EVENT, "/n"));
    EXPECT_TRUE(Logged("A watch callback threw: out of paper"));
    EXPECT_TRUE(Logged("A watch callback threw something that is no std::exception"));
    AwaitDelivery(*session);
}

TEST_F(SessionWatchesTest, CallbackThatBlocksCostsTheSessionNothing)
{
    SessionOptions options = Options();
    options.sessionTimeout = milliseconds(1'500);
    const auto session = Session::Open(options);
    const std::int64_t identity = session->ClientId()->client_id;
    ASSERT_EQ(Create(*session, "/mine", ZOO_EPHEMERAL).first, ZOK);
    std::promise<void> blocked;
    std::promise<void> released;
    EventRecorder later;
    const auto blocking = session->Exists(
        "/n",
        [&](int, int, const std::string&) {
            blocked.set_value();
            released.get_future().wait();
        },
        nullptr);
    const auto after = Watch(*session, "/m", later, ZNONODE);
    observer_.Create("/n");
    blocked.get_future().wait();

    const auto begin = steady_clock::now();
    observer_.Create("/m");
    Await("three session timeouts of calls", [&] {
        EXPECT_EQ(session->Exists("/mine", nullptr), ZOK);
        return Since(begin) > 3 * options.sessionTimeout;
    });
    EXPECT_THAT(later.Events(), IsEmpty());
    EXPECT_EQ(observer_.Exists("/mine")->ephemeralOwner, identity);
    EXPECT_EQ(session->ClientId()->client_id, identity);
    released.set_value();
    later.AwaitCount(1);
    EXPECT_THAT(later.Events(), ElementsAre(NodeEvent(ZOO_CREATED_EVENT, "/m")));
    EXPECT_EQ(proxy_.Accepted(), 1U);
}

/// Keeps no log statements, whose number grows with what is counted here.
class WaitingCandidateTest : public SessionWatchesTest
{
protected:
    WaitingCandidateTest() : SessionWatchesTest(100) {}

    static std::shared_ptr<CandidateImpl> Candidate(std::shared_ptr<Session> session)
    {
        return std::make_shared<CandidateImpl>(
            std::move(session), "/election", [] {}, [] {});
    }

    static std::size_t ResidentKilobytes()
    {
        std::size_t total = 0;
        std::size_t resident = 0;
        std::ifstream("/proc/self/statm") >> total >> resident;
        return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024;
    }
};

TEST_F(WaitingCandidateTest, ThousandReconnectionsLeaveTwoWatchesAndFlatMemory)
{
    std::vector<std::shared_ptr<CandidateImpl>> candidates;
    for (int i = 0; i < 2; ++i)
    {
        candidates.push_back(Candidate(Open()));
    }
    // The client library lets time pass before it tries a server for the second time: the more ways to the server there
    // are, the sooner it is back.
    std::vector<std::unique_ptr<Proxy>> ways;
    SessionOptions options = Options();
    options.sessionTimeout = std::chrono::seconds(5);
    options.servers.clear();
    for (int i = 0; i < 20; ++i)
    {
        ways.push_back(std::make_unique<Proxy>(server_->Address()));
        options.servers += (i == 0 ? "" : ",") + ways.back()->Address();
    }
    candidates.push_back(Candidate(Session::Open(options)));
    for (const auto& candidate : candidates)
    {
        candidate->Start();
    }
    const std::shared_ptr<CandidateImpl>& third = candidates.back();
    // Each armed watch holds a reference, and so does a callback that runs.
    const auto settled = [&] { return third.use_count() == 3; };
    ASSERT_TRUE(settled());
    const auto sum = [&](const auto& count) {
        return std::accumulate(ways.begin(), ways.end(), std::size_t{0},
                               [&](std::size_t total, const auto& way) { return total + count(*way); });
    };
    const auto accepted = [&] { return sum([](const Proxy& way) { return way.Accepted(); }); };
    const auto checks = [&] { return sum([](const Proxy& way) { return way.Forwarded(Request::GetChildren); }); };

    const auto watches = [&] { return sum([](const Proxy& way) { return way.Forwarded(Request::Exists); }); };

    const std::size_t checksBefore = checks();
    constexpr int kReconnections = 1'000;
    constexpr int kWarmUp = 200;
    std::size_t resident = 0;
    Resources resources{};
    for (int i = 0; i < kReconnections; ++i)
    {
        if (i == kWarmUp)
        {
            resident = ResidentKilobytes();
            resources = ResourcesInUse();
        }
        const std::size_t connectionsBefore = accepted();
        const std::size_t watchesBefore = watches();
        for (const auto& way : ways)
        {
            way->Cut();
        }
        Await("a check on a new connection",
              [&] { return accepted() > connectionsBefore && watches() >= watchesBefore + 2 && settled(); });
    }
    EXPECT_LE(checks() - checksBefore, 2U * kReconnections);

    AwaitResources(resources);
    if constexpr (!VELMOR_SANITIZED)
    {
        EXPECT_LE(ResidentKilobytes(), resident + 2'048);
    }

    // And it still is where it was.
    candidates[0]->Stop();
    Await("the third is next", [&] { return third->IsNextLeader(); });
    candidates[1]->Stop();
    Await("the third leads", [&] { return third->IsLeader(); });
    third->Stop();
}

TEST_F(WaitingCandidateTest, ThousandChecksLeaveTwoWatches)
{
    const auto first = Candidate(Open());
    const auto second = Candidate(Open());
    first->Start();
    second->Start();
    Proxy own(server_->Address());
    SessionOptions options = Options();
    options.servers = own.Address();
    const auto third = Candidate(Session::Open(options));
    third->Start();
    ASSERT_EQ(third.use_count(), 3);
    for (int i = 0; i < 1'000; ++i)
    {
        const std::size_t checks = own.Forwarded(Request::GetChildren);
        const std::size_t watches = own.Forwarded(Request::Exists);
        writer_.Set("/election/" + (i % 2 == 0 ? first : second)->Name(), std::to_string(i));
        // Until the callback has ended, it holds another reference.
        Await("a check", [&] { return own.Forwarded(Request::Exists) >= watches + 2 && third.use_count() == 3; });
        ASSERT_EQ(own.Forwarded(Request::GetChildren), checks + 1) << i;
    }
    EXPECT_FALSE(third->IsNextLeader());
    third->Stop();
}

}  // namespace
}  // namespace kx::velmor::testing_support
