// Callbacks that throw, and callbacks that do not return.

#include "tests/unit/member_fixture.h"

#include <kx/velmor/error.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <regex>
#include <stdexcept>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

/// A place at which a callback stays until it is let go, or the test has failed.
class Barrier
{
public:
    /// Of the callback.
    void Pass()
    {
        reached_ = true;
        opened_.wait_for(4 * kPatience);
    }

    void AwaitReached() const
    {
        Await("the callback to begin", [this] { return reached_.load(); });
    }

    /// Once.
    void Open() { opening_.set_value(); }

private:
    std::atomic<bool> reached_{false};
    std::promise<void> opening_;
    const std::shared_future<void> opened_ = opening_.get_future().share();
};

class CandidateCallbacksTest : public MemberTest
{
protected:
    std::vector<std::string> LogLines(const std::string& part) const
    {
        std::vector<std::string> lines = logJournal_.Lines();
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [&](const std::string& line) { return line.find(part) == std::string::npos; }),
                    lines.end());
        return lines;
    }

    /// What the candidates have waited, or wait, before they join again.
    std::vector<milliseconds> RejoinDelays() const
    {
        std::vector<milliseconds> delays;
        for (const std::string& line : LogLines("joins /election again in "))
        {
            std::smatch match;
            EXPECT_TRUE(std::regex_search(line, match, std::regex(" in ([0-9]+) ms$"))) << line;
            delays.emplace_back(std::stoll(match[1]));
        }
        return delays;
    }

    void AwaitRejoinDelays(std::size_t count) const
    {
        Await("a delay", [&] { return RejoinDelays().size() == count; });
    }
};

TEST_F(CandidateCallbacksTest, LeaderWhoseCallbackThrowsLetsTheNextOneLead)
{
    Barrier barrier;
    Member first(service_, "first", [&](CandidateOptions& options) {
        options.onLeader = [&](const Leadership&) {
            barrier.Pass();
            throw std::runtime_error("no disk");
        };
    });
    Member second(service_, "second");
    QueueUp({&first, &second});

    barrier.Open();

    ASSERT_TRUE(second->WaitForRole(Role::Leader, kPatience));
    first.Await("lost: callback failed");
    Await("the log", [&] { return Logged("A candidate's callback threw: no disk"); });
    EXPECT_TRUE(Logged("Candidate leader -> joining: first, /election/c-0000000000, callback failed"));
    AdvanceUntil("the return", [&] { return first->CurrentRole() == Role::NextLeader; });
    first.Await("next");
    EXPECT_THAT(first.Lines(), ElementsAre("role joining", "role leader", "lost: callback failed", "role joining",
                                           "role next leader", "next"));
    EXPECT_EQ(first->Error(), "");
    ExpectWhole({&first, &second});
}

TEST_F(CandidateCallbacksTest, WhatIsThrownNeedBeNoException)
{
    Member ours(service_, "ours",
                [](CandidateOptions& options) { options.onLeader = [](const Leadership&) { throw 1; }; });
    ours->Start();
    ours.Await("lost: callback failed");
    Await("the log", [&] { return Logged("A candidate's callback threw something that is no std::exception"); });
}

TEST_F(CandidateCallbacksTest, LeaderWhoseCallbackThrowsStopsWhenItMustNotJoinAgain)
{
    Member ours(service_, "ours", [](CandidateOptions& options) {
        options.rejoin = false;
        options.onLeader = [](const Leadership&) { throw std::runtime_error("no disk"); };
    });
    ours->Start();
    ASSERT_TRUE(ours->WaitForRole(Role::Stopped, kPatience));
    EXPECT_EQ(ours->Error(), "Out of the queue: callback failed");
}

