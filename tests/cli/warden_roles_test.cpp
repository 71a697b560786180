#include "tests/cli/warden_fixture.h"

#include <sys/wait.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace kx::velmor::cli {
namespace {

using namespace std::chrono_literals;
using testing_support::kPatience;

class WardenRolesTest : public WardenTest
{
protected:
    /// Writes each line into "told" as it comes, and ends with status 9 when no more can come.
    Launch Listener() const
    {
        Launch launch = Shell("while read line; do echo \"$line\" >> $DIR/told; done <&$VELMOR_ROLE_FD; exit 9");
        launch.hearsRoles = true;
        return launch;
    }

    void AwaitTold(const std::string& text) const
    {
        testing_support::Await(text + " is told", [&] { return ReadText(File("told")) == text; });
    }

    /// Also lets everything be done that was asked for before.
    void AwaitHook()
    {
        Launch hook = Shell("exit 0");
        hook.kind = Launch::Kind::Hook;
        Start(hook);
        Await(What::HookEnded);
    }
};

TEST_F(WardenRolesTest, TellsLinesInTheirOrder)
{
    Start(Listener());
    warden_.Tell("joining - -");
    warden_.Tell("follower - c-0000000042");
    warden_.Tell("leader 4294967301 c-0000000042");
    AwaitTold("joining - -\nfollower - c-0000000042\nleader 4294967301 c-0000000042\n");
}

TEST_F(WardenRolesTest, ReportsEachLineThatItHasPassedOn)
{
    Start(Listener());
    warden_.Tell("joining - -");
    warden_.Tell("leader 1 c-0");
    AwaitHook();
    EXPECT_EQ(told_, (std::vector<std::string>{"joining - -", "leader 1 c-0"}));
    EXPECT_EQ(ReadText(File("told")), "joining - -\nleader 1 c-0\n");
}

TEST_F(WardenRolesTest, PassesNothingOnForALeaseThatIsOver)
{
    Launch launch = Listener();
    launch.lineWhenLeaseRunsOut = "joining - -";
    Start(launch);
    warden_.SetLease(BootClock::now() - 1s, BootClock::now() - 1s);
    warden_.Tell("leader 1 c-0");
    AwaitHook();
    warden_.ClearLease();
    warden_.Tell("follower - c-0");
    testing_support::Await("the last line is told",
                           [&] { return ReadText(File("told")).find("follower - c-0\n") != std::string::npos; });
    EXPECT_EQ(ReadText(File("told")).find("leader"), std::string::npos);
}

TEST_F(WardenRolesTest, TellsNothingToACommandThatDoesNotHear)
{
    StartShell("echo \"${VELMOR_ROLE_FD-none}\" > $DIR/number; sleep 1000");
    warden_.Tell("joining - -");
    EXPECT_EQ(AwaitText("number"), "none\n");
    AwaitHook();
}

TEST_F(WardenRolesTest, KeepsTheLastLineOfThoseThatWereNotReadInTime)
{
    Launch launch = Shell("while ! [ -e $DIR/go ]; do sleep 0.01; done; exec cat <&3 > $DIR/told");
    launch.hearsRoles = true;
    Start(launch);
    // More than a pipe holds.
    constexpr int kLines = 20'000;
    for (int i = 0; i < kLines; ++i)
    {
        warden_.Tell("follower - " + std::to_string(i));
        if (i % 100 == 99)
        {
            AwaitHook();
        }
    }
    std::filesystem::create_directory(File("go"));
    const std::string last = "follower - " + std::to_string(kLines - 1) + "\n";
    testing_support::Await("the last line is told", [&] {
        const std::string told = ReadText(File("told"));
        return told.size() > last.size() && told.substr(told.size() - last.size()) == last;
    });
    // What came through before is what was told first, without a gap.
    std::istringstream told(ReadText(File("told")));
    std::vector<std::string> lines;
    for (std::string line; std::getline(told, line);)
    {
        lines.push_back(line);
    }
    ASSERT_LT(lines.size(), static_cast<std::size_t>(kLines));
    for (std::size_t i = 0; i + 1 < lines.size(); ++i)
    {
        ASSERT_EQ(lines[i], "follower - " + std::to_string(i));
    }
}

TEST_F(WardenRolesTest, GoesOnWhenTheCommandHasClosedTheDescriptor)
{
    Launch launch = Shell("exec 3<&-; echo > $DIR/ready; while ! [ -e $DIR/go ]; do sleep 0.01; done; exit 4");
    launch.hearsRoles = true;
    Start(launch);
    AwaitText("ready");
    warden_.Tell("joining - -");
    warden_.Tell("follower - -");
    AwaitHook();
    std::filesystem::create_directory(File("go"));
    EXPECT_EQ(WEXITSTATUS(Await(What::Ended).waitStatus), 4);
}

TEST_F(WardenRolesTest, TheRoleFileHoldsAWholeLineAtAnyTimeAndGoesWithTheCommand)
{
    Launch launch = Listener();
    launch.roleFile = File("role");
    Start(launch);
    constexpr int kLines = 200;
    std::set<std::string> allowed;
    bool written = false;
    for (int i = 0; i < kLines; ++i)
    {
        const std::string line = "follower - " + std::string(static_cast<std::size_t>(i), 'x');
        allowed.insert(line + "\n");
        warden_.Tell(line);
        const std::string text = ReadText(launch.roleFile);
        // The file may not be there yet, and appear right after it was looked for.
        written = written || !text.empty();
        EXPECT_TRUE(allowed.count(text) == 1 || !written) << text;
    }
    testing_support::Await("the last line is there", [&] { return ReadText(launch.roleFile) == *allowed.rbegin(); });
    warden_.End(kPatience);
    Await(What::Ended);
    EXPECT_FALSE(std::filesystem::exists(launch.roleFile));
    // Nor has it left anything else.
    for (const auto& entry : std::filesystem::directory_iterator(Directory()))
    {
        EXPECT_EQ(entry.path().filename(), "told");
    }
}

TEST_F(WardenRolesTest, ARoleFileThatCannotBeWrittenKeepsNobodyFromHearing)
{
    Launch launch = Listener();
    launch.roleFile = File("none") / "role";
    Start(launch);
    warden_.Tell("joining - -");
    AwaitTold("joining - -\n");
}

TEST_F(WardenRolesTest, TellsThatTheLeaseHasRunOutAndLeavesTheCommandAlone)
{
    Launch launch = Listener();
    launch.lineWhenLeaseRunsOut = "joining - -";
    warden_.SetLease(BootClock::now() + 1000s, BootClock::now() + 1000s);
    const pid_t pid = Start(launch);
    warden_.Tell("leader 1 c-0");
    warden_.SetLease(BootClock::now() + 10ms, BootClock::now() + 20ms);
    AwaitTold("leader 1 c-0\njoining - -\n");
    AwaitHook();
    EXPECT_TRUE(IsAlive(pid));
    // Another lease is another thing to be told of, in its time.
    warden_.SetLease(BootClock::now() + 1000s, BootClock::now() + 1000s);
    warden_.Tell("leader 2 c-0");
    AwaitTold("leader 1 c-0\njoining - -\nleader 2 c-0\n");
    warden_.SetLease(BootClock::now(), BootClock::now());
    AwaitTold("leader 1 c-0\njoining - -\nleader 2 c-0\njoining - -\n");
    EXPECT_TRUE(IsAlive(pid));
}

class WardenLeaseTest : public WardenTest
{};

TEST_F(WardenLeaseTest, EndsTheCommandWhenALeaseIsWrittenThatRunsOut)
{
    StartShell("trap 'exit 3' TERM; echo > $DIR/ready; while :; do sleep 0.01; done");
    AwaitText("ready");
    warden_.SetLease(BootClock::now() + 20ms, BootClock::time_point::max());
    const WardenReport ended = Await(What::Ended);
    EXPECT_EQ(WEXITSTATUS(ended.waitStatus), 3);
    EXPECT_TRUE(ended.leaseRanOut);
}

TEST_F(WardenLeaseTest, EndsTheCommandWhenALeaseIsMadeShorter)
{
    warden_.SetLease(BootClock::now() + 1000s, BootClock::now() + 1000s);
    StartShell("sleep 1000");
    warden_.SetLease(BootClock::now() + 20ms, BootClock::now() + 1000s);
    EXPECT_TRUE(Await(What::Ended).leaseRanOut);
}

TEST_F(WardenLeaseTest, KillsAnEndingCommandWhenTheLeaseIsAnothers)
{
    warden_.SetLease(BootClock::now() + 1000s, BootClock::now() + 1000s);
    StartShell("trap '' TERM; echo > $DIR/ready; while :; do sleep 0.01; done");
    AwaitText("ready");
    warden_.End(1000s);
    warden_.SetLease(BootClock::now() + 1000s, BootClock::now() + 20ms);
    const WardenReport ended = Await(What::Ended);
    EXPECT_EQ(WTERMSIG(ended.waitStatus), SIGKILL);
    EXPECT_TRUE(ended.leaseRanOut);
}

TEST_F(WardenLeaseTest, KillsWhoIsLeftWhenTheLeaseIsAnothers)
{
    warden_.SetLease(BootClock::now() + 1000s, BootClock::now() + 1000s);
    Launch launch = Shell(
        "sh -c 'trap \"\" TERM; echo > $DIR/ready; sleep 1000; sleep 1000' & "
        "while ! [ -e $DIR/ready ]; do sleep 0.01; done; echo > $DIR/done; exit 6");
    launch.grace = 1000s;
    Start(launch);
    AwaitText("done");
    warden_.SetLease(BootClock::now() + 10ms, BootClock::now() + 20ms);
    EXPECT_EQ(WEXITSTATUS(Await(What::Ended).waitStatus), 6);
}

TEST_F(WardenLeaseTest, ALeaseThatIsClearedDoesNotRunOutWithinItsTime)
{
    StartShell("sleep 0.3; exit 3");
    warden_.SetLease(BootClock::now() + 100ms, BootClock::now() + 100ms);
    warden_.ClearLease();
    const WardenReport ended = Await(What::Ended);
    EXPECT_EQ(WEXITSTATUS(ended.waitStatus), 3);
    EXPECT_FALSE(ended.leaseRanOut);
}

TEST_F(WardenLeaseTest, StartsNothingUnderALeaseThatHasRunOut)
{
    warden_.SetLease(BootClock::now(), BootClock::now() + 1000s);
    warden_.Start(Shell("echo > $DIR/started"));
    const WardenReport report = Await(What::NotLaunched);
    EXPECT_EQ(report.code, ECANCELED);
    EXPECT_TRUE(report.leaseRanOut);
    // What does not lead may run all the same.
    Launch hook = Shell("exit 0");
    hook.kind = Launch::Kind::Hook;
    Start(hook);
    Await(What::HookEnded);
    EXPECT_FALSE(std::filesystem::exists(File("started")));
}

}  // namespace
}  // namespace kx::velmor::cli
