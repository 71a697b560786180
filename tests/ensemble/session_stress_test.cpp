#include "tests/ensemble/session_fixture.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <map>
#include <mutex>
#include <thread>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using ::testing::AnyOf;
using ::testing::ElementsAre;

constexpr int kCallers = 16;

/// What many calls took and returned.
///
/// Threads: any.
class Tally
{
public:
    /// The caller begins a call.
    void Begin(int caller, const std::string& name)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        out_[caller] = {name, steady_clock::now()};
    }

    void End(int caller, int rc)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const Out call = out_[caller];
        out_.erase(caller);
        ++codes_[rc];
        const milliseconds taken = Since(call.begin);
        if (taken > longest_)
        {
            longest_ = taken;
            longestCall_ = call.name + ", " + zerror(rc);
        }
    }

    std::map<int, std::size_t> Codes() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return codes_;
    }

    milliseconds Longest() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return longest_;
    }

    /// All that is known, for people to read.
    friend std::ostream& operator<<(std::ostream& stream, const Tally& tally)
    {
        const std::lock_guard<std::mutex> lock(tally.mutex_);
        stream << "the longest call took " << tally.longest_.count() << " ms: " << tally.longestCall_;
        for (const auto& [rc, count] : tally.codes_)
        {
            stream << "; " << count << " times " << zerror(rc);
        }
        for (const auto& [caller, call] : tally.out_)
        {
            stream << "; " << call.name << " of caller " << caller << " has been out for " << Since(call.begin).count()
                   << " ms";
        }
        return stream;
    }

private:
    struct Out
    {
        std::string name;
        steady_clock::time_point begin;
    };

    mutable std::mutex mutex_;
    std::map<int, std::size_t> codes_;
    milliseconds longest_{0};
    std::string longestCall_;
    std::map<int, Out> out_;
};

/// Threads that call whatever session they are given, until told to stop.
class Callers
{
public:
    using Choice = std::function<std::shared_ptr<Session>(int caller)>;

    explicit Callers(Choice choose) : choose_(std::move(choose))
    {
        for (int caller = 0; caller < kCallers; ++caller)
        {
            ended_.push_back(std::async(std::launch::async, [this, caller] { Run(caller); }));
        }
    }

    ~Callers() { stopping_ = true; }

    Callers(const Callers&) = delete;
    Callers& operator=(const Callers&) = delete;

    /// Whether all calls have returned within `deadline`.
    bool Stop(milliseconds deadline)
    {
        stopping_ = true;
        const auto end = steady_clock::now() + deadline;
        return std::all_of(ended_.begin(), ended_.end(), [&](const std::future<void>& ended) {
            return ended.wait_until(end) == std::future_status::ready;
        });
    }

    const Tally& Calls() const { return tally_; }

private:
    void Run(int caller)
    {
        const std::string path = "/node-" + std::to_string(caller);
        while (!stopping_)
        {
            for (const Operation& operation : Operations())
            {
                int rc = ZCLOSING;
                if (const std::shared_ptr<Session> session = choose_(caller))
                {
                    tally_.Begin(caller, operation.name);
                    rc = operation.call(*session, path);
                    tally_.End(caller, rc);
                }
                if (rc == ZCLOSING)
                {
                    // There is nothing to be had before the next session. Asking without a pause would keep two
                    // processors from those who open it.
                    std::this_thread::sleep_for(milliseconds(1));
                }
            }
        }
    }

    const Choice choose_;
    Tally tally_;
    std::atomic<bool> stopping_{false};
    std::vector<std::future<void>> ended_;
};

/// A hang is what is looked for here: calls have time enough on a machine that is busy with other things.
class SessionStressTest : public SessionFixture
{
protected:
    static constexpr seconds kOperationTimeout{10};

    /// Keeps no log statements, of which there are too many.
    SessionStressTest() : SessionFixture(100) {}

    static void ExpectKnownCodes(const Tally& tally, const std::vector<int>& known)
    {
        for (const auto& [rc, count] : tally.Codes())
        {
            EXPECT_NE(std::find(known.begin(), known.end(), rc), known.end())
                << count << " times " << rc << " (" << zerror(rc) << ")";
        }
    }

    static void ExpectAllEndedInTime(Callers& callers)
    {
        EXPECT_TRUE(callers.Stop(kOperationTimeout + kSlack)) << "a call is still out: " << callers.Calls();
        EXPECT_LE(callers.Calls().Longest(), kOperationTimeout + kSlack) << callers.Calls();
    }
};

