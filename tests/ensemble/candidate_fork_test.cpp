// A leader's process that forks, on a real server.

#include "process/child_process.h"
#include "tests/ensemble/session_fixture.h"

#include <kx/velmor/candidate.h>
#include <kx/velmor/participants.h>

#include <gmock/gmock.h>
#include <signal.h>

#include <cctype>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace kx::velmor::testing_support {
namespace {

using process::ChildProcess;
using std::chrono::milliseconds;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

/// A process of `forking_process`, and its child.
class ForkingProcess
{
public:
    ForkingProcess(const std::string& server, milliseconds sessionTimeout)
        : process_({{FORKING_PROCESS, server, "/election", std::to_string(sessionTimeout.count())},
                    {},
                    [this](const std::string& line) { journal_.Note(line); }})
    {}

    ~ForkingProcess()
    {
        // It outlives its parent, and keeps the pipe open from which this process reads.
        if (child_ != 0)
        {
            ::kill(child_, SIGKILL);
        }
    }
    ForkingProcess(const ForkingProcess&) = delete;
    ForkingProcess& operator=(const ForkingProcess&) = delete;

    void AwaitChild()
    {
        const std::string prefix = "child ";
        Await(
            "a child",
            [&] {
                for (const std::string& line : journal_.Lines())
                {
                    if (line.rfind(prefix, 0) == 0 && std::isdigit(line[prefix.size()]) != 0)
                    {
                        child_ = std::stoi(line.substr(prefix.size()));
                    }
                }
                return child_ != 0;
            },
            kPatience);
    }

    void EndChild() { ::kill(child_, SIGTERM); }

    ChildProcess& Parent() { return process_; }
    const Journal& Said() const { return journal_; }

private:
    Journal journal_;
    pid_t child_ = 0;
    ChildProcess process_;
};

class CandidateForkTest : public SessionFixture
{
protected:
    /// Long enough for a busy machine; a leadership that nobody extends lasts for two thirds of it.
    static constexpr milliseconds kSessionTimeout{4'000};

    CandidateForkTest()
    {
        SessionOptions options = Options();
        options.servers = server_->Address();
        options.sessionTimeout = kSessionTimeout;
        session_ = Session::Open(options);
        CandidateOptions election;
        election.electionPath = "/election";
        election.identity = "successor";
        successor_ = std::make_unique<Candidate>(session_, std::move(election));
    }

    /// The process leads, has forked, and leads on; the successor and the child's own candidate are in the queue.
    void LetItForkAndQueueUp(ForkingProcess& forking)
    {
        forking.AwaitChild();
        successor_->Start();
        forking.Said().Await("second child has destroyed all, led 0 times");
        forking.Said().Await("parent leads on");
        Await("three in the queue", [&] { return observer_.List("/election").size() == 3; });
        EXPECT_EQ(LeaderIdentity(*session_, "/election"), "parent");
        EXPECT_FALSE(successor_->IsLeader());
    }

    /// The successor or the child's own candidate leads; whichever it is, the other one follows it.
    void ExpectSuccessionAndEndOfChild(ForkingProcess& forking)
    {
        Await("another leader", [&] { return successor_->IsLeader() || forking.Said().Count("child gained") > 0; });
        forking.EndChild();
        forking.Said().Await("child asked often, led 0 times");
        ASSERT_TRUE(successor_->WaitForRole(Role::Leader, kPatience));
        Await("an empty queue", [&] { return observer_.List("/election").size() == 1; });
    }

    std::shared_ptr<Session> session_;
    std::unique_ptr<Candidate> successor_;
};

TEST_F(CandidateForkTest, ChildOfALeaderThatIsKilledNeverLeadsInItsPlace)
{
    ForkingProcess forking(server_->Address(), kSessionTimeout);
    LetItForkAndQueueUp(forking);
    forking.Parent().Kill();
    ExpectSuccessionAndEndOfChild(forking);
}

TEST_F(CandidateForkTest, ChildOfALeaderThatLeavesNeverLeadsInItsPlace)
{
    ForkingProcess forking(server_->Address(), kSessionTimeout);
    LetItForkAndQueueUp(forking);
    forking.Parent().Signal(SIGTERM);
    forking.Said().Await("parent has left");
    EXPECT_THAT(forking.Said().Lines(), Contains("parent lost: left"));
    ExpectSuccessionAndEndOfChild(forking);
    EXPECT_THAT(forking.Said().Lines(), Not(Contains(HasSubstr("parent lost: session"))));
    EXPECT_EQ(forking.Parent().AwaitExit(kPatience), 0);
}

}  // namespace
}  // namespace kx::velmor::testing_support
