// The demonstration when it does not go as planned. That it does is a test of its own.

#include "cli/exit_status.h"
#include "process/child_process.h"
#include "tests/support/await.h"
#include "tests/support/network.h"
#include "tests/support/raw_client.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/zookeeper_server.h"

#include <kx/velmor/path.h>
#include <kx/velmor/session.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::cli {
namespace {

using process::ChildProcess;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing_support::Await;
using testing_support::kPatience;
using testing_support::RawClient;
using testing_support::TemporaryDirectory;
using testing_support::ZooKeeperServer;

std::string TextOf(const std::filesystem::path& path)
{
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

/// The program, running, and what it has said.
class Demonstration
{
public:
    explicit Demonstration(std::vector<std::string> command)
        : process_({std::move(command), Errors(), [this](const std::string& line) { OnLine(line); }})
    {}

    static std::vector<std::string> Command(const std::string& servers, std::vector<std::string> arguments = {})
    {
        arguments.insert(arguments.begin(), {VELMOR_PROGRAM, "demo", "--servers", servers});
        return arguments;
    }

    void AwaitLine(const std::string& part)
    {
        Await("it says " + part, [&] {
            if (!process_.Running())
            {
                throw std::runtime_error("it has ended: " + TextOf(Errors()));
            }
            const std::lock_guard<std::mutex> lock(mutex_);
            return std::any_of(lines_.begin(), lines_.end(),
                               [&](const std::string& line) { return line.find(part) != std::string::npos; });
        });
    }

    /// The participants' processes.
    std::vector<pid_t> Children()
    {
        std::vector<pid_t> children;
        for (const auto& task : Tasks())
        {
            std::ifstream file(task.path() / "children");
            for (pid_t child = 0; file >> child;)
            {
                children.push_back(child);
            }
        }
        return children;
    }

    std::ptrdiff_t Threads() const { return std::distance(begin(Tasks()), end(Tasks())); }

    int AwaitStatus() { return process_.AwaitExit(2 * kPatience).value(); }
    std::string ErrorText() const { return TextOf(Errors()); }
    ChildProcess& Process() { return process_; }

private:
    std::filesystem::directory_iterator Tasks() const
    {
        return std::filesystem::directory_iterator("/proc/" + std::to_string(process_.Pid()) + "/task");
    }

    std::filesystem::path Errors() const { return directory_.Path() / "errors"; }

    void OnLine(const std::string& line)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(line);
    }

    const TemporaryDirectory directory_;
    std::mutex mutex_;
    std::vector<std::string> lines_;
    /// Goes first, since it calls.
    ChildProcess process_;
};

class DemoOnServer : public ::testing::Test
{
protected:
    DemoOnServer() { server_.Start(); }

    std::vector<std::string> TopNodes() { return RawClient(server_.Address()).List("/"); }

