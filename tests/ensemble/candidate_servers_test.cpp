// Candidates on a real server.

#include "tests/ensemble/session_fixture.h"

#include <kx/velmor/candidate.h>
#include <kx/velmor/participants.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <optional>
#include <thread>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;

/// Whether both lead at this instant, for certain: a leadership that stands before and after has stood in between.
bool BothLead(const Candidate& first, const Candidate& second)
{
    const std::optional<Leadership> leadership = first.CurrentLeadership();
    return leadership && second.IsLeader() && leadership->Stands();
}

/// Asks all pairs of candidates, all the time.
class OverlapWatch
{
public:
    explicit OverlapWatch(std::vector<const Candidate*> candidates)
        : thread_([this, candidates = std::move(candidates)] {
              while (!stop_)
              {
                  for (const Candidate* const first : candidates)
                  {
                      for (const Candidate* const second : candidates)
                      {
                          overlaps_ += first != second && BothLead(*first, *second);
                      }
                  }
              }
          })
    {}
    ~OverlapWatch()
    {
        if (thread_.joinable())
        {
            Stop();
        }
    }
    OverlapWatch(const OverlapWatch&) = delete;
    OverlapWatch& operator=(const OverlapWatch&) = delete;

    /// How often two led.
    int Stop()
    {
        stop_ = true;
        thread_.join();
        return overlaps_;
    }

private:
    std::atomic<bool> stop_{false};
    std::atomic<int> overlaps_{0};
    std::thread thread_;
};

class CandidateServersTest : public SessionFixture
{
protected:
    /// What a busy machine does not exceed. Tests that wait for its end set a shorter one.
    seconds sessionTimeout_{15};

    /// A member whose session goes through the proxy, or straight to the server.
    struct Member
    {
        std::shared_ptr<Session> session;
        std::shared_ptr<Journal> journal = std::make_shared<Journal>();
        std::unique_ptr<Candidate> candidate;

        Candidate* operator->() { return candidate.get(); }
    };

    Member Make(const std::string& identity, bool throughProxy)
    {
        SessionOptions options = Options();
        options.sessionTimeout = sessionTimeout_;
        options.operationTimeout = sessionTimeout_;
        if (!throughProxy)
        {
            options.servers = server_->Address();
        }
        Member member;
        member.session = Session::Open(options);
        CandidateOptions with;
        with.electionPath = "/election";
        with.identity = identity;
        with.firstRejoinDelay = milliseconds(20);
        with.mostRejoinDelay = milliseconds(200);
        with.onLeader = [journal = member.journal](const Leadership& leadership) {
            journal->Note("gained");
            EXPECT_TRUE(leadership.Epoch() > 0);
        };
        with.onLeaderLost = [journal = member.journal](LossReason reason) {
            journal->Note(std::string("lost: ") + ToString(reason));
        };
        member.candidate = std::make_unique<Candidate>(member.session, std::move(with));
        return member;
    }

    void Pair(Member& first, Member& second)
    {
        first->Start();
        ASSERT_TRUE(first->WaitForRole(Role::Leader, kPatience));
        second->Start();
        ASSERT_TRUE(second->WaitForRole(Role::NextLeader, kPatience));
    }

    /// One node and one identity for each, and a claim with its lease.
    void AwaitWhole(std::size_t members)
    {
        Await("a whole election", [&] {
            return observer_.List("/election").size() == members &&
                   observer_.List("/election-identities").size() == members + 2;
        });
    }
};

TEST_F(CandidateServersTest, TakesTurnsAndLeavesNothing)
{
    Member first = Make("first", true);
    Member second = Make("second", true);
    Pair(first, second);
    std::int64_t last = 0;
    OverlapWatch overlaps({first.candidate.get(), second.candidate.get()});
    for (int i = 0; i < 10; ++i)
    {
        for (Member* const member : {&first, &second})
        {
            Member& other = member == &first ? second : first;
            ASSERT_TRUE((*member)->WaitForRole(Role::Leader, kPatience));
            // Or this one would come back before it, and lead again.
            ASSERT_TRUE(other->WaitForRole(Role::NextLeader, kPatience));
            const std::int64_t epoch = (*member)->CurrentLeadership()->Epoch();
            EXPECT_GT(epoch, last);
            last = epoch;
            (*member)->Stop();
            (*member)->Start();
        }
    }
    EXPECT_EQ(overlaps.Stop(), 0);
    AwaitWhole(2);
    const std::vector<Participant> participants = Participants(*first.session, "/election");
    ASSERT_EQ(participants.size(), 2U);
    EXPECT_EQ(participants[0].identity, LeaderIdentity(*second.session, "/election"));
    first->Stop();
    second->Stop();
    EXPECT_TRUE(observer_.List("/election").empty());
    EXPECT_TRUE(observer_.List("/election-identities").empty());
}

