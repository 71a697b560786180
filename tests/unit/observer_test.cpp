// What an observer tells of an election in memory, whose clock stands still: what is told without its moving on was
// told by watches.

#include "tests/unit/counting_session.h"
#include "tests/unit/member_fixture.h"

#include <kx/velmor/error.h>
#include <kx/velmor/observer.h>

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

/// "first, second; first leads", "first; nobody leads", "disconnected: nothing known".
std::string Text(const ElectionView& view)
{
    std::string text = view.connected ? "" : "disconnected: ";
    if (!view.error.empty())
    {
        text += view.error + " (" + std::to_string(view.code) + "): ";
    }
    if (!view.known)
    {
        return text + "nothing known";
    }
    for (std::size_t position = 0; position < view.queue.size(); ++position)
    {
        const Participant& participant = view.queue[position];
        EXPECT_EQ(participant.role, position == 0 ? Role::Leader : (position == 1 ? Role::NextLeader : Role::Follower));
        text += (position == 0 ? "" : ", ") + (participant.identity.empty() ? participant.node : participant.identity);
    }
    if (!view.leader)
    {
        return text + "; nobody leads";
    }
    return text + "; " + view.leader->identity + " leads" + (view.leader->position ? "" : " without a place");
}

class ObserverTest : public MemberTest
{
protected:
    /// Notes each view as text.
    Observer::Callback Noting()
    {
        return [views = views_](const ElectionView& view) { views->Note(Text(view)); };
    }

    std::unique_ptr<Observer> Observe(const std::string& path = "/election")
    {
        return std::make_unique<Observer>(session_, path, Noting());
    }

    /// A node that somebody makes by hand.
    void Add(const std::string& name) { service_.Add("/election/" + name); }

    static constexpr milliseconds kInterval{500};

    /// Callbacks may run on after this object has gone.
    const std::shared_ptr<Journal> views_ = std::make_shared<Journal>();
    std::shared_ptr<testing::MemorySession> session_ = service_.Open({"", kTimeout});
};

TEST_F(ObserverTest, FirstViewTellsWhatIsThere)
{
    Member first(service_, "first");
    Member second(service_, "second");
    Member third(service_, "third");
    QueueUp({&first, &second, &third});

    const auto observer = Observe();

    views_->Await("first, second, third; first leads");
    EXPECT_EQ(views_->Lines().size(), 1U);
}

TEST_F(ObserverTest, ViewSaysAllAboutALeaderAndAboutParticipants)
{
    Member first(service_, "first");
    first.Become(Role::Leader);
    first.Await("gained");

    const ElectionView view = Look(*session_, "/election");

    ASSERT_TRUE(view.leader);
    EXPECT_EQ(view.leader->node, "c-0000000000");
    EXPECT_EQ(view.leader->identity, "first");
    EXPECT_EQ(view.leader->session, first.Session().Status().sessionId);
    EXPECT_EQ(view.leader->epoch, first.LastLeadership().Epoch());
    EXPECT_EQ(view.leader->position, 0U);
    ASSERT_EQ(view.queue.size(), 1U);
    const Participant expected = Participants(*session_, "/election").front();
    EXPECT_EQ(view.queue[0].node, expected.node);
    EXPECT_EQ(view.queue[0].session, expected.session);
    EXPECT_EQ(view.queue[0].epoch, expected.epoch);
    EXPECT_EQ(view.queue[0].joined, expected.joined);
    EXPECT_EQ(view.queue[0].identity, "first");
    EXPECT_EQ(view.error, "");
    EXPECT_EQ(view.code, ZOK);
}

TEST_F(ObserverTest, ElectionThatNobodyHasEverJoinedIsEmpty)
{
    const auto observer = Observe();

    views_->Await("; nobody leads");
    EXPECT_EQ(Text(Look(*session_, "/election")), "; nobody leads");
}

TEST_F(ObserverTest, FirstLeaderOfAllIsToldAtOnce)
{
    const auto observer = Observe();
    views_->Await("; nobody leads");

    Member first(service_, "first");
    first.Become(Role::Leader);

    views_->Await("first; first leads");
}

TEST_F(ObserverTest, FirstInTheQueueDoesNotLeadBeforeItHasClaimedIt)
{
    Add("by-hand");
    Member second(service_, "second");
    second.Become(Role::NextLeader);
    const auto observer = Observe();
    views_->Await("by-hand, second; nobody leads");

    service_.Delete("/election/by-hand");

    views_->Await("second; second leads");
}

