// What a service manager is told.
#include "tests/cli/program_fixture.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace kx::velmor::cli {
namespace {

using ::testing::Contains;
using ::testing::Not;

/// The manager's end of NOTIFY_SOCKET.
class Manager
{
public:
    explicit Manager(const std::filesystem::path& path)
        : path_(path), socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.string().copy(address.sun_path, sizeof address.sun_path - 1);
        if (socket_ < 0 || ::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        {
            throw std::system_error(errno, std::generic_category(), "cannot make " + path_.string());
        }
    }
    ~Manager() { ::close(socket_); }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    std::string Path() const { return path_; }

    /// The assignments that it has been sent up to now, in order.
    std::vector<std::string> Heard()
    {
        std::array<char, 4096> buffer{};
        ssize_t length = 0;
        while ((length = ::recv(socket_, buffer.data(), buffer.size(), 0)) > 0)
        {
            std::istringstream lines(std::string(buffer.data(), static_cast<std::size_t>(length)));
            for (std::string line; std::getline(lines, line);)
            {
                heard_.push_back(line);
            }
        }
        return heard_;
    }

    std::size_t Count(const std::string& line)
    {
        const std::vector<std::string> heard = Heard();
        return static_cast<std::size_t>(std::count(heard.begin(), heard.end(), line));
    }

    void AwaitHears(const std::string& line, std::size_t count = 1)
    {
        Await("the manager is told " + line, [&] { return Count(line) >= count; });
    }

private:
    const std::filesystem::path path_;
    const int socket_;
    std::vector<std::string> heard_;
};

class RunNotify : public ProgramFixture
{
protected:
    RunNotify() : manager_(Directory() / "notify") {}

    Surroundings Managed(const std::map<std::string, std::string>& more = {}) const
    {
        Surroundings surroundings;
        surroundings.environment = more;
        surroundings.environment["NOTIFY_SOCKET"] = manager_.Path();
        return surroundings;
    }

    void EndInOrder(RunningProgram& program)
    {
        program.Signal(SIGTERM);
        EXPECT_EQ(program.AwaitExit(), 0);
    }

    Manager manager_;
};

TEST_F(RunNotify, SaysThatItIsReadyWhenItLeads)
{
    RunningProgram& program = Join({}, Service(), Managed());
    const Record start = AwaitRecord("start");
    manager_.AwaitHears("READY=1");
    manager_.AwaitHears("STATUS=leader, epoch " + std::to_string(start.epoch));
    EXPECT_THAT(manager_.Heard(), Not(Contains("STOPPING=1")));
    EndInOrder(program);
    EXPECT_EQ(manager_.Count("STOPPING=1"), 1U);
    EXPECT_EQ(manager_.Count("READY=1"), 1U);
    EXPECT_THAT(manager_.Heard(), Not(Contains("WATCHDOG=1")));
}

TEST_F(RunNotify, SaysThatItIsReadyWhenItIsNextAndNotSooner)
{
    RunningProgram& first = Join({}, Service());
    RunningProgram& second = Join({}, Service());
    RunningProgram& third = Join({}, Service(), Managed());
    AwaitRecord("start");
    manager_.AwaitHears("STATUS=follower");
    EXPECT_THAT(manager_.Heard(), Not(Contains("READY=1")));
    second.Signal(SIGTERM);
    manager_.AwaitHears("READY=1");
    manager_.AwaitHears("STATUS=next leader");
    EXPECT_EQ(second.AwaitExit(), OfSignal(SIGTERM));
    third.Signal(SIGTERM);
    EXPECT_EQ(third.AwaitExit(), OfSignal(SIGTERM));
    EXPECT_EQ(manager_.Count("STOPPING=1"), 1U);
    EndInOrder(first);
}

TEST_F(RunNotify, SaysThatItStopsWhenItBeginsToAndNotWhenItIsOver)
{
    RunningProgram& program = Join({}, Service({"linger=3000"}), Managed());
    AwaitRecord("start");
    program.Signal(SIGTERM);
    manager_.AwaitHears("STOPPING=1");
    EXPECT_TRUE(Records("end").empty());
    EXPECT_EQ(program.AwaitExit(), 0);
}

TEST_F(RunNotify, ShowsThatItLivesWhenAsked)
{
    RunningProgram& program = Join({}, Service(), Managed({{"WATCHDOG_USEC", "200000"}, {"WATCHDOG_PID", "$$"}}));
    manager_.AwaitHears("WATCHDOG=1", 5);
    AwaitRecord("start");
    EndInOrder(program);
}

TEST_F(RunNotify, ShowsThatItLivesWhileThereIsNoServer)
{
    server_.Kill();
    RunningProgram& program = Run({}, Service(), Managed({{"WATCHDOG_USEC", "200000"}}));
    manager_.AwaitHears("WATCHDOG=1", 5);
    EXPECT_THAT(manager_.Heard(), Not(Contains("READY=1")));
    program.Signal(SIGTERM);
    EXPECT_EQ(program.AwaitExit(), OfSignal(SIGTERM));
}

TEST_F(RunNotify, LeavesTheWatchdogOfAnotherProcessAlone)
{
    RunningProgram& program = Join({}, Service(), Managed({{"WATCHDOG_USEC", "100000"}, {"WATCHDOG_PID", "1"}}));
    AwaitRecord("beat", 100);
    EXPECT_THAT(manager_.Heard(), Not(Contains("WATCHDOG=1")));
    EndInOrder(program);
}

TEST_F(RunNotify, RunsWithoutAManagerThatHearsIt)
{
    Surroundings surroundings;
    surroundings.environment = {{"NOTIFY_SOCKET", Directory() / "nobody-listens"}};
    RunningProgram& program = Join({}, Service({"after=100", "status=2"}), surroundings);
    EXPECT_EQ(program.AwaitExit(), 2);
}

}  // namespace
}  // namespace kx::velmor::cli