TEST_F(SessionStressTest, CallsOfSixteenThreadsEndInTimeThroughTwoHundredExpiries)
{
    SessionOptions options = Options();
    // The client library lets a sixtieth of it pass between attempts to connect.
    options.sessionTimeout = seconds(3);
    options.operationTimeout = kOperationTimeout;
    const auto session = Session::Open(options);
    Callers callers([&](int) { return session; });
    std::int64_t last = 0;
    for (int i = 0; i < 200; ++i)
    {
        std::unique_ptr<clientid_t> identity;
        Await("a new session", [&] {
            identity = session->ClientId();
            return identity && identity->client_id != last;
        });
        last = identity->client_id;
        Expire(*identity);
    }
    ExpectAllEndedInTime(callers);
    ExpectKnownCodes(callers.Calls(), {ZOK, ZNONODE, ZNODEEXISTS, ZCONNECTIONLOSS, ZSESSIONEXPIRED, ZOPERATIONTIMEOUT});
    EXPECT_GT(callers.Calls().Codes()[ZSESSIONEXPIRED], 0U);
    Await("an answer", [&] { return session->Exists("/", nullptr) == ZOK; });
}

TEST_F(SessionStressTest, CallsOfSixteenThreadsEndInTimeWhileTwoHundredSessionsComeAndGo)
{
    constexpr int kOwners = 4;
    constexpr int kSessionsOfEach = 50;
    const Resources before = ResourcesInUse();
    SessionOptions options = Options();
    // A thread that is kept waiting for two thirds of it takes its connection for lost.
    options.sessionTimeout = seconds(30);
    options.operationTimeout = kOperationTimeout;
    {
        std::mutex mutex;
        std::vector<std::shared_ptr<Session>> sessions(kOwners);
        Callers callers([&](int caller) {
            const std::lock_guard<std::mutex> lock(mutex);
            return sessions[static_cast<std::size_t>(caller % kOwners)];
        });
        std::vector<std::future<milliseconds>> owners;
        for (std::size_t owner = 0; owner < kOwners; ++owner)
        {
            owners.push_back(std::async(std::launch::async, [&, owner] {
                milliseconds longest{0};
                for (int i = 0; i < kSessionsOfEach; ++i)
                {
                    const std::shared_ptr<Session> session = Session::Open(options);
                    {
                        const std::lock_guard<std::mutex> lock(mutex);
                        sessions[owner] = session;
                    }
                    // Its callers are at it then.
                    EXPECT_THAT(session->Exists("/", nullptr), ZOK);
                    const auto begin = steady_clock::now();
                    // The last reference may end it, too.
                    if (i % 2 == 0)
                    {
                        session->Close();
                        longest = std::max(longest, Since(begin));
                        EXPECT_EQ(session->Exists("/", nullptr), ZCLOSING);
                    }
                }
                const std::lock_guard<std::mutex> lock(mutex);
                sessions[owner] = nullptr;
                return longest;
            }));
        }
        for (std::future<milliseconds>& owner : owners)
        {
            EXPECT_LE(owner.get(), seconds(3) + kSlack) << "for a session to close";
        }
        ExpectAllEndedInTime(callers);
        ExpectKnownCodes(callers.Calls(), {ZOK, ZNONODE, ZNODEEXISTS, ZCLOSING});
        EXPECT_GT(callers.Calls().Codes()[ZCLOSING], 0U);
    }
    AwaitResources(before);
}

/// Deletions that meet trouble.
class SessionDeletesTest : public SessionFixture
{
protected:
    /// A session whose operations wait no longer than this test wants to.
    std::shared_ptr<Session> OpenImpatient() const
    {
        SessionOptions options = Options();
        options.operationTimeout = seconds(1);
        return Session::Open(options);
    }

    /// Deletes during an outage that lasts longer than the deadline.
    void DeleteInVain(const Session& session, const std::string& path)
    {
        Disconnect();
        const auto begin = steady_clock::now();
        EXPECT_EQ(session.GuaranteedDelete(path), ZCONNECTIONLOSS);
        EXPECT_LE(Since(begin), seconds(1) + kSlack);
        EXPECT_TRUE(observer_.Exists(path));
    }
};

TEST_F(SessionDeletesTest, LostReplyOrRequestLeavesNoNode)
{
    const auto session = Open();
    const std::vector<std::function<void()>> faults{[this] { proxy_.DropReply(Request::Delete); },
                                                    [this] { proxy_.DropRequest(Request::Delete); },
                                                    [this] { proxy_.CutAfterRequest(Request::Delete); }};
    for (int round = 0; round < 5; ++round)
    {
        for (const std::function<void()>& fault : faults)
        {
            ASSERT_EQ(Create(*session, "/n", ZOO_EPHEMERAL).first, ZOK);
            fault();
            EXPECT_THAT(session->GuaranteedDelete("/n"), AnyOf(ZOK, ZNONODE));
            EXPECT_EQ(proxy_.FaultsPending(), 0U);
            EXPECT_FALSE(observer_.Exists("/n"));
        }
    }
}

