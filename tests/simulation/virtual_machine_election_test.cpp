// The real candidate, on a service in memory, in virtual time.

#include "tests/simulation/virtual_machine_fixture.h"

#include <kx/logging/logger.h>
#include <kx/velmor/candidate.h>
#include <kx/velmor/testing/memory_service.h>

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kx::velmor::simulation {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// Three candidates elect, the leader is cut off until its session ends, and they elect again.
class Election
{
public:
    explicit Election(std::uint64_t seed) : machine_(seed)
    {
        machine_.Start([this] { Run(); });
        machine_.Observe([this] {
            int leaders = 0;
            for (const auto& candidate : candidates_)
            {
                leaders += candidate && candidate->IsLeader() ? 1 : 0;
            }
            EXPECT_LE(leaders, 1);
            return Time::max();
        });
        EXPECT_EQ(machine_.Run(seconds(600)), VirtualMachine::Outcome::Stalled);
        EXPECT_EQ(machine_.Threads(), 0U);
    }

    /// What the candidates told, and after which steps.
    std::pair<std::string, std::uint64_t> Result() const { return {journal_, machine_.Fingerprint()}; }

private:
    static constexpr std::size_t kCandidates = 3;

    void Run()
    {
        service_ = std::make_unique<testing::MemoryService>();
        std::vector<std::shared_ptr<testing::MemorySession>> sessions;
        for (std::size_t i = 0; i < kCandidates; ++i)
        {
            sessions.push_back(service_->Open());
            CandidateOptions options;
            options.electionPath = "/election";
            options.identity = std::to_string(i);
            options.onLeader = [this, i](const Leadership& leadership) {
                Note(i, "leads with " + std::to_string(leadership.Epoch()));
            };
            options.onLeaderLost = [this, i](LossReason reason) { Note(i, ToString(reason)); };
            candidates_[i] = std::make_unique<Candidate>(sessions[i], options);
            candidates_[i]->Start();
        }
        bool ended = false;
        std::thread clock([this, &ended] {
            constexpr milliseconds kStep{100};
            while (!ended)
            {
                std::this_thread::sleep_for(kStep);
                service_->Advance(kStep);
            }
        });

        const std::size_t first = AwaitLeader(kCandidates);
        service_->Cut(*sessions[first]);
        EXPECT_NE(AwaitLeader(first), first);
        EXPECT_FALSE(candidates_[first]->IsLeader());
        service_->Heal(*sessions[first]);
        EXPECT_TRUE(candidates_[first]->WaitForRole(Role::Follower, seconds(60)));

        for (auto& candidate : candidates_)
        {
            candidate->Stop();
        }
        ended = true;
        clock.join();
        for (auto& candidate : candidates_)
        {
            candidate = nullptr;
        }
        sessions.clear();
        service_ = nullptr;
    }

    /// One that is not `other`.
    std::size_t AwaitLeader(std::size_t other)
    {
        for (;;)
        {
            for (std::size_t i = 0; i < kCandidates; ++i)
            {
                if (i != other && candidates_[i]->WaitForRole(Role::Leader, milliseconds(10)))
                {
                    return i;
                }
            }
        }
    }

    void Note(std::size_t candidate, const std::string& what)
    {
        journal_ +=
            std::to_string(machine_.Now() / milliseconds(1)) + " ms: " + std::to_string(candidate) + " " + what + "\n";
    }

    TestMachine machine_;
    std::unique_ptr<testing::MemoryService> service_;
    std::array<std::unique_ptr<Candidate>, kCandidates> candidates_{};
    std::string journal_;
};

TEST(VirtualMachineElectionTest, EachSeedElectsInItsOwnWay)
{
    logging::g_minLogLevel = static_cast<std::int32_t>(logging::LogLevel::Error);
    std::set<std::uint64_t> fingerprints;
    for (std::uint64_t seed = 0; seed < 200; ++seed)
    {
        SCOPED_TRACE(seed);
        const auto [journal, fingerprint] = Election(seed).Result();
        EXPECT_NE(journal.find("lease ran out"), std::string::npos) << journal;
        EXPECT_EQ(Election(seed).Result(), std::make_pair(journal, fingerprint));
        EXPECT_TRUE(fingerprints.insert(fingerprint).second);
    }
}

}  // namespace
}  // namespace kx::velmor::simulation
