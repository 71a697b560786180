// What befalls `velmor run`, its command, the network and the servers: never do two commands run at the same time.
#include "tests/cli/program_fixture.h"

#include <gmock/gmock.h>
#include <signal.h>

#include <string>
#include <thread>
#include <vector>

namespace kx::velmor::cli {
namespace {

using std::chrono::milliseconds;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr milliseconds kSession{2'000};
const std::vector<std::string> kShort{"--session-timeout", "2s"};

/// With a shorter session, to which more options are added.
std::vector<std::string> Short(const std::vector<std::string>& more)
{
    std::vector<std::string> options = kShort;
    options.insert(options.end(), more.begin(), more.end());
    return options;
}

class RunFaults : public ProgramFixture
{
protected:
    /// Waits until the second command has begun, after `count` processes of the first one.
    Record AwaitSuccessor(std::size_t count) const { return AwaitRecord("start", count + 1); }

    /// The last sign of life of whoever started first.
    std::chrono::nanoseconds EndOfFirst() const { return Tenures(Records()).front().end; }

    /// Somebody who has run in the meantime ends in order.
    void EndInOrder(RunningProgram& program)
    {
        program.Signal(SIGTERM);
        EXPECT_EQ(program.AwaitExit(), 0);
        EXPECT_THAT(Queue(), IsEmpty());
    }
};

TEST_F(RunFaults, TakesTheCommandAndAllThatItHasStartedWithItWhenItIsKilled)
{
    RunningProgram& first =
        Join(kShort, Service({"ignore=15", "child=group", "child=session", "child=daemon", "child-ignore=15"}));
    AwaitRecord("start", 4);
    RunningProgram& second = Join(kShort, Service());
    const std::chrono::nanoseconds killed = Now();
    first.Kill();
    for (const Record& start : Records("start"))
    {
        AwaitGone(start.process);
    }
    AwaitSuccessor(4);
    // At once, not with the lease: the next one cannot begin before the session has ended.
    EXPECT_LT(EndOfFirst(), killed + kSession / 2);
    ExpectTenures(2);
    EndInOrder(second);
}

TEST_F(RunFaults, LosesTheCommandToItsWardenWhenItIsFrozenAndSaysSoWhenItGoesOn)
{
    RunningProgram& first = Join(kShort, Service({"ignore=15", "child=daemon", "child-ignore=15"}));
    AwaitRecord("start", 2);
    RunningProgram& second = Join(kShort, Service());
    first.Pause();
    AwaitSuccessor(2);
    for (const pid_t process : {Records("start")[0].process, Records("start")[1].process})
    {
        EXPECT_FALSE(Lives(process));
    }
    first.Continue();
    EXPECT_EQ(first.AwaitExit(), 76);
    ExpectTenures(2);
    EndInOrder(second);
}

TEST_F(RunFaults, JoinsAgainWhenItGoesOnAfterItWasFrozen)
{
    RunningProgram& first = Join(Short({"--restart", "always"}), Service());
    AwaitRecord("start");
    RunningProgram& second = Join(kShort, Service());
    first.Pause();
    AwaitSuccessor(1);
    EXPECT_THAT(Records("signal", "15"), SizeIs(1));
    first.Continue();
    AwaitQueue(2);
    EXPECT_TRUE(first.Running());
    second.Signal(SIGTERM);
    AwaitRecord("start", 3);
    EXPECT_EQ(second.AwaitExit(), 0);
    ExpectTenures(3);
    EndInOrder(first);
}

TEST_F(RunFaults, RunsOnWhenItWasFrozenForAMoment)
{
    RunningProgram& program = Join(kShort, Service());
    const Record start = AwaitRecord("start");
    program.Pause();
    std::this_thread::sleep_for(kSession / 4);
    program.Continue();
    std::this_thread::sleep_for(kSession);
    AwaitBeat(start.process);
    EXPECT_THAT(Records("signal"), IsEmpty());
    EndInOrder(program);
}

TEST_F(RunFaults, WaitsForAServerThatIsNotThereYet)
{
    server_.Kill();
    Proxy proxy(server_.Address());
    RunningProgram& program = RunBehind(proxy, {}, Service());
    Await("it tries to reach a server", [&] { return proxy.Accepted() > 0; });
    EXPECT_TRUE(program.Running());
    server_.Start();
    AwaitRecord("start");
    EndInOrder(program);
}

TEST_F(RunFaults, RunsOnThroughACutThatIsShort)
{
    Proxy proxy(server_.Address());
    RunningProgram& program = RunBehind(proxy, kShort, Service());
    const Record start = AwaitRecord("start");
    const std::size_t before = proxy.Accepted();
    proxy.Cut();
    Await("it has another connection", [&] { return proxy.Accepted() > before; });
    std::this_thread::sleep_for(kSession);
    AwaitBeat(start.process);
    EXPECT_THAT(Records("signal"), IsEmpty());
    EndInOrder(program);
}

TEST_F(RunFaults, EndsTheCommandInTimeWhenItsConnectionIsCutForLong)
{
    Proxy proxy(server_.Address());
    // Between the end of the lease and the killing there is a twenty-fourth of the session timeout.
    RunningProgram& first = RunBehind(proxy, {"--session-timeout", "5s"}, Service());
    AwaitRecord("start");
    RunningProgram& second = Join(kShort, Service());
    proxy.Refuse();
    proxy.Cut();
    AwaitSuccessor(1);
    EXPECT_THAT(Records("signal", "15"), SizeIs(1));
    EXPECT_THAT(Records("end"), SizeIs(1));
    ExpectTenures(2);
    // It has not heard of anything else, and is gone all the same.
    EXPECT_EQ(first.AwaitExit(), 76);
    EndInOrder(second);
}

TEST_F(RunFaults, KillsACommandThatDoesNotEndInTimeWhenItsConnectionFallsSilent)
{
    Proxy proxy(server_.Address());
    RunningProgram& first =
        RunBehind(proxy, kShort, Service({"ignore=15", "child=session", "child=daemon", "child-ignore=15"}));
    AwaitRecord("start", 3);
    RunningProgram& second = Join(kShort, Service());
    proxy.BlackHole();
    AwaitSuccessor(3);
    EXPECT_THAT(Records("signal", "15"), ::testing::Not(IsEmpty()));
    EXPECT_THAT(Records("end"), IsEmpty());
    ExpectTenures(2);
    proxy.Heal();
    EXPECT_EQ(first.AwaitExit(), 76);
    EndInOrder(second);
}

TEST_F(RunFaults, JoinsAgainWhenItsConnectionComesBack)
{
    Proxy proxy(server_.Address());
    RunningProgram& program = RunBehind(proxy, Short({"--restart", "on-failure"}), Service());
    const Record start = AwaitRecord("start");
    proxy.Refuse();
    proxy.Cut();
    AwaitGone(start.process);
    AwaitQueue(0);
    proxy.Accept();
    AwaitRecord("start", 2);
    ExpectTenures(2);
    EndInOrder(program);
}

TEST_F(RunFaults, EndsTheCommandWhenTheServerIsGoneForLong)
{
    RunningProgram& program = Join(kShort, Service());
    AwaitRecord("start");
    server_.Kill();
    EXPECT_EQ(program.AwaitExit(), 76);
    EXPECT_THAT(Records("signal", "15"), SizeIs(1));
}

TEST_F(RunFaults, RunsOnWhenTheServerIsRestarted)
{
    RunningProgram& program = Join({}, Service());
    const Record start = AwaitRecord("start");
    server_.Restart();
    AwaitBeat(start.process);
    EXPECT_THAT(Records("signal"), IsEmpty());
    program.Signal(SIGTERM);
    EXPECT_EQ(program.AwaitExit(), 0);
}

TEST_F(RunFaults, GivesTheCommandAllItsGraceWhenAnOperatorDeletesItsNode)
{
    RunningProgram& first = Join({"--grace", "10s"}, Service({"linger=1500"}));
    AwaitRecord("start");
    RunningProgram& second = Join({}, Service());
    ASSERT_TRUE(Tree().Delete(std::string(kElection) + "/" + Queue().front()));
    AwaitRecord("signal", 1, "15");
    AwaitSuccessor(1);
    EXPECT_THAT(Records("end"), SizeIs(1));
    ExpectTenures(2);
    EXPECT_EQ(first.AwaitExit(), 76);
    EndInOrder(second);
}

TEST_F(RunFaults, KillsTheCommandAfterItsGraceWhenAnOperatorDeletesItsNode)
{
    RunningProgram& first = Join({"--grace", "500ms"}, Service({"ignore=15"}));
    AwaitRecord("start");
    RunningProgram& second = Join({}, Service());
    ASSERT_TRUE(Tree().Delete(std::string(kElection) + "/" + Queue().front()));
    const Record signal = AwaitRecord("signal", 1, "15");
    AwaitSuccessor(1);
    EXPECT_GT(EndOfFirst(), signal.at + milliseconds(250));
    EXPECT_EQ(first.AwaitExit(), 76);
    ExpectTenures(2);
    EndInOrder(second);
}

TEST_F(RunFaults, LosesNoTimeWhenTheCommandIsKilled)
{
    // Ten seconds of session, none of which anybody has to wait for.
    const milliseconds session{10'000};
    RunningProgram& first = Join({"--session-timeout", "10s"}, Service());
    const Record start = AwaitRecord("start");
    RunningProgram& second = Join({"--session-timeout", "10s"}, Service());
    const std::chrono::nanoseconds killed = Now();
    ASSERT_EQ(::kill(start.process, SIGKILL), 0);
    const Record next = AwaitSuccessor(1);
    EXPECT_LT(next.at, killed + session / 2);
    EXPECT_EQ(first.AwaitExit(), OfSignal(SIGKILL));
    ExpectTenures(2);
    EndInOrder(second);
}

TEST_F(RunFaults, LosesTheCommandWithItsWarden)
{
    RunningProgram& first =
        Join(kShort, Service({"ignore=15", "child=group", "child=session", "child=daemon", "child-ignore=15"}));
    AwaitRecord("start", 4);
    RunningProgram& second = Join(kShort, Service());
    ASSERT_EQ(::kill(first.AwaitWarden(), SIGKILL), 0);
    AwaitSuccessor(4);
    for (std::size_t i = 0; i < 4; ++i)
    {
        EXPECT_FALSE(Lives(Records("start")[i].process));
    }
    EXPECT_NE(first.AwaitExit(), 0);
    ExpectTenures(2);
    EndInOrder(second);
}

TEST_F(RunFaults, OutlivesAWardenThatIsKilledWhileNothingRuns)
{
    RunningProgram& leader = Join({}, Service());
    AwaitRecord("start");
    RunningProgram& waiting = Join({"--restart", "always"}, Service());
    ASSERT_EQ(::kill(waiting.AwaitWarden(), SIGKILL), 0);
    leader.Signal(SIGTERM);
    EXPECT_EQ(leader.AwaitExit(), 0);
    // With another warden, or not at all: never does it lead without a command.
    Await("it runs its command or has ended", [&] { return Records("start").size() == 2 || !waiting.Running(); });
    if (waiting.Running())
    {
        EndInOrder(waiting);
    }
    EXPECT_THAT(Queue(), IsEmpty());
    ExpectNoConflict();
}

}  // namespace
}  // namespace kx::velmor::cli