TEST_F(CandidateCallbacksTest, ThrowingAfterTheLossChangesNothing)
{
    Barrier barrier;
    Member ours(service_, "ours", [&](CandidateOptions& options) {
        options.onLeader = [&](const Leadership& leadership) {
            barrier.Pass();
            EXPECT_FALSE(leadership.Stands());
            throw std::runtime_error("no lead");
        };
    });
    ours.Become(Role::Leader);
    barrier.AwaitReached();
    service_.Cut(ours.Session());
    service_.Advance(kLease);
    barrier.Open();
    ours.Await("lost: lease ran out");
}

TEST_F(CandidateCallbacksTest, DelaysGrowWhileLeadershipsFailHoweverLongTheyTake)
{
    std::atomic<int> gains{0};
    std::atomic<int> finished{0};
    constexpr int kFailures = 4;
    Member ours(service_, "ours", [&](CandidateOptions& options) {
        options.onLeader = [&](const Leadership&) {
            const int gain = ++gains;
            Await("the end of the work", [&] { return finished >= gain; });
            if (gain <= kFailures)
            {
                throw std::runtime_error("no disk");
            }
        };
    });
    ours->Start();
    for (int gain = 1; gain <= kFailures + 1; ++gain)
    {
        AdvanceUntil("a leadership", [&] { return gains == gain; });
        service_.Advance(2 * kTimeout);
        ASSERT_TRUE(ours->IsLeader());
        finished = gain;
        if (gain > kFailures)
        {
            service_.Delete("/election/" + ours->NodeName());
        }
        AwaitRejoinDelays(static_cast<std::size_t>(gain));
    }
    const std::vector<milliseconds> delays = RejoinDelays();
    ASSERT_EQ(delays.size(), 5U);
    EXPECT_GE(delays[1], milliseconds(100));
    EXPECT_GE(delays[2], milliseconds(200));
    EXPECT_GE(delays[3], milliseconds(400));
    // The last one lasted, and ended otherwise.
    EXPECT_LE(delays[4], milliseconds(100));
}

TEST_F(CandidateCallbacksTest, DelaysAreNotResetByTimeInTheQueue)
{
    Barrier barrier;
    Member ours(service_, "ours", [&](CandidateOptions& options) {
        options.onLeader = [&](const Leadership&) {
            barrier.Pass();
            throw std::runtime_error("no disk");
        };
    });
    Member other(service_, "other");
    QueueUp({&ours, &other});
    barrier.Open();
    AwaitRejoinDelays(1);
    AdvanceUntil("the return", [&] { return ours->CurrentRole() == Role::NextLeader; });
    service_.Advance(3 * kTimeout);
    service_.Expire(ours.Session());
    AwaitRejoinDelays(2);
    EXPECT_GE(RejoinDelays()[1], milliseconds(100));
}

TEST_F(CandidateCallbacksTest, WhatOtherCallbacksThrowIsLoggedOnly)
{
    const auto fail = [] { throw std::runtime_error("no disk"); };
    Member first(service_, "first");
    Member second(service_, "second", [&](CandidateOptions& options) {
        options.onNextLeader = fail;
        options.onNextLeaderLost = fail;
        options.onRoleChange = [&](Role) { fail(); };
        options.onLeaderLost = [&](LossReason) { fail(); };
    });
    QueueUp({&first, &second});
    first->Stop();
    second.Await("gained");
    EXPECT_TRUE(second->IsLeader());
    // Three roles, next, and not next.
    EXPECT_EQ(LogLines("A candidate's callback threw: no disk").size(), 5U);
    second->Stop();
    EXPECT_EQ(LogLines("A candidate's callback threw: no disk").size(), 7U);
    ExpectNobody();
}

