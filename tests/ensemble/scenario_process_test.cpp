// Processes with members in them: stopped for longer than a session, without descriptors, and ended in odd ways.
#include "process/child_process.h"
#include "tests/ensemble/scenario_fixture.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kx::velmor::testing_support {
namespace {

using process::ChildProcess;
using std::chrono::milliseconds;
using ::testing::_;
using ::testing::ElementsAre;
using ::testing::SizeIs;

/// A member in a process of its own, behind a network of its own.
class ProcessMember
{
public:
    ProcessMember(const std::string& mode, std::shared_ptr<Network> network, milliseconds sessionTimeout)
        : network_(std::move(network)),
          child_({{SCENARIO_PROCESS, mode, network_->Addresses(), kElection, std::to_string(sessionTimeout.count())},
                  {},
                  [this](const std::string& line) {
                      const std::lock_guard<std::mutex> lock(mutex_);
                      lines_.push_back(line);
                  }})
    {}

    void AwaitLine(const std::string& line) const
    {
        Await("the process says \"" + line + "\"", [&] {
            const std::lock_guard<std::mutex> lock(mutex_);
            return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
        });
    }

    /// Lets the process open no more descriptors.
    void FillDescriptorTable()
    {
        // The standard streams have the first three. Not less, or it could not even wait for two that it has.
        constexpr rlim_t kFull = 3;
        LimitDescriptors(kFull);
    }
    void EmptyDescriptorTable() { LimitDescriptors(before_.rlim_cur); }

    Network& Connections() { return *network_; }
    ChildProcess& Process() { return child_; }

private:
    void LimitDescriptors(rlim_t limit)
    {
        rlimit now{};
        if (::prlimit(child_.Pid(), RLIMIT_NOFILE, nullptr, &now) != 0)
        {
            throw std::runtime_error("prlimit");
        }
        if (before_.rlim_cur == 0)
        {
            before_ = now;
        }
        now.rlim_cur = limit;
        if (::prlimit(child_.Pid(), RLIMIT_NOFILE, &now, nullptr) != 0)
        {
            throw std::runtime_error("prlimit");
        }
    }

    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    rlimit before_{};
    const std::shared_ptr<Network> network_;
    ChildProcess child_;
};

class ProcessScenario : public ScenarioFixture
{};

TEST_F(ProcessScenario, StoppedForLongerThanItsSessionItJoinsAtTheBackWhenItGoesOn)
{
    ProcessMember frozen("stay", MakeNetwork(), milliseconds(1'500));
    frozen.AwaitLine("joined");
    JoinMany(2);
    EXPECT_TRUE(members_[0].IsNext());
    frozen.Process().Pause();
    members_[0].AwaitLeads();
    members_[1].AwaitIsNext();
    EXPECT_THAT(Queue(), SizeIs(2));
    frozen.Process().Continue();
    frozen.AwaitLine("joined again");
    EXPECT_THAT(Queue(), ElementsAre(members_[0].candidate->Name(), members_[1].candidate->Name(), _));
    frozen.Process().Terminate(kPatience);
    EXPECT_EQ(frozen.Process().AwaitExit(kPatience), 0);
    AwaitWhole();
}

TEST_F(ProcessScenario, FullDescriptorTableHurtsNobodyWhoIsConnected)
{
    JoinMany(2);
    ProcessMember full("stay", MakeNetwork(), milliseconds(5'000));
    full.AwaitLine("joined");
    full.FillDescriptorTable();
    members_[0].Leave();
    full.AwaitLine("next");
    members_[1].Leave();
    full.AwaitLine("leads");
    full.EmptyDescriptorTable();
    full.Process().Terminate(kPatience);
    EXPECT_EQ(full.Process().AwaitExit(kPatience), 0);
    JoinMany(1);
    AwaitWhole();
}

TEST_F(ProcessScenario, FullDescriptorTableKeepsFromReconnectingAndFromNothingAfterwards)
{
    JoinMany(1);
    ProcessMember full("stay", MakeNetwork(), milliseconds(5'000));
    full.AwaitLine("joined");
    Proxy& proxy = full.Connections().To();
    full.FillDescriptorTable();
    const std::size_t accepted = proxy.Accepted();
    proxy.Cut();
    members_[0].Leave();
    // Several attempts later there still is no connection.
    std::this_thread::sleep_for(milliseconds(500));
    EXPECT_EQ(proxy.Accepted(), accepted);
    EXPECT_TRUE(full.Process().Running());
    full.EmptyDescriptorTable();
    full.AwaitLine("leads");
    EXPECT_EQ(proxy.Accepted(), accepted + 1);
    full.Process().Terminate(kPatience);
    EXPECT_EQ(full.Process().AwaitExit(kPatience), 0);
    JoinMany(1);
    AwaitWhole();
}

TEST_F(ProcessScenario, FullDescriptorTableOutlivesTheSessionAndTheNextOneJoins)
{
    JoinMany(1);
    ProcessMember full("stay", MakeNetwork(), milliseconds(1'000));
    full.AwaitLine("joined");
    full.FillDescriptorTable();
    full.Connections().Cut();
    Await("its session is over", [this] { return Queue().size() == 1; });
    full.EmptyDescriptorTable();
    full.AwaitLine("joined again");
    EXPECT_THAT(Queue(), SizeIs(2));
    full.Process().Terminate(kPatience);
    EXPECT_EQ(full.Process().AwaitExit(kPatience), 0);
    AwaitWhole();
}

/// How a process ends while all its members are in.
struct Ending
{
    const char* name;
    const char* mode;
    int code;
};

/// For the test's name.
void PrintTo(const Ending& ending, std::ostream* stream)
{
    *stream << ending.name;
}

class EndingProcess : public ProcessScenario, public ::testing::WithParamInterface<Ending>
{};

TEST_P(EndingProcess, EndsWithItsOwnCodeWhileEverythingIsOpen)
{
    constexpr int kProcesses = 8;
    JoinMany(2);
    for (int i = 0; i < kProcesses; ++i)
    {
        ProcessMember process(GetParam().mode, MakeNetwork(), milliseconds(1'000));
        ASSERT_EQ(process.Process().AwaitExit(kPatience), GetParam().code) << "number " << i;
    }
    EXPECT_TRUE(members_[0].Leads());
    EXPECT_TRUE(members_[1].IsNext());
    // Its sessions live on until their time is up.
    AwaitWhole();
}

INSTANTIATE_TEST_SUITE_P(That, EndingProcess,
                         ::testing::Values(Ending{"ReturnsFromMain", "return", 7},
                                           Ending{"ExitsFromAThread", "exit", 8},
                                           Ending{"LeavesCandidates", "candidates", 9},
                                           Ending{"DestroysCandidatesLate", "owned-candidates", 9}),
                         [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace kx::velmor::testing_support
