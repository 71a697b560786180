// What a forked child finds of the candidates, sessions and observers of its parent, and what it can make itself.

#include "source/candidate_core.h"
#include "source/testing/memory_service_core.h"
#include "tests/support/forked_child.h"
#include "tests/unit/member_fixture.h"

#include <kx/velmor/observer.h>

#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <new>
#include <optional>
#include <thread>
#include <utility>

namespace kx::velmor::testing_support {
namespace {

#ifdef __SANITIZE_THREAD__
constexpr bool kChildrenHaveNoThreads = true;
#else
constexpr bool kChildrenHaveNoThreads = false;
#endif

// An explicit instantiation may name a private member, and a friend that is defined in it can be called from outside.
template <typename Class, typename Type, Type Class::*Member>
struct Opener
{
    friend Type& Open(Class& object) { return object.*Member; }
};

const std::shared_ptr<CandidateCore>& Open(Candidate& candidate);
Mutex& Open(CandidateCore& core);
const std::shared_ptr<testing::MemorySessionRecord>& Open(testing::MemorySession& session);
Mutex& Open(testing::MemoryServiceCore& core);

template struct Opener<Candidate, const std::shared_ptr<CandidateCore>, &Candidate::core_>;
template struct Opener<CandidateCore, Mutex, &CandidateCore::mutex_>;
template struct Opener<testing::MemorySession, const std::shared_ptr<testing::MemorySessionRecord>,
                       &testing::MemorySession::record_>;
template struct Opener<testing::MemoryServiceCore, Mutex, &testing::MemoryServiceCore::mutex_>;

using std::chrono::milliseconds;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;

constexpr std::chrono::hours kVeryLong{1};

class Fork : public MemberTest
{
protected:
    /// As `FindInChild`, at a moment at which threads of the parent hold locks.
    static std::string FindInChildOfABusyParent(Member& member, const std::function<void(Findings&)>& check)
    {
        const MutexLock candidate(Open(*Open(*member)));
        const MutexLock service(Open(*Open(member.Session())->service));
        return FindInChild(check);
    }
};

TEST_F(Fork, ChildDoesNotLeadWithTheLeaseOfItsParent)
{
    Member member(service_, "ours");
    member.Become(Role::Leader);
    member.Await("gained");
    const Leadership leadership = member.LastLeadership();
    const auto child = static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
    if (child == 0)
    {
        ::_exit((member->IsLeader() ? 1 : 0) + (leadership.Stands() ? 2 : 0) +
                (member->LeaseLeft().count() > 0 ? 4 : 0));
    }
    ASSERT_GT(child, 0);
    EXPECT_EQ(AwaitEndOf(child), 0);
    EXPECT_TRUE(member->IsLeader());
    EXPECT_TRUE(leadership.Stands());
    EXPECT_GT(member->LeaseLeft(), milliseconds(0));
}

TEST_F(Fork, ChildIsToldAtOnceThatItsParentsCandidateIsStopped)
{
    Member member(service_, "ours");
    Member next(service_, "next");
    QueueUp({&member, &next});
    member.Await("gained");
    const Leadership leadership = member.LastLeadership();
    EXPECT_EQ(FindInChildOfABusyParent(
                  member,
                  [&](Findings& child) {
                      child.Expect(!member->IsLeader(), "it leads");
                      child.Expect(member->LeaseLeft() == milliseconds(0), "it has a lease");
                      child.Expect(!member->CurrentLeadership(), "it has a leadership");
                      child.Expect(member->CurrentRole() == Role::Stopped, "its role");
                      child.Expect(!leadership.Stands(), "the leadership stands");
                      const auto write = leadership.Write({Operation::Create("/written", "")});
                      child.Expect(write.outcome == GuardedWrite::Outcome::NotLeading, "it writes");
                      child.Expect(!member->WaitForRole(Role::Leader, kVeryLong), "it will lead");
                      child.Expect(member->WaitForRole(Role::Stopped, kVeryLong), "its next role");
                      child.Expect(member->WaitForChange(Role::Stopped, kVeryLong) == Role::Stopped, "its change");
                      child.Expect(member->NodeName().empty(), "it has a node");
                      child.Expect(member->Identity() == "ours", "its identity");
                      child.Expect(!member->Error().empty(), "it does not say why");
                  }),
              "");
    EXPECT_FALSE(service_.Has("/written"));
    EXPECT_TRUE(member->IsLeader());
    EXPECT_EQ(member->Error(), "");
    EXPECT_THAT(member.Lines(), Not(Contains(::testing::HasSubstr("lost"))));
    ExpectWhole({&member, &next});
}

TEST_F(Fork, ChildStopsAndDestroysItsParentsObjectsWithoutTheParentsNotice)
{
    std::optional<Member> member(std::in_place, service_, "ours");
    std::promise<void> seen;
    std::promise<void> mayGoOn;
    bool called = false;
    auto observer = std::make_unique<Observer>(member->SharedSession(), "/election", [&](const ElectionView&) {
        if (!std::exchange(called, true))
        {
            seen.set_value();
            mayGoOn.get_future().wait();
        }
    });
    seen.get_future().wait();
    member->Become(Role::Leader);
    Registration states = member->Session().OnStateChange([](const SessionStatus&) {});
    Registration hearing = member->Session().OnHeard([](std::int64_t, BootClock::time_point) {});
    Registration freshness = member->Session().KeepFresh();
    Registration jumps = member->Session().OnClockJump([] {});
    EXPECT_EQ(FindInChildOfABusyParent(*member,
                                       [&](Findings& child) {
                                           (*member)->Stop();
                                           (*member)->Start();
                                           child.Expect((*member)->CurrentRole() == Role::Stopped, "it starts");
                                           member->Session().Close();
                                           states.Cancel();
                                           hearing.Cancel();
                                           freshness.Cancel();
                                           jumps.Cancel();
                                           observer = nullptr;
                                           member.reset();
                                       }),
              "");
    EXPECT_TRUE((*member)->IsLeader());
    service_.Advance(kTimeout);
    EXPECT_TRUE((*member)->IsLeader()) << "nobody keeps the session fresh";
    (*member)->Stop();
    member->Await("lost: left");
    ExpectNobody();
    mayGoOn.set_value();
}

TEST_F(Fork, ChildIsRefusedBySessionsOfItsParent)
{
    Member member(service_, "ours");
    testing::MemorySession& session = member.Session();
    EXPECT_EQ(FindInChildOfABusyParent(
                  member,
                  [&](Findings& child) {
                      std::vector<std::string> children;
                      std::string data;
                      TransactionResult result;
                      const std::vector<Operation> operations{Operation::Create("/n", "")};
                      child.Expect(session.Create("/n", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr) == ZCLOSING, "create");
                      child.Expect(session.GetChildren("/", children) == ZCLOSING, "children");
                      child.Expect(session.GetData("/n", data, nullptr) == ZCLOSING, "data");
                      child.Expect(session.Exists("/n", nullptr) == ZCLOSING, "exists");
                      const auto watch = session.Exists(
                          "/n", [](int, int, const std::string&) {}, nullptr);
                      child.Expect(watch.first == ZCLOSING, "watch");
                      child.Expect(session.GuaranteedDelete("/n") == ZCLOSING, "delete");
                      child.Expect(session.Transact(operations, result) == ZCLOSING, "transaction");
                      child.Expect(session.TransactIn(1, operations, result) == ZCLOSING, "transaction in a session");
                      child.Expect(session.ClientId() == nullptr, "identity");
                      child.Expect(session.Status().state == SessionState::Closed, "state");
                      const Registration states = session.OnStateChange([](const SessionStatus&) {});
                      const Registration endings = session.OnEnding([](std::int64_t) {});
                  }),
              "");
    EXPECT_EQ(session.Status().state, SessionState::Connected);
    EXPECT_FALSE(service_.Has("/n"));
}

TEST_F(Fork, ChildsCandidateOnASessionOfTheParentGivesUp)
{
    if (kChildrenHaveNoThreads)
    {
        GTEST_SKIP() << "ThreadSanitizer does not support threads in forked children";
    }
    Member member(service_, "ours");
    member.Become(Role::Leader);
    EXPECT_EQ(FindInChild([&](Findings& child) {
                  CandidateOptions options;
                  options.electionPath = "/election";
                  Candidate candidate(member.SharedSession(), options);
                  candidate.Start();
                  child.Expect(candidate.WaitForRole(Role::Stopped, kPatience), "it goes on trying");
                  child.Expect(candidate.Error() == "the session is closed", candidate.Error());
              }),
              "");
    EXPECT_TRUE(member->IsLeader());
}

/// Leads, and stops, in an election of this process alone.
void Lead(Findings& findings)
{
    testing::MemoryService service;
    Member own(service, "own");
    own.Become(Role::Leader);
    own.Await("gained");
    findings.Expect(own->IsLeader() && own.LastLeadership().Stands(), "its own candidate does not lead");
    own->Stop();
    own.Await("lost: left");
    findings.Expect(!own->IsLeader(), "its own candidate leads on");
}

TEST_F(Fork, ChildAndGrandchildLeadWithSessionsAndCandidatesOfTheirOwn)
{
    if (kChildrenHaveNoThreads)
    {
        GTEST_SKIP() << "ThreadSanitizer does not support threads in forked children";
    }
    Member member(service_, "ours");
    member.Become(Role::Leader);
    EXPECT_EQ(FindInChild([&](Findings& child) {
                  Lead(child);
                  testing::MemoryService service;
                  Member childs(service, "childs");
                  childs.Become(Role::Leader);
                  const std::string found = FindInChild([&](Findings& grandchild) {
                      grandchild.Expect(!member->IsLeader() && !childs->IsLeader(), "the grandchild inherits");
                      Lead(grandchild);
                      grandchild.Expect(!member->IsLeader() && !childs->IsLeader(), "the grandchild inherits now");
                  });
                  child.Expect(found.empty(), "grandchild: " + found);
                  child.Expect(!member->IsLeader(), "the child inherits");
                  child.Expect(childs->IsLeader(), "the grandchild takes over");
              }),
              "");
    EXPECT_TRUE(member->IsLeader());
}

/// A number in memory that a process shares with its children.
class SharedNumber
{
public:
    SharedNumber()
        : page_(::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)),
          number_(new (page_) std::atomic<int>(0))
    {}
    ~SharedNumber() { ::munmap(page_, sizeof(std::atomic<int>)); }
    SharedNumber(const SharedNumber&) = delete;
    SharedNumber& operator=(const SharedNumber&) = delete;

