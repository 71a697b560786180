// What a candidate does when its watches fire, when it leaves and when it is destroyed.

#include "tests/support/mutex_probe.h"
#include "tests/unit/candidate_fixture.h"

#include <functional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace kx::velmor::testing_support {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kChecking = "[0] Checking for new leader";
const std::string kFailed = "[30] CheckLeader Failed: ";

/// Notes `line` when the last copy of the result goes.
std::shared_ptr<void> NoteWhenGone(Journal& journal, std::string line)
{
    return std::shared_ptr<void>(nullptr, [&journal, line = std::move(line)](void*) { journal.Note(line); });
}

using Events = CandidateTest;
using Leaving = CandidateTest;
using Destruction = CandidateTest;

// Which events lead to a check.

class NodeEvent : public CandidateTest, public ::testing::WithParamInterface<int>
{};

TEST_P(NodeEvent, OfAnyKindLeadsToAFullCheck)
{
    const auto candidate = StartBehind(2);
    connection->LastWatch(Node(1)).Fire(GetParam(), ZOO_CONNECTED_STATE, Node(1));
    EXPECT_THAT(Happened(),
                ElementsAre(kChecking, "GetChildren /e",
                            "[10] CheckLeader: before sorting children=c-0000000002, c-0000000001, c-0000000000, ",
                            "[10] CheckLeader: after sorting children=c-0000000000, c-0000000001, c-0000000002, ",
                            "Exists /e/c-0000000001 watching", "[10] Watching predecessor /e/c-0000000001",
                            "Exists /e/c-0000000000 watching", "[10] Watching predecessor /e/c-0000000000"));
}

TEST_P(NodeEvent, LeadsToACheckWhateverTheStateOfTheConnection)
{
    const auto candidate = StartBehind(1);
    connection->LastWatch(Node(0)).Fire(GetParam(), ZOO_CONNECTING_STATE, Node(0));
    connection->LastWatch(Node(0)).Fire(GetParam(), ZOO_EXPIRED_SESSION_STATE, Node(0));
    EXPECT_EQ(journal.Count(kChecking), 2U);
}

INSTANTIATE_TEST_SUITE_P(Types, NodeEvent,
                         ::testing::Values(ZOO_CREATED_EVENT, ZOO_DELETED_EVENT, ZOO_CHANGED_EVENT, ZOO_CHILD_EVENT,
                                           ZOO_NOTWATCHING_EVENT));

TEST_F(Events, PathOfAnEventDoesNotMatter)
{
    const auto candidate = StartBehind(1);
    connection->LastWatch(Node(0)).Fire(ZOO_DELETED_EVENT, ZOO_CONNECTED_STATE, "");
    connection->LastWatch(Node(0)).Fire(ZOO_DELETED_EVENT, ZOO_CONNECTED_STATE, "/somewhere/else");
    EXPECT_EQ(journal.Count(kChecking), 2U);
}

TEST_F(Events, NodeTwoAheadCausesTheSameFullCheck)
{
    const auto candidate = StartBehind(2);
    service.Delete(Node(0));
    EXPECT_EQ(connection->Deliver(), 1U);
    EXPECT_TRUE(candidate->IsNextLeader());
    EXPECT_THAT(Happened(), Contains("[10] Watching predecessor /e/c-0000000001"));
}

TEST_F(Events, ReconnectionLeadsToAFullCheck)
{
    const auto candidate = StartBehind(1);
    connection->SessionEvent(ZOO_CONNECTED_STATE);
    EXPECT_EQ(connection->Deliver(), 1U);
    EXPECT_EQ(journal.Count(kChecking), 1U);
    EXPECT_EQ(journal.Count("next leader"), 1U);
}

TEST_F(Events, FailedCheckIsMadeUpForByAReconnection)
{
    const auto candidate = StartBehind(2);
    connection->FailEveryCall(ZCONNECTIONLOSS);
    service.Delete(Node(0));
    connection->Deliver();
    EXPECT_FALSE(candidate->IsNextLeader());
    connection->Recover();
    connection->SessionEvent(ZOO_CONNECTED_STATE);
    EXPECT_EQ(connection->Deliver(), 2U) << "the watch that the first check replaces fires as well";
    EXPECT_TRUE(candidate->IsNextLeader());
}

