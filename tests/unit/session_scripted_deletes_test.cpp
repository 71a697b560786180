#include "tests/unit/session_scripted_fixture.h"

#include <utility>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

/// A node whose creator has no room for its name, because the counter of its parent has overflowed.
constexpr const char* kNode = "/n-2147483648";
constexpr const char* kDelete = "1 delete /n-2147483648";

class DeletionsOfASession : public SessionScripted
{
protected:
    /// A session with a deletion of `kNode` for which nobody waits. The first attempt was lost; the next, which the
    /// session makes after a while, or before it sends something else, comes to `next`.
    std::shared_ptr<Session> OpenWithPendingDeletion(Reply next = Held())
    {
        auto session = OpenConnected();
        library.Expect(Sent::Create, "/n", Created(kNode));
        library.Expect(Sent::Delete, kNode, Code(ZCONNECTIONLOSS));
        library.Expect(Sent::Delete, kNode, std::move(next));
        std::string created(std::string(kNode).size() - 1, '\0');
        EXPECT_EQ(session->Create("/n", "", ZOO_OPEN_ACL_UNSAFE, ZOO_SEQUENCE, &created), ZBADARGUMENTS);
        library.AwaitArrivals(1);
        return session;
    }

    void AwaitSecondAttempt() const { library.Asked().Await(kDelete, 2); }

    /// The level is 10 or 20.
    void AwaitEnd(int level, int rc, int attempts, const std::string& node = kNode) const
    {
        journal.Await("[" + std::to_string(level) + "] Pending deletion ended: " + zerror(rc) + ", attempts " +
                      std::to_string(attempts) + ", node " + node);
    }
};

TEST_F(DeletionsOfASession, GiveTheServersCode)
{
    const auto session = OpenConnected();
    for (const int rc : {ZOK, ZNONODE, ZNOTEMPTY, ZNOAUTH})
    {
        library.Expect(Sent::Delete, "/n", Code(rc));
        EXPECT_EQ(session->GuaranteedDelete("/n"), rc);
    }
}

TEST_F(DeletionsOfASession, AreRepeatedUntilTheOutcomeIsKnown)
{
    const auto session = OpenConnected();
    library.Expect(Sent::Delete, "/n", Code(ZCONNECTIONLOSS));
    library.Expect(Sent::Delete, "/n", Code(ZOPERATIONTIMEOUT));
    library.Expect(Sent::Delete, "/n", Code(ZNONODE));
    EXPECT_EQ(session->GuaranteedDelete("/n"), ZNONODE) << "the first attempt may have done it";
    EXPECT_THAT(AskedWith("delete"), SizeIs(3));
    EXPECT_THAT(Logged("Pending deletion"), IsEmpty()) << "the caller was there to hear it";
}

TEST_F(DeletionsOfASession, GoOnAfterTheCallersDeadline)
{
    options.operationTimeout = milliseconds(50);
    const auto session = OpenConnected();
    library.Expect(Sent::Delete, "/n", Code(ZCONNECTIONLOSS));
    library.Expect(Sent::Delete, "/n", Held());
    EXPECT_EQ(session->GuaranteedDelete("/n"), ZCONNECTIONLOSS) << "the code of the first attempt";
    library.Asked().Await("1 delete /n", 2);
    library.Expect(Sent::Delete, "/n");
    library.Answer(1, Sent::Delete, "/n", Code(ZOPERATIONTIMEOUT));
    AwaitEnd(10, ZOK, 3, "/n");
    EXPECT_THAT(AskedWith("delete"), SizeIs(3));
}

TEST_F(DeletionsOfASession, SayWhenTheyFailInTheEnd)
{
    const auto session = OpenWithPendingDeletion();
    AwaitSecondAttempt();
    library.Answer(1, Sent::Delete, kNode, Code(ZNOTEMPTY));
    AwaitEnd(20, ZNOTEMPTY, 2);
}

TEST_F(DeletionsOfASession, AreUnderWayWhenTheCallersDeadlineComes)
{
    options.operationTimeout = milliseconds(20);
    const auto session = OpenConnected();
    library.Expect(Sent::Delete, "/n", Held());
    const int rc = session->GuaranteedDelete("/n");
    EXPECT_TRUE(rc == ZCONNECTIONLOSS || rc == ZOPERATIONTIMEOUT) << zerror(rc);
    library.Answer(1, Sent::Delete, "/n");
    AwaitEnd(10, ZOK, 1, "/n");
}

TEST_F(DeletionsOfASession, WaitForTheConnection)
{
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/a", "a");
    library.Report(1, ZOO_CONNECTING_STATE);
    journal.Await("a session connecting");
    auto deletion = std::async(std::launch::async, [&] { return session->GuaranteedDelete("/n"); });
    EXPECT_EQ(deletion.wait_for(milliseconds(20)), std::future_status::timeout);
    EXPECT_THAT(AskedWith("delete"), IsEmpty());
    library.Expect(Sent::Delete, "/n");
    library.Report(1, ZOO_CONNECTED_STATE);
    EXPECT_EQ(deletion.get(), ZOK);
}

TEST_F(DeletionsOfASession, GoOnWhenTheConnectionComesBack)
{
    const auto session = OpenConnected();
    Reply lost = Code(ZCONNECTIONLOSS);
    lost.during = [&] { library.Report(1, ZOO_CONNECTING_STATE); };
    library.Expect(Sent::Delete, "/n", lost);
    auto deletion = std::async(std::launch::async, [&] { return session->GuaranteedDelete("/n"); });
    library.Asked().Await("1 delete /n");
    library.Expect(Sent::Delete, "/n", Code(ZNONODE));
    library.Report(1, ZOO_CONNECTED_STATE);
    EXPECT_EQ(deletion.get(), ZNONODE);
}

