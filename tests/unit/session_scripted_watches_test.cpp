#include "tests/unit/session_scripted_fixture.h"

#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;
using WatchHandle = Connection::WatchHandle;

class WatchesOfASession : public SessionScripted
{
protected:
    /// Runs `act` when the callback that holds this is destroyed.
    static std::shared_ptr<void> WhenDestroyed(std::function<void()> act)
    {
        return {nullptr, [act = std::move(act)](void*) { act(); }};
    }

    /// A callback that blocks the event thread from the next event of "/busy" on, until `release` is opened.
    WatchHandle Occupy(const Session& session, Barrier& release)
    {
        auto busy = std::make_shared<Barrier>();
        library.Expect(Sent::WatchExists, "/busy");
        auto watched = session.Exists(
            "/busy",
            [&release, busy](int, int, const std::string&) {
                busy->Open();
                release.Pass();
            },
            nullptr);
        EXPECT_EQ(watched.first, ZOK);
        library.Fire(1, ZOO_CHANGED_EVENT, "/busy");
        busy->Pass();
        return std::move(watched.second);
    }

    /// An operation that has nothing to do with watches.
    void Operate(const Session& session)
    {
        library.Expect(Sent::Exists, options.rootPath + "/other");
        EXPECT_EQ(session.Exists("/other", nullptr), ZOK);
    }
};

TEST_F(WatchesOfASession, NodeEventIsToldOnceAndSessionEventsAreToldBeforeAndAfterIt)
{
    const auto session = OpenConnected();
    const auto first = Watch(*session, "/n", "first");
    const auto second = Watch(*session, "/n", "second");
    const auto other = Watch(*session, "/m", "other");
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    library.Fire(1, ZOO_CREATED_EVENT, "/n");
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), ElementsAre("first deleted /n", "second deleted /n"));
    Reconnect(1);
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), ElementsAre("first session connecting", "second session connecting", "other session connecting",
                                    "first session connected", "second session connected", "other session connected"));
    EXPECT_THAT(library.Armed(1), ElementsAre("/m")) << "a state that has had its node event watches no node";
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(WatchesOfASession, StateThatIsReleasedAfterItsNodeEventIsDropped)
{
    const auto session = OpenConnected();
    bool destroyed = false;
    library.Expect(Sent::WatchExists, "/n");
    auto watched = session->Exists(
        "/n", [this, probe = WhenDestroyed([&] {
                         destroyed = true;
                     })](int, int, const std::string&) { journal.Note("told"); },
        nullptr);
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), ElementsAre("told"));
    const auto armedAgain = Watch(*session, "/n", "again");
    EXPECT_FALSE(destroyed) << "its handle still holds it";
    watched.second = WatchHandle();
    Operate(*session);
    EXPECT_TRUE(destroyed);
    EXPECT_THAT(library.Armed(1), ElementsAre("/n")) << "the new watch stays armed";
    Reconnect(1);
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), ElementsAre("again session connecting", "again session connected"));
}

TEST_F(WatchesOfASession, CloseDropsTheCallbacksOfWatchesThatHaveFired)
{
    const auto session = OpenConnected();
    library.Expect(Sent::WatchExists, "/n");
    bool destroyed = false;
    const auto watched = session->Exists(
        "/n", [this, probe = WhenDestroyed([&] {
                         destroyed = true;
                     })](int, int, const std::string&) { journal.Note("told"); },
        nullptr);
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), ElementsAre("told"));
    EXPECT_FALSE(destroyed);
    session->Close();
    EXPECT_TRUE(destroyed);
}

TEST_F(WatchesOfASession, SessionEventsAreToldToAllInTheOrderOfArmingAndConsumeNone)
{
    const auto session = OpenConnected();
    const auto b = Watch(*session, "/b", "b");
    const auto a = Watch(*session, "/a", "a");
    const auto again = Watch(*session, "/b", "again");
    Reconnect(1);
    library.Fire(1, ZOO_CHANGED_EVENT, "/a");
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(),
                ElementsAre("b session connecting", "a session connecting", "again session connecting",
                            "b session connected", "a session connected", "again session connected", "a changed /a"));
}

