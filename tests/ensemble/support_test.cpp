#include "process/child_process.h"
#include "tests/support/await.h"
#include "tests/support/ensemble.h"
#include "tests/support/expire_session.h"
#include "tests/support/network.h"
#include "tests/support/proxy.h"
#include "tests/support/raw_client.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/zookeeper_server.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kx::velmor::testing_support {
namespace {

using process::ChildProcess;
using process::ProcessOptions;
using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

/// 'R', 'S', 'T', ... as the kernel tells; empty when there is no such process.
std::string ProcessState(int pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string number;
    std::string name;
    std::string state;
    file >> number >> name >> state;
    return state;
}

TEST(Await, ReturnsOnceTheConditionHolds)
{
    int asked = 0;
    Await("the third question", [&] { return ++asked == 3; });
    EXPECT_EQ(asked, 3);
}

TEST(Await, TellsWhatItWaitedForInVain)
{
    EXPECT_THAT(
        [] {
            Await(
                "rain", [] { return false; }, milliseconds(5), [] { return std::string("the sky is blue"); });
        },
        ThrowsMessage<std::runtime_error>(StrEq("waited in vain for 5 ms: rain; the sky is blue")));
}

TEST(ChildProcess, HandsOverItsLinesAndItsExitCode)
{
    std::mutex mutex;
    std::vector<std::string> lines;
    {
        ProcessOptions options;
        options.command = {"sh", "-c", "echo one; echo two; exit 3"};
        options.onLine = [&](const std::string& line) {
            const std::lock_guard<std::mutex> lock(mutex);
            lines.push_back(line);
        };
        ChildProcess child(options);
        EXPECT_EQ(child.AwaitExit(kPatience), 3);
        EXPECT_THROW(child.Signal(SIGTERM), std::runtime_error);
    }
    EXPECT_THAT(lines, ElementsAre("one", "two"));
}

TEST(ChildProcess, WritesToAFile)
{
    const TemporaryDirectory directory;
    ProcessOptions options;
    options.command = {"sh", "-c", "echo out; echo err >&2"};
    options.output = directory.Path() / "output";
    ChildProcess child(options);
    ASSERT_EQ(child.AwaitExit(kPatience), 0);
    std::ostringstream text;
    text << std::ifstream(options.output).rdbuf();
    EXPECT_EQ(text.str(), "out\nerr\n");
}

TEST(ChildProcess, SaysWhichProgramIsMissing)
{
    for (const char* const program : {"no-such-program", "./no-such-program"})
    {
        ProcessOptions options;
        options.command = {program};
        EXPECT_THAT([&] { ChildProcess child(options); }, ThrowsMessage<std::runtime_error>(HasSubstr(program)));
    }
}

TEST(ChildProcess, InheritsNoDescriptorOfThisProcess)
{
    int ends[2];
    // Without the flag that keeps them from children.
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    ProcessOptions options;
    options.command = {"sleep", "1000"};
    ChildProcess child(options);
    close(ends[1]);
    char nothing = 0;
    EXPECT_EQ(read(ends[0], &nothing, 1), 0) << "the other end is still open";
    close(ends[0]);
}

TEST(ChildProcess, EndsEvenWhenPaused)
{
    ProcessOptions options;
    options.command = {"sleep", "1000"};
    int killed = 0;
    {
        ChildProcess child(options);
        killed = child.Pid();
        child.Pause();
        EXPECT_EQ(ProcessState(killed), "T");
    }
    EXPECT_EQ(ProcessState(killed), "");

    ChildProcess terminated(options);
    terminated.Pause();
    terminated.Terminate(kPatience);
    EXPECT_EQ(terminated.AwaitExit(milliseconds(0)), -SIGTERM);
}

TEST(ChildProcess, DoesNotEndWithTheThreadThatStartedIt)
{
    ProcessOptions options;
    options.command = {"sleep", "1000"};
    std::unique_ptr<ChildProcess> child;
    std::thread([&] { child = std::make_unique<ChildProcess>(options); }).join();
    EXPECT_EQ(child->AwaitExit(milliseconds(50)), std::nullopt);
}

TEST(ChildProcess, GoesTogetherWithTheDirectoryWhenItsParentIsKilled)
{
    std::promise<std::string> firstLine;
    std::atomic<bool> told{false};
    ProcessOptions options;
    options.command = {CARELESS_PROCESS};
    options.onLine = [&](const std::string& line) {
        if (!told.exchange(true))
        {
            firstLine.set_value(line);
        }
    };
    ChildProcess parent(options);
    std::future<std::string> line = firstLine.get_future();
    ASSERT_EQ(line.wait_for(kPatience), std::future_status::ready);
    std::istringstream words(line.get());
    int child = 0;
    std::string directory;
    words >> child >> directory;
    ASSERT_NE(ProcessState(child), "");
    ASSERT_TRUE(std::filesystem::exists(directory));

    parent.Kill();

    Await("the child's end", [&] {
        const std::string state = ProcessState(child);
        // An orphan stays a zombie where nobody takes care of orphans.
        return state.empty() || state == "Z";
    });
    Await("the directory's end", [&] { return !std::filesystem::exists(directory); });
}

TEST(ChooseFreePort, StaysOutOfThePortsOfOutgoingConnections)
{
    unsigned first = 0;
    unsigned last = 0;
    std::ifstream("/proc/sys/net/ipv4/ip_local_port_range") >> first >> last;
    if (first < 20'000 && last > 64'000)
    {
        GTEST_SKIP() << "this machine leaves no room beside them";
    }
    for (int i = 0; i < 50; ++i)
    {
        const unsigned port = ChooseFreePort();
        EXPECT_TRUE(port < first || port > last) << port;
    }
}

TEST(ZooKeeperServer, ServesForgetsAndRemembers)
{
    std::filesystem::path gone;
    {
        ZooKeeperServer server;
        EXPECT_THROW(server.Kill(), std::runtime_error);
        server.Start();
        EXPECT_THROW(server.Launch(), std::runtime_error);
        EXPECT_THROW(server.WipeData(), std::runtime_error);
        EXPECT_EQ(server.Mode(), "standalone");
        const std::string address = server.Address();
        RawClient(address).Create("/kept");

        server.Restart();
        EXPECT_EQ(server.Address(), address);
        EXPECT_TRUE(RawClient(address).Exists("/kept"));

        server.Stop();
        EXPECT_FALSE(server.Running());
        EXPECT_FALSE(server.Serving());
        EXPECT_THROW(server.Ask("srvr"), std::runtime_error);
        server.WipeData();
        server.Start();
        EXPECT_FALSE(RawClient(address).Exists("/kept"));

        const std::string configuration = server.Ask("conf");
        const std::size_t begin = configuration.find("dataDir=") + 8;
        gone = configuration.substr(begin, configuration.find("/data", begin) - begin);
        EXPECT_TRUE(std::filesystem::exists(gone)) << gone;
        EXPECT_THAT(server.Log(), HasSubstr("binding to port"));
    }
    EXPECT_FALSE(std::filesystem::exists(gone)) << gone;
}

TEST(ZooKeeperServer, KeepsSilentWhilePaused)
{
    ZooKeeperServer server;
    server.Start();
    server.Pause();
    EXPECT_FALSE(FourLetterCommand(server.Port(), "srvr", milliseconds(200)));
    server.Continue();
    EXPECT_TRUE(server.Serving());
}

TEST(ZooKeeperServer, MovesWhenItsPortIsTakenBeforeItsFirstStartOnly)
{
    ZooKeeperServer moves;
    const std::uint16_t taken = moves.Port();
    // Any process that listens does; a second server is at hand.
    ServerOptions options;
    options.port = taken;
    ZooKeeperServer other(options);
    other.Start();
    ASSERT_EQ(other.Port(), taken);
    moves.Start();
    EXPECT_NE(moves.Port(), taken);
    EXPECT_TRUE(other.Serving());

    const std::uint16_t known = moves.Port();
    moves.Stop();
    options.port = known;
    ZooKeeperServer thief(options);
    thief.Start();
    EXPECT_THAT([&] { moves.Start(); }, ThrowsMessage<std::runtime_error>(HasSubstr("Address already in use")));
}

TEST(Ensemble, ElectsAnotherLeaderWhenItsLeaderIsKilled)
{
    Ensemble ensemble;
    ensemble.Start();
    RawClient client(ensemble.Addresses());
    client.Create("/a");
    const std::size_t first = ensemble.LeaderIndex();
    ensemble.Server(first).Kill();
    const std::size_t second = ensemble.LeaderIndex();
    EXPECT_NE(second, first);
    EXPECT_EQ(ensemble.Server(second).Mode(), "leader");
    Await("the survivors serve",
          [&] { return ensemble.Server((first + 1) % 3).Serving() && ensemble.Server((first + 2) % 3).Serving(); });
    RawClient survivor(ensemble.Server(second).Address());
    survivor.Sync();
    EXPECT_TRUE(survivor.Exists("/a"));
    ensemble.Server(first).Start();
    EXPECT_EQ(ensemble.Server(first).Mode(), "follower");
}

/// A server, and a proxy in front of it.
class Faults : public ::testing::Test
{
protected:
    Faults() : server_(Started()), proxy_(server_->Address()) {}