TEST_F(SessionDeletesTest, OutageBeyondTheDeadlineDelaysTheDeletionOnly)
{
    const auto session = OpenImpatient();
    for (int round = 0; round < 3; ++round)
    {
        observer_.Create("/n");
        DeleteInVain(*session, "/n");
        Reconnect();
        Await("the deletion", [this] { return !observer_.Exists("/n"); });
    }
    Await("word of all of them", [this] {
        const std::vector<LogRecord> records = log_.Records();
        return std::count_if(records.begin(), records.end(), [](const LogRecord& record) {
                   return record.text.rfind("Pending deletion ended: ok", 0) == 0;
               }) == 3;
    });
}

TEST_F(SessionDeletesTest, SilenceBeyondTheDeadlineDelaysTheDeletionOnly)
{
    const auto session = OpenImpatient();
    for (const Proxy::Direction direction : {Proxy::Direction::ToServer, Proxy::Direction::ToClient})
    {
        observer_.Create("/n");
        proxy_.BlackHole(direction);
        EXPECT_FALSE(Answered(session->GuaranteedDelete("/n")));
        proxy_.Heal();
        Await("the deletion", [this] { return !observer_.Exists("/n"); });
    }
}

TEST_F(SessionDeletesTest, LaterOperationsOfTheSessionComeAfterPendingDeletions)
{
    const auto session = OpenImpatient();
    // Many, so that it takes a while to send them all.
    std::vector<std::string> paths;
    for (int i = 0; i < 32; ++i)
    {
        paths.push_back("/n-" + std::to_string(i));
    }
    for (int round = 0; round < 6; ++round)
    {
        for (const std::string& path : paths)
        {
            observer_.Create(path);
        }
        Disconnect();
        std::vector<std::future<int>> codes;
        for (const std::string& path : paths)
        {
            codes.push_back(
                std::async(std::launch::async, [&session, &path] { return session->GuaranteedDelete(path); }));
        }
        for (std::future<int>& code : codes)
        {
            EXPECT_EQ(code.get(), ZCONNECTIONLOSS);
        }
        Reconnect();

        if (round % 2 == 0)
        {
            std::vector<std::string> children;
            EXPECT_EQ(AwaitAnswer([&] { return session->GetChildren("/", children); }), ZOK);
            EXPECT_THAT(children, ElementsAre("zookeeper"));
            continue;
        }
        // The node may be there from an attempt that got no answer. It must not be the one whose deletion is pending.
        const std::string& last = paths.back();
        EXPECT_THAT(AwaitAnswer([&] { return Create(*session, last).first; }), AnyOf(ZOK, ZNODEEXISTS));
        EXPECT_EQ(AwaitAnswer([&] { return session->Exists(last, nullptr); }), ZOK);
        EXPECT_THAT(AwaitAnswer([&] { return session->GuaranteedDelete(last); }), AnyOf(ZOK, ZNONODE));
    }
}

TEST_F(SessionDeletesTest, PendingDeletionEndsWithItsSession)
{
    const auto session = OpenImpatient();
    for (int round = 0; round < 3; ++round)
    {
        const clientid_t old = *session->ClientId();
        observer_.Create("/n");
        DeleteInVain(*session, "/n");
        Expire(old);
        Await("a new session", [&] {
            const auto identity = session->ClientId();
            return identity && identity->client_id != old.client_id;
        });
        Await("word of its end", [this, round] {
            const std::vector<LogRecord> records = log_.Records();
            return std::count_if(records.begin(), records.end(), [](const LogRecord& record) {
                       return record.text.rfind("Pending deletion ended: session expired", 0) == 0;
                   }) == round + 1;
        });
        EXPECT_EQ(AwaitAnswer([&] { return session->Exists("/n", nullptr); }), ZOK);
        EXPECT_THAT(AwaitAnswer([&] { return session->GuaranteedDelete("/n"); }), AnyOf(ZOK, ZNONODE));
    }
}

TEST_F(SessionDeletesTest, ManyAtOnceThroughCuts)
{
    const auto session = Open();
    std::vector<std::future<int>> codes;
    for (int i = 0; i < 64; ++i)
    {
        observer_.Create("/n-" + std::to_string(i));
    }
    for (int i = 0; i < 64; ++i)
    {
        codes.push_back(std::async(std::launch::async,
                                   [&session, i] { return session->GuaranteedDelete("/n-" + std::to_string(i)); }));
        if (i % 8 == 0)
        {
            proxy_.Cut();
        }
    }
    for (std::future<int>& code : codes)
    {
        EXPECT_THAT(code.get(), AnyOf(ZOK, ZNONODE));
    }
    EXPECT_EQ(observer_.List("/"), std::vector<std::string>{"zookeeper"});
}

}  // namespace
}  // namespace kx::velmor::testing_support
