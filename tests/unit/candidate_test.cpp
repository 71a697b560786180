// Roles, callbacks, joining and leaving, on a service in memory.

#include "tests/unit/member_fixture.h"

#include <kx/velmor/error.h>

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <thread>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;

class CandidateTest : public MemberTest
{};

TEST_F(CandidateTest, FirstOneLeads)
{
    Member ours(service_, "ours");
    EXPECT_EQ(ours->CurrentRole(), Role::Stopped);
    EXPECT_FALSE(ours->IsLeader());
    EXPECT_EQ(ours->NodeName(), "");

    ours.Become(Role::Leader);

    EXPECT_TRUE(ours->IsLeader());
    EXPECT_EQ(ours->NodeName(), "c-0000000000");
    ours.Await("gained");
    EXPECT_THAT(ours.Lines(), ElementsAre("role joining", "role leader", "gained"));
    EXPECT_THAT(Queue(), ElementsAre("c-0000000000"));
    EXPECT_EQ(Identities().size(), 2U);
}

TEST_F(CandidateTest, SecondIsNextAndThirdFollows)
{
    Member first(service_, "first");
    Member second(service_, "second");
    Member third(service_, "third");
    QueueUp({&first, &second, &third});

    second.Await("next");
    EXPECT_THAT(second.Lines(), ElementsAre("role joining", "role next leader", "next"));
    third.Await("role follower");
    EXPECT_THAT(third.Lines(), ElementsAre("role joining", "role follower"));
    EXPECT_FALSE(second->IsLeader());
    EXPECT_EQ(second->CurrentLeadership(), std::nullopt);
    EXPECT_EQ(second->LeaseLeft(), milliseconds(0));
}

TEST_F(CandidateTest, NextOneTakesOver)
{
    Member first(service_, "first");
    Member second(service_, "second");
    Member third(service_, "third");
    QueueUp({&first, &second, &third});

    first->Stop();

    EXPECT_EQ(first->CurrentRole(), Role::Stopped);
    EXPECT_THAT(first.Lines(), ElementsAre("role joining", "role leader", "gained", "lost: left", "role stopped"));
    ASSERT_TRUE(second->WaitForRole(Role::Leader, kPatience));
    ASSERT_TRUE(third->WaitForRole(Role::NextLeader, kPatience));
    second.Await("gained");
    EXPECT_THAT(second.Lines(),
                ElementsAre("role joining", "role next leader", "next", "no longer next", "role leader", "gained"));
    EXPECT_EQ(Queue().size(), 2U);
    EXPECT_EQ(Identities().size(), 3U);
}

TEST_F(CandidateTest, NodeIsDeletedOnlyAfterTheLossCallbackHasReturned)
{
    std::promise<void> finished;
    std::promise<void> told;
    Member first(service_, "first", [&](CandidateOptions& options) {
        options.onLeaderLost = [&](LossReason) {
            told.set_value();
            finished.get_future().wait();
        };
    });
    Member second(service_, "second");
    QueueUp({&first, &second});

    auto stopped = std::async(std::launch::async, [&] { first->Stop(); });
    told.get_future().wait();

    EXPECT_FALSE(first->IsLeader());
    // What would have to happen for the next one to lead takes no time by any clock here, so that waiting for more of
    // it proves nothing; the nodes do.
    EXPECT_EQ(Queue().size(), 2U);
    EXPECT_EQ(Identities().size(), 3U);
    EXPECT_EQ(second->CurrentRole(), Role::NextLeader);
    finished.set_value();
    stopped.get();
    EXPECT_EQ(Queue().size(), 1U);
    EXPECT_TRUE(second->WaitForRole(Role::Leader, kPatience));
}

TEST_F(CandidateTest, SlowLossCallbackHoldsUpTheNextOneAndTheReturnAlike)
{
    std::promise<void> finished;
    std::promise<void> told;
    std::shared_future<void> mayReturn = finished.get_future().share();
    Member first(service_, "first", [&](CandidateOptions& options) {
        options.onLeaderLost = [&, lost = options.onLeaderLost,
                                once = std::make_shared<std::atomic<bool>>(false)](LossReason reason) {
            if (!once->exchange(true))
            {
                told.set_value();
            }
            mayReturn.wait();
            lost(reason);
        };
    });
    Member second(service_, "second");
    QueueUp({&first, &second});
    const std::string node = first->NodeName();

    service_.Delete("/election/" + node);
    told.get_future().wait();
    // First in the queue now, but the one before has not finished.
    Await("the claim to be waited for", [&] { return Logged("waits for the one before to have finished"); });
    EXPECT_FALSE(second->IsLeader());
    EXPECT_FALSE(first->IsLeader());

    finished.set_value();
    ASSERT_TRUE(second->WaitForRole(Role::Leader, kPatience));
    AdvanceUntil("the return", [&] { return first->CurrentRole() == Role::NextLeader; });
    first.Await("next");
    EXPECT_THAT(first.Lines(), ElementsAre("role joining", "role leader", "gained", "lost: node deleted",
                                           "role joining", "role next leader", "next"));
}

