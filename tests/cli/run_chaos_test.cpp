// Three programs, their commands and their network under random faults: never do two commands run at the same time.
#include "tests/cli/program_fixture.h"

#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kx::velmor::cli {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::Ge;
using ::testing::SizeIs;

// What the sanitizers leave of two processors is not enough for as much in the same time.
constexpr int kFaults = VELMOR_SANITIZED ? 40 : 100;
constexpr std::size_t kLeastTenures = VELMOR_SANITIZED ? 6 : 15;
constexpr milliseconds kSession{VELMOR_SANITIZED ? 2'000 : 1'500};
constexpr unsigned kSeed = 7;

/// One program, with a network of its own.
struct Member
{
    std::unique_ptr<Proxy> network;
    RunningProgram* program = nullptr;
    bool paused = false;
    bool cut = false;
};

class RunChaos : public ProgramFixture
{
protected:
    RunChaos() : random_(kSeed)
    {
        for (Member& member : members_)
        {
            member.network = std::make_unique<Proxy>(server_.Address());
            StartAgain(member);
        }
    }

    void StartAgain(Member& member)
    {
        member.program = &RunBehind(
            *member.network,
            {"--session-timeout", std::to_string(kSession.count()) + "ms", "--grace", "300ms", "--restart", "always"},
            Service({"linger=50", "child=daemon", "child-linger=100"}));
        member.paused = false;
    }

    int Draw(int least, int most) { return std::uniform_int_distribution<int>(least, most)(random_); }

    /// For up to that, at random.
    milliseconds Moment(double sessions)
    {
        return milliseconds(Draw(20, static_cast<int>(sessions * static_cast<double>(kSession.count()))));
    }

    Member& Any() { return members_.at(static_cast<std::size_t>(Draw(0, static_cast<int>(members_.size()) - 1))); }

    /// A fault's end, when its time has come.
    void Later(milliseconds delay, std::function<void()> action)
    {
        due_.push_back({steady_clock::now() + delay, std::move(action)});
    }

    /// Lets time pass, and faults end in it.
    void Pass(milliseconds time)
    {
        const steady_clock::time_point end = steady_clock::now() + time;
        do
        {
            for (std::size_t i = 0; i < due_.size();)
            {
                if (steady_clock::now() < due_[i].first)
                {
                    ++i;
                    continue;
                }
                const std::function<void()> action = std::move(due_[i].second);
                due_.erase(due_.begin() + static_cast<std::ptrdiff_t>(i));
                action();
            }
            std::this_thread::sleep_for(milliseconds(5));
        } while (steady_clock::now() < end);
    }

    /// Ends all faults.
    void PassAll()
    {
        while (!due_.empty())
        {
            Pass(milliseconds(10));
        }
    }

    void KillCommand()
    {
        const std::vector<Record> starts = Records("start");
        for (auto start = starts.rbegin(); start != starts.rend() && start != starts.rbegin() + 2; ++start)
        {
            // One of another number may have come in its place, but not within the time that a few commands take.
            if (Lives(start->process))
            {
                ::kill(start->process, SIGKILL);
            }
        }
    }

    void KillProgram(Member& member)
    {
        member.program->Kill();
        StartAgain(member);
    }

    void PauseProgram(Member& member)
    {
        if (member.paused || !member.program->Running())
        {
            return;
        }
        member.paused = true;
        member.program->Pause();
        Later(Moment(1.6), [&member, paused = member.program] {
            if (member.program == paused && paused->Running())
            {
                paused->Continue();
            }
            member.paused = false;
        });
    }

    /// Asks it to leave, and starts another one when it has.
    void EndProgram(Member& member)
    {
        if (member.paused || !member.program->Running())
        {
            return;
        }
        member.program->Signal(SIGTERM);
        member.program->AwaitExit();
        StartAgain(member);
    }

    void Disconnect(Member& member)
    {
        if (member.cut)
        {
            return;
        }
        member.cut = true;
        const bool silently = Draw(0, 1) == 1;
        if (silently)
        {
            member.network->BlackHole();
        }
        else
        {
            member.network->Refuse();
            member.network->Cut();
        }
        Later(Moment(1.6), [&member] {
            member.network->Heal();
            member.network->Accept();
            member.cut = false;
        });
    }

    void PauseServer()
    {
        server_.Pause();
        std::this_thread::sleep_for(Moment(0.4));
        server_.Continue();
    }

    void DeleteNode()
    {
        const std::vector<std::string> queue = Queue();
        if (!queue.empty())
        {
            Tree().Delete(std::string(kElection) + "/" + queue.front());
        }
    }

    void KillWarden(Member& member)
    {
        for (const pid_t warden : member.program->Children("velmor-warden"))
        {
            ::kill(warden, SIGKILL);
        }
    }

    void Fault()
    {
        Member& member = Any();
        switch (Draw(0, 7))
        {
            case 0:
                return KillCommand();
            case 1:
                return KillProgram(member);
            case 2:
                return PauseProgram(member);
            case 3:
                return EndProgram(member);
            case 4:
                return Disconnect(member);
            case 5:
                return PauseServer();
            case 6:
                return DeleteNode();
            default:
                return KillWarden(member);
        }
    }

    /// Those that have ended, or have failed so often that they take a long break, are replaced.
    void ReplaceIdle()
    {
        const std::vector<std::string> queue = Queue();
        for (Member& member : members_)
        {
            const bool ended = !member.program->Running();
            const bool idle = !member.paused && !member.cut && queue.size() < members_.size() - 1;
            if (ended)
            {
                StartAgain(member);
            }
            else if (idle && Draw(0, 2) == 0)
            {
                EndProgram(member);
            }
        }
    }

    std::mt19937 random_;
    std::array<Member, 3> members_;
    std::vector<std::pair<steady_clock::time_point, std::function<void()>>> due_;
};

TEST_F(RunChaos, NeverRunsTwoCommandsAtTheSameTime)
{
    AwaitRecord("start");
    for (int i = 0; i < kFaults; ++i)
    {
        Fault();
        Pass(milliseconds(Draw(50, 600)));
        ReplaceIdle();
    }
    PassAll();

    // The election is whole again: somebody leads once all of them are new.
    for (Member& member : members_)
    {
        KillProgram(member);
    }
    const std::int64_t before = Tenures(Records()).back().epoch;
    Await("somebody leads again", [&] { return Tenures(Records()).back().epoch > before; });
    for (Member& member : members_)
    {
        member.program->Signal(SIGTERM);
    }
    for (Member& member : members_)
    {
        EXPECT_GE(member.program->AwaitExit(), 0);
    }

    const std::vector<Tenure> tenures = Tenures(Records());
    ExpectNoConflict();
    EXPECT_THAT(tenures, SizeIs(Ge(kLeastTenures)));
    std::cout << kFaults << " faults, " << tenures.size() << " leaderships, seed " << kSeed << '\n';
}

}  // namespace
}  // namespace kx::velmor::cli
