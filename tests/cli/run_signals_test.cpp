// Signals to `velmor run`, in whatever it is doing.
#include "tests/cli/program_fixture.h"

#include <gmock/gmock.h>
#include <signal.h>

#include <ostream>
#include <string>
#include <vector>

namespace kx::velmor::cli {
namespace {

using std::chrono::milliseconds;
using ::testing::IsEmpty;
using ::testing::SizeIs;

struct Signal
{
    const char* name;
    int number;
};

/// For the test's name.
void PrintTo(const Signal& signal, std::ostream* stream)
{
    *stream << signal.name;
}

const std::vector<Signal> kAll{{"Term", SIGTERM}, {"Int", SIGINT},   {"Hup", SIGHUP},
                               {"Quit", SIGQUIT}, {"Usr1", SIGUSR1}, {"Usr2", SIGUSR2}};
const std::vector<Signal> kEnding{{"Term", SIGTERM}, {"Int", SIGINT}, {"Quit", SIGQUIT}};
const std::vector<Signal> kOther{{"Hup", SIGHUP}, {"Usr1", SIGUSR1}, {"Usr2", SIGUSR2}};

std::string NameOf(const ::testing::TestParamInfo<Signal>& test)
{
    return test.param.name;
}

/// How soon "at once" is, on a busy machine: sooner than anything that waits for a session's end.
constexpr milliseconds kAtOnce{5'000};

class EverySignal : public ProgramFixture, public ::testing::WithParamInterface<Signal>
{};

TEST_P(EverySignal, EndsItWhileItWaitsForAServer)
{
    server_.Kill();
    Proxy proxy(server_.Address());
    proxy.BlackHole();
    RunningProgram& program = RunBehind(proxy, {}, Service());
    Await("it tries to reach a server", [&] { return proxy.Accepted() > 0; });
    program.Signal(GetParam().number);
    EXPECT_EQ(program.AwaitExit(kAtOnce), OfSignal(GetParam().number));
    EXPECT_THAT(Records(), IsEmpty());
}

TEST_P(EverySignal, EndsItWhileItWaitsForItsTurn)
{
    RunningProgram& leader = Join({}, Service());
    RunningProgram& waiting = Join({}, Service());
    AwaitRecord("start");
    waiting.Signal(GetParam().number);
    EXPECT_EQ(waiting.AwaitExit(kAtOnce), OfSignal(GetParam().number));
    // Nobody has to wait for its session's end.
    EXPECT_THAT(Queue(), SizeIs(1));
    EXPECT_TRUE(leader.Running());
    EXPECT_THAT(Records("start"), SizeIs(1));
}

TEST_P(EverySignal, EndsItWhileItWaitsToJoinAgain)
{
    RunningProgram& program = Run({"--restart", "always"}, Service({"after=0"}));
    AwaitRecord("end");
    AwaitQueue(0);
    program.Signal(GetParam().number);
    EXPECT_EQ(program.AwaitExit(kAtOnce), OfSignal(GetParam().number));
    EXPECT_THAT(Queue(), IsEmpty());
}

TEST_P(EverySignal, ReachesTheCommandWhileItIsAskedToEnd)
{
    // It has its own way of going about it, and all the time that it was given.
    RunningProgram& program = Run({}, Service({"linger=1000", "status=4"}));
    AwaitRecord("start");
    program.Signal(SIGTERM);
    AwaitRecord("signal");
    program.Signal(GetParam().number);
    const std::size_t count = GetParam().number == SIGTERM ? 2 : 1;
    AwaitRecord("signal", count, std::to_string(GetParam().number));
    EXPECT_EQ(program.AwaitExit(), 4);
    EXPECT_THAT(Records("end"), SizeIs(1));
    EXPECT_THAT(Queue(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(By, EverySignal, ::testing::ValuesIn(kAll), NameOf);

class EndingSignal : public ProgramFixture, public ::testing::WithParamInterface<Signal>
{};

TEST_P(EndingSignal, GoesToTheWholeGroupAndEndsItWithTheCommand)
{
    const std::string number = std::to_string(GetParam().number);
    // TERM ends it in order, the others as they end programs that know nothing of them.
    RunningProgram& program = Run({}, Service({"child=group"}));
    AwaitRecord("start", 2);
    program.Signal(GetParam().number);
    EXPECT_EQ(program.AwaitExit(), GetParam().number == SIGTERM ? 0 : OfSignal(GetParam().number));
    EXPECT_THAT(Records("signal", number), SizeIs(2));
    EXPECT_THAT(Records("end"), SizeIs(2));
    EXPECT_THAT(Queue(), IsEmpty());
}

TEST_P(EndingSignal, EndsItWhateverIsToBeRestarted)
{
    RunningProgram& program = Run({"--restart", "always"}, Service({"linger=50", "status=6"}));
    AwaitRecord("start");
    program.Signal(GetParam().number);
    EXPECT_EQ(program.AwaitExit(), 6);
    EXPECT_THAT(Records("start"), SizeIs(1));
    EXPECT_THAT(Queue(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(By, EndingSignal, ::testing::ValuesIn(kEnding), NameOf);

class OtherSignal : public ProgramFixture, public ::testing::WithParamInterface<Signal>
{};

TEST_P(OtherSignal, GoesToTheCommandAloneWhichRunsOn)
{
    const std::string number = std::to_string(GetParam().number);
    RunningProgram& program = Run({}, Service({"child=group"}));
    AwaitRecord("start", 2);
    // The one that velmor has started was started by its warden, and its child is the other one's parent.
    program.Signal(GetParam().number);
    const Record signal = AwaitRecord("signal", 1, number);
    AwaitBeat(signal.process);
    program.Signal(GetParam().number);
    AwaitRecord("signal", 2, number);
    for (const Record& record : Records("signal"))
    {
        EXPECT_EQ(record.process, signal.process);
    }
    EXPECT_TRUE(program.Running());
    program.Signal(SIGTERM);
    EXPECT_EQ(program.AwaitExit(), 0);
}

INSTANTIATE_TEST_SUITE_P(By, OtherSignal, ::testing::ValuesIn(kOther), NameOf);

class RunSignals : public ProgramFixture
{};

TEST_F(RunSignals, KillsACommandThatIgnoresTermWhenItsGraceIsOver)
{
    const milliseconds grace{400};
    RunningProgram& program = Run({"--grace", "400ms"}, Service({"ignore=15"}));
    AwaitRecord("start");
    program.Signal(SIGTERM);
    const Record signal = AwaitRecord("signal", 1, "15");
    EXPECT_EQ(program.AwaitExit(), OfSignal(SIGKILL));
    const Record last = Records().back();
    EXPECT_GT(last.at, signal.at + grace / 2);
    EXPECT_THAT(Queue(), IsEmpty());
}

TEST_F(RunSignals, KillsACommandAtOnceThatHasNoGrace)
{
    RunningProgram& program = Run({"--grace", "0s"}, Service({"ignore=15"}));
    AwaitRecord("start");
    program.Signal(SIGTERM);
    EXPECT_EQ(program.AwaitExit(kAtOnce), OfSignal(SIGKILL));
}

TEST_F(RunSignals, EndsWhatTheCommandHasLeftBehindBeforeItLeaves)
{
    RunningProgram& first =
        Join({"--grace", "300ms"},
             Service({"after=300", "child=group", "child=session", "child=daemon", "child-ignore=15"}));
    AwaitRecord("start", 4);
    Join({}, Service());
    EXPECT_EQ(first.AwaitExit(), 0);
    AwaitRecord("start", 5);
    // Each was asked first.
    EXPECT_THAT(Records("signal", "15"), SizeIs(3));
    ExpectTenures(2);
}

TEST_F(RunSignals, LetsWhatTheCommandHasLeftBehindEndInItsOwnTime)
{
    RunningProgram& first =
        Join({}, Service({"after=300", "status=9", "child=group", "child=daemon", "child-linger=300"}));
    AwaitRecord("start", 3);
    Join({}, Service());
    EXPECT_EQ(first.AwaitExit(), 9);
    AwaitRecord("start", 4);
    EXPECT_THAT(Records("end"), SizeIs(3));
    ExpectTenures(2);
}

TEST_F(RunSignals, RestartsACommandThatHasMindedNoIntAndEndsLaterOn)
{
    RunningProgram& program = Run({"--restart", "always", "--grace", "200ms"}, Service({"ignore=2"}));
    const Record start = AwaitRecord("start");
    program.Signal(SIGINT);
    const Record signal = AwaitRecord("signal", 1, "2");
    Await("more than its grace has passed", [&] { return Now() > signal.at + milliseconds(600); });
    ASSERT_EQ(::kill(start.process, SIGKILL), 0);
    AwaitRecord("start", 2);
    program.Signal(SIGTERM);
    EXPECT_EQ(program.AwaitExit(), 0);
    ExpectTenures(2);
}

TEST_F(RunSignals, IsIgnoredByWardenAndLeavesTheCommandInItsCare)
{
    // Somebody who ends everything by its name does not set the command free.
    RunningProgram& program = Run({}, Service());
    const Record start = AwaitRecord("start");
    const pid_t warden = program.AwaitWarden();
    for (const Signal& signal : kAll)
    {
        ASSERT_EQ(::kill(warden, signal.number), 0);
    }
    AwaitBeat(start.process);
    EXPECT_TRUE(Lives(warden));
    program.Signal(SIGTERM);
    EXPECT_EQ(program.AwaitExit(), 0);
}

}  // namespace
}  // namespace kx::velmor::cli