TEST_F(ObserverTest, LeaderThatLeavesAndTheNextOneAreToldAtOnce)
{
    Member first(service_, "first");
    Member second(service_, "second");
    Member third(service_, "third");
    QueueUp({&first, &second, &third});
    const auto observer = Observe();
    views_->Await("first, second, third; first leads");

    first->Stop();
    views_->Await("second, third; second leads");
    second->Stop();
    views_->Await("third; third leads");
    third->Stop();
    views_->Await("; nobody leads");
}

TEST_F(ObserverTest, LeaderWhoseSessionEndsIsFollowedAtOnce)
{
    Member first(service_, "first");
    Member second(service_, "second");
    QueueUp({&first, &second});
    const auto observer = Observe();
    views_->Await("first, second; first leads");

    service_.Expire(first.Session());

    views_->Await("second; second leads");
}

TEST_F(ObserverTest, NextLeaderThatGoesIsToldAtOnce)
{
    Member first(service_, "first");
    Member second(service_, "second");
    Member third(service_, "third");
    QueueUp({&first, &second, &third});
    const auto observer = Observe();
    views_->Await("first, second, third; first leads");

    second->Stop();
    views_->Await("first, third; first leads");
    third->Stop();
    views_->Await("first; first leads");
}

TEST_F(ObserverTest, WhoComesAndGoesFurtherBackIsToldByTheClock)
{
    Member first(service_, "first");
    Member second(service_, "second");
    QueueUp({&first, &second});
    const auto observer = Observe();
    views_->Await("first, second; first leads");

    Member third(service_, "third");
    third.Become(Role::Follower);
    service_.Advance(kInterval);
    views_->Await("first, second, third; first leads");

    third->Stop();
    service_.Advance(kInterval);
    views_->Await("first, second; first leads", 2);
}

TEST_F(ObserverTest, WhoSaysItsNameLateIsReadAgain)
{
    Member first(service_, "first");
    first.Become(Role::Leader);
    const auto [rc, path] = [&] {
        std::string created(100, ' ');
        const int code =
            session_->Create("/election/c-", "", ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL | ZOO_SEQUENCE, &created);
        return std::make_pair(code, created);
    }();
    ASSERT_EQ(rc, ZOK);
    const std::string node = path.substr(path.rfind('/') + 1);
    const auto observer = Observe();
    views_->Await("first, " + node + "; first leads");

    char session[17];
    std::snprintf(session, sizeof(session), "%016llx", static_cast<unsigned long long>(session_->Status().sessionId));
    service_.Add("/election-identities/" + node + "-" + session, "0 late");
    service_.Advance(kInterval);

    views_->Await("first, late; first leads");
}

TEST_F(ObserverTest, LeaderThatHasLostItsPlaceLeadsUntilItHasFinished)
{
    const auto finish = std::make_shared<std::promise<void>>();
    Member first(service_, "first", [&](CandidateOptions& options) {
        options.onLeaderLost = [finished = finish->get_future().share()](LossReason) { finished.wait(); };
    });
    Member second(service_, "second");
    QueueUp({&first, &second});
    first.Await("gained");
    const std::int64_t epoch = first.LastLeadership().Epoch();
    const auto observer = Observe();
    views_->Await("first, second; first leads");

    service_.Delete("/election/c-0000000000");
    views_->Await("second; first leads without a place");

    const ElectionView view = Look(*session_, "/election");
    ASSERT_TRUE(view.leader);
    EXPECT_EQ(view.leader->node, "c-0000000000");
    EXPECT_EQ(view.leader->epoch, epoch);
    EXPECT_EQ(view.leader->position, std::nullopt);

    finish->set_value();
    views_->Await("second; second leads");
}

TEST_F(ObserverTest, EpochIsTheNodesWhenSomebodyHasWrittenOverIt)
{
    Member first(service_, "first");
    first.Become(Role::Leader);
    service_.Set("/election-identities", "12345");

    const ElectionView view = Look(*session_, "/election");

    ASSERT_TRUE(view.leader);
    EXPECT_EQ(view.leader->epoch, view.queue.at(0).epoch);
    EXPECT_EQ(view.leader->position, 0U);
}

TEST_F(ObserverTest, NodeThatIsMadeAgainUnderItsNameIsReadAgain)
{
    Add("a");
    Add("b");
    const auto epoch = std::make_shared<std::atomic<std::int64_t>>(0);
    const Observer observer(session_, "/election", [epoch](const ElectionView& view) {
        *epoch = view.queue.size() == 2 ? view.queue[1].epoch : 0;
    });
    Await("the first view", [&] { return *epoch != 0; });
    const std::int64_t before = *epoch;

    service_.Delete("/election/b");
    Add("b");

    AdvanceUntil("another epoch", [&] { return *epoch > before; });
}

