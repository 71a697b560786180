// What docs/velmor.md shows is typed as it stands there, and does what is said there.

#include "process/child_process.h"
#include "tests/support/await.h"
#include "tests/support/network.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/zookeeper_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kx::velmor::testing_support {
namespace {

using process::ChildProcess;
using ::testing::AllOf;
using ::testing::HasSubstr;

std::string TextOf(const std::filesystem::path& path)
{
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

/// The first block of the document in that language that has this part.
std::string Block(const std::string& language, const std::string& part)
{
    const std::string document = TextOf(VELMOR_DOCUMENT);
    const std::string begin = "\n```" + language + "\n";
    const std::string end = "\n```\n";
    for (std::size_t at = document.find(begin); at != std::string::npos; at = document.find(begin, at))
    {
        at += begin.size();
        const std::string block = document.substr(at, document.find(end, at) - at) + "\n";
        if (block.find(part) != std::string::npos)
        {
            return block;
        }
    }
    throw std::runtime_error("the document has no block with " + part);
}

std::string Replaced(std::string text, const std::string& from, const std::string& to)
{
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    {
        text.replace(at, from.size(), to);
    }
    return text;
}

/// A terminal in which somebody has typed something, and what it shows.
class Terminal
{
public:
    /// `script` is read by a shell in `directory`; its last command takes the shell's place.
    Terminal(const std::filesystem::path& directory, const std::string& script)
        : process_({{"/bin/sh", "-c", "cd '" + directory.string() + "'\n" + script},
                    directory / "errors",
                    [this](const std::string& line) { OnLine(line); }})
    {}

    std::string Shown()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return shown_;
    }

    void AwaitText(const std::string& text)
    {
        Await(
            "it shows " + text, [&] { return Shown().find(text) != std::string::npos; }, kPatience,
            [&] { return "it shows: " + Shown(); });
    }

    int AwaitStatus() { return process_.AwaitExit(kPatience).value(); }
    ChildProcess& Process() { return process_; }

private:
    void OnLine(const std::string& line)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        shown_ += line + "\n";
    }

    std::mutex mutex_;
    std::string shown_;
    /// Goes first, since it calls.
    ChildProcess process_;
};

class Velmor : public ::testing::Test
{
protected:
    Velmor()
    {
        server_.Start();
        const std::string programs = std::filesystem::path(VELMOR_PROGRAM).parent_path().string();
        ::setenv("PATH", (programs + ":" + std::getenv("PATH")).c_str(), 1);
        // The document has the reader wait for ten seconds.
        ::setenv("VELMOR_SESSION_TIMEOUT", "2s", 1);
    }

    /// As it is typed here, where servers and ports are others.
    std::string Typed(const std::string& language, const std::string& part) const
    {
        std::string text = Replaced(Block(language, part), "127.0.0.1:2181", server_.Address());
        text = Replaced(text, "127.0.0.1:8080", LoopbackAddress(port_));
        return "\n" + text;
    }

    /// In place of the shell, so that it can be told to end.
    std::string Run(const std::string& part) const
    {
        return Replaced(Typed("sh", part), "\nvelmor run", "\nexec velmor run");
    }

    /// What every terminal begins with.
    std::string Export() const
    {
        const std::string steps = Typed("sh", "export VELMOR_SERVERS");
        return steps.substr(0, steps.find("velmor run"));
    }

    ZooKeeperServer server_;
    const TemporaryDirectory directory_;
    const std::filesystem::path home_ = directory_.Path();
    const std::uint16_t port_ = ChooseFreePort();
};

TEST_F(Velmor, RunsOneOfTwoShowsBothAndRunsTheOtherWhenTheFirstIsEnded)
{
    Terminal first(home_, Run("export VELMOR_SERVERS"));
    first.AwaitText("working, with fencing token ");
    Terminal second(home_, Run("export VELMOR_SERVERS"));
    std::optional<Terminal> status;
    Await("status shows both", [&] {
        status.emplace(home_, Export() + Typed("sh", "velmor status"));
        const int ended = status->AwaitStatus();
        status->Process().Kill();
        return ended == EXIT_SUCCESS && status->Shown().find("next") != std::string::npos;
    });
    EXPECT_THAT(status->Shown(), AllOf(HasSubstr("leader"), HasSubstr("c-0000000000"), HasSubstr("c-0000000001")));
    EXPECT_EQ(second.Shown(), "");

    first.Process().Signal(SIGINT);

    EXPECT_EQ(first.AwaitStatus(), 128 + SIGINT);
    second.AwaitText("working, with fencing token ");

    Terminal third(home_, Run("export VELMOR_SERVERS"));
    second.Process().Kill();
    third.AwaitText("working, with fencing token ");
}

TEST_F(Velmor, SaysThatNobodyLeads)
{
    Terminal status(home_, Export() + Typed("sh", "velmor status"));

    EXPECT_EQ(status.AwaitStatus(), 1);
}

TEST_F(Velmor, ReadsTheConfigurationFile)
{
    std::ofstream(home_ / "velmor.conf") << Typed("toml", "[run]");

    Terminal run(home_, "exec velmor run --config velmor.conf -- sh -c 'echo $VELMOR_ELECTION'");

    run.AwaitText("/services/reports/leader");
    EXPECT_EQ(run.AwaitStatus(), EXIT_SUCCESS);
}

TEST_F(Velmor, RunsItsHooks)
{
    Terminal first(home_, Export() + Run("--on-next"));
    first.AwaitText("works");
    Terminal second(home_, Export() + Run("--on-next"));
    second.AwaitText("warms up");
    EXPECT_EQ(second.Shown(), "warms up\n");

    first.Process().Signal(SIGTERM);

    EXPECT_EQ(first.AwaitStatus(), 128 + SIGTERM);
    EXPECT_EQ(first.Shown(), "works\ndone: left\n");
    second.AwaitText("works");
}

TEST_F(Velmor, TellsAStandbyItsRole)
{
    const std::filesystem::path script = home_ / "standby.sh";
    std::ofstream(script) << Block("sh", "while read");
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);

    Terminal first(home_, Export() + Run("./standby.sh"));
    first.AwaitText("stands by: joining\n");
    first.AwaitText("works, with fencing token ");
    Terminal second(home_, Export() + Run("./standby.sh"));
    second.AwaitText("warms up\n");
    Terminal third(home_, Export() + Run("./standby.sh"));
    third.AwaitText("stands by: follower\n");

    first.Process().Signal(SIGTERM);

    EXPECT_EQ(first.AwaitStatus(), 128 + SIGTERM);
    second.AwaitText("works, with fencing token ");
    third.AwaitText("warms up\n");
}

TEST_F(Velmor, AnswersLoadBalancers)
{
    const std::string serve =
        "\nexec velmor run --http " + LoopbackAddress(port_) + " -- sh -c 'echo works; exec sleep 9'";
    std::optional<Terminal> other(std::in_place, home_, Export() + Run("export VELMOR_SERVERS"));
    other->AwaitText("working");
    Terminal run(home_, Export() + serve);
    constexpr int kRefusedByHttpStatus = 22;
    Await("it says that it does not lead",
          [&] { return Terminal(home_, Typed("sh", "curl")).AwaitStatus() == kRefusedByHttpStatus; });

    other.reset();
    run.AwaitText("works");

    EXPECT_EQ(Terminal(home_, Typed("sh", "curl")).AwaitStatus(), EXIT_SUCCESS);
}

}  // namespace
}  // namespace kx::velmor::testing_support
