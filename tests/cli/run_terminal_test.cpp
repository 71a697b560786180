// `velmor run` as people type it: in a terminal, under a shell that knows of jobs.
#include "tests/cli/program_fixture.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>
#include <vector>

namespace kx::velmor::cli {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

const std::string kControlC = "\x03";
const std::string kControlBackslash = "\x1c";
const std::string kControlZ = "\x1a";

/// The side of a terminal on which people sit.
class Terminal
{
public:
    Terminal() : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK))
    {
        std::array<char, 64> name{};
        if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0 ||
            ::ptsname_r(master_, name.data(), name.size()) != 0)
        {
            throw std::system_error(errno, std::generic_category(), "cannot make a terminal");
        }
        name_ = name.data();
    }
    /// Hangs up.
    ~Terminal() { ::close(master_); }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// The side of programs.
    std::string Name() const { return name_; }

    void Type(const std::string& text) const
    {
        if (::write(master_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        {
            throw std::system_error(errno, std::generic_category(), "cannot type");
        }
    }

    /// All that has been shown up to now, what was typed included.
    const std::string& Shown()
    {
        std::array<char, 4096> buffer{};
        ssize_t length = 0;
        while ((length = ::read(master_, buffer.data(), buffer.size())) > 0)
        {
            shown_.append(buffer.data(), static_cast<std::size_t>(length));
        }
        return shown_;
    }

    void AwaitShows(const std::string& part)
    {
        Await(
            "the terminal shows \"" + part + "\"", [&] { return Shown().find(part) != std::string::npos; }, kPatience,
            [&] { return "it shows:\n" + Shown(); });
    }

private:
    const int master_;
    std::string name_;
    std::string shown_;
};

class RunTerminal : public ProgramFixture
{
protected:
    RunTerminal()
        : shell_({{"sh", "-c", "exec setsid --fork --wait --ctty bash --norc --noprofile --noediting -i <$0 >$0 2>&1",
                   terminal_.Name()},
                  Directory() / "shell",
                  {}})
    {
        terminal_.Type("unset HISTFILE; PS1=; ulimit -c 0; export RUN_TEST_OF='" + Directory().string() + "' HOME='" +
                       Directory().string() + "'; echo begin$((0))\n");
        terminal_.AwaitShows("begin0");
    }

    void TearDown() override
    {
        // Nothing that runs in the terminal outlives it.
        for (const Record& start : Records("start"))
        {
            if (Lives(start.process))
            {
                ADD_FAILURE() << "process " << start.process << " is left in the terminal";
            }
        }
        terminal_.Type("exit\n");
        EXPECT_TRUE(shell_.AwaitExit(kPatience)) << terminal_.Shown();
        ProgramFixture::TearDown();
        if (HasFailure())
        {
            std::cerr << "== the terminal shows\n" << terminal_.Shown();
        }
    }

    /// What one types to run the service under the program.
    std::string Typed(const std::string& options, const std::vector<std::string>& service = {}) const
    {
        return std::string(VELMOR_PROGRAM) + " run --servers " + server_.Address() + " --election " + kElection + " " +
               options + " -- " + ServiceForShell(service);
    }

    /// Types it, and the question for the status after it.
    void Run(const std::string& options, const std::vector<std::string>& service = {})
    {
        terminal_.Type(Typed(options, service) + "; echo ended=$?\n");
    }

    Terminal terminal_;
    process::ChildProcess shell_;
};

TEST_F(RunTerminal, EndsWithTheCommandOnControlC)
{
    Run("");
    AwaitRecord("start");
    terminal_.Type(kControlC);
    terminal_.AwaitShows("ended=130");
    EXPECT_THAT(Records("signal", "2"), SizeIs(1));
    EXPECT_THAT(Queue(), IsEmpty());
}

TEST_F(RunTerminal, EndsWithTheCommandOnControlCWhateverIsToBeRestarted)
{
    Run("--restart always");
    AwaitRecord("start");
    terminal_.Type(kControlC);
    terminal_.AwaitShows("ended=130");
    EXPECT_THAT(Records("start"), SizeIs(1));
}

TEST_F(RunTerminal, LeavesACommandToEndInItsOwnWayOnControlC)
{
    Run("", {"linger=300", "status=12"});
    AwaitRecord("start");
    terminal_.Type(kControlC);
    terminal_.AwaitShows("ended=12");
    EXPECT_THAT(Records("end"), SizeIs(1));
}

TEST_F(RunTerminal, EndsWithTheCommandOnControlBackslash)
{
    Run("");
    AwaitRecord("start");
    terminal_.Type(kControlBackslash);
    terminal_.AwaitShows("ended=131");
}

TEST_F(RunTerminal, EndsOnControlCWhileItWaitsForItsTurn)
{
    RunningProgram& leader = Join({}, Service());
    AwaitRecord("start");
    Run("");
    AwaitQueue(2);
    terminal_.Type(kControlC);
    terminal_.AwaitShows("ended=130");
    EXPECT_THAT(Queue(), SizeIs(1));
    leader.Signal(SIGTERM);
    EXPECT_EQ(leader.AwaitExit(), 0);
}

TEST_F(RunTerminal, LetsTheCommandReadWhatIsTyped)
{
    Run("", {"input"});
    AwaitRecord("start");
    terminal_.Type("what was typed\n");
    AwaitRecord("input", 1, "what was typed");
    terminal_.AwaitShows("heard what was typed");
    terminal_.Type(kControlC);
    terminal_.AwaitShows("ended=130");
}

TEST_F(RunTerminal, GivesTheTerminalBackWhenTheCommandHasEnded)
{
    Run("", {"after=100", "status=7"});
    terminal_.AwaitShows("ended=7");
    terminal_.Type("read line; echo \"read<$line>\"\n");
    terminal_.Type("typed afterwards\n");
    terminal_.AwaitShows("read<typed afterwards>");
}

TEST_F(RunTerminal, KeepsTheTerminalForTheCommandThatRunsAgain)
{
    Run("--restart always", {"input", "after=1500"});
    AwaitRecord("start", 2);
    terminal_.Type("to the second one\n");
    AwaitRecord("input", 1, "to the second one");
    terminal_.Type(kControlC);
    terminal_.AwaitShows("ended=130");
}

TEST_F(RunTerminal, RunsOnThroughControlZ)
{
    Run("");
    const Record start = AwaitRecord("start");
    terminal_.Type(kControlZ);
    AwaitBeat(start.process);
    terminal_.Type(kControlC);
    terminal_.AwaitShows("ended=130");
}

TEST_F(RunTerminal, LeavesTheTerminalAloneInTheBackground)
{
    terminal_.Type(Typed("") + " &\n");
    const Record start = AwaitRecord("start");
    terminal_.Type("echo still$((1 + 1))\n");
    terminal_.AwaitShows("still2");
    AwaitBeat(start.process);
    terminal_.Type("kill %1; wait %1; echo ended=$?\n");
    terminal_.AwaitShows("ended=0");
    EXPECT_THAT(Queue(), IsEmpty());
}

TEST_F(RunTerminal, TakesTheCommandWithItWhenTheTerminalsProgramIsKilled)
{
    Run("");
    const Record start = AwaitRecord("start");
    // Its parent is the warden, whose parent is the program.
    const pid_t warden = static_cast<pid_t>(std::stol(start.text));
    const std::string status = ReadFile("/proc/" + std::to_string(warden) + "/stat");
    const pid_t program = static_cast<pid_t>(std::stol(status.substr(status.rfind(')') + 4)));
    ASSERT_EQ(::kill(program, SIGKILL), 0);
    terminal_.AwaitShows("ended=137");
    AwaitGone(start.process);
    terminal_.Type("echo still$((1 + 1))\n");
    terminal_.AwaitShows("still2");
}

}  // namespace
}  // namespace kx::velmor::cli