TEST_F(ObserverTest, NamesBelowANewPathAreOthers)
{
    Member first(service_, "first");
    first.Become(Role::Leader);
    const auto observer = Observe();
    views_->Await("first; first leads");

    // What is made again is called as it was.
    first->Stop();
    service_.Delete("/election");
    Member other(service_, "other");
    other.Become(Role::Leader);

    EXPECT_EQ(other->NodeName(), "c-0000000000");
    views_->Await("other; other leads");
}

TEST_F(ObserverTest, LossOfTheConnectionIsToldAndWhatWasMissedWhenItIsBack)
{
    Member first(service_, "first");
    Member second(service_, "second");
    QueueUp({&first, &second});
    const auto observer = Observe();
    views_->Await("first, second; first leads");

    service_.Cut(*session_);
    views_->Await("disconnected: first, second; first leads");
    first->Stop();
    ASSERT_TRUE(second->WaitForRole(Role::Leader, kPatience));
    service_.Heal(*session_);

    views_->Await("second; second leads");
    second->Stop();
    views_->Await("; nobody leads");
}

TEST_F(ObserverTest, WatchesGoOnInTheNextSession)
{
    Member first(service_, "first");
    Member second(service_, "second");
    QueueUp({&first, &second});
    const auto observer = Observe();
    views_->Await("first, second; first leads");

    const std::int64_t before = session_->Status().sessionId;
    service_.Expire(*session_);
    Await("another session", [&] { return session_->Status().sessionId != before; });
    service_.AwaitQuiet();
    first->Stop();
    views_->Await("second; second leads");
    second->Stop();
    views_->Await("; nobody leads");
}

TEST_F(ObserverTest, NothingIsKnownBeforeThereIsAConnection)
{
    service_.Cut(*session_);
    const auto observer = Observe();
    views_->Await("disconnected: nothing known");

    service_.Heal(*session_);

    views_->Await("; nobody leads");
    EXPECT_THAT(views_->Lines(), ElementsAre("disconnected: nothing known", "; nobody leads"));
}

TEST_F(ObserverTest, ClosedSessionIsADisconnectedOne)
{
    Member first(service_, "first");
    first.Become(Role::Leader);
    auto observer = Observe();
    views_->Await("first; first leads");

    session_->Close();

    views_->Await("disconnected: first; first leads");
    observer.reset();
    const auto late = Observe();
    views_->Await("disconnected: nothing known");
}

TEST_F(ObserverTest, LackOfPermissionIsInTheViewAndLoggedOnce)
{
    Add("a");
    service_.Refuse("/election", ZNOAUTH);
    const auto observer = Observe();
    views_->Await("not authenticated (-102): nothing known");

    service_.Refuse("/election", ZOK);
    service_.Advance(kInterval);
    views_->Await("a; nobody leads");

    service_.Refuse("/election-identities", ZNOAUTH);
    service_.Advance(kInterval);
    views_->Await("not authenticated (-102): a; nobody leads");
    service_.Advance(kInterval);
    service_.Advance(kInterval);
    service_.Refuse("/election-identities", ZOK);
    service_.Advance(kInterval);
    views_->Await("a; nobody leads", 2);
    EXPECT_EQ(logJournal_.Count("[20] Cannot look at the election /election: not authenticated"), 2U)
        << ::testing::PrintToString(logJournal_.Lines());
}

TEST_F(ObserverTest, AnswerThatDoesNotComeIsADisconnection)
{
    const auto observer = Observe();
    views_->Await("; nobody leads");

    service_.Refuse("/election", ZOPERATIONTIMEOUT);
    service_.Advance(kInterval);
    views_->Await("disconnected: ; nobody leads");

    service_.Refuse("/election", ZOK);
    service_.Advance(kInterval);
    views_->Await("; nobody leads", 2);
    EXPECT_FALSE(Logged("Cannot look"));
}

TEST_F(ObserverTest, LookThrowsWhatTheServersRefuse)
{
    const auto code = [&] {
        try
        {
            Look(*session_, "/election");
            return int{ZOK};
        }
        catch (const ZooError& error)
        {
            return error.Code();
        }
    };
    service_.Refuse("/election", ZNOAUTH);
    EXPECT_EQ(code(), ZNOAUTH);
    service_.Refuse("/election", ZOK);
    EXPECT_EQ(code(), ZOK);
    service_.Cut(*session_);
    EXPECT_EQ(code(), ZCONNECTIONLOSS);
}

