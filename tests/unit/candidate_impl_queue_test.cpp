// Several candidates of one election, each on a session of its own.

#include "tests/unit/candidate_fixture.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <random>
#include <thread>

namespace kx::velmor::testing_support {
namespace {

/// Candidates whose events are delivered on the test's thread.
class Queue : public CandidateTest
{
protected:
    void Join(int count)
    {
        for (int n = 0; n < count; ++n)
        {
            sessions.push_back(service.Open("session " + std::to_string(sessions.size())));
            candidates.push_back(MakeCandidate(sessions.back()));
            candidates.back()->Start();
        }
    }

    /// Delivers until nothing happens any more.
    void Settle()
    {
        std::size_t ran = 0;
        do
        {
            ran = 0;
            for (const auto& session : sessions)
            {
                ran += session->Deliver();
            }
        } while (ran != 0);
    }

    /// The first of the queue leads, the second is next, and nobody else claims anything.
    void ExpectRolesByPlace()
    {
        const std::vector<std::string> names = service.Children("/e");
        for (const auto& candidate : candidates)
        {
            const auto place = std::find(names.begin(), names.end(), candidate->Name()) - names.begin();
            const bool present = static_cast<std::size_t>(place) < names.size();
            EXPECT_EQ(candidate->IsLeader(), present && place == 0) << candidate->Name() << " at " << place;
            EXPECT_EQ(candidate->IsNextLeader(), present && place == 1) << candidate->Name() << " at " << place;
        }
    }

    void ExpectTheFirstAloneToLead()
    {
        const std::string first = service.Children("/e").front();
        for (const auto& candidate : candidates)
        {
            EXPECT_EQ(candidate->IsLeader(), candidate->Name() == first) << candidate->Name();
        }
    }

    std::vector<std::shared_ptr<ScriptedConnection>> sessions;
    std::vector<std::shared_ptr<CandidateImpl>> candidates;
};

TEST_F(Queue, HundredCandidatesLeadInTheOrderOfJoining)
{
    Join(100);
    for (std::size_t first = 0; first < candidates.size(); ++first)
    {
        Settle();
        ExpectRolesByPlace();
        ASSERT_TRUE(candidates[first]->IsLeader()) << first;
        candidates[first]->Stop();
    }
    Settle();
    EXPECT_TRUE(service.Children("/e").empty());
}

TEST_F(Queue, HundredCandidatesWatchTwoNodesEach)
{
    Join(100);
    for (std::size_t n = 2; n < candidates.size(); ++n)
    {
        const std::vector<Watch> watches = sessions[n]->Watches();
        ASSERT_EQ(watches.size(), 2U);
        EXPECT_EQ(watches[0].path, Node(static_cast<int>(n) - 1));
        EXPECT_EQ(watches[1].path, Node(static_cast<int>(n) - 2));
    }
}

TEST_F(Queue, RolesFollowThePlacesWhoeverLeaves)
{
    Join(40);
    std::vector<std::size_t> order(candidates.size());
    for (std::size_t n = 0; n < order.size(); ++n)
    {
        order[n] = n;
    }
    std::mt19937 random(7);
    std::shuffle(order.begin(), order.end(), random);
    for (const std::size_t leaving : order)
    {
        candidates[leaving]->Stop();
        Settle();
        ExpectRolesByPlace();
    }
}

TEST_F(Queue, ExpiredSessionGivesItsPlaceToTheNext)
{
    Join(3);
    service.Expire(*sessions[0]);
    Settle();
    EXPECT_TRUE(candidates[1]->IsLeader());
    EXPECT_TRUE(candidates[2]->IsNextLeader());
}

TEST_F(Queue, TwoAtTheFrontVanishAtOnce)
{
    Join(4);
    service.Delete(Node(0));
    service.Delete(Node(1));
    Settle();
    EXPECT_TRUE(candidates[2]->IsLeader());
    EXPECT_TRUE(candidates[3]->IsNextLeader());
}

TEST_F(Queue, ThirdIsNextAlthoughOnlyTheLeaderVanished)
{
    Join(3);
    service.Delete(Node(0));
    // The second has not heard of it yet.
    sessions[2]->Deliver();
    EXPECT_TRUE(candidates[2]->IsNextLeader());
    EXPECT_FALSE(candidates[1]->IsLeader());
    Settle();
    EXPECT_TRUE(candidates[1]->IsLeader());
}

/// Candidates whose events arrive on a thread per session.
class BusyQueue : public Queue
{
protected:
    explicit BusyQueue(int count = 6)
    {
        service.DropWatchesThatAreLetGoOf();
        Join(count);
        for (const auto& session : sessions)
        {
            eventThreads.push_back(std::make_unique<EventThread>(session));
        }
    }
    ~BusyQueue() override { eventThreads.clear(); }

    void OnAThreadEach(const std::function<void(CandidateImpl&)>& act)
    {
        std::vector<std::thread> threads;
        for (const auto& candidate : candidates)
        {
            threads.emplace_back([&act, &candidate] { act(*candidate); });
        }
        for (std::thread& thread : threads)
        {
            thread.join();
        }
    }

    std::vector<std::unique_ptr<EventThread>> eventThreads;
};

TEST_F(BusyQueue, LeaderGoesToTheEndAgainAndAgain)
{
    for (std::size_t round = 0; round < 30; ++round)
    {
        service.AwaitQuiet();
        ExpectRolesByPlace();
        CandidateImpl& leader = *candidates[round % candidates.size()];
        ASSERT_TRUE(leader.IsLeader()) << round;
        leader.Stop();
        leader.Start();
    }
}

TEST_F(BusyQueue, AllLeaveAndJoinAtOnce)
{
    for (int round = 0; round < 10; ++round)
    {
        OnAThreadEach([](CandidateImpl& candidate) {
            candidate.Stop();
            candidate.Start();
        });
        service.AwaitQuiet();
        EXPECT_EQ(service.Children("/e").size(), candidates.size());
        ExpectTheFirstAloneToLead();

        // Whoever came second while it armed its second watch has not been told; a reconnection makes up for it.
        for (const auto& session : sessions)
        {
            session->SessionEvent(ZOO_CONNECTED_STATE);
        }
        service.AwaitQuiet();
        ExpectRolesByPlace();
    }
    OnAThreadEach([](CandidateImpl& candidate) { candidate.Stop(); });
    service.AwaitQuiet();
    EXPECT_TRUE(service.Children("/e").empty());
}

TEST_F(BusyQueue, StartAndStopOfOneCandidateFromManyThreads)
{
    CandidateImpl& contended = *candidates[3];
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int n = 0; n < 4; ++n)
    {
        threads.emplace_back([&contended, n] {
            for (int round = 0; round < 20; ++round)
            {
                (round + n) % 2 == 0 ? contended.Start() : contended.Stop();
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    contended.Start();
    service.AwaitQuiet();
    ExpectRolesByPlace();
    EXPECT_EQ(service.Children("/e").size(), candidates.size());
}

TEST_F(BusyQueue, CandidatesAreDroppedWhileTheirWatchesFire)
{
    const std::shared_ptr<CandidateImpl> last = candidates.back();
    std::thread dropping([this] { candidates.clear(); });
    for (int n = 0; n < 5; ++n)
    {
        service.Delete(Node(n));
    }
    dropping.join();
    service.AwaitQuiet();
    EXPECT_TRUE(last->IsLeader());
    EXPECT_FALSE(last->IsNextLeader());
}

}  // namespace
}  // namespace kx::velmor::testing_support