TEST_F(CandidateTest, StopInACallbackTakesEffectWhenTheCallbackHasReturned)
{
    Candidate* candidate = nullptr;
    std::promise<void> returned;
    Member ours(service_, "ours", [&](CandidateOptions& options) {
        options.onLeader = [&](const Leadership& leadership) {
            candidate->Stop();
            EXPECT_FALSE(leadership.Stands());
            EXPECT_EQ(Queue().size(), 1U);
            returned.set_value();
        };
    });
    candidate = &*ours;
    ours->Start();
    returned.get_future().wait();
    ours.Await("lost: left");
    Await("its nodes to go", [&] { return Queue().empty() && Identities().empty(); });
    EXPECT_EQ(ours->CurrentRole(), Role::Stopped);
}

TEST_F(CandidateTest, MayBeDestroyedInACallback)
{
    auto ours = std::make_unique<std::optional<Member>>();
    std::promise<void> built;
    std::promise<void> destroyed;
    ours->emplace(service_, "ours", [&](CandidateOptions& options) {
        options.onLeader = [&, built = built.get_future().share()](const Leadership&) {
            built.wait();
            (*ours)->Destroy();
            destroyed.set_value();
        };
    });
    (**ours)->Start();
    built.set_value();
    destroyed.get_future().wait();
    (*ours)->Await("lost: left");
    Await("its nodes to go", [&] { return Queue().empty() && Identities().empty(); });
}

TEST_F(CandidateTest, WhatItsCallbacksHoldGoesWithIt)
{
    auto held = std::make_shared<std::optional<Leadership>>();
    const std::weak_ptr<std::optional<Leadership>> weak = held;
    Member ours(service_, "ours", [&](CandidateOptions& options) {
        options.onLeader = [held = std::move(held), note = options.onLeader](const Leadership& leadership) {
            *held = leadership;
            note(leadership);
        };
    });
    ours.Become(Role::Leader);
    ours.Await("gained");
    ASSERT_FALSE(weak.expired());
    ours.Destroy();
    EXPECT_TRUE(weak.expired());
}

TEST_F(CandidateTest, StartsAgainInTheCallbackThatStoppedIt)
{
    Candidate* candidate = nullptr;
    std::atomic<int> gains{0};
    Member ours(service_, "ours", [&](CandidateOptions& options) {
        options.onLeader = [&, note = options.onLeader](const Leadership& leadership) {
            note(leadership);
            if (++gains == 1)
            {
                candidate->Stop();
                candidate->Start();
            }
        };
    });
    candidate = &*ours;
    ours->Start();
    AdvanceUntil("a second leadership", [&] { return gains == 2; });
    ours.Await("gained", 2);
    EXPECT_THAT(ours.Lines(), ElementsAre("role joining", "role leader", "gained", "lost: left", "role stopped",
                                          "role joining", "role leader", "gained"));
    EXPECT_THAT(Queue(), ElementsAre("c-0000000001"));
}

TEST_F(CandidateTest, RepeatedChecksRepeatNoCallbacks)
{
    Member first(service_, "first");
    Member second(service_, "second");
    Member third(service_, "third");
    QueueUp({&first, &second, &third});
    first.Await("gained");
    second.Await("next");
    third.Await("role follower");
    for (int i = 0; i < 5; ++i)
    {
        for (Member* const member : {&first, &second, &third})
        {
            service_.Cut(member->Session());
            service_.Heal(member->Session());
        }
        service_.AwaitQuiet();
    }
    EXPECT_EQ(first.Lines().size(), 3U);
    EXPECT_EQ(second.Lines().size(), 3U);
    EXPECT_EQ(third.Lines().size(), 2U);
}

TEST_F(CandidateTest, NextIsToldOncePerStayInSecondPlace)
{
    Member first(service_, "first");
    Member second(service_, "second");
    Member third(service_, "third");
    QueueUp({&first, &second, &third});

    // Two in front of all: second becomes third by that at the latest, which its own looks find out.
    service_.Add("/election/a-stranger");
    service_.Add("/election/b-stranger");
    AdvanceUntil("the second to step back", [&] { return second->CurrentRole() == Role::Follower; });
    second.Await("no longer next");
    service_.Delete("/election/a-stranger");
    service_.Delete("/election/b-stranger");
    AdvanceUntil("a whole election", [&] {
        return first->IsLeader() + second->IsLeader() + third->IsLeader() == 1 && Queue().size() == 3U;
    });
    second->Stop();
    const std::vector<std::string> lines = second.Lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "next"), std::count(lines.begin(), lines.end(), "no longer next"));
}

