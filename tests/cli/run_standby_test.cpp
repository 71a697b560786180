// Commands that run all the time and are told their role.
#include "tests/cli/program_fixture.h"

#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace kx::velmor::cli {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

class RunStandby : public ProgramFixture
{
protected:
    std::vector<std::string> Standby(const std::vector<std::string>& more = {}) const
    {
        std::vector<std::string> options{"--standby"};
        options.insert(options.end(), more.begin(), more.end());
        return options;
    }

    /// What the process was told, in order.
    std::vector<std::string> Told(pid_t process) const
    {
        std::vector<std::string> lines;
        for (const Record& record : Records("role"))
        {
            if (record.process == process)
            {
                lines.push_back(record.text);
            }
        }
        return lines;
    }

    /// Waits until it was told that last, and returns when.
    std::chrono::nanoseconds AwaitTold(pid_t process, const std::string& line) const
    {
        Await("process " + std::to_string(process) + " is told \"" + line + "\"", [&] {
            const std::vector<std::string> told = Told(process);
            return !told.empty() && told.back() == line;
        });
        std::chrono::nanoseconds at{0};
        for (const Record& record : Records("role"))
        {
            at = record.process == process ? record.at : at;
        }
        return at;
    }

    std::string Leads(const std::string& node)
    {
        return "leader " + std::to_string(Tree().Exists(std::string(kElection) + "/" + node)->czxid) + " " + node;
    }

    void EndInOrder(RunningProgram& program)
    {
        program.Signal(SIGTERM);
        EXPECT_EQ(program.AwaitExit(), 0);
    }
};

TEST_F(RunStandby, IsToldOfEachRoleFromTheFirstMomentOn)
{
    RunningProgram& first = Join(Standby(), Service({"roles", "environment"}));
    const pid_t one = AwaitRecord("start").process;
    RunningProgram& second = Join(Standby(), Service({"roles"}));
    const pid_t two = AwaitRecord("start", 2).process;
    RunningProgram& third = Join(Standby(), Service({"roles"}));
    const pid_t three = AwaitRecord("start", 3).process;
    const std::vector<std::string> queue = Queue();
    AwaitTold(one, Leads(queue[0]));
    AwaitTold(two, "next - " + queue[1]);
    AwaitTold(three, "follower - " + queue[2]);
    EXPECT_EQ(Told(three).front(), "joining - -");
    EXPECT_THAT(Records("environment", "VELMOR_ROLE_FD=3"), SizeIs(1));
    for (const Record& record : Records("environment"))
    {
        EXPECT_NE(record.text.rfind("VELMOR_NODE=", 0), 0U);
        EXPECT_NE(record.text.rfind("VELMOR_EPOCH=", 0), 0U);
    }

    EndInOrder(first);
    AwaitTold(two, Leads(queue[1]));
    AwaitTold(three, "next - " + queue[2]);
    EndInOrder(second);
    AwaitTold(three, Leads(queue[2]));
    EndInOrder(third);
    EXPECT_THAT(Queue(), IsEmpty());
    EXPECT_THAT(Records("start"), SizeIs(3));
}

TEST_F(RunStandby, StartsAgainWhenItEndedWhileTheHookOfItsLossRan)
{
    const std::string told = (Directory() / "told").string();
    const std::string script = "led=; while read role rest; do echo $role >> " + told +
                               "; [ $role$led = joining1 ] && exit 1; [ $role = leader ] && led=1; done <&3";
    RunningProgram& program =
        Run(Standby({"--restart", "always", "--on-lost", "sleep 0.5"}), {"/bin/sh", "-c", script});
    const auto awaitLead = [&](int times) {
        Await("the lead, " + std::to_string(times), [&] {
            std::ifstream file(told);
            const std::vector<std::string> roles{std::istream_iterator<std::string>(file), {}};
            return std::count(roles.begin(), roles.end(), "leader") == times;
        });
    };
    awaitLead(1);
    Tree().Delete(std::string(kElection) + "/" + Queue().front());
    awaitLead(2);
    program.Signal(SIGTERM);
    EXPECT_EQ(program.AwaitExit(), OfSignal(SIGTERM));
}

TEST_F(RunStandby, LeavesTheQueueAtOnceWhenItIsToldToEndWithoutLeading)
{
    RunningProgram& first = Join(Standby(), Service({"roles"}));
    AwaitRecord("start");
    RunningProgram& second = Join(Standby({"--grace", "2s"}), Service({"roles", "ignore=15"}));
    const pid_t command = AwaitRecord("start", 2).process;
    second.Signal(SIGTERM);
    AwaitQueue(1);
    EXPECT_TRUE(Lives(command));
    EXPECT_EQ(second.AwaitExit(), OfSignal(SIGKILL));
    EndInOrder(first);
}

TEST_F(RunStandby, RunsWhileThereIsNoServer)
{
    server_.Kill();
    RunningProgram& program = Run(Standby(), Service({"roles"}));
    const pid_t process = AwaitRecord("start").process;
    AwaitTold(process, "joining - -");
    server_.Start();
    AwaitQueue(1);
    AwaitTold(process, Leads(Queue().front()));
    EndInOrder(program);
}