TEST_F(CandidateCallbacksTest, HandoverThatHangsIsReportedOncePerSessionTimeout)
{
    Barrier barrier;
    Member first(service_, "first", [&](CandidateOptions& options) {
        options.onLeaderLost = [&](LossReason) { barrier.Pass(); };
        // Longer than the clock can count.
        options.maxCallbackTime = milliseconds::max();
    });
    Member second(service_, "second");
    QueueUp({&first, &second});
    auto stopped = std::async(std::launch::async, [&] { first->Stop(); });
    barrier.AwaitReached();

    service_.Advance(kTimeout - milliseconds(1));
    service_.Advance(milliseconds(1));
    Await("a warning", [&] {
        return Logged("[20] Candidate first: onLeaderLost has been running for 9000 ms; the next leader waits");
    });
    service_.Advance(kTimeout / 2);
    service_.Advance(kTimeout / 2);
    Await("another warning", [&] {
        return Logged("[20] Candidate first: onLeaderLost has been running for 18000 ms; the next leader waits");
    });
    EXPECT_EQ(LogLines("has been running").size(), 2U);
    EXPECT_EQ(second->CurrentRole(), Role::NextLeader);

    barrier.Open();
    stopped.get();
    EXPECT_TRUE(second->WaitForRole(Role::Leader, kPatience));
    EXPECT_EQ(first->Error(), "");
}

TEST_F(CandidateCallbacksTest, LeaderMayWorkInItsCallbackWhileItsLeadershipStands)
{
    Barrier barrier;
    Member ours(service_, "ours", [&](CandidateOptions& options) {
        options.onLeader = [&](const Leadership&) { barrier.Pass(); };
        options.maxCallbackTime = 2 * kTimeout;
    });
    ours.Become(Role::Leader);
    barrier.AwaitReached();
    service_.Advance(10 * kTimeout);
    auto stopped = std::async(std::launch::async, [&] { ours->Stop(); });
    ASSERT_TRUE(ours->WaitForRole(Role::Stopped, kPatience));

    service_.Advance(kTimeout);

    Await("a warning", [&] {
        return Logged(
            "Candidate ours: onLeader has been running for 9000 ms since its leadership ended; "
            "the next leader waits");
    });
    EXPECT_EQ(LogLines("has been running").size(), 1U);
    barrier.Open();
    stopped.get();
    EXPECT_EQ(ours->Error(), "");
    EXPECT_EQ(ours.Session().Status().state, SessionState::Connected);
}

TEST_F(CandidateCallbacksTest, HandoverThatHangsForTooLongCostsTheSession)
{
    Barrier barrier;
    Member first(service_, "first", [&](CandidateOptions& options) {
        options.onLeaderLost = [&](LossReason) { barrier.Pass(); };
        options.maxCallbackTime = seconds(20);
    });
    Member second(service_, "second");
    QueueUp({&first, &second});
    std::atomic<bool> loggedBefore{false};
    const Registration ending = first.Session().OnEnding([&](std::int64_t) {
        loggedBefore = !LogLines("[30] Candidate first of /election gives up: onLeaderLost").empty();
    });
    service_.Delete("/election/" + first->NodeName());
    barrier.AwaitReached();
    service_.Advance(seconds(19));
    EXPECT_EQ(first.Session().Status().state, SessionState::Connected);
    EXPECT_EQ(first->CurrentRole(), Role::Joining);

    service_.Advance(seconds(1));

    ASSERT_TRUE(second->WaitForRole(Role::Leader, kPatience));
    EXPECT_TRUE(loggedBefore);
    EXPECT_EQ(first.Session().Status().state, SessionState::Closed);
    EXPECT_EQ(first->CurrentRole(), Role::Stopped);
    EXPECT_EQ(first->Error(), "onLeaderLost has been running for 20000 ms, longer than it may: the session is closed");
    EXPECT_EQ(Queue().size(), 1U);
    EXPECT_EQ(Identities().size(), 2U);

    barrier.Open();
    first.Await("role stopped");
    // It cannot take part again in this session; after a pause when it is still about to leave.
    first->Start();
    AdvanceUntil("the refusal", [&] { return first->Error() == "the session is closed"; });
}

