// What owners do in the callbacks of their candidates, and to candidates and sessions while events arrive.
#include "tests/ensemble/scenario_fixture.h"

#include <kx/velmor/error.h>

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class CallbackScenario : public ScenarioFixture
{
protected:
    /// A member that does something in one of its callbacks.
    Member& JoinWith(
        std::function<void()> onLeader, std::function<void()> onNextLeader = [] {})
    {
        MemberSetup setup{Options()};
        setup.onLeader = std::move(onLeader);
        setup.onNextLeader = std::move(onNextLeader);
        return Join(setup);
    }
};

TEST_F(CallbackScenario, CallbackThatTakesItsTimeHoldsUpItsOwnCandidateOnly)
{
    std::promise<void> entered;
    std::promise<void> released;
    std::atomic<int> calls{0};
    JoinMany(1);
    Member& slow = JoinWith([&] {
        if (++calls == 1)
        {
            entered.set_value();
            released.get_future().wait();
        }
    });
    JoinMany(2);
    members_[0].Leave();
    entered.get_future().wait();
    // It is the leader for itself and for the others, whatever its callback is at.
    EXPECT_TRUE(slow.Leads());
    members_[2].AwaitIsNext();
    slow.network->Cut();
    members_[3].network->Cut();
    members_[0].Join();
    members_[2].Leave();
    members_[3].AwaitIsNext();
    // Operations of its session are not held up.
    Await("an answer", [&] { return slow.session->Exists("/", nullptr) == ZOK; });
    std::future<void> leaving = std::async(std::launch::async, [&] { slow.Leave(); });
    EXPECT_EQ(leaving.wait_for(milliseconds(50)), std::future_status::timeout);
    released.set_value();
    leaving.get();
    members_[3].AwaitLeads();
    AwaitWhole();
}

TEST_F(CallbackScenario, CallbackThatThrowsInAStartEndsItAndTheNextFindsTheNode)
{
    std::atomic<bool> throwing{true};
    const auto refuse = [&] {
        if (throwing)
        {
            throw std::logic_error("not now");
        }
    };
    MemberSetup setup{Options()};
    setup.onLeader = refuse;
    setup.onNextLeader = refuse;
    Member& first = Add(setup);
    EXPECT_THROW(first.Join(), std::logic_error);
    EXPECT_THROW(first.Join(), std::logic_error);
    EXPECT_THAT(Queue(), SizeIs(1));
    Member& second = Add(setup);
    EXPECT_THROW(second.Join(), std::logic_error);
    EXPECT_THAT(Queue(), SizeIs(2));
    throwing = false;
    first.Join();
    second.Join();
    EXPECT_THAT(Queue(), SizeIs(2));
    AwaitWhole();
}

TEST_F(CallbackScenario, CallbackThatThrowsInACheckIsReportedAndHurtsNobodyElse)
{
    std::atomic<int> thrown{0};
    const auto refuse = [&] {
        ++thrown;
        throw std::runtime_error("no, thanks");
    };
    JoinMany(2);
    Member& third = JoinWith(refuse, refuse);
    JoinMany(1);
    members_[0].Leave();
    third.AwaitIsNext();
    Await("it is reported", [&] { return thrown == 1 && Logged("no, thanks"); });
    // The watch on the one ahead was to be armed after that: a reconnection makes up for it, if anything listens.
    members_[1].Leave();
    third.Leave();
    members_[3].AwaitLeads();
    AwaitWhole();
}

