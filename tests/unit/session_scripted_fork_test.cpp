// What a forked child finds of the sessions of its parent.

#include "source/session_core.h"
#include "tests/support/forked_child.h"
#include "tests/unit/session_scripted_fixture.h"

#include <optional>
#include <utility>

namespace kx::velmor::testing_support {
namespace {

using ::testing::IsEmpty;

// An explicit instantiation may name a private member, and a friend that is defined in it can be called from outside.
template <typename Class, typename Type, Type Class::*Member>
struct Opener
{
    friend Type& Open(Class& object) { return object.*Member; }
};

const std::shared_ptr<SessionCore>& Open(Session& session);
Mutex& Open(SessionCore& core);

template struct Opener<Session, const std::shared_ptr<SessionCore>, &Session::core_>;
template struct Opener<SessionCore, Mutex, &SessionCore::mutex_>;

class ForkWithASession : public SessionScripted
{
protected:
    /// As `FindInChild`, at a moment at which a thread of the parent holds the session's lock.
    static std::string FindInChildOfABusyParent(Session& session, const std::function<void(Findings&)>& check)
    {
        const MutexLock lock(Open(*Open(session)));
        return FindInChild(check);
    }
};

TEST_F(ForkWithASession, ChildIsRefusedAtOnce)
{
    const auto session = OpenConnected();
    auto writing = Writing(*session);
    EXPECT_EQ(FindInChildOfABusyParent(
                  *session,
                  [&](Findings& child) {
                      std::vector<std::string> children;
                      std::string data;
                      TransactionResult result;
                      const std::vector<Operation> operations{Operation::Create("/n", "")};
                      child.Expect(session->Create("/n", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr) == ZCLOSING, "create");
                      child.Expect(session->GetChildren("/n", children) == ZCLOSING, "children");
                      child.Expect(session->GetData("/n", data, nullptr) == ZCLOSING, "data");
                      child.Expect(session->Exists("/n", nullptr) == ZCLOSING, "exists");
                      const auto watch = session->Exists(
                          "/n", [](int, int, const std::string&) {}, nullptr);
                      child.Expect(watch.first == ZCLOSING, "watch");
                      child.Expect(session->GuaranteedDelete("/n") == ZCLOSING, "delete");
                      child.Expect(session->Transact(operations, result) == ZCLOSING, "transaction");
                      child.Expect(session->TransactIn(1, operations, result) == ZCLOSING, "transaction in a session");
                      child.Expect(session->ClientId() == nullptr, "identity");
                      const SessionStatus status = session->Status();
                      child.Expect(status.state == SessionState::Closed && !status.lastHeard, "status");
                      const Registration states = session->OnStateChange([](const SessionStatus&) {});
                      const Registration hearing = session->OnHeard([](std::int64_t, BootClock::time_point) {});
                      const Registration endings = session->OnEnding([](std::int64_t) {});
                      const Registration freshness = session->KeepFresh();
                  }),
              "");
    library.Answer(1, Sent::Create, "/n");
    EXPECT_EQ(writing.get(), ZOK);
    EXPECT_EQ(session->Status().state, SessionState::Connected);
}

TEST_F(ForkWithASession, ChildClosesAndDestroysItWithoutTheParentsNotice)
{
    auto session = OpenConnected();
    Barrier mayGoOn;
    Barrier inCallback;
    Registration states = session->OnStateChange([&](const SessionStatus&) {
        inCallback.Open();
        mayGoOn.Pass();
    });
    Registration hearing = session->OnHeard([](std::int64_t, BootClock::time_point) {});
    Registration endings = session->OnEnding([](std::int64_t) {});
    library.Expect(Sent::Transact, "check /zookeeper/no-such-node", Always(Code(ZNONODE)));
    Registration freshness = session->KeepFresh();
    inCallback.Pass();
    EXPECT_EQ(FindInChildOfABusyParent(*session,
                                       [&](Findings& child) {
                                           session->Close();
                                           states.Cancel();
                                           hearing.Cancel();
                                           endings.Cancel();
                                           freshness.Cancel();
                                           session = nullptr;
                                           child.Expect(library.Asked().Count("1 close") == 0, "the handle is closed");
                                           child.Expect(!::testing::Test::HasFailure(), "the library complains");
                                       }),
              "");
    mayGoOn.Open();
    Write(*session);
    EXPECT_EQ(session->Status().state, SessionState::Connected);
    EXPECT_THAT(AskedWith("close"), IsEmpty());
}

TEST_F(ForkWithASession, ChildDestroysOneThatItsParentHadClosed)
{
    auto session = OpenConnected();
    session->Close();
    EXPECT_EQ(FindInChildOfABusyParent(*session,
                                       [&](Findings& child) {
                                           session->Close();
                                           child.Expect(session->Exists("/n", nullptr) == ZCLOSING, "exists");
                                           session = nullptr;
                                       }),
              "");
}

}  // namespace
}  // namespace kx::velmor::testing_support
