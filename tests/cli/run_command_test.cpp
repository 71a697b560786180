// What the command of `velmor run` is given, and when it runs again.
#include "tests/cli/program_fixture.h"

#include <gmock/gmock.h>
#include <signal.h>

#include <fstream>
#include <string>
#include <vector>

namespace kx::velmor::cli {
namespace {

using std::chrono::milliseconds;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class RunCommand : public ProgramFixture
{
protected:
    std::filesystem::path Write(const std::string& name, const std::string& content) const
    {
        const std::filesystem::path file = Directory() / name;
        std::ofstream(file) << content;
        return file;
    }

    /// What the first process that noted its environment has under that name; "-" for nothing.
    std::string Noted(const std::string& name, const std::string& word = "environment") const
    {
        for (const Record& record : Records(word))
        {
            if (record.text.rfind(name + "=", 0) == 0)
            {
                return record.text.substr(name.size() + 1);
            }
        }
        return "-";
    }

    void EndInOrder(RunningProgram& program)
    {
        program.Signal(SIGTERM);
        EXPECT_EQ(program.AwaitExit(), 0);
        EXPECT_THAT(Queue(), IsEmpty());
    }
};

TEST_F(RunCommand, IsToldWhoItIsAndUnderWhichLeadership)
{
    Surroundings surroundings;
    surroundings.environment = {{"SOMETHING", "of its own"},
                                {"NOTIFY_SOCKET", Directory() / "nobody-listens"},
                                {"WATCHDOG_USEC", "10000000"},
                                {"WATCHDOG_PID", "$$"}};
    RunningProgram& program = Join({"--identity", "alpha of the first row"}, Service({"environment"}), surroundings);
    AwaitRecord("beat");
    const std::string node = Queue().front();
    EXPECT_EQ(Noted("VELMOR_ELECTION"), kElection);
    EXPECT_EQ(Noted("VELMOR_NODE"), node);
    EXPECT_EQ(Noted("VELMOR_IDENTITY"), "alpha of the first row");
    EXPECT_EQ(Noted("VELMOR_EPOCH"), std::to_string(Tree().Exists(std::string(kElection) + "/" + node)->czxid));
    EXPECT_EQ(Noted("SOMETHING"), "of its own");
    // These are velmor's business.
    EXPECT_EQ(Noted("NOTIFY_SOCKET"), "-");
    EXPECT_EQ(Noted("WATCHDOG_USEC"), "-");
    EXPECT_EQ(Noted("WATCHDOG_PID"), "-");
    EndInOrder(program);
}

TEST_F(RunCommand, IsIdentifiedByHostAndProcessUnlessTold)
{
    RunningProgram& program = Join({}, Service({"environment"}));
    AwaitRecord("beat");
    EXPECT_THAT(Noted("VELMOR_IDENTITY"), ::testing::EndsWith(":" + std::to_string(program.Pid())));
    EndInOrder(program);
}

TEST_F(RunCommand, HasTheStandardStreamsAndNoOtherDescriptor)
{
    RunningProgram& program = Join({"--http", "0"}, Service({"descriptors"}));
    AwaitRecord("beat");
    std::vector<std::string> numbers;
    for (const Record& record : Records("descriptor"))
    {
        numbers.push_back(record.text.substr(0, record.text.find(' ')));
    }
    EXPECT_THAT(numbers, ::testing::UnorderedElementsAre("0", "1", "2"));
    EndInOrder(program);
}

TEST_F(RunCommand, LeadsAProcessGroupOfItsOwn)
{
    RunningProgram& program = Join({}, Service());
    const Record start = AwaitRecord("start");
    EXPECT_THAT(start.text, HasSubstr(" " + std::to_string(start.process) + " "));
    EXPECT_NE(::getpgid(start.process), ::getpgid(program.Pid()));
    EndInOrder(program);
}

TEST_F(RunCommand, HasNoSignalIgnoredOrBlocked)
{
    RunningProgram& program = Run({}, {"grep", "-E", "^Sig(Blk|Ign)", "/proc/self/status"});
    EXPECT_EQ(program.AwaitExit(), 0);
    EXPECT_EQ(program.Output(), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST_F(RunCommand, ReadsTheStandardInput)
{
    Surroundings surroundings;
    surroundings.standardInput = Write("input", "first line\nsecond line\n");
    RunningProgram& program = Join({}, Service({"input"}), surroundings);
    AwaitRecord("input-end");
    EXPECT_EQ(program.Output(), "heard first line\nheard second line\n");
    EndInOrder(program);
}

TEST_F(RunCommand, GetsItsArgumentsWordForWord)
{
    RunningProgram& program =
        Run({}, {"printf", "<%s>", "", "[a,b]", "%%", "{}", "--servers", "--", "a b", "$HOME", "'\""});
    EXPECT_EQ(program.AwaitExit(), 0);
    EXPECT_EQ(program.Output(), "<><[a,b]><%%><{}><--servers><--><a b><$HOME><'\">");
}

TEST_F(RunCommand, RunsAgainAtTheEndOfTheQueue)
{
    RunningProgram& first = Join({"--restart", "always", "--identity", "first"}, Service({"after=300", "environment"}));
    AwaitRecord("start");
    RunningProgram& second = Join({"--identity", "second"}, Service({"environment"}));
    RunningProgram& third = Join({"--identity", "third"}, Service({"environment"}));
    AwaitRecord("environment", 1, "VELMOR_IDENTITY=second");
    AwaitQueue(3);
    second.Signal(SIGTERM);
    EXPECT_EQ(second.AwaitExit(), 0);
    AwaitRecord("environment", 1, "VELMOR_IDENTITY=third");
    EXPECT_THAT(Records("start"), SizeIs(3));
    third.Signal(SIGTERM);
    EXPECT_EQ(third.AwaitExit(), 0);
    AwaitRecord("environment", 2, "VELMOR_IDENTITY=first");
    ExpectTenures(4);
    first.Signal(SIGTERM);
    EXPECT_EQ(first.AwaitExit(), 0);
}

TEST_F(RunCommand, TakesTurnsWithAnotherWhenBothRunAgain)
{
    Join({"--restart", "always", "--identity", "left"}, Service({"after=300", "environment"}));
    Join({"--restart", "always", "--identity", "right"}, Service({"after=300", "environment"}));
    AwaitRecord("start", 4);
    AwaitRecord("environment", 2, "VELMOR_IDENTITY=left");
    AwaitRecord("environment", 2, "VELMOR_IDENTITY=right");
    ExpectNoConflict();
}

TEST_F(RunCommand, WaitsLongerEachTimeBeforeItRunsAgain)
{
    Run({"--restart", "always"}, Service({"after=0"}));
    const Record end = AwaitRecord("end");
    const Record secondStart = AwaitRecord("start", 2);
    const Record secondEnd = AwaitRecord("end", 2);
    const Record thirdStart = AwaitRecord("start", 3);
    EXPECT_GE(secondStart.at - end.at, milliseconds(1'000));
    EXPECT_GE(thirdStart.at - secondEnd.at, milliseconds(2'000));
}

TEST_F(RunCommand, RunsAgainOnFailureAndNotOnSuccess)
{
    const std::string script = "if [ -e failed ]; then exit 0; fi; touch failed; exit 3";
    RunningProgram& program =
        Run({"--restart", "on-failure"}, {"sh", "-c", "cd " + Directory().string() + "; echo runs; " + script});
    EXPECT_EQ(program.AwaitExit(), 0);
    EXPECT_EQ(program.Output(), "runs\nruns\n");
}

TEST_F(RunCommand, RunsAgainOnFailureWhenItDiedOfASignal)
{
    RunningProgram& program = Run({"--restart", "on-failure"}, Service());
    const Record start = AwaitRecord("start");
    ASSERT_EQ(::kill(start.process, SIGTERM), 0);
    // By itself it has ended in order, whoever asked for it.
    EXPECT_EQ(program.AwaitExit(), 0);
    RunningProgram& other = Run({"--restart", "on-failure"}, Service());
    const Record second = AwaitRecord("start", 2);
    ASSERT_EQ(::kill(second.process, SIGKILL), 0);
    AwaitRecord("start", 3);
    EndInOrder(other);
}

TEST_F(RunCommand, GivesUpWhenItIsNotElectedAgainInTheTimeToWait)
{
    RunningProgram& first = Join({"--restart", "always", "--wait", "800ms"}, Service({"after=500"}));
    AwaitRecord("start");
    RunningProgram& second = Join({}, Service());
    EXPECT_EQ(first.AwaitExit(), 75);
    EXPECT_THAT(Records("start"), SizeIs(2));
    EndInOrder(second);
}

TEST_F(RunCommand, IsPrecededByAHookOfTheNextOne)
{
    RunningProgram& leader = Join({"--on-next", ServiceForShell({"as=early", "after=0"})}, Service());
    AwaitRecord("start");
    RunningProgram& next =
        Join({"--identity", "beta", "--on-next", ServiceForShell({"as=next", "after=0", "environment"})}, Service());
    AwaitRecord("next.end");
    EXPECT_EQ(Noted("VELMOR_ELECTION", "next.environment"), kElection);
    EXPECT_EQ(Noted("VELMOR_IDENTITY", "next.environment"), "beta");
    EXPECT_THAT(Records("start"), SizeIs(1));
    leader.Signal(SIGTERM);
    AwaitRecord("start", 2);
    EXPECT_EQ(leader.AwaitExit(), 0);
    EXPECT_THAT(Records("next.start"), SizeIs(1));
    EndInOrder(next);
}

TEST_F(RunCommand, IsFollowedByAHookBeforeAnotherOneRuns)
{
    RunningProgram& first = Join({"--on-lost", ServiceForShell({"as=lost", "after=300", "environment"})},
                                 Service({"linger=200", "child=daemon", "child-linger=300"}));
    const Record start = AwaitRecord("start", 2);
    const std::string node = Queue().front();
    RunningProgram& second = Join({}, Service());
    ASSERT_TRUE(Tree().Delete(std::string(kElection) + "/" + node));
    const Record next = AwaitRecord("start", 3);
    const Record lastEnd = AwaitRecord("end", 2);
    const Record hookStart = AwaitRecord("lost.start");
    const Record hookEnd = AwaitRecord("lost.end");
    EXPECT_LT(lastEnd.at, hookStart.at);
    EXPECT_LT(hookEnd.at, next.at);
    EXPECT_EQ(hookStart.epoch, start.epoch);
    EXPECT_EQ(Noted("VELMOR_REASON", "lost.environment"), "node deleted");
    EXPECT_EQ(Noted("VELMOR_NODE", "lost.environment"), node);
    EXPECT_EQ(first.AwaitExit(), 76);
    EndInOrder(second);
}

TEST_F(RunCommand, IsLeftInOrderWhenASignalComesWhileItsHookRuns)
{
    RunningProgram& program = Join({"--on-lost", ServiceForShell({"as=lost", "after=500"})}, Service({"after=0"}));
    AwaitRecord("lost.start");
    program.Signal(SIGTERM);
    EXPECT_EQ(program.AwaitExit(), 0);
    EXPECT_THAT(Records("lost.end"), SizeIs(1));
    EXPECT_THAT(Queue(), IsEmpty());
}

TEST_F(RunCommand, IsFollowedByAHookWhenItLeaves)
{
    RunningProgram& program = Join({"--on-lost", ServiceForShell({"as=lost", "after=0", "environment"}) + "; exit 9"},
                                   Service({"after=200", "status=5"}));
    EXPECT_EQ(program.AwaitExit(), 5);
    EXPECT_EQ(Noted("VELMOR_REASON", "lost.environment"), "left");
    EXPECT_THAT(Records("lost.start"), SizeIs(1));
}

TEST_F(RunCommand, IsFollowedByNoHookThatTakesLongerThanItsGrace)
{
    RunningProgram& program =
        Join({"--grace", "300ms", "--on-lost", ServiceForShell({"as=lost", "ignore=15", "child=daemon"})},
             Service({"after=200"}));
    EXPECT_EQ(program.AwaitExit(), 0);
    EXPECT_THAT(Records("lost.start"), SizeIs(2));
    EXPECT_THAT(Queue(), IsEmpty());
}

TEST_F(RunCommand, IsFollowedByNoHookBeforeItEverLed)
{
    RunningProgram& leader = Join({}, Service());
    AwaitRecord("start");
    RunningProgram& waiting = Join({"--on-lost", ServiceForShell({"as=lost", "after=0"})}, Service());
    waiting.Signal(SIGTERM);
    EXPECT_EQ(waiting.AwaitExit(), OfSignal(SIGTERM));
    EXPECT_THAT(Records("lost.start"), IsEmpty());
    EndInOrder(leader);
}

}  // namespace
}  // namespace kx::velmor::cli