TEST_F(WatchesOfASession, RootIsNotShown)
{
    options.rootPath = "/apps/x";
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/n", "a");
    library.Expect(Sent::WatchExists, "/apps/x");
    const auto root = session->Exists("/", Noting("root"), nullptr);
    library.Fire(1, ZOO_DELETED_EVENT, "/apps/x/n");
    library.Fire(1, ZOO_CHANGED_EVENT, "/apps/x");
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), ElementsAre("a deleted /n", "root changed /"));
}

TEST_F(WatchesOfASession, EventMayComeBeforeTheAnswerToTheArming)
{
    const auto session = OpenConnected();
    library.Expect(Sent::WatchExists, "/n", Held());
    auto watched = std::async(std::launch::async, [&] { return session->Exists("/n", Noting("a"), nullptr); });
    library.Asked().Await("1 watch /n");
    // Of an earlier watch on the same node.
    library.Fire(1, ZOO_CHANGED_EVENT, "/n");
    journal.Await("a changed /n");
    library.Answer(1, Sent::WatchExists, "/n");
    const auto result = watched.get();
    EXPECT_EQ(result.first, ZOK);
    EXPECT_THAT(library.Armed(1), IsEmpty()) << "what it armed would find nobody";
}

TEST_F(WatchesOfASession, EventThatFindsAWatchTooEarlyLeavesNoneInTheLibrary)
{
    const auto session = OpenConnected();
    Barrier release;
    const auto busy = Occupy(*session, release);
    library.Expect(Sent::WatchExists, "/n", Held());
    auto watched = std::async(std::launch::async, [&] { return session->Exists("/n", Noting("a"), nullptr); });
    library.Asked().Await("1 watch /n");
    library.Pause();
    library.Fire(1, ZOO_CHANGED_EVENT, "/n");
    library.Answer(1, Sent::WatchExists, "/n", Code(ZNONODE));
    library.Resume();
    const auto result = watched.get();
    EXPECT_EQ(result.first, ZNONODE);
    EXPECT_THAT(library.Armed(1), ElementsAre("/n"));
    release.Open();
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), ElementsAre("a changed /n"));
    EXPECT_THAT(library.Armed(1), IsEmpty()) << "it would stay for as long as there is no such node";
}

TEST_F(WatchesOfASession, EventBetweenTwoArmsIsForTheFirstOnly)
{
    const auto session = OpenConnected();
    Barrier release;
    const auto busy = Occupy(*session, release);
    const auto first = Watch(*session, "/n", "first");
    library.Fire(1, ZOO_CHANGED_EVENT, "/n");
    library.AwaitArrivals(1);
    const auto second = Watch(*session, "/n", "second");
    release.Open();
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), ElementsAre("first changed /n"));
    EXPECT_THAT(library.Armed(1), ElementsAre("/n"));
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), ElementsAre("second deleted /n"));
}

TEST_F(WatchesOfASession, SessionEventIsNotForWhoWasArmedAfterIt)
{
    const auto session = OpenConnected();
    std::vector<WatchHandle> armed;
    library.Expect(Sent::Sync, "/n", Always({}));
    library.Expect(Sent::WatchExists, "/n", Always({}));
    int told = 0;
    std::function<void(int, int, std::string)> again = [&](int, int state, const std::string&) {
        ++told;
        journal.Note("told");
        if (state == ZOO_CONNECTED_STATE)
        {
            armed.push_back(session->Exists("/n", again, nullptr).second);
        }
    };
    armed.push_back(session->Exists("/n", again, nullptr).second);
    Reconnect(1);
    AwaitQuiet(*session, 1);
    EXPECT_EQ(told, 2);
    Reconnect(1);
    AwaitQuiet(*session, 1);
    EXPECT_EQ(told, 2 + 4);
    session->Close();
}

