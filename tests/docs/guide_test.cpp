// The service of the guide, run as the guide says.

#include "process/child_process.h"
#include "tests/support/await.h"
#include "tests/support/zookeeper_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

namespace kx::velmor::testing_support {
namespace {

/// The service as it was built with this tree, or in another way.
std::string Program()
{
    const char* const other = std::getenv("VELMOR_GUIDE_PROGRAM");
    return other != nullptr ? other : GUIDE_PROGRAM;
}

/// One process of the service, and what it has said.
class Reports
{
public:
    explicit Reports(const std::string& servers)
        : process_({{Program(), servers}, {}, [this](const std::string& line) { OnLine(line); }})
    {}

    bool HasSaid(const std::string& line, int times = 1)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return std::count(lines_.begin(), lines_.end(), line) >= times;
    }

    process::ChildProcess& Process() { return process_; }

private:
    void OnLine(const std::string& line)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(line);
    }

    std::mutex mutex_;
    std::vector<std::string> lines_;
    /// Goes first, since it calls.
    process::ChildProcess process_;
};

TEST(Guide, TheServiceIsTakenOverByTheNextLeaderWhenTheLeaderIsEnded)
{
    ZooKeeperServer server;
    server.Start();
    Reports first(server.Address());
    Await("the first one works", [&] { return first.HasSaid("leader") && first.HasSaid("working"); });
    Reports second(server.Address());
    Await("the second one is next", [&] { return second.HasSaid("next leader"); });
    EXPECT_FALSE(second.HasSaid("working"));

    first.Process().Terminate(kPatience);

    EXPECT_EQ(first.Process().AwaitExit(kPatience), EXIT_SUCCESS);
    Await("the first one has stopped", [&] { return first.HasSaid("stopped"); });
    Await("the second one works", [&] { return second.HasSaid("leader") && second.HasSaid("working"); });
}

TEST(Guide, TheServiceStartsBeforeItsServer)
{
    ZooKeeperServer server;
    server.Start();
    server.Stop();
    Reports reports(server.Address());
    Await("it tries to join", [&] { return reports.HasSaid("joining"); });

    server.Start();

    Await("it works", [&] { return reports.HasSaid("working"); });
}

TEST(Guide, TheServiceLosesAndRegainsTheLeadThroughARestartOfItsServer)
{
    ZooKeeperServer server;
    server.Start();
    Reports reports(server.Address());
    Await("it works", [&] { return reports.HasSaid("working"); });

    server.Kill();
    Await("it leads no more", [&] { return reports.HasSaid("joining", 2); });
    server.Start();

    Await("it leads again", [&] { return reports.HasSaid("leader", 2); });
}

}  // namespace
}  // namespace kx::velmor::testing_support