    std::atomic<int>& operator*() { return *number_; }

private:
    void* const page_;
    std::atomic<int>* const number_;
};

TEST_F(Fork, ChildThatReturnsFromTheCallbackThatForkedEndsThere)
{
    SharedNumber calledInChild;
    const pid_t parent = ::getpid();
    std::promise<pid_t> forked;
    Member member(service_, "ours", [&](CandidateOptions& options) {
        // This one comes first.
        options.onRoleChange = [&](Role role) {
            if (role == Role::Leader)
            {
                const pid_t child = ::fork();
                if (child != 0)
                {
                    forked.set_value(child);
                }
            }
        };
        options.onLeader = [&, parent, gained = options.onLeader](const Leadership& leadership) {
            *calledInChild += ::getpid() == parent ? 0 : 1;
            gained(leadership);
        };
    });
    member.Become(Role::Leader);
    EXPECT_EQ(AwaitEndOf(forked.get_future().get()), EXIT_FAILURE);
    EXPECT_EQ(*calledInChild, 0);
    member.Await("gained");
    EXPECT_TRUE(member->IsLeader());
}

TEST_F(Fork, ChildDestroysALeadershipThatHasOutlivedItsCandidate)
{
    std::optional<Leadership> leadership;
    {
        Member member(service_, "ours");
        member.Become(Role::Leader);
        leadership = member->CurrentLeadership();
    }
    ASSERT_TRUE(leadership);
    EXPECT_EQ(FindInChild([&](Findings& child) {
                  child.Expect(!leadership->Stands(), "it stands");
                  leadership.reset();
              }),
              "");
    EXPECT_FALSE(leadership->Stands());
}

}  // namespace
}  // namespace kx::velmor::testing_support