TEST_F(ObserverTest, PathsThatNameNoNodeAreErrors)
{
    for (const std::string path : {"", "/", "/a/../b"})
    {
        EXPECT_THROW(Look(*session_, path), VelmorError) << path;
        EXPECT_THROW(Observe(path), VelmorError) << path;
    }
    EXPECT_THAT(views_->Lines(), IsEmpty());
}

TEST_F(ObserverTest, PathMayBeWrittenWithOtherSeparators)
{
    Member first(service_, "first");
    first.Become(Role::Leader);

    const auto observer = Observe("election//");

    views_->Await("first; first leads");
}

TEST_F(ObserverTest, CallbackThatThrowsIsLoggedAndCalledAgain)
{
    const Observer observer(session_, "/election", [views = views_](const ElectionView& view) {
        views->Note(Text(view));
        if (view.queue.empty())
        {
            throw std::runtime_error("no queue");
        }
        throw 1;
    });
    views_->Await("; nobody leads");
    logJournal_.Await("[30] An observer's callback threw: no queue");

    Member first(service_, "first");
    first.Become(Role::Leader);

    views_->Await("first; first leads");
    logJournal_.Await("[30] An observer's callback threw something that is no std::exception");
}

// Its end

TEST_F(ObserverTest, DestructionWaitsForTheCallbackThatRuns)
{
    const auto begun = std::make_shared<std::promise<void>>();
    const auto goOn = std::make_shared<std::promise<void>>();
    const auto ended = std::make_shared<std::atomic<bool>>(false);
    auto observer =
        std::make_unique<Observer>(session_, "/election", [begun, goOn, ended](const ElectionView& /*view*/) {
            begun->set_value();
            goOn->get_future().wait();
            *ended = true;
        });
    begun->get_future().wait();
    const std::future<void> destroying = std::async(std::launch::async, [&] {
        observer.reset();
        EXPECT_TRUE(*ended);
    });
    EXPECT_EQ(destroying.wait_for(milliseconds(50)), std::future_status::timeout);

    goOn->set_value();

    EXPECT_EQ(destroying.wait_for(kPatience), std::future_status::ready);
}

TEST_F(ObserverTest, MayBeDestroyedByItsCallbackAndThatIsTheLastCall)
{
    struct Shared
    {
        std::promise<std::unique_ptr<Observer>> observer;
        std::promise<void> destroyed;
        std::atomic<int> calls{0};
    };
    const auto shared = std::make_shared<Shared>();
    auto alive = std::make_shared<int>();
    const std::weak_ptr<int> callback = alive;
    shared->observer.set_value(std::make_unique<Observer>(
        session_, "/election", [shared = std::weak_ptr<Shared>(shared), alive](const ElectionView& /*view*/) {
            const auto held = shared.lock();
            ++held->calls;
            held->observer.get_future().get().reset();
            held->destroyed.set_value();
        }));
    alive.reset();
    ASSERT_EQ(shared->destroyed.get_future().wait_for(kPatience), std::future_status::ready);

    Member first(service_, "first");
    first.Become(Role::Leader);
    service_.Advance(kInterval);

    Await("the callback's end", [&] { return callback.expired(); });
    EXPECT_EQ(shared->calls, 1);
}

TEST_F(ObserverTest, MayBeDestroyedByTheSessionsListener)
{
    auto observer = std::make_shared<std::unique_ptr<Observer>>(Observe());
    views_->Await("; nobody leads");
    const auto destroyed = std::make_shared<std::promise<void>>();
    const Registration listening = session_->OnStateChange([observer, destroyed](const SessionStatus& status) {
        if (status.state == SessionState::Suspended)
        {
            observer->reset();
            destroyed->set_value();
        }
    });

    service_.Cut(*session_);

    EXPECT_EQ(destroyed->get_future().wait_for(kPatience), std::future_status::ready);
}

TEST_F(ObserverTest, MayHoldTheLastReferenceToItsSession)
{
    auto observer = Observe();
    views_->Await("; nobody leads");
    const std::weak_ptr<testing::MemorySession> session = session_;
    session_.reset();
    EXPECT_FALSE(session.expired());

    observer.reset();

    EXPECT_TRUE(session.expired());
}

TEST_F(ObserverTest, NothingOfItIsLeftInTheSession)
{
    auto alive = std::make_shared<int>();
    const std::weak_ptr<int> callback = alive;
    auto observer = std::make_unique<Observer>(
        session_, "/election",
        [alive = std::move(alive), views = views_](const ElectionView& view) { views->Note(Text(view)); });
    views_->Await("; nobody leads");

    observer.reset();

    EXPECT_TRUE(callback.expired());
    EXPECT_EQ(session_.use_count(), 1);
}