TEST_F(WatchesOfASession, DestroyedHandleHearsNothing)
{
    const auto session = OpenConnected();
    std::optional<WatchHandle> handle(Watch(*session, "/n", "a"));
    handle.reset();
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    Reconnect(1);
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(WatchesOfASession, StateThatWasLetGoOfIsDroppedByTheNextOperation)
{
    const auto session = OpenConnected();
    bool destroyed = false;
    library.Expect(Sent::WatchExists, "/n", Code(ZNONODE));
    auto watched = session->Exists(
        "/n", [this, probe = WhenDestroyed([&] {
                         destroyed = true;
                     })](int, int, const std::string&) { journal.Note("told"); },
        nullptr);
    watched.second = WatchHandle();
    EXPECT_FALSE(destroyed) << "assigned over, not destroyed";
    EXPECT_THAT(library.Armed(1), ElementsAre("/n"));
    Operate(*session);
    EXPECT_TRUE(destroyed);
    EXPECT_THAT(library.Armed(1), IsEmpty());
    library.Fire(1, ZOO_CREATED_EVENT, "/n");
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(WatchesOfASession, StateThatWasLetGoOfIsDroppedByTheNextEventInsteadOfBeingTold)
{
    const auto session = OpenConnected();
    bool destroyed = false;
    library.Expect(Sent::WatchExists, "/n");
    auto watched = session->Exists(
        "/n", [this, probe = WhenDestroyed([&] {
                         destroyed = true;
                         journal.Note("test destroyed");
                     })](int, int, const std::string&) { journal.Note("told"); },
        nullptr);
    watched.second = WatchHandle();
    Reconnect(1);
    journal.Await("test destroyed");
    EXPECT_TRUE(destroyed);
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), IsEmpty());
    EXPECT_EQ(library.Armed(1).count("/n"), 0U);
}

TEST_F(WatchesOfASession, StateThatWasLetGoOfIsNotToldOfItsNode)
{
    const auto session = OpenConnected();
    auto watch = Watch(*session, "/n", "a");
    watch = WatchHandle();
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(WatchesOfASession, WatchOnAnAbsentNodeDoesNotStayBehind)
{
    const auto session = OpenConnected();
    for (int i = 0; i < 10; ++i)
    {
        const std::string path = "/gone" + std::to_string(i);
        library.Expect(Sent::WatchExists, path, Code(ZNONODE));
        EXPECT_EQ(session->Exists(path, Noting("a"), nullptr).first, ZNONODE);
    }
    Operate(*session);
    EXPECT_THAT(library.Armed(1), IsEmpty());
}

TEST_F(WatchesOfASession, PathThatSomebodyStillWatchesStaysWatched)
{
    const auto session = OpenConnected();
    auto first = std::make_optional(Watch(*session, "/n", "first"));
    const auto second = Watch(*session, "/n", "second");
    first.reset();
    Operate(*session);
    EXPECT_THAT(library.Armed(1), ElementsAre("/n"));
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), ElementsAre("second deleted /n"));
}

TEST_F(WatchesOfASession, ArmingThatFailedIsToldNothing)
{
    options.sessionTimeout = milliseconds(1'000);
    const auto session = OpenConnected();
    library.Expect(Sent::WatchExists, "/n", Code(ZNOAUTH));
    bool destroyed = false;
    const auto watched = session->Exists(
        "/n", [probe = WhenDestroyed([&] { destroyed = true; })](int, int, const std::string&) {}, nullptr);
    EXPECT_EQ(watched.first, ZNOAUTH);
    EXPECT_TRUE(destroyed);
    const auto watch = Watch(*session, "/m", "a");
    Reconnect(1);
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), ElementsAre("a session connecting", "a session connected"));
}

TEST_F(WatchesOfASession, WatchThatIsArmedAfterItsDeadlineIsTakenBack)
{
    options.operationTimeout = milliseconds(100);
    const auto session = OpenConnected();
    for (const int rc : {ZOK, ZNONODE})
    {
        library.Expect(Sent::WatchExists, "/n", Held());
        EXPECT_EQ(session->Exists("/n", Noting("a"), nullptr).first, ZOPERATIONTIMEOUT);
        library.Answer(1, Sent::WatchExists, "/n", Code(rc));
        AwaitQuiet(*session, 1);
        EXPECT_THAT(library.Armed(1), IsEmpty());
    }
}

TEST_F(WatchesOfASession, LateWatchIsLeftToWhoWatchesTheSameNodeMeanwhile)
{
    options.operationTimeout = milliseconds(100);
    const auto session = OpenConnected();
    library.Expect(Sent::WatchExists, "/n", Held());
    EXPECT_EQ(session->Exists("/n", Noting("late"), nullptr).first, ZOPERATIONTIMEOUT);
    const auto watch = Watch(*session, "/n", "a");
    library.Answer(1, Sent::WatchExists, "/n");
    AwaitQuiet(*session, 1);
    EXPECT_THAT(library.Armed(1), ElementsAre("/n"));
}