    ZooKeeperServer server_;
};

TEST_F(DemoOnServer, LeavesNothingBehindWhenItIsInterrupted)
{
    Demonstration demo(Demonstration::Command(server_.Address()));
    demo.AwaitLine("n3 joins");
    const std::vector<pid_t> children = demo.Children();
    ASSERT_GE(children.size(), 2U);

    demo.Process().Signal(SIGINT);

    EXPECT_EQ(demo.AwaitStatus(), OfSignal(SIGINT));
    EXPECT_THAT(TopNodes(), ElementsAre("zookeeper"));
    EXPECT_TRUE(std::all_of(children.begin(), children.end(), [](pid_t child) { return ::kill(child, 0) != 0; }));
    EXPECT_THAT(demo.ErrorText(), IsEmpty());
}

TEST_F(DemoOnServer, TouchesNoElectionWhosePathItIsGiven)
{
    RawClient client(server_.Address());
    for (const char* path : {"/apps", "/apps/billing", "/apps/billing/leader", "/apps/billing/leader/c-0000000007"})
    {
        client.Create(path);
    }
    Demonstration demo(Demonstration::Command(server_.Address(), {"--root", "/apps", "--election", "/billing/leader"}));
    demo.AwaitLine("n2 is next");
    // Its own, beside the one that was there.
    Await("both paths of an election are there", [&] { return client.List("/apps/billing").size() == 3U; });

    demo.Process().Signal(SIGTERM);

    EXPECT_EQ(demo.AwaitStatus(), OfSignal(SIGTERM));
    EXPECT_THAT(client.List("/apps/billing"), ElementsAre("leader"));
    EXPECT_THAT(client.List("/apps/billing/leader"), ElementsAre("c-0000000007"));
}

TEST_F(DemoOnServer, FailsAndTidiesUpWhenAParticipantEndsByItself)
{
    Demonstration demo(Demonstration::Command(server_.Address()));
    demo.AwaitLine("n2 is next");

    ASSERT_EQ(::kill(demo.Children().front(), SIGKILL), 0);

    EXPECT_EQ(demo.AwaitStatus(), 1);
    EXPECT_THAT(demo.ErrorText(), HasSubstr("did not go as announced: n1 has ended by itself"));
    EXPECT_THAT(demo.ErrorText(), HasSubstr("the end of n2's log"));
    EXPECT_THAT(demo.ErrorText(), HasSubstr("connecting -> connected"));
    EXPECT_THAT(TopNodes(), ElementsAre("zookeeper"));
}

TEST_F(DemoOnServer, TidiesUpWhenNobodyReadsItsOutputAnyMore)
{
    std::string script = "\"$@\" | head -n 3; exit ${PIPESTATUS[0]}";
    std::vector<std::string> command = Demonstration::Command(server_.Address());
    command.insert(command.begin(), {"bash", "-c", script, "bash"});

    Demonstration demo(command);

    EXPECT_EQ(demo.AwaitStatus(), OfSignal(SIGPIPE));
    EXPECT_THAT(TopNodes(), ElementsAre("zookeeper"));
}

TEST_F(DemoOnServer, LetsParticipantsShowTheCredentialsThatItWasGiven)
{
    SessionOptions options;
    options.servers = server_.Address();
    options.digestCredentials = "alice:secret";
    options.accessList = {{ZOO_PERM_ALL, "auth", ""}};
    EnsurePath(*Session::Open(options), "/apps", false, ZOO_OPEN_ACL_UNSAFE);
    const TemporaryDirectory directory;
    const std::filesystem::path secret = directory.Path() / "digest";
    std::ofstream(secret) << options.digestCredentials << '\n';
    std::filesystem::permissions(secret, std::filesystem::perms::owner_read);

    Demonstration stranger(Demonstration::Command(server_.Address(), {"--root", "/apps"}));
    EXPECT_EQ(stranger.AwaitStatus(), kNotPermitted) << stranger.ErrorText();

    Demonstration demo(
        Demonstration::Command(server_.Address(), {"--root", "/apps", "--digest-file", secret.string()}));
    demo.AwaitLine("n2 is next");
    for (const pid_t child : demo.Children())
    {
        EXPECT_THAT(TextOf("/proc/" + std::to_string(child) + "/cmdline"), ::testing::Not(HasSubstr("secret")));
    }
    demo.Process().Signal(SIGINT);
    EXPECT_EQ(demo.AwaitStatus(), OfSignal(SIGINT)) << demo.ErrorText();
}

TEST(Demo, SaysThatNoServerHasAnswered)
{
    const std::string nobody = testing_support::LoopbackAddress(testing_support::ChooseFreePort());

    Demonstration demo(Demonstration::Command(nobody, {"--connect-timeout", "300ms"}));

    EXPECT_EQ(demo.AwaitStatus(), kUnavailable);
    EXPECT_THAT(demo.ErrorText(), HasSubstr("no server answered within 300ms: " + nobody));
}

TEST(Demo, IsInterruptedWhileItWaitsForAServer)
{
    const std::string nobody = testing_support::LoopbackAddress(testing_support::ChooseFreePort());
    Demonstration demo(Demonstration::Command(nobody, {"--connect-timeout", "1h"}));

    // Its session has threads, which have taken over what is blocked.
    Await("it listens to the signal", [&] { return demo.Threads() > 1; });

    demo.Process().Signal(SIGINT);

    EXPECT_EQ(demo.AwaitStatus(), OfSignal(SIGINT));
}

}  // namespace
}  // namespace kx::velmor::cli