TEST_F(CandidateTest, StopsAndStartsFromManyThreads)
{
    Member ours(service_, "ours");
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
    {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i)
            {
                ours->Start();
                ours->WaitForChange(Role::Joining, milliseconds(2));
                ours->Stop();
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    ours->Stop();
    EXPECT_EQ(ours->CurrentRole(), Role::Stopped);
    ExpectNobody();
    const std::vector<std::string> lines = ours.Lines();
    bool leads = false;
    for (const std::string& line : lines)
    {
        ASSERT_FALSE(line == "gained" && leads);
        ASSERT_FALSE(line == "lost: left" && !leads);
        leads = line == "gained" || (leads && line != "lost: left");
    }
    EXPECT_FALSE(leads);
}

TEST_F(CandidateTest, WaitsForRolesAndChanges)
{
    Member ours(service_, "ours");
    EXPECT_FALSE(ours->WaitForRole(Role::Leader, milliseconds(0)));
    EXPECT_TRUE(ours->WaitForRole(Role::Stopped, milliseconds(0)));
    EXPECT_EQ(ours->WaitForChange(Role::Stopped, milliseconds(1)), Role::Stopped);
    auto waiting = std::async(std::launch::async, [&] { return ours->WaitForRole(Role::Leader, kPatience); });
    auto changing = std::async(std::launch::async, [&] { return ours->WaitForChange(Role::Stopped, kPatience); });
    ours->Start();
    EXPECT_TRUE(waiting.get());
    EXPECT_NE(changing.get(), Role::Stopped);
}

TEST_F(CandidateTest, WaitsForNoRoleOfOneThatHasGivenUp)
{
    Member ours(service_, "ours", [](CandidateOptions& options) { options.rejoin = false; });
    service_.Cut(ours.Session());
    ours->Start();
    const auto begin = std::chrono::steady_clock::now();
    auto waiting = std::async(std::launch::async, [&] { return ours->WaitForRole(Role::Leader, 2 * kPatience); });
    ours.Session().Close();
    EXPECT_FALSE(waiting.get());
    EXPECT_EQ(ours->Error(), "the session is closed");

    EXPECT_FALSE(ours->WaitForRole(Role::Leader, 2 * kPatience));
    EXPECT_EQ(ours->WaitForChange(Role::Stopped, 2 * kPatience), Role::Stopped);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 2 * kPatience);
    EXPECT_TRUE(ours->WaitForRole(Role::Stopped, milliseconds(0)));
}

TEST_F(CandidateTest, RefusesOptionsThatMakeNoSense)
{
    const auto with = [this](const Member::Change& change) { Member(service_, "ours", change); };
    EXPECT_THROW(with([](CandidateOptions& options) { options.firstRejoinDelay = milliseconds(0); }), VelmorError);
    EXPECT_THROW(with([](CandidateOptions& options) { options.mostRejoinDelay = milliseconds(1); }), VelmorError);
    EXPECT_THROW(with([](CandidateOptions& options) { options.identity = std::string(1'025, 'x'); }), VelmorError);
    EXPECT_NO_THROW(with([](CandidateOptions& options) { options.identity = std::string(1'024, 'x'); }));
}

TEST_F(CandidateTest, RefusesAPathThatNamesNoNode)
{
    for (const char* const path : {"", "/", "/a/../b"})
    {
        const std::string message = std::string("Invalid path \"") + path + "\": ";
        EXPECT_THAT([&] { Member(service_, "ours", [&](CandidateOptions& options) { options.electionPath = path; }); },
                    ThrowsMessage<VelmorError>(StartsWith(message)));
    }
}

TEST_F(CandidateTest, SaysWhichHostAndProcessItIsUnlessTold)
{
    Member ours(service_, "");
    EXPECT_THAT(ours->Identity(), HasSubstr(":" + std::to_string(::getpid())));
    Member named(service_, "billing on node 7");
    EXPECT_EQ(named->Identity(), "billing on node 7");
}

TEST_F(CandidateTest, StopBeforeAnyStartDoesNothing)
{
    Member ours(service_, "ours");
    ours->Stop();
    EXPECT_THAT(ours.Lines(), IsEmpty());
    ExpectNobody();
}

TEST_F(CandidateTest, TwoOfOneSessionDoNotShareANode)
{
    Member ours(service_, "ours");
    ours.Become(Role::Leader);
    std::atomic<bool> told{false};
    CandidateOptions options;
    options.electionPath = "/election";
    options.onLeader = [&](const Leadership&) { told = true; };
    options.firstRejoinDelay = milliseconds(100);
    options.mostRejoinDelay = milliseconds(100);
    Candidate other(ours.SharedSession(), options);
    other.Start();
    Await("a refusal", [&] { return Logged("Another candidate of this session takes part"); });
    EXPECT_FALSE(told);
    EXPECT_TRUE(ours->IsLeader());
    EXPECT_EQ(Queue().size(), 1U);

    // It is not for ever.
    ours->Stop();
    AdvanceUntil("its turn", [&] { return other.IsLeader(); });
}

}  // namespace
}  // namespace kx::velmor::testing_support