TEST_F(CallbackScenario, CallbackMayDropTheLastReferenceToItsCandidate)
{
    for (int round = 0; round < 3; ++round)
    {
        members_.clear();
        JoinMany(1);
        std::promise<void> promoted;
        Member* dropping = nullptr;
        std::weak_ptr<CandidateImpl> weak;
        Member& member = JoinWith([&] {
            weak = dropping->candidate;
            dropping->candidate.reset();
            promoted.set_value();
        });
        dropping = &member;
        JoinMany(1);
        members_[0].Leave();
        promoted.get_future().wait();
        members_[2].AwaitIsNext();
        // It did not leave, and its session tells it of reconnections until it is closed.
        EXPECT_FALSE(weak.expired());
        member.session->Close();
        EXPECT_TRUE(weak.expired());
        members_[2].AwaitLeads();
    }
    members_[1].WriteOff();
    AwaitWhole();
}

TEST_F(CallbackScenario, CallbackMayCloseItsSessionAndDropTheLastReferences)
{
    for (int round = 0; round < 5; ++round)
    {
        members_.clear();
        JoinMany(1);
        std::promise<void> promoted;
        Member* dropping = nullptr;
        Member& member = JoinWith([&] {
            // Without this the session would keep its watch's callback, which holds the candidate, which holds it.
            dropping->session->Close();
            dropping->candidate.reset();
            dropping->session.reset();
            promoted.set_value();
        });
        dropping = &member;
        JoinMany(1);
        const std::weak_ptr<Session> weak = member.session;
        members_[0].Leave();
        promoted.get_future().wait();
        Await("the session is gone", [&] { return weak.expired(); });
        // Its node has gone with it.
        members_[2].AwaitLeads();
        EXPECT_THAT(Queue(), SizeIs(1));
    }
    members_[1].WriteOff();
    JoinMany(1);
    AwaitWhole();
}

TEST_F(CallbackScenario, CallbackMayCloseItsSession)
{
    for (const bool asLeader : {true, false})
    {
        members_.clear();
        JoinMany(asLeader ? 1 : 2);
        std::promise<void> closed;
        std::shared_ptr<Session> session;
        const auto close = [&] {
            session->Close();
            closed.set_value();
        };
        Member& member = asLeader ? JoinWith(close) : JoinWith([] {}, close);
        session = member.session;
        JoinMany(2);
        members_[0].Leave();
        closed.get_future().wait();
        EXPECT_THROW(member.Leave(), ZooError);
        AwaitRoles();
        EXPECT_THAT(Queue(), SizeIs(asLeader ? 2 : 3));
    }
    AwaitWhole();
}

TEST_F(CallbackScenario, MembersMayBeDestroyedWhileEventsArrive)
{
    JoinMany(2);
    std::atomic<bool> done{false};
    // Somebody comes and goes ahead of everyone all the time.
    std::thread busy([&] {
        RawClient operators(ensemble_.Addresses());
        for (int i = 0; !done; ++i)
        {
            const std::string stranger = std::string(kElection) + "/a" + std::to_string(i % 3);
            if (!operators.Delete(stranger))
            {
                operators.Create(stranger);
            }
        }
        for (const char* const stranger : {"/a0", "/a1", "/a2"})
        {
            operators.Delete(std::string(kElection) + stranger);
        }
    });
    std::vector<std::future<void>> owners;
    for (int owner = 0; owner < 3; ++owner)
    {
        owners.push_back(std::async(std::launch::async, [&, owner] {
            for (int round = 0; round < 8; ++round)
            {
                MemberSetup setup{Options()};
                setup.network = MakeNetwork();
                Member member(setup);
                member.JoinInTheEnd();
                if (round % 2 == 0)
                {
                    member.network->Cut();
                }
                switch ((round + owner) % 3)
                {
                    case 0:
                        // The session goes last, with what its watches hold.
                        member.candidate.reset();
                        break;
                    case 1:
                        member.session->Close();
                        break;
                    default:
                        member.session.reset();
                        member.candidate.reset();
                }
            }
        }));
    }
    for (std::future<void>& owner : owners)
    {
        owner.get();
    }
    done = true;
    busy.join();
    // Sessions that were cut off from the servers when they were closed live on until their time is up.
    AwaitWhole();
}

}  // namespace
}  // namespace kx::velmor::testing_support