TEST_F(Events, FailedCheckOfTheNextLeaderIsMadeUpForByAReconnection)
{
    const auto candidate = StartBehind(1);
    connection->FailEveryCall(ZCONNECTIONLOSS);
    service.Delete(Node(0));
    EXPECT_EQ(connection->Deliver(), 1U);
    EXPECT_FALSE(candidate->IsLeader());
    EXPECT_TRUE(candidate->IsNextLeader());
    connection->SessionEvent(ZOO_CONNECTING_STATE);
    connection->Recover();
    connection->SessionEvent(ZOO_CONNECTED_STATE);
    EXPECT_EQ(connection->Deliver(), 2U);
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_EQ(journal.Count("leader"), 1U);
}

TEST_F(Events, FailedCheckIsRepeatedAtEachReconnectionUntilItSucceeds)
{
    const auto candidate = StartBehind(1);
    connection->FailEveryCall(ZCONNECTIONLOSS);
    service.Delete(Node(0));
    connection->Deliver();
    for (int reconnection = 0; reconnection < 3; ++reconnection)
    {
        connection->SessionEvent(ZOO_CONNECTED_STATE);
        EXPECT_EQ(connection->Deliver(), 1U);
    }
    EXPECT_EQ(journal.Count(kFailed + "connection loss"), 4U);
    connection->Recover();
    connection->SessionEvent(ZOO_CONNECTED_STATE);
    EXPECT_EQ(connection->Deliver(), 1U);
    EXPECT_TRUE(candidate->IsLeader());
}

TEST_F(Events, LeaderPromotedByAnEventIsCheckedAtEachReconnection)
{
    const auto candidate = StartBehind(1);
    service.Delete(Node(0));
    EXPECT_EQ(connection->Deliver(), 1U);
    EXPECT_EQ(journal.Count("leader"), 1U);
    for (std::size_t reconnection = 1; reconnection <= 3; ++reconnection)
    {
        connection->SessionEvent(ZOO_CONNECTED_STATE);
        EXPECT_EQ(connection->Deliver(), 1U);
        EXPECT_EQ(journal.Count("leader"), 1 + reconnection);
    }
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_EQ(connection->Watches().size(), 1U) << "the leader arms nothing";
}

TEST_F(Events, LeaderPromotedFromThirdPlaceIsCheckedAtMostTwiceAtAReconnection)
{
    const auto candidate = StartBehind(2);
    service.Delete(Node(0));
    service.Delete(Node(1));
    connection->Deliver();
    ASSERT_TRUE(candidate->IsLeader());
    Happened();
    connection->SessionEvent(ZOO_CONNECTED_STATE);
    EXPECT_LE(connection->Deliver(), 2U);
    const std::size_t checks = journal.Count(kChecking);
    EXPECT_GE(checks, 1U);
    EXPECT_LE(checks, 2U);
}

TEST_F(Events, ThousandReconnectionsAndChecksLeaveTwoWatches)
{
    service.DropWatchesThatAreLetGoOf();
    const auto candidate = StartBehind(2);
    logging::g_minLogLevel = 100;
    constexpr int kRounds = 1'000;
    for (int round = 0; round < kRounds; ++round)
    {
        service.Touch(Node(round % 2));
        ASSERT_EQ(connection->Deliver(), 1U) << round;
        journal.Take();
        connection->SessionEvent(ZOO_CONNECTED_STATE);
        connection->Deliver();
        const std::size_t checks = journal.Count("GetChildren /e");
        ASSERT_GE(checks, 1U) << round;
        ASSERT_LE(checks, 2U) << round;
    }
    const std::vector<Watch> watches = connection->Watches();
    EXPECT_EQ(std::count_if(watches.begin(), watches.end(), [](const Watch& watch) { return watch.Keepers() > 0; }), 2);
    EXPECT_TRUE(connection->LastWatch(Node(0)).IsArmed());
    EXPECT_TRUE(connection->LastWatch(Node(1)).IsArmed());
}

TEST_F(Events, NewSessionAfterAnExpiredOneLacksTheNodeUntilTheCandidateJoinsAgain)
{
    const auto candidate = StartBehind(1);
    service.Expire(*connection);
    connection->Deliver();
    EXPECT_THAT(Happened(), IsEmpty());
    EXPECT_TRUE(candidate->IsNextLeader());

    connection->Recover();
    connection->SessionEvent(ZOO_CONNECTED_STATE);
    connection->Deliver();
    EXPECT_EQ(Happened().back(), kFailed + "Failed to find own node");
    EXPECT_TRUE(candidate->IsNextLeader());

    candidate->Stop();
    candidate->Start();
    EXPECT_EQ(candidate->Name(), "c-0000000002");
    EXPECT_TRUE(candidate->IsNextLeader());
}