TEST_F(ObserverTest, MayBeDestroyedAtAnyMoment)
{
    Member first(service_, "first");
    Member second(service_, "second");
    QueueUp({&first, &second});
    for (int i = 0; i < 200; ++i)
    {
        const auto alive = std::make_shared<std::atomic<bool>>(true);
        auto observer =
            std::make_unique<Observer>(session_, "/election", [alive](const ElectionView&) { EXPECT_TRUE(*alive); });
        if (i % 4 == 1)
        {
            service_.Cut(*session_);
        }
        else if (i % 4 == 2)
        {
            service_.Heal(*session_);
        }
        else if (i % 4 == 3)
        {
            service_.Expire(*session_);
        }
        observer.reset();
        *alive = false;
    }
}

// What it costs

class ObserverCostTest : public ObserverTest
{
protected:
    const std::shared_ptr<CountingSession> counting_ = std::make_shared<CountingSession>(session_);
};

TEST_F(ObserverCostTest, LookAtRestTakesTwoReads)
{
    for (int i = 0; i < 50; ++i)
    {
        Add("node-" + std::to_string(i));
    }
    Member member(service_, "member");
    member.Become(Role::Leader);
    const Observer observer(counting_, "/election", Noting());
    Await("the first view", [&] { return !views_->Lines().empty(); });
    counting_->Forget();

    service_.Advance(kInterval);

    // One more look may come with the first word of the session.
    Await("a look", [&] { return counting_->Reads() >= 2; });
    service_.Advance(kInterval);
    Await("another", [&] { return counting_->Reads() >= 4; });
    const std::vector<std::string> reads = counting_->Take();
    // What was forgotten may have been half a look.
    const std::size_t odd = reads.front() == "exists /election" ? 0 : 1;
    for (std::size_t i = 0; i < reads.size(); ++i)
    {
        EXPECT_EQ(reads[i], (i + odd) % 2 == 0 ? "exists /election" : "exists /election-identities");
    }
}

TEST_F(ObserverCostTest, WhoIsKnownIsNotReadAgain)
{
    Add("a");
    Add("b");
    Add("c");
    const Observer observer(counting_, "/election", Noting());
    views_->Await("a, b, c; nobody leads");
    EXPECT_EQ(counting_->Count("exists /election/c"), 1);

    Add("d");
    service_.Advance(kInterval);

    views_->Await("a, b, c, d; nobody leads");
    EXPECT_EQ(counting_->Count("exists /election/c"), 1);
    EXPECT_EQ(counting_->Count("exists /election/d"), 1);
    EXPECT_EQ(counting_->Count("children /election"), 2);
}

TEST_F(ObserverCostTest, NodeThatGoesWhileTheQueueIsReadIsNotShown)
{
    Add("a");
    Add("b");
    counting_->Before("exists /election/b", [&] { service_.Delete("/election/a"); });

    const ElectionView view = Look(*counting_, "/election");

    EXPECT_EQ(Text(view), "b; nobody leads");
}

TEST_F(ObserverCostTest, NodeThatGoesBetweenListingAndReadingIsNotShown)
{
    Add("a");
    Add("b");
    counting_->Before("exists /election/a", [&] { service_.Delete("/election/a"); });

    EXPECT_EQ(Text(Look(*counting_, "/election")), "b; nobody leads");
}

TEST_F(ObserverCostTest, QueueThatNeverStandsStillIsToldAllTheSame)
{
    int made = 0;
    counting_->BeforeEach("children /election", [&] { Add("node-" + std::to_string(made++)); });
    Add("a");

    const ElectionView view = Look(*counting_, "/election");

    EXPECT_GE(view.queue.size(), 2U);
    EXPECT_THAT(Text(view), HasSubstr("a, node-0"));
}

TEST_F(ObserverCostTest, ReadThatFailsHalfwayIsMadeUpFor)
{
    Add("a");
    Add("b");
    counting_->Before("exists /election/b", [&] { service_.Refuse("/election/b", ZCONNECTIONLOSS); });
    const Observer observer(counting_, "/election", Noting());
    views_->Await("disconnected: nothing known");

    service_.Refuse("/election/b", ZOK);
    service_.Advance(kInterval);

    views_->Await("a, b; nobody leads");
    EXPECT_THAT(views_->Lines(), ElementsAre("disconnected: nothing known", "a, b; nobody leads"));
}

}  // namespace
}  // namespace kx::velmor::testing_support
