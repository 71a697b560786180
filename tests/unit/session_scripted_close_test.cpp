#include "tests/unit/session_scripted_fixture.h"

#include <atomic>
#include <cerrno>
#include <optional>
#include <thread>
#include <utility>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using WatchHandle = Connection::WatchHandle;

class ClosingASession : public SessionScripted
{
protected:
    static std::shared_ptr<void> WhenDestroyed(std::function<void()> act)
    {
        return {nullptr, [act = std::move(act)](void*) { act(); }};
    }

    static void ExpectEverythingRefused(const Session& session)
    {
        std::vector<std::string> children;
        EXPECT_EQ(session.Exists("/n", nullptr), ZCLOSING);
        EXPECT_EQ(session
                      .Exists(
                          "/n", [](int, int, const std::string&) {}, nullptr)
                      .first,
                  ZCLOSING);
        EXPECT_EQ(session.GetChildren("/n", children), ZCLOSING);
        EXPECT_EQ(session.Create("/n", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZCLOSING);
        EXPECT_EQ(session.GuaranteedDelete("/n"), ZCLOSING);
        EXPECT_EQ(session.ClientId(), nullptr);
    }

    /// Arms a watch on "/n" whose callback runs `act`.
    WatchHandle Acting(const Session& session, std::function<void()> act)
    {
        library.Expect(Sent::WatchExists, "/n");
        auto watched = session.Exists(
            "/n", [act = std::move(act)](int, int, const std::string&) { act(); }, nullptr);
        EXPECT_EQ(watched.first, ZOK);
        return std::move(watched.second);
    }
};

TEST_F(ClosingASession, RefusesEverythingAtOnceFromThenOn)
{
    const auto session = OpenConnected();
    session->Close();
    session->Close();
    ExpectEverythingRefused(*session);
    EXPECT_THAT(AskedWith("close"), ElementsAre("1 close"));
    EXPECT_THAT(Logged("Session connected -> closed: session 0x1001"), SizeIs(1));
}

TEST_F(ClosingASession, DropsWatchesAndTheirCallbacks)
{
    const auto session = OpenConnected();
    bool destroyed = false;
    const auto watch = Acting(*session, [probe = WhenDestroyed([&] { destroyed = true; })] { ADD_FAILURE() << "ran"; });
    session->Close();
    EXPECT_TRUE(destroyed) << "though its handle is still there";
}

TEST_F(ClosingASession, DropsEventsThatHaveNotBeenTold)
{
    const auto session = OpenConnected();
    Barrier running;
    Barrier release;
    const auto busy = Acting(*session, [&] {
        running.Open();
        release.Pass();
    });
    const auto watch = Watch(*session, "/m", "m");
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    running.Pass();
    library.Fire(1, ZOO_DELETED_EVENT, "/m");
    auto close = std::async(std::launch::async, [&] { session->Close(); });
    library.Asked().Await("1 close");
    release.Open();
    close.wait();
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(ClosingASession, WaitsForTheCallbackThatRuns)
{
    const auto session = OpenConnected();
    Barrier running;
    Barrier release;
    std::atomic<bool> through{false};
    const auto watch = Acting(*session, [&] {
        running.Open();
        release.Pass();
        ExpectEverythingRefused(*session);
        through = true;
    });
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    running.Pass();
    auto close = std::async(std::launch::async, [&] {
        session->Close();
        EXPECT_TRUE(through);
    });
    auto again = std::async(std::launch::async, [&] {
        session->Close();
        EXPECT_TRUE(through);
    });
    library.Asked().Await("1 close");
    EXPECT_EQ(close.wait_for(milliseconds(20)), std::future_status::timeout);
    release.Open();
    close.wait();
    again.wait();
}

TEST_F(ClosingASession, MayBeDoneByACallback)
{
    const auto session = OpenConnected();
    const auto first = Acting(*session, [&] {
        session->Close();
        ExpectEverythingRefused(*session);
        journal.Note("closed");
    });
    const auto second = Watch(*session, "/n", "second");
    const auto other = Watch(*session, "/m", "other");
    library.Pause();
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    library.Fire(1, ZOO_DELETED_EVENT, "/m");
    library.Report(1, ZOO_CONNECTING_STATE);
    library.Resume();
    journal.Await("closed");
    session->Close();
    EXPECT_THAT(Told(), ElementsAre("closed")) << "no callback but the one that closed";
}

TEST_F(ClosingASession, MayBeDoneByACallbackWhileAnotherThreadIsAtIt)
{
    const auto session = OpenConnected();
    Barrier running;
    Barrier closing;
    const auto watch = Acting(*session, [&] {
        running.Open();
        closing.Pass();
        session->Close();
        journal.Note("closed");
    });
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    running.Pass();
    library.WhenClosed(1, [&] { closing.Open(); });
    session->Close();
    EXPECT_EQ(journal.Count("closed"), 1U) << "the callback is through";
    EXPECT_THAT(AskedWith("close"), ElementsAre("1 close"));
}

TEST_F(ClosingASession, MayBeDoneByAnotherThreadWhileACallbackIsAtIt)
{
    const auto session = OpenConnected();
    Barrier closing;
    Barrier release;
    const auto watch = Acting(*session, [&] {
        session->Close();
        journal.Note("closed");
    });
    library.WhenClosed(1, [&] {
        closing.Open();
        release.Pass();
    });
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    closing.Pass();
    auto other = std::async(std::launch::async, [&] {
        session->Close();
        EXPECT_EQ(journal.Count("closed"), 1U) << "the callback is through";
    });
    EXPECT_EQ(other.wait_for(milliseconds(20)), std::future_status::timeout);
    release.Open();
    other.wait();
    EXPECT_THAT(AskedWith("close"), ElementsAre("1 close"));
}

TEST_F(ClosingASession, SecondCallerWaitsForTheFirst)
{
    const auto session = OpenConnected();
    Barrier release;
    library.WhenClosed(1, [&] { release.Pass(); });
    std::atomic<int> through{0};
    auto first = std::async(std::launch::async, [&] {
        session->Close();
        ++through;
    });
    library.Asked().Await("1 close");
    ExpectEverythingRefused(*session);
    auto second = std::async(std::launch::async, [&] {
        session->Close();
        ++through;
    });
    EXPECT_EQ(second.wait_for(milliseconds(20)), std::future_status::timeout);
    EXPECT_EQ(through, 0);
    release.Open();
    first.wait();
    second.wait();
}

TEST_F(ClosingASession, EndsOperationsThatWaitForAnswersThatNeverCome)
{
    library.LoseAnswersAtClose();
    const auto session = OpenConnected();
    std::vector<std::future<int>> operations;
    library.Expect(Sent::Exists, "/n", Held());
    library.Expect(Sent::Create, "/n", Held());
    library.Expect(Sent::Delete, "/n", Held());
    library.Expect(Sent::WatchExists, "/n", Held());
    operations.push_back(std::async(std::launch::async, [&] { return session->Exists("/n", nullptr); }));
    operations.push_back(
        std::async(std::launch::async, [&] { return session->Create("/n", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr); }));
    operations.push_back(std::async(std::launch::async, [&] { return session->GuaranteedDelete("/n"); }));
    operations.push_back(
        std::async(std::launch::async, [&] { return session->Exists("/n", Noting("n"), nullptr).first; }));
    for (const char* request : {"1 exists /n", "1 create /n", "1 delete /n", "1 watch /n"})
    {
        library.Asked().Await(request);
    }
    // Also while the library takes its time to close.
    Barrier release;
    library.WhenClosed(1, [&] { release.Pass(); });
    auto close = std::async(std::launch::async, [&] { session->Close(); });
    for (std::future<int>& operation : operations)
    {
        EXPECT_EQ(operation.get(), ZCLOSING);
    }
    release.Open();
    close.wait();
}

TEST_F(ClosingASession, EndsOperationsThatWaitForTheConnection)
{
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/a", "a");
    library.Report(1, ZOO_CONNECTING_STATE);
    journal.Await("a session connecting");
    auto exists = std::async(std::launch::async, [&] { return session->Exists("/n", nullptr); });
    auto remove = std::async(std::launch::async, [&] { return session->GuaranteedDelete("/n"); });
    EXPECT_EQ(exists.wait_for(milliseconds(20)), std::future_status::timeout);
    session->Close();
    EXPECT_EQ(exists.get(), ZCLOSING);
    EXPECT_EQ(remove.get(), ZCLOSING);
}

TEST_F(ClosingASession, DoesNotCloseTheHandleUnderTheFeetOfACall)
{
    const auto session = OpenConnected();
    Barrier inside;
    Barrier release;
    Reply slow;
    slow.during = [&] {
        inside.Open();
        release.Pass();
    };
    library.Expect(Sent::Exists, "/n", slow);
    auto exists = std::async(std::launch::async, [&] { return session->Exists("/n", nullptr); });
    inside.Pass();
    auto close = std::async(std::launch::async, [&] { session->Close(); });
    EXPECT_EQ(close.wait_for(milliseconds(20)), std::future_status::timeout);
    EXPECT_THAT(AskedWith("close"), IsEmpty());
    // Nobody else gets in meanwhile.
    ExpectEverythingRefused(*session);
    release.Open();
    close.wait();
    const int rc = exists.get();
    EXPECT_TRUE(rc == ZOK || rc == ZCLOSING) << zerror(rc);
}

TEST_F(ClosingASession, ClosesAHandleThatIsOnlyJustBeingMade)
{
    const auto session = OpenConnected();
    Barrier making;
    Barrier release;
    Opening next;
    next.states = {ZOO_CONNECTED_STATE};
    next.during = [&] {
        making.Open();
        release.Pass();
    };
    library.ExpectOpen(next);
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    making.Pass();
    auto close = std::async(std::launch::async, [&] { session->Close(); });
    EXPECT_EQ(close.wait_for(milliseconds(20)), std::future_status::timeout) << "it would call back afterwards";
    release.Open();
    close.wait();
    EXPECT_THAT(AskedWith("2 "), ElementsAre("2 open 127.0.0.1:2181", "2 close"));
    EXPECT_THAT(Logged("-> connected"), SizeIs(1));
}

TEST_F(ClosingASession, DoesNotWaitForTheNextAttemptToOpen)
{
    const auto session = OpenConnected();
    Opening none;
    none.error = EMFILE;
    for (int i = 0; i < 3; ++i)
    {
        library.ExpectOpen(none);
    }
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("no open 127.0.0.1:2181", 3);
    // The next attempt is 400 ms away at the least.
    session->Close();
    EXPECT_THAT(AskedWith(" open "), SizeIs(4));
}

TEST_F(ClosingASession, MayBeDoneByDroppingTheLastReferenceInACallback)
{
    auto session = OpenConnected();
    library.Expect(Sent::WatchExists, "/n");
    Barrier handed;
    const auto owner = std::make_shared<std::shared_ptr<Session>>(session);
    auto watched = session->Exists(
        "/n",
        [&, owner](int, int, const std::string&) {
            handed.Pass();
            owner->reset();
            journal.Note("dropped");
        },
        nullptr);
    const std::weak_ptr<Session> alive = session;
    session.reset();
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    EXPECT_FALSE(alive.expired());
    handed.Open();
    journal.Await("dropped");
    EXPECT_TRUE(alive.expired());
    EXPECT_THAT(AskedWith("close"), ElementsAre("1 close"));
}

TEST_F(ClosingASession, MayBeDoneByDroppingTheLastReferenceWithACallback)
{
    auto session = OpenConnected();
    library.Expect(Sent::WatchExists, "/n");
    auto watched = session->Exists(
        "/n", [session](int, int, const std::string&) {}, nullptr);
    library.Expect(Sent::WatchExists, "/m");
    const auto other = session->Exists(
        "/m", [&](int, int, const std::string&) { watched.second = WatchHandle(); }, nullptr);
    const std::weak_ptr<Session> alive = session;
    session.reset();
    ASSERT_FALSE(alive.expired());
    // The event thread drops the state that was released, and with it the callback.
    library.Fire(1, ZOO_DELETED_EVENT, "/m");
    library.Asked().Await("1 close");
}

TEST_F(ClosingASession, MayBeDoneByDroppingTheLastReferenceWithAHandle)
{
    auto session = OpenConnected();
    library.Expect(Sent::WatchExists, "/n");
    std::optional<WatchHandle> handle(std::move(session
                                                    ->Exists(
                                                        "/n", [session](int, int, const std::string&) {}, nullptr)
                                                    .second));
    const std::weak_ptr<Session> alive = session;
    session.reset();
    ASSERT_FALSE(alive.expired());
    handle.reset();
    EXPECT_TRUE(alive.expired());
    EXPECT_THAT(AskedWith("close"), ElementsAre("1 close"));
}

TEST_F(ClosingASession, MayBeDoneByDroppingTheLastReferenceWithAHandleWhileTheEventThreadWantsIt)
{
    for (int round = 1; round <= 20; ++round)
    {
        auto session = OpenConnected();
        library.Expect(Sent::WatchExists, "/n");
        std::optional<WatchHandle> handle(std::move(session
                                                        ->Exists(
                                                            "/n", [session](int, int, const std::string&) {}, nullptr)
                                                        .second));
        const auto other = Watch(*session, "/m", "m");
        session.reset();
        // The event thread copies the callback under the state's mutex, which the handle's destruction holds while it
        // destroys the callback; the later of the two destroys the session.
        library.Report(round, ZOO_CONNECTING_STATE);
        handle.reset();
        library.Asked().Await(std::to_string(round) + " close");
    }
}

TEST_F(ClosingASession, MayBeDoneByDroppingTheLastReferenceWithAHandleInACallback)
{
    auto session = OpenConnected();
    library.Expect(Sent::WatchExists, "/n");
    std::optional<WatchHandle> handle(std::move(session
                                                    ->Exists(
                                                        "/n", [session](int, int, const std::string&) {}, nullptr)
                                                    .second));
    library.Expect(Sent::WatchExists, "/m");
    const auto watch = session->Exists(
        "/m",
        [&](int, int, const std::string&) {
            handle.reset();
            journal.Note("dropped");
        },
        nullptr);
    const std::weak_ptr<Session> alive = session;
    session.reset();
    library.Fire(1, ZOO_DELETED_EVENT, "/m");
    journal.Await("dropped");
    EXPECT_TRUE(alive.expired());
}

TEST_F(ClosingASession, MayBeDoneWhileAHandleGoes)
{
    // Whoever destroys a handle holds its state's mutex, which the event thread wants when it drops all watches.
    const auto session = OpenConnected();
    library.Expect(Sent::WatchExists, "/n");
    Barrier destroying;
    std::optional<std::pair<int, WatchHandle>> watched(session->Exists(
        "/n", [&, probe = WhenDestroyed([&] {
                      destroying.Open();
                      library.Asked().Await("1 close");
                  })](int, int, const std::string&) {},
        nullptr));
    std::thread owner([&] { watched.reset(); });
    destroying.Pass();
    session->Close();
    owner.join();
}

TEST_F(ClosingASession, LeavesHandlesThatOutliveIt)
{
    std::optional<WatchHandle> handle;
    {
        const auto session = OpenConnected();
        handle.emplace(Watch(*session, "/n", "n"));
    }
    handle.reset();
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(ClosingASession, MayBeDoneByManyWhileOthersUseIt)
{
    for (int round = 1; round <= 10; ++round)
    {
        Opening opening;
        opening.states = {ZOO_CONNECTED_STATE};
        library.ExpectOpen(opening);
        const auto session = Session::Open(options);
        library.Expect(Sent::Exists, "/n", Always({}));
        library.Expect(Sent::WatchExists, "/n", Always(Code(ZNONODE)));
        library.Expect(Sent::Delete, "/n", Always({}));
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i)
        {
            threads.emplace_back([&, i] {
                int rc = ZOK;
                while (rc != ZCLOSING)
                {
                    rc = i == 0   ? session->Exists("/n", nullptr)
                         : i == 1 ? session->Exists("/n", Noting("n"), nullptr).first
                                  : session->GuaranteedDelete("/n");
                }
            });
        }
        library.Asked().Await(std::to_string(round) + " exists /n");
        for (int i = 0; i < 2; ++i)
        {
            threads.emplace_back([&] { session->Close(); });
        }
        for (std::thread& thread : threads)
        {
            thread.join();
        }
    }
    EXPECT_THAT(AskedWith("close"), SizeIs(10));
}

}  // namespace
}  // namespace kx::velmor::testing_support