    static std::unique_ptr<ZooKeeperServer> Started()
    {
        auto server = std::make_unique<ZooKeeperServer>();
        server->Start();
        return server;
    }

    /// Runs a call that is to fail with the library's text for a lost connection.
    template <typename Call>
    static void ExpectConnectionLoss(Call call)
    {
        EXPECT_THAT(call, ThrowsMessage<std::runtime_error>(HasSubstr("connection loss")));
    }

    std::unique_ptr<ZooKeeperServer> server_;
    Proxy proxy_;
};

TEST_F(Faults, RawClientSeesAndChangesTheTree)
{
    RawClient client(server_->Address());
    EXPECT_EQ(client.Create("/q"), "/q");
    EXPECT_EQ(client.Create("/q/b", "data"), "/q/b");
    EXPECT_EQ(client.Create("/q/s-", {}, ZOO_EPHEMERAL | ZOO_SEQUENCE), "/q/s-0000000001");
    client.Create("/q/b/c");
    EXPECT_THAT(client.List("/q"), ElementsAre("b", "s-0000000001"));
    EXPECT_EQ(client.Data("/q/b"), "data");
    EXPECT_EQ(client.Exists("/q/s-0000000001")->ephemeralOwner, client.Id().client_id);
    EXPECT_FALSE(client.Exists("/nothing"));
    EXPECT_FALSE(client.Delete("/nothing"));
    EXPECT_THAT([&] { client.Create("/q"); }, ThrowsMessage<std::runtime_error>(HasSubstr("create /q: node exists")));
    EXPECT_THAT([&] { client.Delete("/q"); }, ThrowsMessage<std::runtime_error>(HasSubstr("not empty")));
    EXPECT_THAT([&] { client.List("/nothing"); }, ThrowsMessage<std::runtime_error>(HasSubstr("no node")));
    EXPECT_THAT([&] { client.Data("/nothing"); }, ThrowsMessage<std::runtime_error>(HasSubstr("no node")));
    for (const char* const name : {"/q/9", "/q/7", "/q/5", "/q/8", "/q/6"})
    {
        client.Create(name);
    }
    EXPECT_THAT(client.List("/q"), ElementsAre("5", "6", "7", "8", "9", "b", "s-0000000001"));
    client.DeleteAll("/q");
    EXPECT_FALSE(client.Exists("/q"));
    client.DeleteAll("/q");
    client.Close();
    client.Close();
    EXPECT_THROW(client.List("/"), std::runtime_error);
}

TEST_F(Faults, CutClosesConnectionsAndRefuseKeepsThemAway)
{
    RawClient client(proxy_.Address());
    EXPECT_EQ(proxy_.Connections(), 1U);
    EXPECT_EQ(proxy_.Accepted(), 1U);

    proxy_.Cut();
    Await("the client is back", [&] { return proxy_.Accepted() == 2 && proxy_.Connections() == 1; });

    proxy_.Refuse();
    EXPECT_EQ(proxy_.Connections(), 1U);
    EXPECT_FALSE(client.Exists("/nothing"));
    proxy_.Cut();
    EXPECT_EQ(proxy_.Connections(), 0U);
    Await("the client tries again", [&] { return proxy_.Refused() > 1; });
    ExpectConnectionLoss([&] { client.Exists("/nothing"); });
    EXPECT_EQ(proxy_.Accepted(), 2U);

    proxy_.Accept();
    Await("the client is back", [&] { return proxy_.Connections() == 1; });
    EXPECT_FALSE(client.Exists("/nothing"));
}

TEST_F(Faults, BlackHoleHoldsMessagesBackUntilHealed)
{
    RawClient client(proxy_.Address());
    RawClient observer(server_->Address());
    for (const Proxy::Direction direction :
         {Proxy::Direction::Both, Proxy::Direction::ToServer, Proxy::Direction::ToClient})
    {
        proxy_.BlackHole(direction);
        std::future<std::string> created = std::async(std::launch::async, [&] { return client.Create("/late"); });
        if (direction == Proxy::Direction::ToClient)
        {
            Await("the request arrives", [&] { return observer.Exists("/late").has_value(); });
        }
        EXPECT_EQ(created.wait_for(milliseconds(100)), std::future_status::timeout);
        EXPECT_EQ(observer.Exists("/late").has_value(), direction == Proxy::Direction::ToClient);
        proxy_.Heal();
        EXPECT_EQ(created.get(), "/late");
        EXPECT_TRUE(observer.Delete("/late"));
    }
    EXPECT_EQ(proxy_.Accepted(), 1U);
}

TEST_F(Faults, DroppedReplyLeavesANodeThatItsCreatorDoesNotKnow)
{
    RawClient client(proxy_.Address());
    proxy_.DropReply(Request::Create);
    client.List("/");
    EXPECT_EQ(proxy_.FaultsPending(), 1U);
    ExpectConnectionLoss([&] { client.Create("/made"); });
    EXPECT_EQ(proxy_.FaultsPending(), 0U);
    EXPECT_EQ(proxy_.Forwarded(Request::Create), 1U);
    EXPECT_TRUE(RawClient(server_->Address()).Exists("/made"));
    client.Create("/next");
}

TEST_F(Faults, DroppedRequestNeverArrives)
{
    RawClient client(proxy_.Address());
    proxy_.DropRequest(Request::Create);
    ExpectConnectionLoss([&] { client.Create("/made"); });
    EXPECT_EQ(proxy_.FaultsPending(), 0U);
    EXPECT_EQ(proxy_.Forwarded(Request::Create), 0U);
    EXPECT_FALSE(RawClient(server_->Address()).Exists("/made"));
    client.Create("/made");
}

TEST_F(Faults, RequestSentOnBeforeTheCutArrives)
{
    RawClient client(proxy_.Address());
    proxy_.CutAfterRequest(Request::Delete);
    client.Create("/gone");
    ExpectConnectionLoss([&] { client.Delete("/gone"); });
    EXPECT_EQ(proxy_.FaultsPending(), 0U);
    EXPECT_EQ(proxy_.Forwarded(Request::Delete), 1U);
}

TEST_F(Faults, DelayedMessagesAreUnderWayTogetherAndKeepTheirOrder)
{
    constexpr milliseconds kDelay{200};
    constexpr std::size_t kRequests = 100;
    RawClient(server_->Address()).Create("/n");
    std::mutex mutex;
    std::vector<std::string> created;
    struct Noting
    {
        std::mutex& mutex;
        std::vector<std::string>& created;
    } noting{mutex, created};
    zhandle_t* const handle = zookeeper_init2(
        proxy_.Address().c_str(), [](zhandle_t*, int, int, const char*, void*) {}, 10'000, nullptr, nullptr,
        ZOO_NO_LOG_CLIENTENV, [](const char*) {});
    ASSERT_NE(handle, nullptr);
    // Returns when there is a connection.
    EXPECT_EQ(zoo_exists(handle, "/n", 0, nullptr), ZOK);

    proxy_.Delay(kDelay);
    const auto begin = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < kRequests; ++i)
    {
        EXPECT_EQ(zoo_acreate(
                      handle, "/n/", nullptr, -1, &ZOO_OPEN_ACL_UNSAFE, ZOO_SEQUENCE,
                      [](int rc, const char* path, const void* data) {
                          const auto& to = *static_cast<const Noting*>(data);
                          const std::lock_guard<std::mutex> lock(to.mutex);
                          to.created.push_back(rc == ZOK ? path : zerror(rc));
                      },
                      &noting),
                  ZOK);
    }
    Await("all replies", [&] {
        const std::lock_guard<std::mutex> lock(mutex);
        return created.size() == kRequests;
    });
    const auto taken = std::chrono::steady_clock::now() - begin;
    zookeeper_close(handle);