TEST_F(DeletionsOfASession, EndWithTheirSession)
{
    const auto session = OpenConnected();
    Reply lost = Code(ZCONNECTIONLOSS);
    lost.during = [&] { library.Report(1, ZOO_CONNECTING_STATE); };
    library.Expect(Sent::Delete, "/n", lost);
    auto deletion = std::async(std::launch::async, [&] { return session->GuaranteedDelete("/n"); });
    library.Asked().Await("1 delete /n");
    Opening next;
    next.states = {ZOO_CONNECTED_STATE};
    library.ExpectOpen(next);
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    EXPECT_EQ(deletion.get(), ZSESSIONEXPIRED);
    library.Asked().Await("2 open 127.0.0.1:2181");
    AwaitQuiet(*session, 2);
    EXPECT_THAT(AskedWith("delete"), SizeIs(1)) << "the next session has no business with that node";
}

TEST_F(DeletionsOfASession, EndWithTheirSessionWhenNobodyWaits)
{
    const auto session = OpenWithPendingDeletion();
    AwaitSecondAttempt();
    EndForGood(1);
    AwaitEnd(20, ZSESSIONEXPIRED, 1);
}

TEST_F(DeletionsOfASession, EndWhenTheLibraryKnowsFirstThatTheSessionIsOver)
{
    const auto session = OpenConnected();
    library.Break(1);
    library.Expect(Sent::Delete, "/n", Refused(ZINVALIDSTATE));
    auto deletion = std::async(std::launch::async, [&] { return session->GuaranteedDelete("/n"); });
    library.Asked().Await("1 delete /n");
    EXPECT_EQ(deletion.wait_for(milliseconds(5)), std::future_status::timeout);
    EndForGood(1);
    EXPECT_EQ(deletion.get(), ZSESSIONEXPIRED);
}

TEST_F(DeletionsOfASession, EndOnce)
{
    auto session = OpenWithPendingDeletion();
    AwaitSecondAttempt();
    library.Pause();
    EndForGood(1);
    library.Answer(1, Sent::Delete, kNode);
    library.Resume();
    AwaitEnd(20, ZSESSIONEXPIRED, 1);
    session.reset();
    EXPECT_THAT(Logged("Pending deletion ended"), SizeIs(1));
}

TEST_F(DeletionsOfASession, ComeBeforeReadsThatBeginLater)
{
    const auto session = OpenWithPendingDeletion();
    library.Expect(Sent::GetChildren, "/");
    std::vector<std::string> children;
    EXPECT_EQ(session->GetChildren("/", children), ZOK);
    EXPECT_THAT(library.Asked().Lines(),
                ElementsAre("1 open 127.0.0.1:2181", "1 create /n", kDelete, kDelete, "1 children /"));
    library.Answer(1, Sent::Delete, kNode);
    AwaitEnd(10, ZOK, 2);
}

TEST_F(DeletionsOfASession, AreNotOvertakenByReadsWhileTheyAreHandedOver)
{
    Barrier handingOver;
    Barrier goOn;
    Reply slow;
    slow.during = [&] {
        handingOver.Open();
        goOn.Pass();
    };
    const auto session = OpenWithPendingDeletion(slow);
    handingOver.Pass();
    library.Expect(Sent::Exists, "/n", Code(ZNONODE));
    auto exists = std::async(std::launch::async, [&] { return session->Exists("/n", nullptr); });
    EXPECT_EQ(exists.wait_for(milliseconds(20)), std::future_status::timeout);
    goOn.Open();
    exists.wait();
    EXPECT_THAT(AskedWith(" /n"), ElementsAre("1 create /n", kDelete, kDelete, "1 exists /n"));
}

TEST_F(DeletionsOfASession, EndWhenTheSessionIsClosed)
{
    const auto session = OpenConnected();
    library.Expect(Sent::Delete, "/n", Held());
    auto deletion = std::async(std::launch::async, [&] { return session->GuaranteedDelete("/n"); });
    library.Asked().Await("1 delete /n");
    session->Close();
    EXPECT_EQ(deletion.get(), ZCLOSING);
    EXPECT_EQ(session->GuaranteedDelete("/n"), ZCLOSING);
}

TEST_F(DeletionsOfASession, DoNotOutliveTheSessionInTheBackground)
{
    auto session = OpenWithPendingDeletion();
    AwaitSecondAttempt();
    session.reset();
    AwaitEnd(20, ZCLOSING, 1);
}

TEST_F(DeletionsOfASession, MayBeManyAtOnce)
{
    const auto session = OpenConnected();
    std::vector<std::future<int>> deletions;
    for (int i = 0; i < 20; ++i)
    {
        const std::string path = "/n" + std::to_string(i);
        library.Expect(Sent::Delete, path, Code(ZCONNECTIONLOSS));
        library.Expect(Sent::Delete, path, Code(i % 2 == 0 ? ZOK : ZNONODE));
        deletions.push_back(std::async(std::launch::async, [&, path] { return session->GuaranteedDelete(path); }));
    }
    for (std::size_t i = 0; i < deletions.size(); ++i)
    {
        EXPECT_EQ(deletions[i].get(), i % 2 == 0 ? ZOK : ZNONODE);
    }
    EXPECT_THAT(AskedWith("delete"), SizeIs(40));
}

}  // namespace
}  // namespace kx::velmor::testing_support