TEST_F(WatchesOfASession, ArmingThatFailsInTheEndTakesBackWhatItArmedBefore)
{
    options.sessionTimeout = milliseconds(1'000);
    options.operationTimeout = milliseconds(200);
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/a", "a");
    Reconnect(1);
    journal.Await("a session connected");
    // The first attempt arms, and is not believed, since it may have overtaken its synchronisation.
    library.Expect(Sent::Sync, "/n", Code(ZCONNECTIONLOSS));
    library.Expect(Sent::WatchExists, "/n", Code(ZNONODE));
    library.Expect(Sent::Sync, "/n", Always(Code(ZCONNECTIONLOSS)));
    library.Expect(Sent::WatchExists, "/n", Always(Code(ZCONNECTIONLOSS)));
    EXPECT_THAT(session->Exists("/n", Noting("n"), nullptr).first, AnyOf(ZCONNECTIONLOSS, ZOPERATIONTIMEOUT));
    EXPECT_THAT(library.Armed(1), ElementsAre("/a"));
}

TEST_F(WatchesOfASession, CallbacksThatThrowHarmNobody)
{
    const auto session = OpenConnected();
    library.Expect(Sent::WatchExists, "/n", Always({}));
    const auto first = session->Exists(
        "/n", [](int, int, const std::string&) { throw std::runtime_error("oops"); }, nullptr);
    const auto second = session->Exists(
        "/n", [](int, int, const std::string&) { throw 7; }, nullptr);
    const auto third = session->Exists("/n", Noting("third"), nullptr);
    Reconnect(1);
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), ElementsAre("third session connecting", "third session connected", "third deleted /n"));
    EXPECT_THAT(Logged("A watch callback threw: oops"), SizeIs(3));
    EXPECT_THAT(Logged("A watch callback threw something that is no std::exception"), SizeIs(3));
}

TEST_F(WatchesOfASession, CallbackThatCannotBeCopiedForASessionEventHarmsNobody)
{
    struct Uncopyable
    {
        Uncopyable() = default;
        Uncopyable(const Uncopyable& /*other*/) { throw std::runtime_error("no copy"); }
        Uncopyable(Uncopyable&&) noexcept = default;
        void operator()(int /*type*/, int /*state*/, const std::string& /*path*/) const {}
    };
    const auto session = OpenConnected();
    library.Expect(Sent::WatchExists, "/n");
    const auto watch = session->Exists("/n", Connection::WatchCallback(Uncopyable()), nullptr);
    const auto other = Watch(*session, "/m", "other");
    Reconnect(1);
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Told(), ElementsAre("other session connecting", "other session connected"));
}

TEST_F(WatchesOfASession, EmptyCallbackIsNone)
{
    const auto session = OpenConnected();
    library.Expect(Sent::WatchExists, "/n");
    const auto watch = session->Exists("/n", Connection::WatchCallback(), nullptr);
    EXPECT_EQ(watch.first, ZOK);
    Reconnect(1);
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    AwaitQuiet(*session, 1);
    EXPECT_THAT(Logged("A watch callback threw"), IsEmpty());
}