TEST_F(CandidateServersTest, LosesAndRegainsTheLeadThroughAServerRestart)
{
    sessionTimeout_ = seconds(3);
    Member ours = Make("ours", false);
    ours->Start();
    ASSERT_TRUE(ours->WaitForRole(Role::Leader, kPatience));
    const std::int64_t before = ours->CurrentLeadership()->Epoch();

    server_->Kill();
    ASSERT_TRUE(ours->WaitForRole(Role::Joining, kPatience));
    ours.journal->Await("lost: lease ran out");
    server_->Start();

    ASSERT_TRUE(ours->WaitForRole(Role::Leader, kPatience));
    ours.journal->Await("gained", 2);
    EXPECT_GT(ours->CurrentLeadership()->Epoch(), before);
    EXPECT_THAT(ours.journal->Lines(), ElementsAre("gained", "lost: lease ran out", "gained"));
}

TEST_F(CandidateServersTest, BlipThatIsShorterThanTheLeaseCostsNothing)
{
    Member ours = Make("ours", true);
    ours->Start();
    ASSERT_TRUE(ours->WaitForRole(Role::Leader, kPatience));
    for (int i = 0; i < 5; ++i)
    {
        proxy_.Cut();
        Await("another connection", [&] { return ours.session->Status().state == SessionState::Connected; });
    }
    EXPECT_TRUE(ours->IsLeader());
    ours.journal->Await("gained");
    EXPECT_EQ(ours.journal->Lines().size(), 1U);
}

TEST_F(CandidateServersTest, OneThatIsCutOffStopsLeadingBeforeTheNextOneBegins)
{
    sessionTimeout_ = seconds(3);
    Member first = Make("first", true);
    Member second = Make("second", false);
    Pair(first, second);
    OverlapWatch overlaps({first.candidate.get(), second.candidate.get()});
    proxy_.BlackHole(Proxy::Direction::ToServer);
    proxy_.BlackHole(Proxy::Direction::ToClient);
    ASSERT_TRUE(second->WaitForRole(Role::Leader, kPatience));
    proxy_.Heal();
    ASSERT_TRUE(first->WaitForRole(Role::NextLeader, kPatience));
    EXPECT_EQ(overlaps.Stop(), 0);
    first.journal->Await("lost: lease ran out");
    AwaitWhole(2);
}

TEST_F(CandidateServersTest, OneWhoseSessionIsClosedStopsLeadingBeforeTheNextOneBegins)
{
    for (const bool inACallback : {false, true})
    {
        Member first = Make("first", true);
        Member second = Make("second", false);
        Pair(first, second);
        OverlapWatch overlaps({first.candidate.get(), second.candidate.get()});
        if (inACallback)
        {
            const auto closed = std::make_shared<std::promise<void>>();
            auto watch = first.session->Exists(
                "/tick",
                [closed, session = first.session](int type, int, const std::string&) {
                    if (type != ZOO_SESSION_EVENT)
                    {
                        session->Close();
                        closed->set_value();
                    }
                },
                nullptr);
            observer_.Create("/tick");
            closed->get_future().wait();
        }
        else
        {
            first.session->Close();
        }
        EXPECT_FALSE(first->IsLeader());
        ASSERT_TRUE(second->WaitForRole(Role::Leader, kPatience));
        EXPECT_EQ(overlaps.Stop(), 0);
        first.journal->Await("lost: session expired");
        Await("an end", [&] { return first->Error() == "the session is closed"; });
    }
}

TEST_F(CandidateServersTest, OneWhoseNodeIsDeletedStopsLeadingBeforeTheNextOneBegins)
{
    Member first = Make("first", true);
    Member second = Make("second", true);
    Pair(first, second);
    OverlapWatch overlaps({first.candidate.get(), second.candidate.get()});
    for (int i = 0; i < 5; ++i)
    {
        for (Member* const member : {&first, &second})
        {
            ASSERT_TRUE((*member)->WaitForRole(Role::Leader, kPatience));
            Member& other = member == &first ? second : first;
            ASSERT_TRUE(other->WaitForRole(Role::NextLeader, kPatience));
            observer_.Delete("/election/" + (*member)->NodeName());
            ASSERT_TRUE(other->WaitForRole(Role::Leader, kPatience));
        }
    }
    EXPECT_EQ(overlaps.Stop(), 0);
    AwaitWhole(2);
}

