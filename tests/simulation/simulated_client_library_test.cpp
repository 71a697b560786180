// The real session and the real candidate, on modelled servers.

#include "tests/simulation/client_watches.h"
#include "tests/simulation/ensemble_model.h"
#include "tests/simulation/virtual_machine.h"

#include <kx/velmor/candidate.h>
#include <kx/velmor/session.h>
#include <kx/velmor/transaction.h>

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace kx::velmor::simulation {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr ServerLimits kLimits{milliseconds(100), milliseconds(200), milliseconds(60'000)};
constexpr milliseconds kTimeout{1200};

/// Servers, and a process with a session.
struct World
{
    explicit World(std::uint64_t seed)
        : machine(seed), process(machine.AddProcess()), ensemble(machine, {3, kLimits, 5})
    {}

    static void Pass(Time time) { std::this_thread::sleep_for(time); }

    static bool Await(const std::function<bool()>& done)
    {
        for (int i = 0; i < 60'000 && !done(); ++i)
        {
            Pass(milliseconds(1));
        }
        return done();
    }

    bool AwaitState(SessionState state) const
    {
        return Await([&] { return session->Status().state == state; });
    }

    SessionOptions Options() const
    {
        SessionOptions options;
        options.servers = ensemble.Addresses();
        options.sessionTimeout = kTimeout;
        return options;
    }

    VirtualMachine machine;
    const ProcessId process;
    EnsembleModel ensemble;
    std::shared_ptr<Session> session;
};

/// Runs what it is given on a thread of the process, with many seeds, between opening and closing the session.
void WithSeeds(const std::function<void(World&)>& scenario)
{
    for (std::uint64_t seed = 1; seed <= 30 && !::testing::Test::HasFailure(); ++seed)
    {
        SCOPED_TRACE(seed);
        World world(seed);
        world.machine.Start(world.process, [&] {
            world.session = Session::Open(world.Options());
            scenario(world);
            world.session->Close();
            world.session.reset();
        });
        world.machine.Run(std::chrono::minutes(10), [&] { return world.machine.Threads() == 0; });
        ASSERT_EQ(world.machine.Threads(), 0U);
    }
}

TEST(SimulatedClientLibraryTest, OperationsDoWhatTheyDoOnServers)
{
    WithSeeds([](World& world) {
        Session& session = *world.session;
        std::string created(64, ' ');
        EXPECT_EQ(session.Create("/a", "x", ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZOK);
        EXPECT_EQ(session.Create("/a", "x", ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZNODEEXISTS);
        EXPECT_EQ(session.Create("/a/n-", "", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL | ZOO_SEQUENCE, &created), ZOK);
        EXPECT_EQ(created, "/a/n-0000000000");
        EXPECT_EQ(session.Create("/b/c", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZNONODE);
        std::vector<std::string> children;
        EXPECT_EQ(session.GetChildren("/a", children), ZOK);
        EXPECT_EQ(children, std::vector<std::string>{"n-0000000000"});
        Stat stat{};
        EXPECT_EQ(session.Exists("/a/n-0000000000", &stat), ZOK);
        EXPECT_EQ(stat.ephemeralOwner, session.ClientId()->client_id);
        std::string data;
        EXPECT_EQ(session.GetData("/a", data, &stat), ZOK);
        EXPECT_EQ(data, "x");
        EXPECT_EQ(stat.numChildren, 1);
        EXPECT_EQ(session.Status().negotiatedTimeout, kTimeout);
        EXPECT_EQ(world.ensemble.Sessions(), 1U);
    });
}

TEST(SimulatedClientLibraryTest, TransactionsTellWhatTheyMadeAndWhatWasRefused)
{
    WithSeeds([](World& world) {
        Session& session = *world.session;
        TransactionResult result;
        const std::vector<Operation> made{Operation::Create("/a", "x"),
                                          Operation::Create("/a/n-", {}, NodeMode::EphemeralSequential),
                                          Operation::Set("/a", "y", 0)};
        EXPECT_EQ(session.Transact(made, result), ZOK);
        EXPECT_EQ(result.created.at(1), "/a/n-0000000000");
        const std::vector<Operation> refused{Operation::Delete("/a/n-0000000000"), Operation::Check("/a", 7),
                                             Operation::Delete("/a")};
        EXPECT_EQ(session.Transact(refused, result), ZBADVERSION);
        EXPECT_EQ(result.refused, 1U);
        EXPECT_TRUE(world.ensemble.Has("/a/n-0000000000"));
    });
}

TEST(SimulatedClientLibraryTest, SessionSurvivesCuts)
{
    WithSeeds([](World& world) {
        ASSERT_EQ(world.session->Create("/a", "", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr), ZOK);
        const auto identity = world.session->ClientId()->client_id;
        int cuts = 0;
        const Registration registration = world.session->OnStateChange(
            [&](const SessionStatus& status) { cuts += status.state == SessionState::Suspended ? 1 : 0; });
        for (int i = 1; i <= 5; ++i)
        {
            world.ensemble.Cut(world.process, std::nullopt);
            EXPECT_TRUE(World::Await([&] { return cuts == i; }));
            EXPECT_TRUE(world.AwaitState(SessionState::Connected));
        }
        EXPECT_EQ(world.session->ClientId()->client_id, identity);
        EXPECT_TRUE(world.ensemble.Has("/a"));
    });
}

TEST(SimulatedClientLibraryTest, SilenceIsNoticedAfterTwoThirdsOfTheTimeout)
{
    WithSeeds([](World& world) {
        // An answer has just come.
        ASSERT_EQ(world.session->Exists("/", nullptr), ZOK);
        const Time before = world.machine.Now();
        world.ensemble.Silence(world.process, std::nullopt, EnsembleModel::Direction::Both);
        EXPECT_TRUE(world.AwaitState(SessionState::Suspended));
        const Time noticed = world.machine.Now() - before;
        EXPECT_GT(noticed, 2 * kTimeout / 3 - milliseconds(31));
        EXPECT_LT(noticed, 2 * kTimeout / 3 + milliseconds(31));
        world.ensemble.Heal(world.process, std::nullopt);
        EXPECT_TRUE(world.AwaitState(SessionState::Connected));
    });
}

TEST(SimulatedClientLibraryTest, ServersTellOfAnExpiryOnceTheyAreReached)
{
    WithSeeds([](World& world) {
        const auto identity = world.session->ClientId()->client_id;
        ASSERT_EQ(world.session->Create("/a", "", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr), ZOK);
        world.ensemble.Refuse(world.process, std::nullopt);
        EXPECT_TRUE(World::Await([&] { return world.ensemble.Sessions() == 0; }));
        EXPECT_FALSE(world.ensemble.Has("/a"));
        EXPECT_EQ(world.session->Status().state, SessionState::Suspended);
        world.ensemble.Heal(world.process, std::nullopt);
        // Sooner than a session gives up by itself.
        World::Pass(kTimeout / 2);
        EXPECT_EQ(world.session->Status().state, SessionState::Connected);
        EXPECT_NE(world.session->ClientId()->client_id, identity);
    });
}

TEST(SimulatedClientLibraryTest, LostAnswersLeaveWhatWasDone)
{
    WithSeeds([](World& world) {
        // The session's own read, at each connection, must not meet the fault.
        World::Pass(kTimeout / 8);
        world.ensemble.LoseNextAnswer(world.process, false);
        EXPECT_EQ(world.session->Create("/a", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZCONNECTIONLOSS);
        EXPECT_TRUE(world.ensemble.Has("/a"));
        EXPECT_TRUE(world.AwaitState(SessionState::Connected));
        World::Pass(kTimeout / 8);
        world.ensemble.LoseNextRequest(world.process);
        EXPECT_EQ(world.session->Create("/b", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZCONNECTIONLOSS);
        EXPECT_TRUE(world.AwaitState(SessionState::Connected));
        EXPECT_EQ(world.session->Create("/c", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZOK);
        EXPECT_FALSE(world.ensemble.Has("/b"));
    });
}

TEST(SimulatedClientLibraryTest, NodeEventsComeOnceAlsoWhenTheyWereMissed)
{
    WithSeeds([](World& world) {
        Session& session = *world.session;
        std::vector<int> events;
        const auto note = [&](int type, int /*state*/, const std::string& /*path*/) {
            if (type != ZOO_SESSION_EVENT)
            {
                events.push_back(type);
            }
        };
        auto created = session.Exists("/a", note, nullptr);
        ASSERT_EQ(created.first, ZNONODE);
        ASSERT_EQ(session.Create("/a", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZOK);
        EXPECT_TRUE(World::Await([&] { return !events.empty(); }));
        EXPECT_EQ(events, std::vector<int>{ZOO_CREATED_EVENT});

        auto deleted = session.Exists("/a", note, nullptr);
        ASSERT_EQ(deleted.first, ZOK);
        world.ensemble.Refuse(world.process, std::nullopt);
        world.ensemble.Delete("/a");
        World::Pass(kTimeout / 3);
        EXPECT_EQ(events.size(), 1U);
        world.ensemble.Heal(world.process, std::nullopt);
        EXPECT_TRUE(World::Await([&] { return events.size() > 1; }));
        // Made and deleted again: nothing is watched any more.
        ASSERT_EQ(session.Create("/a", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZOK);
        world.ensemble.Delete("/a");
        World::Pass(milliseconds(100));
        EXPECT_EQ(events, (std::vector<int>{ZOO_CREATED_EVENT, ZOO_DELETED_EVENT}));
    });
}

TEST(ClientWatchesTest, WatchersAreToldOfANodeEventOnce)
{
    const auto watcher = [](zhandle_t*, int, int, const char*, void*) {};
    int contexts[2];
    const ClientWatches::Watcher global(watcher, nullptr);
    const ClientWatches::Watcher one(watcher, &contexts[0]);
    const ClientWatches::Watcher other(watcher, &contexts[1]);
    ClientWatches watches(global);
    watches.Add("/a", true, one);
    watches.Add("/a", true, one);
    watches.Add("/a", false, one);
    watches.Add("/a", true, other);
    watches.Add("/b", false, one);
    watches.Add("/b", false, global);
    EXPECT_EQ(watches.ForSessionEvent(), (ClientWatches::Watchers{one, other, global}));
    EXPECT_EQ(watches.Take("/a"), (ClientWatches::Watchers{one, other}));
    EXPECT_EQ(watches.Take("/a"), ClientWatches::Watchers());
    EXPECT_TRUE(watches.Remove("/b", one));
    EXPECT_FALSE(watches.Remove("/b", one));
    EXPECT_EQ(watches.Take("/b"), ClientWatches::Watchers{global});
    EXPECT_TRUE(watches.Empty());
}

TEST(SimulatedClientLibraryTest, HeartbeatsKeepAnIdleSession)
{
    WithSeeds([](World& world) {
        const auto identity = world.session->ClientId()->client_id;
        int losses = 0;
        const Registration registration = world.session->OnStateChange(
            [&](const SessionStatus& status) { losses += status.state == SessionState::Suspended ? 1 : 0; });
        World::Pass(10 * kTimeout);
        EXPECT_EQ(losses, 0);
        EXPECT_EQ(world.session->ClientId()->client_id, identity);
    });
}

TEST(SimulatedClientLibraryTest, ClosingEndsTheSessionOrGivesUpAfterAWhile)
{
    WithSeeds([](World& world) {
        Time before = world.machine.Now();
        world.session->Close();
        EXPECT_LT(world.machine.Now(), before + milliseconds(150));
        EXPECT_EQ(world.ensemble.Sessions(), 0U);

        world.session = Session::Open(world.Options());
        ASSERT_EQ(world.session->Exists("/", nullptr), ZOK);
        before = world.machine.Now();
        world.ensemble.Freeze(*world.ensemble.ConnectedServer(world.process));
        world.session->Close();
        EXPECT_GE(world.machine.Now(), before + milliseconds(1500));
        EXPECT_LT(world.machine.Now(), before + milliseconds(1700));
    });
}

TEST(SimulatedClientLibraryTest, PausedProcessSendsNoHeartbeats)
{
    WithSeeds([](World& world) {
        const auto identity = world.session->ClientId()->client_id;
        // From outside: a paused process does not continue by itself.
        world.machine.At(world.machine.Now() + milliseconds(1), [&] { world.machine.Pause(world.process); });
        world.machine.At(world.machine.Now() + 2 * kTimeout, [&] {
            EXPECT_EQ(world.ensemble.Sessions(), 0U);
            world.machine.Continue(world.process);
        });
        EXPECT_TRUE(World::Await([&] {
            return world.session->Status().state == SessionState::Connected &&
                   world.session->ClientId()->client_id != identity;
        }));
    });
}

TEST(SimulatedClientLibraryTest, CandidatesElect)
{
    for (std::uint64_t seed = 1; seed <= 5; ++seed)
    {
        SCOPED_TRACE(seed);
        constexpr std::size_t kCandidates = 5;
        World world(seed);
        std::array<std::unique_ptr<Candidate>, kCandidates> candidates;
        const auto leaders = [&] {
            std::size_t count = 0;
            for (const auto& candidate : candidates)
            {
                count += candidate && candidate->IsLeader() ? 1 : 0;
            }
            return count;
        };
        world.machine.Observe([&] {
            EXPECT_LE(leaders(), 1U);
            return Time::max();
        });
        std::array<int, kCandidates> led{};
        for (std::size_t i = 0; i < kCandidates; ++i)
        {
            world.machine.Start(world.machine.AddProcess(), [&, i] {
                auto session = Session::Open(world.Options());
                CandidateOptions options;
                options.electionPath = "/election";
                options.identity = std::to_string(i);
                options.onLeader = [&led, i](const Leadership&) { ++led[i]; };
                candidates[i] = std::make_unique<Candidate>(session, options);
                candidates[i]->Start();
                EXPECT_TRUE(World::Await([&] { return candidates[i]->IsLeader(); }));
                World::Pass(seconds(5));
                EXPECT_TRUE(candidates[i]->IsLeader());
                candidates[i]->Stop();
                candidates[i].reset();
                session->Close();
            });
        }
        world.machine.Run(seconds(60));
        EXPECT_EQ(world.machine.Threads(), 0U);
        EXPECT_EQ(world.ensemble.Sessions(), 0U);
        EXPECT_EQ(led, (std::array<int, kCandidates>{1, 1, 1, 1, 1}));
    }
}

}  // namespace
}  // namespace kx::velmor::simulation
