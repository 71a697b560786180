// What becomes of commands when the process that had them started stands still or ends, and when the one between does.

#include "process/child_process.h"
#include "tests/cli/warden_fixture.h"

#include <signal.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::cli {
namespace {

using testing_support::kPatience;

class WardenDriverTest : public ::testing::Test
{
protected:
    /// Runs `script` in a shell, `$DIR` being `directory_`; returns when it runs.
    void Drive(std::vector<std::string> options, const std::string& script)
    {
        options.insert(options.begin(), WARDEN_DRIVER);
        options.insert(options.end(), {"--", "/bin/sh", "-c", "DIR=" + directory_.Path().string() + "; " + script});
        process::ProcessOptions driver;
        driver.command = std::move(options);
        driver.onLine = [this](const std::string& line) {
            const std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(line);
        };
        driver_ = std::make_unique<process::ChildProcess>(std::move(driver));
        wardenPid_ = static_cast<pid_t>(std::stol(AwaitLine("warden ")));
        servicePid_ = static_cast<pid_t>(std::stol(AwaitLine("launched ")));
    }

    /// What follows `beginning` in the first line that begins so.
    std::string AwaitLine(const std::string& beginning)
    {
        std::string rest;
        testing_support::Await("\"" + beginning + "\" is said", [&] {
            const std::lock_guard<std::mutex> lock(mutex_);
            const auto line = std::find_if(lines_.begin(), lines_.end(),
                                           [&](const std::string& text) { return text.rfind(beginning, 0) == 0; });
            rest = line == lines_.end() ? "" : line->substr(beginning.size());
            return line != lines_.end();
        });
        return rest;
    }

    std::string AwaitText(const std::string& name) const
    {
        std::string text;
        testing_support::Await(name + " is written", [&] {
            text = ReadText(File(name));
            return !text.empty() && text.back() == '\n';
        });
        return text;
    }
    pid_t AwaitPid(const std::string& name) const { return static_cast<pid_t>(std::stol(AwaitText(name))); }
    std::filesystem::path File(const std::string& name) const { return directory_.Path() / name; }

    const testing_support::TemporaryDirectory directory_;
    pid_t wardenPid_ = 0;
    pid_t servicePid_ = 0;

private:
    std::mutex mutex_;
    std::vector<std::string> lines_;

protected:
    std::unique_ptr<process::ChildProcess> driver_;
};

/// Minds no signal, and has somebody left in another session.
const std::string kStubborn =
    "trap '' TERM HUP INT; setsid sh -c 'echo $$ > '$DIR'/stray; sleep 1000; sleep 1000' & "
    "while ! [ -s $DIR/stray ]; do sleep 0.01; done; echo > $DIR/ready; while :; do sleep 0.01; done";

TEST_F(WardenDriverTest, ALeaseThatIsRenewedDoesNotRunOutWithinItsTime)
{
    Drive({"--lease", "600", "900"}, "sleep 1.5; exit 6");
    EXPECT_EQ(AwaitLine("ended "), "exit 6");
}

TEST_F(WardenDriverTest, TheCommandIsAskedToEndWhenTheLeaseRunsOutWhileItsOwnerStandsStill)
{
    Drive({"--lease", "500", "100000"},
          "trap 'echo > $DIR/asked; exit 4' TERM; echo > $DIR/ready; while :; do sleep 0.01; done");
    AwaitText("ready");
    driver_->Pause();
    AwaitDeath(servicePid_);
    AwaitText("asked");
    driver_->Continue();
    EXPECT_EQ(AwaitLine("ended "), "exit 4 lease");
}

TEST_F(WardenDriverTest, EverythingIsKilledBeforeTheLeaseIsAnothersWhileItsOwnerStandsStill)
{
    Drive({"--lease", "500", "700"}, kStubborn);
    AwaitText("ready");
    const pid_t stray = AwaitPid("stray");
    driver_->Pause();
    AwaitDeath(servicePid_);
    AwaitDeath(stray);
    driver_->Continue();
    EXPECT_EQ(AwaitLine("ended "), "signal 9 lease");
}

TEST_F(WardenDriverTest, ACommandThatHearsRolesIsToldOnceWhileItsOwnerStandsStill)
{
    Drive({"--lease", "500", "700", "--hears", "follower - -", File("role")},
          "while read line; do echo \"$line\" >> $DIR/told; [ \"$line\" ]; done <&3");
    driver_->Pause();
    EXPECT_EQ(AwaitText("told"), "follower - -\n");
    EXPECT_EQ(ReadText(File("role")), "follower - -\n");
    EXPECT_TRUE(IsAlive(servicePid_));
    driver_->Kill();
    AwaitDeath(servicePid_);
    EXPECT_EQ(ReadText(File("told")), "follower - -\n");
    testing_support::Await("the role file is removed", [this] { return !std::filesystem::exists(File("role")); });
}

TEST_F(WardenDriverTest, EverythingDiesWithItsOwner)
{
    Drive({}, kStubborn);
    AwaitText("ready");
    const pid_t stray = AwaitPid("stray");
    driver_->Kill();
    AwaitDeath(wardenPid_);
    // The warden goes last.
    EXPECT_FALSE(IsAlive(servicePid_));
    EXPECT_FALSE(IsAlive(stray));
}

TEST_F(WardenDriverTest, EverythingDiesWithAnOwnerThatStandsStill)
{
    Drive({}, kStubborn);
    AwaitText("ready");
    const pid_t stray = AwaitPid("stray");
    driver_->Pause();
    driver_->Kill();
    AwaitDeath(wardenPid_);
    EXPECT_FALSE(IsAlive(servicePid_));
    EXPECT_FALSE(IsAlive(stray));
}

TEST_F(WardenDriverTest, EverythingDiesWithTheWarden)
{
    Drive({"--hears", "follower - -", File("role")}, kStubborn);
    AwaitText("ready");
    const pid_t stray = AwaitPid("stray");
    ASSERT_EQ(::kill(wardenPid_, SIGKILL), 0);
    AwaitLine("gone");
    EXPECT_FALSE(IsAlive(servicePid_));
    EXPECT_FALSE(IsAlive(stray));
    EXPECT_EQ(driver_->AwaitExit(kPatience), 0);
}

TEST_F(WardenDriverTest, TheWardenMindsNoSignal)
{
    Drive({}, "echo > $DIR/ready; exec sleep 1000");
    AwaitText("ready");
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGALRM, SIGPIPE, SIGTSTP})
    {
        ASSERT_EQ(::kill(wardenPid_, signal), 0);
    }
    ASSERT_EQ(::kill(servicePid_, SIGTERM), 0);
    EXPECT_EQ(AwaitLine("ended "), "signal 15");
    EXPECT_EQ(driver_->AwaitExit(kPatience), 0);
}

}  // namespace
}  // namespace kx::velmor::cli