TEST_F(CandidateServersTest, OneWhoseClaimOrIdentityIsDeletedLetsOthersLead)
{
    Member first = Make("first", true);
    Member second = Make("second", true);
    Pair(first, second);
    OverlapWatch overlaps({first.candidate.get(), second.candidate.get()});
    observer_.Delete("/election-identities/leader");
    ASSERT_TRUE(second->WaitForRole(Role::Leader, kPatience));
    ASSERT_TRUE(first->WaitForRole(Role::NextLeader, kPatience));
    for (const std::string& name : observer_.List("/election-identities"))
    {
        if (name.rfind(second->NodeName(), 0) == 0)
        {
            observer_.Delete("/election-identities/" + name);
        }
    }
    ASSERT_TRUE(first->WaitForRole(Role::Leader, kPatience));
    EXPECT_EQ(overlaps.Stop(), 0);
    second.journal->Await("lost: node deleted");
    AwaitWhole(2);
}

TEST_F(CandidateServersTest, LostRepliesLeaveNothingTwice)
{
    const std::vector<std::function<void()>> faults{
        [this] { proxy_.DropReply(Request::Multi); },       [this] { proxy_.DropRequest(Request::Multi); },
        [this] { proxy_.CutAfterRequest(Request::Multi); }, [this] { proxy_.CutAfterRequest(Request::Delete); },
        [this] { proxy_.DropReply(Request::Delete); },      [this] { proxy_.CutAfterRequest(Request::GetChildren); },
    };
    Member first = Make("first", true);
    Member second = Make("second", false);
    Pair(first, second);
    OverlapWatch overlaps({first.candidate.get(), second.candidate.get()});
    for (const std::function<void()>& fault : faults)
    {
        fault();
        first->Stop();
        ASSERT_TRUE(second->WaitForRole(Role::Leader, kPatience));
        Await("the former one to have left", [&] { return observer_.List("/election").size() == 1U; });
        fault();
        first->Start();
        ASSERT_TRUE(first->WaitForRole(Role::NextLeader, kPatience));
        fault();
        second->Stop();
        ASSERT_TRUE(first->WaitForRole(Role::Leader, kPatience));
        second->Start();
        ASSERT_TRUE(second->WaitForRole(Role::NextLeader, kPatience));
        AwaitWhole(2);
    }
    EXPECT_EQ(overlaps.Stop(), 0);
}

TEST_F(CandidateServersTest, RefusedLeavingIsRepeatedAndNoEpochLeadsTwice)
{
    Member first = Make("first", true);
    Member second = Make("second", false);
    Pair(first, second);
    OverlapWatch overlaps({first.candidate.get(), second.candidate.get()});
    const std::string node = first->NodeName();
    const std::int64_t epoch = first->CurrentLeadership().value().Epoch();
    observer_.Permit("/election-identities", ZOO_PERM_ALL & ~ZOO_PERM_DELETE);

    first->Stop();
    EXPECT_EQ(first->Error(), "could not take back /election/" + node + ": not authenticated");
    first->Start();
    EXPECT_FALSE(second->WaitForRole(Role::Leader, milliseconds(200))) << "The claim stands";
    EXPECT_EQ(first->CurrentRole(), Role::Joining);
    EXPECT_EQ(observer_.List("/election").front(), node);

    observer_.Permit("/election-identities", ZOO_PERM_ALL);
    ASSERT_TRUE(second->WaitForRole(Role::Leader, kPatience));
    ASSERT_TRUE(first->WaitForRole(Role::NextLeader, kPatience));
    AwaitWhole(2);
    second->Stop();
    ASSERT_TRUE(first->WaitForRole(Role::Leader, kPatience));
    EXPECT_GT(first->CurrentLeadership().value().Epoch(), epoch);
    EXPECT_EQ(overlaps.Stop(), 0);
}

