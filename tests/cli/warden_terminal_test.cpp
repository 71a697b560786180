// Commands in the foreground of a terminal.

#include "tests/cli/warden_fixture.h"

#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <string>
#include <system_error>
#include <vector>

namespace kx::velmor::cli {
namespace {

using testing_support::kPatience;

constexpr const char* kCtrlC = "\x03";
constexpr const char* kCtrlZ = "\x1a";

/// The driver in a terminal of its own, as its session's leader and in its foreground.
class WardenTerminalTest : public ::testing::Test
{
protected:
    ~WardenTerminalTest() override
    {
        if (driver_ > 0)
        {
            ::kill(driver_, SIGKILL);
            ::waitpid(driver_, nullptr, 0);
        }
        ::close(terminal_);
    }

    /// Runs `script` in a shell.
    void Drive(const std::string& script)
    {
        std::vector<std::string> words{WARDEN_DRIVER, "--", "/bin/sh", "-c", script};
        std::vector<char*> arguments;
        for (std::string& word : words)
        {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        driver_ = ::forkpty(&terminal_, nullptr, nullptr, nullptr);
        if (driver_ == 0)
        {
            ::execv(WARDEN_DRIVER, arguments.data());
            ::_exit(EXIT_FAILURE);
        }
        ASSERT_GT(driver_, 0);
    }

    void Type(const std::string& text) const
    {
        ASSERT_EQ(::write(terminal_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    /// Waits until it is there behind what was awaited before; what follows up to the line's end.
    std::string AwaitScreen(const std::string& text)
    {
        std::size_t place = std::string::npos;
        std::size_t end = std::string::npos;
        testing_support::Await(
            "\"" + text + "\" is on the screen",
            [&] {
                Read();
                place = screen_.find(text, seen_);
                end = place == std::string::npos ? place : screen_.find('\r', place);
                return end != std::string::npos;
            },
            kPatience, [&] { return "the screen: " + screen_; });
        seen_ = end;
        return screen_.substr(place + text.size(), end - place - text.size());
    }
    pid_t AwaitPid(const std::string& text) { return static_cast<pid_t>(std::stol(AwaitScreen(text))); }

    void AwaitExit()
    {
        int status = -1;
        testing_support::Await("the driver ends", [&] {
            Read();
            return ::waitpid(driver_, &status, WNOHANG) == driver_;
        });
        driver_ = 0;
        EXPECT_EQ(status, 0);
    }

    int terminal_ = -1;

private:
    void Read()
    {
        constexpr std::size_t kRoom = 4096;
        std::array<char, kRoom> news{};
        pollfd awaited{terminal_, POLLIN, 0};
        if (::poll(&awaited, 1, 0) > 0)
        {
            const ssize_t size = ::read(terminal_, news.data(), news.size());
            screen_.append(news.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
        }
    }

    pid_t driver_ = 0;
    std::string screen_;
    std::size_t seen_ = 0;
};

TEST_F(WardenTerminalTest, ACommandReadsFromTheTerminal)
{
    Drive("echo ready; read line; echo \"got $line\"");
    AwaitScreen("ready");
    Type("hello\n");
    EXPECT_EQ(AwaitScreen("got "), "hello");
    AwaitScreen("ended exit 0");
    EXPECT_EQ(AwaitScreen("foreground "), "yes");
    AwaitExit();
}

TEST_F(WardenTerminalTest, CtrlCReachesTheCommandAlone)
{
    Drive("trap 'echo interrupted; exit 3' INT; echo ready; while :; do sleep 0.01; done");
    AwaitScreen("ready");
    Type(kCtrlC);
    AwaitScreen("interrupted");
    AwaitScreen("ended exit 3");
    EXPECT_EQ(AwaitScreen("foreground "), "yes");
    AwaitExit();
}

TEST_F(WardenTerminalTest, CtrlZIsUndone)
{
    Drive("echo ready; read one; echo \"got $one\"; read two; echo \"got $two\"");
    AwaitScreen("ready");
    Type(kCtrlZ);
    Type("first\n");
    EXPECT_EQ(AwaitScreen("got "), "first");
    Type(kCtrlZ);
    Type("second\n");
    EXPECT_EQ(AwaitScreen("got "), "second");
    AwaitScreen("ended exit 0");
    AwaitExit();
}

TEST_F(WardenTerminalTest, TheForegroundComesBackFromOneThatIsKilled)
{
    Drive("trap '' TERM; echo ready; while :; do sleep 0.01; done");
    const pid_t service = AwaitPid("launched ");
    EXPECT_EQ(::tcgetpgrp(terminal_), service);
    ASSERT_EQ(::kill(service, SIGKILL), 0);
    AwaitScreen("ended signal 9");
    EXPECT_EQ(AwaitScreen("foreground "), "yes");
    AwaitExit();
}

TEST_F(WardenTerminalTest, TheForegroundComesBackFromACommandWhoseWardenIsKilled)
{
    Drive("echo ready; sleep 1000");
    const pid_t warden = AwaitPid("warden ");
    AwaitScreen("ready");
    ASSERT_EQ(::kill(warden, SIGKILL), 0);
    AwaitScreen("gone");
    EXPECT_EQ(AwaitScreen("foreground "), "yes");
    AwaitExit();
}

}  // namespace
}  // namespace kx::velmor::cli