TEST_F(CandidateCallbacksTest, LeaderIsHeldUpByAnEarlierCallbackForSoLongOnly)
{
    Barrier barrier;
    Member first(service_, "first");
    Member second(service_, "second", [&](CandidateOptions& options) {
        options.onNextLeader = [&] { barrier.Pass(); };
        options.maxCallbackTime = seconds(20);
    });
    Member third(service_, "third");
    QueueUp({&first, &second, &third});
    barrier.AwaitReached();
    first->Stop();
    ASSERT_TRUE(second->WaitForRole(Role::Leader, kPatience));
    service_.Advance(kTimeout);
    Await("a warning",
          [&] { return Logged("Candidate second: onNextLeader has been running for 9000 ms; later callbacks wait"); });

    service_.Advance(seconds(20) - kTimeout);

    ASSERT_TRUE(third->WaitForRole(Role::Leader, kPatience));
    EXPECT_EQ(second->CurrentRole(), Role::Stopped);
    EXPECT_THAT(second->Error(), HasSubstr("onNextLeader has been running for 20000 ms"));
    barrier.Open();
    second.Await("lost: session expired");
    second.Await("role stopped");
}

TEST_F(CandidateCallbacksTest, CallbackThatHasBeenReportedAndReturnsHoldsUpNothing)
{
    Barrier barrier;
    Member ours(service_, "ours", [&](CandidateOptions& options) {
        options.onRoleChange = [&, note = options.onRoleChange](Role role) {
            note(role);
            if (role == Role::Leader)
            {
                barrier.Pass();
            }
        };
        options.maxCallbackTime = 2 * kTimeout;
    });
    ours.Become(Role::Leader);
    barrier.AwaitReached();
    service_.Advance(kTimeout);
    Await("a warning", [&] { return Logged("onRoleChange has been running for 9000 ms; later callbacks wait"); });
    barrier.Open();
    ours.Await("gained");
    service_.Advance(10 * kTimeout);
    EXPECT_TRUE(ours->IsLeader());
    service_.Delete("/election/" + ours->NodeName());
    // All callbacks have returned before the candidate waits to join again. None begins until it leads.
    AwaitRejoinDelays(1);
    service_.Advance(10 * kTimeout);
    AdvanceUntil("the return", [&] { return ours->IsLeader(); });
    ours->Stop();
    EXPECT_EQ(LogLines("has been running").size(), 1U);
    ExpectNobody();
}

TEST_F(CandidateCallbacksTest, JoinsAgainAsSoonAsTheCallbackReturnsThatItWaitedFor)
{
    Barrier barrier;
    Member ours(service_, "ours",
                [&](CandidateOptions& options) { options.onRoleChange = [&](Role) { barrier.Pass(); }; });
    service_.Refuse("/election-identities", ZOPERATIONTIMEOUT);
    ours->Start();
    barrier.AwaitReached();
    Await("a failure", [&] { return Logged("could not join: operation timeout"); });
    barrier.Open();
    AwaitRejoinDelays(1);
}

TEST_F(CandidateCallbacksTest, MaximumTimeMustNotBeNegative)
{
    EXPECT_THROW(
        Member(service_, "ours", [](CandidateOptions& options) { options.maxCallbackTime = milliseconds(-1); }),
        VelmorError);
}

TEST_F(CandidateCallbacksTest, ThoseThatAreDueComeAfterADestructionInACallback)
{
    Member* member = nullptr;
    std::promise<void> ready;
    std::promise<std::vector<std::string>> before;
    Member ours(service_, "ours", [&](CandidateOptions& options) {
        options.onLeader = [&](const Leadership&) {
            ready.get_future().wait();
            member->Destroy();
            before.set_value(member->Lines());
        };
    });
    member = &ours;
    ours->Start();
    ready.set_value();
    EXPECT_THAT(before.get_future().get(), ElementsAre("role joining", "role leader"));
    ours.Await("role stopped");
    EXPECT_THAT(ours.Lines(), ElementsAre("role joining", "role leader", "lost: left", "role stopped"));
}

}  // namespace
}  // namespace kx::velmor::testing_support