TEST_F(CandidateServersTest, LateLeaverLeavesTheClaimOfItsSuccessor)
{
    std::promise<void> finished;
    Member first = Make("first", true);
    CandidateOptions slow;
    slow.electionPath = "/election";
    slow.rejoin = false;
    slow.onLeaderLost = [journal = first.journal, done = finished.get_future().share()](LossReason) {
        journal->Note("leaves");
        done.wait();
    };
    first.candidate = std::make_unique<Candidate>(first.session, std::move(slow));
    first->Start();
    ASSERT_TRUE(first->WaitForRole(Role::Leader, kPatience));
    observer_.Delete("/election/" + first->NodeName());
    first.journal->Await("leaves");
    observer_.DeleteAll("/election");
    observer_.DeleteAll("/election-identities");

    Member second = Make("second", false);
    second->Start();
    ASSERT_TRUE(second->WaitForRole(Role::Leader, kPatience));
    const Leadership leadership = second->CurrentLeadership().value();
    finished.set_value();
    first->Stop();
    EXPECT_TRUE(observer_.Exists("/election-identities/leader"));
    EXPECT_TRUE(leadership.Write({kx::velmor::Operation::Check("/election")}));
    EXPECT_TRUE(leadership.Stands());
}

TEST_F(CandidateServersTest, GuardedWriteIsRefusedOnceSomebodyElseLeads)
{
    Member first = Make("first", true);
    Member second = Make("second", false);
    Pair(first, second);
    observer_.Create("/data");
    const Leadership former = first->CurrentLeadership().value();
    EXPECT_EQ(former.Write({kx::velmor::Operation::Set("/data", "first")}).outcome, GuardedWrite::Outcome::Applied);
    first->Stop();
    ASSERT_TRUE(second->WaitForRole(Role::Leader, kPatience));
    EXPECT_EQ(former.Write({kx::velmor::Operation::Set("/data", "first again")}).outcome,
              GuardedWrite::Outcome::NotLeading);
    EXPECT_EQ(second->CurrentLeadership()->Write({kx::velmor::Operation::Set("/data", "second")}).outcome,
              GuardedWrite::Outcome::Applied);
    std::string data;
    EXPECT_EQ(first.session->GetData("/data", data, nullptr), ZOK);
    EXPECT_EQ(data, "second");
}

TEST_F(CandidateServersTest, ManyComeAndGoAndOneLeadsAtATime)
{
    std::vector<Member> members;
    for (int i = 0; i < 6; ++i)
    {
        members.push_back(Make("member " + std::to_string(i), i % 2 == 0));
    }
    std::vector<const Candidate*> candidates;
    for (const Member& member : members)
    {
        candidates.push_back(member.candidate.get());
    }
    OverlapWatch overlaps(candidates);
    std::vector<std::thread> owners;
    for (Member& member : members)
    {
        owners.emplace_back([&member] {
            for (int i = 0; i < 10; ++i)
            {
                member->Start();
                member->WaitForRole(Role::Leader, milliseconds(200));
                member->Stop();
            }
        });
    }
    for (std::thread& owner : owners)
    {
        owner.join();
    }
    EXPECT_EQ(overlaps.Stop(), 0);
    Await("all to be gone",
          [&] { return observer_.List("/election").empty() && observer_.List("/election-identities").empty(); });
    for (const Member& member : members)
    {
        const std::vector<std::string> lines = member.journal->Lines();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), "gained"),
                  std::count(lines.begin(), lines.end(), "lost: left"));
    }
}

TEST_F(CandidateServersTest, HandoverThatHangsCostsTheSessionAndTheNextOneLeads)
{
    SessionOptions options = Options();
    options.servers = server_->Address();
    options.sessionTimeout = sessionTimeout_;
    const std::shared_ptr<Session> session = Session::Open(options);
    std::promise<void> finish;
    CandidateOptions with;
    with.electionPath = "/election";
    with.maxCallbackTime = milliseconds(200);
    with.onLeaderLost = [finished = finish.get_future().share()](LossReason) { finished.wait_for(4 * kPatience); };
    Candidate first(session, with);
    first.Start();
    ASSERT_TRUE(first.WaitForRole(Role::Leader, kPatience));
    Member second = Make("second", false);
    second->Start();
    ASSERT_TRUE(second->WaitForRole(Role::NextLeader, kPatience));

    auto stopped = std::async(std::launch::async, [&] { first.Stop(); });

    EXPECT_TRUE(second->WaitForRole(Role::Leader, kPatience));
    // Not by waiting for the servers to end it.
    EXPECT_EQ(session->Status().state, SessionState::Closed);
    EXPECT_EQ(first.CurrentRole(), Role::Stopped);
    EXPECT_NE(first.Error(), "");
    AwaitWhole(1);
    finish.set_value();
    stopped.get();
}

}  // namespace
}  // namespace kx::velmor::testing_support
