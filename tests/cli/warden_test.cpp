#include "tests/cli/warden_fixture.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kx::velmor::cli {
namespace {

using namespace std::chrono_literals;
using testing_support::kPatience;

/// Longer than any test: who ends before has been ended.
const std::string kForever = "sleep 1000";

TEST_F(WardenTest, ReportsTheStartAndTheStatusOfACommand)
{
    warden_.Start(Shell("exit 42"));
    const WardenReport launched = Await(What::Launched);
    EXPECT_GT(launched.pid, 0);
    const WardenReport ended = Await(What::Ended);
    EXPECT_EQ(ended.pid, launched.pid);
    ASSERT_TRUE(WIFEXITED(ended.waitStatus));
    EXPECT_EQ(WEXITSTATUS(ended.waitStatus), 42);
    EXPECT_FALSE(ended.leaseRanOut);
}

TEST_F(WardenTest, ReportsTheSignalThatEndedACommand)
{
    StartShell("kill -USR1 $$");
    const WardenReport ended = Await(What::Ended);
    ASSERT_TRUE(WIFSIGNALED(ended.waitStatus));
    EXPECT_EQ(WTERMSIG(ended.waitStatus), SIGUSR1);
}

TEST_F(WardenTest, RunsOneCommandAfterAnother)
{
    for (int i = 0; i < 3; ++i)
    {
        StartShell("exit " + std::to_string(i));
        EXPECT_EQ(WEXITSTATUS(Await(What::Ended).waitStatus), i);
    }
}

TEST_F(WardenTest, RunsOneCommandAtATime)
{
    StartShell(kForever);
    warden_.Start(Shell("exit 0"));
    EXPECT_EQ(Await(What::NotLaunched).code, EBUSY);
}

TEST_F(WardenTest, SaysThatAProgramIsNotThere)
{
    Launch launch;
    launch.command = {"velmor-no-such-program"};
    warden_.Start(launch);
    const WardenReport report = Await(What::NotLaunched);
    EXPECT_EQ(report.code, ENOENT);
    EXPECT_NE(report.error.find("velmor-no-such-program"), std::string::npos) << report.error;

    launch.command = {"/no/such/program"};
    warden_.Start(launch);
    EXPECT_EQ(Await(What::NotLaunched).code, ENOENT);
}

TEST_F(WardenTest, SaysThatAFileIsNoProgram)
{
    std::ofstream(File("text")) << "nothing to run\n";
    Launch launch;
    launch.command = {File("text")};
    warden_.Start(launch);
    EXPECT_EQ(Await(What::NotLaunched).code, EACCES);
    // And goes on.
    StartShell("exit 0");
    Await(What::Ended);
}

TEST_F(WardenTest, PassesArgumentsAsTheyAre)
{
    Launch launch = Shell("printf '%s|' \"$@\" > $DIR/arguments; echo >> $DIR/arguments");
    launch.command.insert(launch.command.end(), {"sh", "two words", "", "\xff\xfe", "*"});
    Start(launch);
    EXPECT_EQ(AwaitText("arguments"), "two words||\xff\xfe|*|\n");
}

TEST_F(WardenTest, PassesACommandLineThatIsLargerThanAPacket)
{
    Launch launch = Shell("echo $# > $DIR/count");
    launch.command.emplace_back("sh");
    launch.command.insert(launch.command.end(), 5'000, std::string(100, 'x'));
    Start(launch);
    EXPECT_EQ(AwaitText("count"), "5000\n");
}

TEST_F(WardenTest, AddsToTheEnvironmentAndHidesFromIt)
{
    // The warden has the environment that this process had when it was made.
    Launch launch = Shell("echo \"$ADDED-${PATH-unset}-${HOME+set}\" > $DIR/environment");
    launch.environment["ADDED"] = "a=b";
    launch.hidden = {"HOME", "NEVER_WAS_THERE"};
    launch.environment["PATH"] = "/bin";
    Start(launch);
    EXPECT_EQ(AwaitText("environment"), "a=b-/bin-\n");
}

std::set<std::string> DescriptorsOf(pid_t pid)
{
    std::set<std::string> numbers;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd"))
    {
        numbers.insert(entry.path().filename().string());
    }
    return numbers;
}

/// A program has its libraries open, too, for the moment in which it loads them.
void AwaitStreamsAlone(pid_t pid)
{
    const std::set<std::string> streams{"0", "1", "2"};
    testing_support::Await("the standard streams and nothing else", [&] { return DescriptorsOf(pid) == streams; });
}

TEST_F(WardenTest, PassesNoDescriptorsButTheStandardStreams)
{
    Launch launch;
    launch.command = {"sleep", "1000"};
    AwaitStreamsAlone(Start(launch));
}

TEST_F(WardenTest, PassesNoDescriptorThatItsOwnerHasOpen)
{
    const int open = ::dup(STDERR_FILENO);
    ASSERT_GE(open, 0);
    Warden own;
    Launch launch;
    launch.command = {"sleep", "1000"};
    own.Start(launch);
    std::optional<WardenReport> report;
    testing_support::Await("it runs", [&] { return (report = own.Receive()).has_value(); });
    AwaitStreamsAlone(report->pid);
    ::close(open);
}

TEST_F(WardenTest, PassesADescriptorForRoles)
{
    Launch launch;
    launch.command = {"sleep", "1000"};
    launch.hearsRoles = true;
    EXPECT_EQ(DescriptorsOf(Start(launch)), (std::set<std::string>{"0", "1", "2", "3"}));
}

TEST_F(WardenTest, LeavesNoSignalBlockedOrIgnored)
{
    StartShell("grep -E '^Sig(Blk|Ign)' /proc/self/status > $DIR/signals");
    EXPECT_EQ(AwaitText("signals"), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST_F(WardenTest, GivesEachCommandAGroupOfItsOwn)
{
    const pid_t pid = StartShell(kForever);
    EXPECT_EQ(::getpgid(pid), pid);
    EXPECT_EQ(::getpgid(warden_.Pid()), warden_.Pid());
}

TEST_F(WardenTest, SignalsTheProcessItself)
{
    StartShell(
        "trap 'echo caught > $DIR/itself' USR1; "
        "sh -c 'trap \"echo caught > $DIR/child\" USR1; echo > $DIR/ready; while :; do sleep 0.01; done' & "
        "while :; do sleep 0.01; done");
    AwaitText("ready");
    warden_.Signal(SIGUSR1, false);
    AwaitText("itself");
    EXPECT_EQ(ReadText(File("child")), "");
}

TEST_F(WardenTest, SignalsTheWholeGroup)
{
    StartShell(
        "trap 'echo caught > $DIR/itself' USR1; "
        "sh -c 'trap \"echo caught > $DIR/child\" USR1; echo > $DIR/ready; while :; do sleep 0.01; done' & "
        "while :; do sleep 0.01; done");
    AwaitText("ready");
    warden_.Signal(SIGUSR1, true);
    AwaitText("itself");
    AwaitText("child");
}

TEST_F(WardenTest, SignalsToNobodyDoNothing)
{
    warden_.Signal(SIGTERM, true);
    warden_.End(0ms);
    warden_.Tell("leader - -");
    StartShell("exit 3");
    EXPECT_EQ(WEXITSTATUS(Await(What::Ended).waitStatus), 3);
}

TEST_F(WardenTest, EndsACommandThatObeys)
{
    StartShell("trap 'exit 7' TERM; echo > $DIR/ready; while :; do sleep 0.01; done");
    AwaitText("ready");
    warden_.End(kPatience);
    EXPECT_EQ(WEXITSTATUS(Await(What::Ended).waitStatus), 7);
}

TEST_F(WardenTest, KillsACommandThatDoesNotObey)
{
    StartShell("trap '' TERM; echo > $DIR/ready; while :; do sleep 0.01; done");
    AwaitText("ready");
    warden_.End(50ms);
    EXPECT_EQ(WTERMSIG(Await(What::Ended).waitStatus), SIGKILL);
}

TEST_F(WardenTest, KillsAtOnceWithoutGrace)
{
    StartShell("trap 'exit 7' TERM; echo > $DIR/ready; " + kForever);
    AwaitText("ready");
    warden_.End(0ms);
    EXPECT_EQ(WTERMSIG(Await(What::Ended).waitStatus), SIGKILL);
}

TEST_F(WardenTest, EndsACommandThatIsStopped)
{
    const pid_t pid = StartShell("trap 'exit 7' TERM; echo > $DIR/ready; while :; do sleep 0.01; done");
    AwaitText("ready");
    ASSERT_EQ(::kill(pid, SIGSTOP), 0);
    warden_.End(kPatience);
    EXPECT_EQ(WEXITSTATUS(Await(What::Ended).waitStatus), 7);
}

TEST_F(WardenTest, ASecondEndMayBeSoonerAndNotLater)
{
    StartShell("trap '' TERM; echo > $DIR/ready; while :; do sleep 0.01; done");
    AwaitText("ready");
    warden_.End(1000s);
    warden_.End(50ms);
    warden_.End(1000s);
    EXPECT_EQ(WTERMSIG(Await(What::Ended).waitStatus), SIGKILL);
}

/// What a command may leave behind, each with its number in the file "left".
struct Leftover
{
    std::string name;
    std::string script;
};

class WardenLeftoverTest : public WardenTest, public ::testing::WithParamInterface<Leftover>
{};

std::string NameOf(const ::testing::TestParamInfo<Leftover>& info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(
    , WardenLeftoverTest,
    ::testing::Values(
        Leftover{"Child", "sleep 1000 & echo $! > $DIR/left"},
        Leftover{"Grandchild", "sh -c 'sleep 1000 & echo $! > $DIR/left; wait' &"},
        Leftover{"OneInASessionOfItsOwn", "setsid sh -c 'echo $$ > $DIR/left; exec sleep 1000' &"},
        Leftover{"Daemon", "(setsid sh -c '(echo $(exec sh -c \"echo \\$PPID\") > $DIR/left; sleep 1000) &' &)"},
        Leftover{"OneThatIgnoresToBeAsked", "sh -c 'trap \"\" TERM; echo $$ > $DIR/left; sleep 1000; sleep 1000' &"},
        Leftover{"OneThatIsStopped", "sh -c 'echo $$ > $DIR/left; kill -STOP $$; sleep 1000' &"}),
    NameOf);

TEST_P(WardenLeftoverTest, EndsWithTheCommand)
{
    StartShell(GetParam().script + "\nwhile ! [ -s $DIR/left ]; do sleep 0.01; done; echo > $DIR/ready; sleep 1000");
    AwaitText("ready");
    const pid_t left = AwaitPid("left");
    ASSERT_TRUE(IsAlive(left));
    warden_.End(100ms);
    Await(What::Ended);
    EXPECT_FALSE(IsAlive(left));
}

TEST_P(WardenLeftoverTest, IsEndedAfterTheCommandHasEndedByItself)
{
    Launch launch = Shell(GetParam().script + "\nwhile ! [ -s $DIR/left ]; do sleep 0.01; done; exit 5");
    launch.grace = 100ms;
    Start(launch);
    const WardenReport ended = Await(What::Ended);
    EXPECT_FALSE(IsAlive(AwaitPid("left")));
    EXPECT_EQ(WEXITSTATUS(ended.waitStatus), 5);
}

TEST_P(WardenLeftoverTest, IsEndedWithAHook)
{
    Launch launch = Shell(GetParam().script + "\nwhile ! [ -s $DIR/left ]; do sleep 0.01; done; exit 5");
    launch.kind = Launch::Kind::Hook;
    launch.grace = 100ms;
    Start(launch);
    Await(What::HookEnded);
    EXPECT_FALSE(IsAlive(AwaitPid("left")));
}

TEST_F(WardenTest, TheEndIsTheEndOfWhoWasLeft)
{
    StartShell(
        "sh -c 'trap \"sleep 0.2; echo > $DIR/done; exit\" TERM; echo > $DIR/ready; "
        "while :; do sleep 0.01; done' & while ! [ -s $DIR/ready ]; do sleep 0.01; done; exit 5");
    const WardenReport ended = Await(What::Ended);
    EXPECT_EQ(WEXITSTATUS(ended.waitStatus), 5);
    EXPECT_EQ(ReadText(File("done")), "\n");
}

TEST_F(WardenTest, RunsHooksBesideTheCommand)
{
    const pid_t service = StartShell(kForever);
    Launch hook = Shell("cat; echo \"$NAME\" > $DIR/$NAME; exit 3");
    hook.kind = Launch::Kind::Hook;
    for (const std::string name : {"one", "two"})
    {
        hook.name = name;
        hook.environment["NAME"] = name;
        Start(hook);
        const WardenReport ended = Await(What::HookEnded);
        EXPECT_EQ(ended.name, name);
        EXPECT_EQ(WEXITSTATUS(ended.waitStatus), 3);
        EXPECT_EQ(AwaitText(name), name + "\n");
    }
    EXPECT_TRUE(IsAlive(service));
}

TEST_F(WardenTest, KillsAHookThatTakesTooLongAndNotTheCommand)
{
    const pid_t service = StartShell(kForever);
    Launch hook = Shell("trap '' TERM; while :; do sleep 0.01; done");
    hook.kind = Launch::Kind::Hook;
    hook.grace = 50ms;
    Start(hook);
    EXPECT_EQ(WTERMSIG(Await(What::HookEnded).waitStatus), SIGKILL);
    EXPECT_TRUE(IsAlive(service));
}

TEST_F(WardenTest, EndsTheCommandAndNotAHook)
{
    StartShell(kForever);
    Launch hook = Shell("sleep 1000 & wait");
    hook.kind = Launch::Kind::Hook;
    hook.grace = 1000s;
    const pid_t pid = Start(hook);
    warden_.End(1000s);
    Await(What::Ended);
    EXPECT_TRUE(IsAlive(pid));
}

TEST_F(WardenTest, SomebodyOfUnknownOriginIsTheServicesWhoeverStartedIt)
{
    StartShell(kForever);
    Launch hook = Shell(
        "setsid sh -c 'echo $$ > $DIR/stray; exec sleep 1000' & "
        "while ! [ -s $DIR/stray ]; do sleep 0.01; done; exit 0");
    hook.kind = Launch::Kind::Hook;
    Start(hook);
    Await(What::HookEnded);
    const pid_t stray = AwaitPid("stray");
    EXPECT_TRUE(IsAlive(stray));
    warden_.End(kPatience);
    Await(What::Ended);
    EXPECT_FALSE(IsAlive(stray));
}

TEST_F(WardenTest, LeavesACommandStoppedThatSomebodyHasStopped)
{
    const pid_t pid = StartShell(kForever);
    ASSERT_EQ(::kill(pid, SIGSTOP), 0);
    // When this has ended, the other's stop has been seen.
    Launch hook = Shell("exit 0");
    hook.kind = Launch::Kind::Hook;
    Start(hook);
    Await(What::HookEnded);
    const std::string status = ReadText("/proc/" + std::to_string(pid) + "/status");
    EXPECT_NE(status.find("State:\tT"), std::string::npos) << status;
}

TEST_F(WardenTest, GoesOnWhenThereAreNoDescriptorsToStartACommandWith)
{
    if (VELMOR_SANITIZED)
    {
        GTEST_SKIP() << "a sanitizer looks at memory through pipes of its own, and takes it for bad without them";
    }
    rlimit before{};
    constexpr rlim_t kNoneToSpare = 7;
    ASSERT_EQ(::prlimit(warden_.Pid(), RLIMIT_NOFILE, nullptr, &before), 0);
    const rlimit few{kNoneToSpare, before.rlim_max};
    ASSERT_EQ(::prlimit(warden_.Pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    warden_.Start(Shell("exit 0"));
    EXPECT_EQ(Await(What::NotLaunched).code, EMFILE);
    ASSERT_EQ(::prlimit(warden_.Pid(), RLIMIT_NOFILE, &before, nullptr), 0);
    StartShell("exit 5");
    EXPECT_EQ(WEXITSTATUS(Await(What::Ended).waitStatus), 5);
}

TEST(WardenEndTest, DestroyingItEndsEverything)
{
    pid_t service = 0;
    pid_t warden = 0;
    {
        Warden own;
        warden = own.Pid();
        Launch launch;
        launch.command = {"sh", "-c", "trap '' TERM; setsid sleep 1000 & wait"};
        own.Start(launch);
        std::optional<WardenReport> report;
        testing_support::Await("it runs", [&] { return (report = own.Receive()).has_value(); });
        service = report->pid;
        ASSERT_TRUE(IsAlive(service));
        // Also when somebody has stopped it.
        ASSERT_EQ(::kill(warden, SIGSTOP), 0);
    }
    EXPECT_FALSE(IsAlive(service));
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

}  // namespace
}  // namespace kx::velmor::cli