TEST_F(WatchesOfASession, CallbackMayUseTheSession)
{
    const auto session = OpenConnected();
    library.Expect(Sent::WatchExists, "/n");
    library.Expect(Sent::Exists, "/m", Code(ZNONODE));
    library.Expect(Sent::Create, "/m", Created("/m"));
    library.Expect(Sent::GetChildren, "/");
    library.Expect(Sent::WatchExists, "/m");
    library.Expect(Sent::Delete, "/m");
    std::optional<std::pair<int, WatchHandle>> inner;
    const auto watch = session->Exists(
        "/n",
        [&](int, int, const std::string&) {
            std::vector<std::string> children;
            EXPECT_EQ(session->Exists("/m", nullptr), ZNONODE);
            EXPECT_EQ(session->Create("/m", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZOK);
            EXPECT_EQ(session->GetChildren("/", children), ZOK);
            inner.emplace(session->Exists("/m", Noting("inner"), nullptr));
            EXPECT_EQ(session->GuaranteedDelete("/m"), ZOK);
            EXPECT_TRUE(session->ClientId());
            journal.Note("done");
        },
        nullptr);
    library.Fire(1, ZOO_CHANGED_EVENT, "/n");
    journal.Await("done");
    EXPECT_EQ(inner->first, ZOK);
    library.Fire(1, ZOO_DELETED_EVENT, "/m");
    journal.Await("inner deleted /m");
}

TEST_F(WatchesOfASession, CallbackMayDestroyItsOwnHandle)
{
    const auto session = OpenConnected();
    library.Expect(Sent::WatchExists, "/n");
    std::optional<WatchHandle> handle;
    bool destroyed = false;
    auto watched = session->Exists(
        "/n",
        [&, probe = WhenDestroyed([&] {
                destroyed = true;
                journal.Note("test destroyed");
            })](int, int, const std::string&) {
            handle.reset();
            EXPECT_FALSE(destroyed) << "it is running";
            journal.Note("done");
        },
        nullptr);
    handle.emplace(std::move(watched.second));
    library.Report(1, ZOO_CONNECTING_STATE);
    journal.Await("test destroyed");
    EXPECT_THAT(Told(), ElementsAre("done"));
}

TEST_F(WatchesOfASession, CallbacksAreDestroyedWithNoLockOfTheSessionHeld)
{
    const auto session = OpenConnected();
    int used = 0;
    const auto use = [&] {
        library.Expect(Sent::Exists, "/used");
        EXPECT_EQ(session->Exists("/used", nullptr), ZOK);
        ++used;
        journal.Note("used");
    };
    library.Expect(Sent::Sync, "/used", Always({}));
    library.Expect(Sent::WatchExists, "/n", Always({}));
    const auto watch = [&] {
        return session->Exists(
            "/n", [probe = WhenDestroyed(use)](int, int, const std::string&) {}, nullptr);
    };
    // By an operation, after its handle was assigned over: before its node event, and after it; by its handle.
    auto assigned = watch();
    assigned.second = WatchHandle();
    Operate(*session);
    EXPECT_EQ(used, 1);
    auto told = watch();
    library.Fire(1, ZOO_DELETED_EVENT, "/n");
    AwaitQuiet(*session, 1);
    told.second = WatchHandle();
    Operate(*session);
    EXPECT_EQ(used, 2);
    {
        const auto destroyed = watch();
    }
    EXPECT_EQ(used, 3);
    // After a session event during which its handle went.
    std::optional<WatchHandle> handle;
    auto running = session->Exists(
        "/n",
        [&, probe = WhenDestroyed(use)](int, int state, const std::string&) {
            if (state == ZOO_CONNECTED_STATE)
            {
                handle.reset();
            }
        },
        nullptr);
    handle.emplace(std::move(running.second));
    Reconnect(1);
    journal.Await("used", 4);
}

TEST_F(WatchesOfASession, NumberOfWatchesIsTheSameAfterAThousandReconnections)
{
    const auto session = OpenConnected();
    library.Expect(Sent::Sync, "/ahead", Always({}));
    library.Expect(Sent::WatchExists, "/ahead", Always({}));
    library.Expect(Sent::WatchExists, "/further", Always({}));
    // As a candidate does: look again on every connection, and arm anew over what was armed before.
    WatchHandle ahead;
    WatchHandle further;
    int checks = 0;
    std::function<void()> check;
    const auto callback = [&](int, int state, const std::string&) {
        if (state == ZOO_CONNECTED_STATE)
        {
            check();
        }
    };
    check = [&] {
        ++checks;
        ahead = session->Exists("/ahead", callback, nullptr).second;
        further = session->Exists("/further", callback, nullptr).second;
        journal.Note("checked");
    };
    check();
    constexpr int kRounds = 1'000;
    for (int i = 0; i < kRounds; ++i)
    {
        journal.Take();
        Reconnect(1);
        journal.Await("checked");
    }
    AwaitQuiet(*session, 1);
    EXPECT_LE(checks, 1 + 2 * kRounds);
    EXPECT_THAT(library.Armed(1), UnorderedElementsAre("/ahead", "/further"));
    const int before = checks;
    Reconnect(1);
    AwaitQuiet(*session, 1);
    EXPECT_LE(checks - before, 2);
    session->Close();
}

TEST_F(WatchesOfASession, LinesOfTheLibrarysLogAreHandedOnByTheEventThread)
{
    const auto session = OpenConnected();
    library.Write(1, "2026-01-02 03:04:05,678:9(0xa):ZOO_WARN@f@1: It rains\n");
    journal.Await("[20] It rains");
    EXPECT_THAT(Logged("It rains", "velmor.zookeeper"), SizeIs(1));
}

}  // namespace
}  // namespace kx::velmor::testing_support