TEST_F(RunStandby, KeepsTheLastLineInAFile)
{
    const std::filesystem::path file = Directory() / "role";
    RunningProgram& first = Join({}, Service());
    AwaitRecord("start");
    RunningProgram& second = Join(Standby({"--role-file", file}), Service({"roles", "environment"}));
    const std::string node = Queue().back();
    Await("the file says that it is next", [&] { return ReadFile(file) == "next - " + node + "\n"; });
    EXPECT_THAT(Records("environment", "VELMOR_ROLE_FILE=" + file.string()), SizeIs(1));
    EndInOrder(first);
    const std::string leads = Leads(node);
    Await("the file says that it leads", [&] { return ReadFile(file) == leads + "\n"; });
    EndInOrder(second);
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(RunStandby, EndsWithTheStatusOfTheCommandAndLeaves)
{
    RunningProgram& program = Run(Standby(), Service({"roles", "after=500", "status=8"}));
    EXPECT_EQ(program.AwaitExit(), 8);
    EXPECT_THAT(Queue(), IsEmpty());
}

TEST_F(RunStandby, RunsAgainAfterAFailure)
{
    RunningProgram& program = Join(Standby({"--restart", "on-failure"}), Service({"roles"}));
    const pid_t one = AwaitRecord("start").process;
    ASSERT_EQ(::kill(one, SIGKILL), 0);
    const pid_t two = AwaitRecord("start", 2).process;
    AwaitQueue(1);
    AwaitTold(two, Leads(Queue().front()));
    EndInOrder(program);
}

TEST_F(RunStandby, RunsOnAndIsToldWhenTheLeadIsLost)
{
    RunningProgram& first = Join(Standby(), Service({"roles"}));
    const pid_t one = AwaitRecord("start").process;
    const std::string node = Queue().front();
    AwaitTold(one, Leads(node));
    RunningProgram& second = Join(Standby(), Service({"roles"}));
    const pid_t two = AwaitRecord("start", 2).process;
    ASSERT_TRUE(Tree().Delete(std::string(kElection) + "/" + node));
    AwaitQueue(2);
    AwaitTold(two, Leads(Queue().front()));
    AwaitTold(one, "next - " + Queue().back());
    EXPECT_THAT(Told(one), ::testing::Contains("joining - -").Times(2));
    EXPECT_THAT(Records("start"), SizeIs(2));
    EndInOrder(second);
    EndInOrder(first);
}

TEST_F(RunStandby, IsToldInTimeWhenItsConnectionFallsSilent)
{
    Proxy proxy(server_.Address());
    RunningProgram& first = RunBehind(proxy, Standby({"--session-timeout", "2s"}), Service({"roles"}));
    const pid_t one = AwaitRecord("start").process;
    AwaitQueue(1);
    AwaitTold(one, Leads(Queue().front()));
    RunningProgram& second = Join(Standby({"--session-timeout", "2s"}), Service({"roles"}));
    const pid_t two = AwaitRecord("start", 2).process;
    const std::string node = Queue().back();
    proxy.BlackHole();
    const std::chrono::nanoseconds lost = AwaitTold(one, "joining - -");
    const std::chrono::nanoseconds gained = AwaitTold(two, Leads(node));
    EXPECT_LT(lost, gained);
    AwaitBeat(one);
    proxy.Heal();
    EndInOrder(first);
    EndInOrder(second);
}

TEST_F(RunStandby, IsToldInTimeWhenTheProgramIsFrozen)
{
    RunningProgram& first = Join(Standby({"--session-timeout", "2s"}), Service({"roles"}));
    const pid_t one = AwaitRecord("start").process;
    AwaitTold(one, Leads(Queue().front()));
    RunningProgram& second = Join(Standby({"--session-timeout", "2s"}), Service({"roles"}));
    const pid_t two = AwaitRecord("start", 2).process;
    const std::string node = Queue().back();
    first.Pause();
    const std::chrono::nanoseconds lost = AwaitTold(one, "joining - -");
    const std::chrono::nanoseconds gained = AwaitTold(two, Leads(node));
    EXPECT_LT(lost, gained);
    AwaitBeat(one);
    first.Continue();
    AwaitQueue(2);
    AwaitTold(one, "next - " + Queue().back());
    EndInOrder(first);
    EndInOrder(second);
}

TEST_F(RunStandby, KeepsTheNewestForACommandThatDoesNotRead)
{
    RunningProgram& program = Join(Standby(), Service());
    const Record start = AwaitRecord("start");
    for (int i = 0; i < 5; ++i)
    {
        AwaitQueue(1);
        ASSERT_TRUE(Tree().Delete(std::string(kElection) + "/" + Queue().front()));
        Await("it has left", [&] { return Queue().empty(); });
    }
    AwaitBeat(start.process);
    EndInOrder(program);
    EXPECT_THAT(Queue(), IsEmpty());
}

}  // namespace
}  // namespace kx::velmor::cli