class Disconnection : public CandidateTest, public ::testing::WithParamInterface<int>
{};

TEST_P(Disconnection, DoesNothingAndTakesNoLock)
{
    const auto candidate = StartBehind(1);
    const Watch watch = connection->LastWatch(Node(0));
    MakeErrorChecking(MutexOf(*candidate));
    const std::lock_guard<std::mutex> lock(MutexOf(*candidate));
    EXPECT_NO_THROW(watch.Fire(ZOO_SESSION_EVENT, GetParam(), ""));
    EXPECT_THAT(Happened(), IsEmpty());
    EXPECT_TRUE(candidate->IsNextLeader());
}

TEST_P(Disconnection, DoesNothingToACandidateThatIsNotStarted)
{
    const auto candidate = StartBehind(1);
    const Watch watch = connection->LastWatch(Node(0));
    candidate->Stop();
    Happened();
    EXPECT_TRUE(watch.Fire(ZOO_SESSION_EVENT, GetParam(), ""));
    EXPECT_THAT(Happened(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(States, Disconnection,
                         ::testing::Values(0, ZOO_CONNECTING_STATE, ZOO_ASSOCIATING_STATE, ZOO_READONLY_STATE,
                                           ZOO_NOTCONNECTED_STATE, ZOO_EXPIRED_SESSION_STATE, ZOO_AUTH_FAILED_STATE));

TEST_F(Events, CandidateWhoseStartFailedIgnoresItsWatches)
{
    AddOthers(2);
    const auto candidate = MakeCandidate();
    connection->Nth(Call::WatchingExists, 2).Returns(ZCONNECTIONLOSS);
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZCONNECTIONLOSS);
    Happened();
    EXPECT_TRUE(connection->LastWatch(Node(1)).Fire());
    EXPECT_TRUE(connection->LastWatch(Node(1)).Fire(ZOO_SESSION_EVENT, ZOO_CONNECTED_STATE, ""));
    EXPECT_THAT(Happened(), IsEmpty());
}

TEST_F(Events, LockThatCannotBeTakenLeavesTheCallback)
{
    const auto candidate = StartBehind(1);
    const Watch watch = connection->LastWatch(Node(0));
    MakeErrorChecking(MutexOf(*candidate));
    {
        const std::lock_guard<std::mutex> lock(MutexOf(*candidate));
        EXPECT_THROW(watch.Fire(), std::system_error);
        EXPECT_THROW(watch.Fire(ZOO_SESSION_EVENT, ZOO_CONNECTED_STATE, ""), std::system_error);
    }
    EXPECT_THAT(Happened(), IsEmpty());
}

TEST_F(Events, HandlerHoldsTheLockAcrossCallsStatementsAndCallbacks)
{
    AddOthers(2);
    std::shared_ptr<CandidateImpl> candidate;
    int looks = 0;
    const auto look = [&] {
        ++looks;
        EXPECT_TRUE(IsLocked(MutexOf(*candidate)));
    };
    candidate = std::make_shared<CandidateImpl>(
        connection, "/e", [] {}, look);
    candidate->Start();
    connection->BeforeEveryCall(look);
    log.Watch([&](const LogRecord&) { look(); });
    // Becomes next: two calls, a callback, five statements. Then fails: two calls, five statements.
    service.Delete(Node(0));
    connection->Deliver();
    EXPECT_EQ(looks, 8);
    looks = 0;
    connection->Next(Call::WatchingExists).Returns(ZCONNECTIONLOSS);
    service.Touch(Node(1));
    connection->Deliver();
    // The watch that was replaced fires as well, and its check succeeds: eight more.
    EXPECT_EQ(looks, 16);
    EXPECT_FALSE(IsLocked(MutexOf(*candidate)));
}

TEST_F(Events, StopOnAnotherThreadWaitsForARunningCallback)
{
    AddOthers(2);
    std::shared_ptr<CandidateImpl> candidate;
    std::thread stopping;
    candidate = std::make_shared<CandidateImpl>(
        connection, "/e", [] {},
        [&] {
            stopping = std::thread([&] {
                journal.Note("stopping");
                candidate->Stop();
            });
            journal.Await("stopping");
            EXPECT_TRUE(IsLocked(MutexOf(*candidate)));
            journal.Note("callback returns");
        });
    candidate->Start();
    Happened();
    service.Delete(Node(0));
    connection->Deliver();
    stopping.join();
    EXPECT_THAT(Happened(), ElementsAre(kChecking, "GetChildren /e",
                                        "[10] CheckLeader: before sorting children=c-0000000002, c-0000000001, ",
                                        "[10] CheckLeader: after sorting children=c-0000000001, c-0000000002, ",
                                        "[0] Candidate c-0000000002 is the next leader", "stopping", "callback returns",
                                        "Exists /e/c-0000000001 watching", "[10] Watching predecessor /e/c-0000000001",
                                        "GuaranteedDelete /e/c-0000000002", "[0] Candidate stopped"));
}

TEST_F(Events, EventDuringACheckRunsACheckOfItsOwnAfterwards)
{
    const auto candidate = StartBehind(2);
    const Watch ahead = connection->LastWatch(Node(1));
    const Watch twoAhead = connection->LastWatch(Node(0));
    std::thread events;
    connection->Next(Call::GetChildren).Before([&] {
        events = std::thread([&] {
            journal.Note("event");
            twoAhead.Fire();
        });
        journal.Await("event");
    });
    ahead.Fire();
    events.join();
    const std::vector<std::string> happened = Happened();
    ASSERT_EQ(happened.size(), 17U) << "eight lines a check and the event";
    EXPECT_EQ(happened[2], "event");
    EXPECT_EQ(happened[9], kChecking);
}

TEST_F(Events, EventBeforeItsWatchIsReturnedWaitsForTheCheck)
{
    const auto candidate = StartBehind(1);
    std::thread events;
    log.Watch([&](const LogRecord& record) {
        if (record.text == "Watching predecessor /e/c-0000000000" && !events.joinable())
        {
            events = std::thread([&] {
                journal.Note("event");
                connection->Watches().back().Fire();
            });
            journal.Await("event");
        }
    });
    connection->LastWatch(Node(0)).Fire();
    events.join();
    EXPECT_EQ(journal.Count(kChecking), 2U);
    EXPECT_TRUE(candidate->IsNextLeader());
}

// A check fails within an event.

TEST_F(Events, FailedCheckIsLoggedOnceAndTheNextEventChecksAgain)
{
    const auto candidate = StartBehind(1);
    const Watch watch = connection->LastWatch(Node(0));
    connection->Next(Call::WatchingExists).Returns(ZCONNECTIONLOSS);
    EXPECT_NO_THROW(watch.Fire());
    const std::vector<std::string> happened = Happened();
    EXPECT_EQ(std::count_if(happened.begin(), happened.end(),
                            [](const std::string& line) { return line.rfind("[30]", 0) == 0; }),
              1);
    EXPECT_EQ(happened.back(), kFailed + "connection loss");
    EXPECT_FALSE(IsLocked(MutexOf(*candidate)));
    EXPECT_TRUE(candidate->IsNextLeader());

    watch.Fire();
    EXPECT_EQ(Happened().back(), "[10] Watching predecessor /e/c-0000000000");
}

TEST_F(Events, FailedCheckLeavesTheLeaderLeading)
{
    const auto candidate = StartBehind(2);
    service.Delete(Node(0));
    service.Delete(Node(1));
    const Watch left = connection->LastWatch(Node(1));
    left.Fire();
    connection->Next(Call::GetChildren).Returns(ZOPERATIONTIMEOUT);
    left.Fire();
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_EQ(Happened().back(), kFailed + "operation timeout");
}

TEST_F(Events, ErrorOfTheFamilyThrownByACallbackIsLogged)
{
    AddOthers(1);
    const auto candidate = std::make_shared<CandidateImpl>(
        connection, "/e", [] { throw VelmorError("callback's own"); }, [] {});
    candidate->Start();
    service.Delete(Node(0));
    EXPECT_NO_THROW(connection->Deliver());
    EXPECT_EQ(Happened().back(), kFailed + "callback's own");
    EXPECT_TRUE(candidate->IsLeader());
}

TEST_F(Events, OtherErrorsOfACallbackPassThrough)
{
    AddOthers(1);
    const auto candidate = std::make_shared<CandidateImpl>(
        connection, "/e", [] { throw std::runtime_error("not of the family"); }, [] {});
    candidate->Start();
    Happened();
    service.Delete(Node(0));
    EXPECT_THROW(connection->Deliver(), std::runtime_error);
    EXPECT_EQ(Happened().back(), "[0] Candidate c-0000000001 has become the leader");
    EXPECT_FALSE(IsLocked(MutexOf(*candidate)));
    EXPECT_TRUE(candidate->IsLeader());

    // It is still started.
    candidate->Stop();
    EXPECT_EQ(Happened().back(), "[0] Candidate stopped");
}

TEST_F(Events, EmptyCallbackPassesThroughAsBadFunctionCall)
{
    AddOthers(1);
    const auto candidate = std::make_shared<CandidateImpl>(connection, "/e", nullptr, [] {});
    candidate->Start();
    service.Delete(Node(0));
    EXPECT_THROW(connection->Deliver(), std::bad_function_call);
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_FALSE(IsLocked(MutexOf(*candidate)));
}

// Leaving.

TEST_F(Leaving, StopClearsTheRoleLetsGoOfTheWatchesAndDeletesTheNode)
{
    const auto candidate = StartBehind(1);
    const Watch watch = connection->LastWatch(Node(0));
    connection->Next(Call::GuaranteedDelete).Before([&] {
        EXPECT_FALSE(candidate->IsLeader());
        EXPECT_FALSE(candidate->IsNextLeader());
        EXPECT_EQ(watch.Keepers(), 0);
        EXPECT_TRUE(IsLocked(MutexOf(*candidate)));
    });
    log.Watch([&](const LogRecord&) { EXPECT_TRUE(IsLocked(MutexOf(*candidate))); });
    candidate->Stop();
    EXPECT_THAT(Happened(), ElementsAre("GuaranteedDelete /e/c-0000000001", "[0] Candidate stopped"));
    EXPECT_FALSE(service.Has(Node(1)));
    EXPECT_FALSE(IsLocked(MutexOf(*candidate)));
    EXPECT_EQ(candidate->Name(), "c-0000000001");
}

TEST_F(Leaving, LeaderThatStopsLeadsNoMore)
{
    const auto candidate = StartBehind(0);
    candidate->Stop();
    EXPECT_FALSE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
}

TEST_F(Leaving, WatchesAreLetGoOfWithoutBeingDisarmed)
{
    const auto candidate = StartBehind(2);
    candidate->Stop();
    ASSERT_EQ(connection->Watches().size(), 2U);
    for (const Watch& watch : connection->Watches())
    {
        EXPECT_TRUE(watch.IsArmed()) << watch.path;
        EXPECT_TRUE(watch.state->hasCallback) << watch.path;
        EXPECT_EQ(watch.Keepers(), 0) << watch.path;
    }
}

TEST_F(Leaving, StrayEventsAfterStopDoNothing)
{
    const auto candidate = StartBehind(2);
    candidate->Stop();
    Happened();
    for (const Watch& watch : connection->Watches())
    {
        EXPECT_TRUE(watch.Fire());
        EXPECT_TRUE(watch.Fire(ZOO_SESSION_EVENT, ZOO_CONNECTED_STATE, ""));
    }
    EXPECT_THAT(Happened(), IsEmpty());
    EXPECT_FALSE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
}

TEST_F(Leaving, StopBeforeStartDoesNothing)
{
    const auto candidate = MakeCandidate();
    candidate->Stop();
    EXPECT_THAT(Happened(), IsEmpty());
}

TEST_F(Leaving, SecondStopDoesNothing)
{
    const auto candidate = StartBehind(0);
    candidate->Stop();
    Happened();
    candidate->Stop();
    EXPECT_THAT(Happened(), IsEmpty());
}

TEST_F(Leaving, NodeThatIsGoneAlreadyIsNoFailure)
{
    const auto candidate = StartBehind(0);
    service.Delete(Node(0));
    candidate->Stop();
    EXPECT_THAT(Happened(), ElementsAre("GuaranteedDelete /e/c-0000000000", "[0] Candidate stopped"));
}

class FailedDeletion : public CandidateTest, public ::testing::WithParamInterface<int>
{};

TEST_P(FailedDeletion, IsLoggedAndThrownAndTheCandidateIsStopped)
{
    const auto candidate = StartBehind(1);
    const Watch watch = connection->LastWatch(Node(0));
    connection->Next(Call::GuaranteedDelete).Returns(GetParam());
    log.Watch([&](const LogRecord&) { EXPECT_TRUE(IsLocked(MutexOf(*candidate))); });
    EXPECT_EQ(ThrownCode([&] { candidate->Stop(); }), GetParam());
    EXPECT_THAT(Happened(), ElementsAre("GuaranteedDelete /e/c-0000000001",
                                        std::string("[0] Failed to remove candidate node: ") + zerror(GetParam())));
    EXPECT_FALSE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
    EXPECT_EQ(candidate->Name(), "c-0000000001");
    EXPECT_EQ(watch.Keepers(), 0);
    EXPECT_TRUE(watch.IsArmed());
    EXPECT_FALSE(IsLocked(MutexOf(*candidate)));
    EXPECT_TRUE(service.Has(Node(1)));

    candidate->Stop();
    watch.Fire();
    EXPECT_THAT(Happened(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Codes, FailedDeletion,
                         ::testing::Values(ZCONNECTIONLOSS, ZOPERATIONTIMEOUT, ZSESSIONEXPIRED, ZNOTEMPTY, 1));

TEST_F(Leaving, FailedDeletionIsThrownAlsoWhenItIsNotLogged)
{
    const auto candidate = StartBehind(0);
    logging::g_minLogLevel = 1;
    connection->Next(Call::GuaranteedDelete).Returns(ZCONNECTIONLOSS);
    EXPECT_EQ(ThrownCode([&] { candidate->Stop(); }), ZCONNECTIONLOSS);
    EXPECT_THAT(Happened(), ElementsAre("GuaranteedDelete /e/c-0000000000"));
}

TEST_F(Leaving, DeletionThatThrowsPassesThroughAndTheCandidateIsStopped)
{
    const auto candidate = StartBehind(1);
    connection->Next(Call::GuaranteedDelete).Before([] { throw std::domain_error("no"); });
    EXPECT_THROW(candidate->Stop(), std::domain_error);
    EXPECT_THAT(Happened(), ElementsAre("GuaranteedDelete /e/c-0000000001"));
    EXPECT_FALSE(candidate->IsNextLeader());
    EXPECT_FALSE(IsLocked(MutexOf(*candidate)));
    EXPECT_EQ(connection->LastWatch(Node(0)).Keepers(), 0);

    candidate->Stop();
    EXPECT_THAT(Happened(), IsEmpty());
}

TEST_F(Leaving, LockThatCannotBeTakenChangesNothing)
{
    const auto candidate = StartBehind(1);
    MakeErrorChecking(MutexOf(*candidate));
    {
        const std::lock_guard<std::mutex> lock(MutexOf(*candidate));
        EXPECT_THROW(candidate->Stop(), std::system_error);
    }
    EXPECT_THAT(Happened(), IsEmpty());
    EXPECT_TRUE(candidate->IsNextLeader());
    EXPECT_EQ(connection->LastWatch(Node(0)).Keepers(), 1);

    candidate->Stop();
    EXPECT_EQ(Happened().back(), "[0] Candidate stopped");
}

TEST_F(Leaving, StoppedCandidateCanJoinAgainAtTheEnd)
{
    const auto candidate = StartBehind(1);
    candidate->Stop();
    service.Add(Node(2), *others);
    candidate->Start();
    EXPECT_EQ(candidate->Name(), "c-0000000003");
    EXPECT_FALSE(candidate->IsNextLeader());
    EXPECT_EQ(connection->Watches().size(), 3U);
}

TEST_F(Leaving, NodeThatSurvivedAFailedStopIsAdoptedByTheNextStart)
{
    const auto candidate = StartBehind(0);
    connection->Next(Call::GuaranteedDelete).Returns(ZCONNECTIONLOSS);
    EXPECT_EQ(ThrownCode([&] { candidate->Stop(); }), ZCONNECTIONLOSS);
    candidate->Start();
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_THAT(Happened(), Contains("[10] Found an existing candidate node /e/c-0000000000"));
}

// Destruction.

/// Puts a probe where a watch's callback is, which would keep the candidate alive.
void ReplaceCallback(const Watch& watch, std::shared_ptr<void> probe)
{
    Connection::WatchCallback callback = [probe = std::move(probe)](int, int, const std::string&) {};
    const std::lock_guard<std::mutex> lock(watch.state->mutex);
    watch.state->callback.swap(callback);
}

TEST_F(Destruction, DisarmsTheFartherWatchFirstAndReleasesTheConnectionLast)
{
    AddOthers(2);
    auto candidate = std::make_shared<CandidateImpl>(
        std::shared_ptr<Connection>(connection.get(), [this](Connection*) { journal.Note("connection"); }), "/e",
        [probe = NoteWhenGone(journal, "leader callback")] {},
        [probe = NoteWhenGone(journal, "next leader callback")] {});
    candidate->Start();
    const Watch ahead = connection->LastWatch(Node(1));
    const Watch twoAhead = connection->LastWatch(Node(0));
    ReplaceCallback(ahead, NoteWhenGone(journal, "watch on the node ahead"));
    ReplaceCallback(twoAhead, NoteWhenGone(journal, "watch on the node two ahead"));
    Happened();
    ASSERT_EQ(candidate.use_count(), 1);
    candidate.reset();
    EXPECT_THAT(Happened(), ElementsAre("watch on the node two ahead", "watch on the node ahead",
                                        "next leader callback", "leader callback", "connection"));
    for (const Watch& watch : {ahead, twoAhead})
    {
        EXPECT_FALSE(watch.state->active);
        EXPECT_EQ(watch.Keepers(), 0);
    }
    EXPECT_TRUE(service.Has(Node(2))) << "only Stop leaves the election";
    service.Expire(*connection);
    EXPECT_FALSE(service.Has(Node(2)));
}

TEST_F(Destruction, StoppedCandidateDisarmsNothing)
{
    auto candidate = StartBehind(2);
    const std::vector<Watch> watches = connection->Watches();
    candidate->Stop();
    for (const Watch& watch : watches)
    {
        ReplaceCallback(watch, nullptr);
    }
    Happened();
    const std::weak_ptr<CandidateImpl> gone = candidate;
    candidate.reset();
    ASSERT_TRUE(gone.expired());
    for (const Watch& watch : watches)
    {
        EXPECT_TRUE(watch.IsArmed()) << watch.path;
    }
    EXPECT_THAT(Happened(), IsEmpty());
}

TEST_F(Destruction, StartedLeaderLeavesItsNodeWithoutAWord)
{
    auto candidate = StartBehind(0);
    const std::weak_ptr<CandidateImpl> gone = candidate;
    candidate.reset();
    EXPECT_TRUE(gone.expired());
    EXPECT_THAT(Happened(), IsEmpty());
    EXPECT_TRUE(service.Has(Node(0)));
    service.Expire(*connection);
    EXPECT_FALSE(service.Has(Node(0)));
}

TEST_F(Destruction, WatchKeepsTheCandidateAliveBeforeAndAfterItsEvent)
{
    auto candidate = StartBehind(1);
    const std::weak_ptr<CandidateImpl> alive = candidate;
    candidate.reset();
    ASSERT_FALSE(alive.expired());

    service.Delete(Node(0));
    EXPECT_EQ(connection->Deliver(), 1U);
    EXPECT_EQ(journal.Count("leader"), 1U) << "the event found its candidate";
    ASSERT_FALSE(alive.expired());
    connection->SessionEvent(ZOO_CONNECTED_STATE);
    EXPECT_EQ(connection->Deliver(), 1U);
    EXPECT_EQ(journal.Count("leader"), 2U);

    // As a connection does when it is closed.
    ReplaceCallback(connection->LastWatch(Node(0)), nullptr);
    EXPECT_TRUE(alive.expired());
}

TEST_F(Destruction, StoppedCandidateGoesWithItsLastStrayWatch)
{
    auto candidate = StartBehind(1);
    const std::weak_ptr<CandidateImpl> alive = candidate;
    candidate->Stop();
    candidate.reset();
    ASSERT_FALSE(alive.expired());
    Happened();
    service.Delete(Node(0));
    EXPECT_EQ(connection->Deliver(), 1U);
    EXPECT_TRUE(alive.expired());
    EXPECT_THAT(Happened(), IsEmpty());
}

}  // namespace
}  // namespace kx::velmor::testing_support