    EXPECT_GE(taken, 2 * kDelay);
    // One after the other they would have taken this long.
    EXPECT_LT(taken, kRequests * kDelay);
    EXPECT_TRUE(std::is_sorted(created.begin(), created.end()));
    EXPECT_EQ(created.back(), "/n/0000000099");
}

TEST_F(Faults, DelayEndsForWhatArrivesLater)
{
    RawClient client(proxy_.Address());
    proxy_.Delay(std::chrono::hours(1));
    proxy_.Delay(milliseconds(0));
    EXPECT_FALSE(client.Exists("/nothing"));
    // What is still on its way goes with its connection.
    proxy_.Delay(std::chrono::hours(1));
    std::future<void> lost =
        std::async(std::launch::async, [&] { ExpectConnectionLoss([&] { client.Exists("/nothing"); }); });
    EXPECT_EQ(lost.wait_for(milliseconds(100)), std::future_status::timeout);
    proxy_.Delay(milliseconds(0));
    proxy_.Cut();
    lost.get();
    EXPECT_FALSE(client.Exists("/nothing"));
}

TEST_F(Faults, RequestsMayBeSparedBeforeAFault)
{
    RawClient client(proxy_.Address());
    proxy_.DropRequest(Request::Create);
    proxy_.Spare(Request::Create, 2);
    client.Create("/a");
    client.Create("/b");
    ExpectConnectionLoss([&] { client.Create("/c"); });
    EXPECT_EQ(proxy_.FaultsPending(), 0U);
    client.Create("/c");
}

TEST_F(Faults, ExpiredSessionLosesItsNodesAndItsOwnerLearnsOfIt)
{
    for (int round = 0; round < 10; ++round)
    {
        RawClient client(proxy_.Address());
        RawClient observer(server_->Address());
        client.Create("/mine", {}, ZOO_EPHEMERAL);
        ExpireSession(proxy_, server_->Address(), client.Id());
        EXPECT_FALSE(observer.Exists("/mine"));
        Await("the owner learns of it", [&] {
            try
            {
                client.Exists("/mine");
                return false;
            }
            catch (const std::runtime_error& error)
            {
                const std::string text = error.what();
                return text.find("session has expired") != std::string::npos ||
                       text.find("invalid zhandle state") != std::string::npos;
            }
        });
    }
}

}  // namespace
}  // namespace kx::velmor::testing_support
