// The leader check: places, roles and the watches on the nodes ahead.

#include "tests/support/mutex_probe.h"
#include "tests/unit/candidate_fixture.h"

#include <functional>
#include <stdexcept>
#include <utility>

namespace kx::velmor::testing_support {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

const std::string kChecking = "[0] Checking for new leader";
const std::string kBefore = "[10] CheckLeader: before sorting children=";
const std::string kAfter = "[10] CheckLeader: after sorting children=";
const std::string kFailed = "[30] CheckLeader Failed: ";

using LeaderCheck = CandidateTest;

// Places.

TEST_F(LeaderCheck, OnlyCandidateLeads)
{
    const auto candidate = StartBehind(0);
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
    EXPECT_THAT(connection->Watches(), IsEmpty());
}

TEST_F(LeaderCheck, SecondIsNextAndWatchesTheFirst)
{
    AddOthers(1);
    const auto candidate = MakeCandidate();
    connection->Next(Call::Create).Before([&] { Happened(); });
    candidate->Start();
    EXPECT_THAT(Happened(),
                ElementsAre("[10] Created candidate node /e/c-0000000001",  //
                            kChecking,                                      //
                            "GetChildren /e",                               //
                            kBefore + "c-0000000001, c-0000000000, ",       //
                            kAfter + "c-0000000000, c-0000000001, ",        //
                            "[0] Candidate c-0000000001 is the next leader",
                            "next leader",                                //
                            "Exists /e/c-0000000000 watching",            //
                            "[10] Watching predecessor /e/c-0000000000",  //
                            "[0] Candidate started"));
    EXPECT_FALSE(candidate->IsLeader());
    EXPECT_TRUE(candidate->IsNextLeader());
    ASSERT_EQ(connection->Watches().size(), 1U);
    EXPECT_TRUE(connection->Watches()[0].IsArmed());
    EXPECT_EQ(connection->Watches()[0].Keepers(), 1);
}

TEST_F(LeaderCheck, ThirdWatchesTheTwoAhead)
{
    AddOthers(2);
    const auto candidate = MakeCandidate();
    connection->Next(Call::Create).Before([&] { Happened(); });
    candidate->Start();
    EXPECT_THAT(Happened(),
                ElementsAre("[10] Created candidate node /e/c-0000000002",           //
                            kChecking,                                               //
                            "GetChildren /e",                                        //
                            kBefore + "c-0000000002, c-0000000001, c-0000000000, ",  //
                            kAfter + "c-0000000000, c-0000000001, c-0000000002, ",   //
                            "Exists /e/c-0000000001 watching",                       //
                            "[10] Watching predecessor /e/c-0000000001",             //
                            "Exists /e/c-0000000000 watching",                       //
                            "[10] Watching predecessor /e/c-0000000000",             //
                            "[0] Candidate started"));
    EXPECT_FALSE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
    for (const Watch& watch : connection->Watches())
    {
        EXPECT_TRUE(watch.IsArmed()) << watch.path;
        EXPECT_EQ(watch.Keepers(), 1) << watch.path;
    }
}

TEST_F(LeaderCheck, FifthWatchesTheTwoDirectlyAhead)
{
    const auto candidate = StartBehind(4);
    const std::vector<Watch> watches = connection->Watches();
    ASSERT_EQ(watches.size(), 2U);
    EXPECT_EQ(watches[0].path, Node(3));
    EXPECT_EQ(watches[1].path, Node(2));
}

TEST_F(LeaderCheck, EachFurtherCheckInFirstPlaceCallsBackAgain)
{
    const auto candidate = StartBehind(2);
    service.Delete(Node(0));
    service.Delete(Node(1));
    const Watch left = connection->LastWatch(Node(1));
    left.Fire();
    left.Fire();
    left.Fire();
    EXPECT_EQ(journal.Count("leader"), 3U);
    EXPECT_EQ(journal.Count("[0] Candidate c-0000000002 has become the leader"), 3U);
}

TEST_F(LeaderCheck, EachFurtherCheckInSecondPlaceCallsBackAgain)
{
    const auto candidate = StartBehind(1);
    service.Touch(Node(0));
    connection->Deliver();
    service.Touch(Node(0));
    connection->Deliver();
    EXPECT_EQ(journal.Count("next leader"), 2U);
}

TEST_F(LeaderCheck, FirstPlaceTouchesNeitherWatch)
{
    const auto candidate = StartBehind(2);
    service.Delete(Node(0));
    service.Delete(Node(1));
    const Watch ahead = connection->LastWatch(Node(1));
    const Watch twoAhead = connection->LastWatch(Node(0));
    ahead.Fire();
    EXPECT_THAT(Happened(),
                ElementsAre(kChecking, "GetChildren /e", kBefore + "c-0000000002, ", kAfter + "c-0000000002, ",
                            "[0] Candidate c-0000000002 has become the leader", "leader"));
    EXPECT_TRUE(candidate->IsLeader());
    for (const Watch& watch : {ahead, twoAhead})
    {
        EXPECT_TRUE(watch.IsArmed()) << watch.path;
        EXPECT_EQ(watch.Keepers(), 1) << watch.path;
    }
}

TEST_F(LeaderCheck, SecondPlaceLetsGoOfTheSecondWatchAfterTheCallbackAndBeforeWatchingAgain)
{
    AddOthers(2);
    std::function<void()> inCallback = [] {};
    const auto candidate = std::make_shared<CandidateImpl>(
        connection, "/e", [] {}, [&] { inCallback(); });
    candidate->Start();
    const Watch ahead = connection->LastWatch(Node(1));
    const Watch twoAhead = connection->LastWatch(Node(0));
    inCallback = [&] {
        journal.Note("in callback");
        EXPECT_EQ(twoAhead.Keepers(), 1);
    };
    connection->Next(Call::WatchingExists).Before([&] {
        EXPECT_EQ(twoAhead.Keepers(), 0);
        EXPECT_EQ(ahead.Keepers(), 1);
    });
    service.Delete(Node(0));
    Happened();
    twoAhead.Fire();

    EXPECT_THAT(
        Happened(),
        ElementsAre(kChecking, "GetChildren /e", kBefore + "c-0000000002, c-0000000001, ",
                    kAfter + "c-0000000001, c-0000000002, ", "[0] Candidate c-0000000002 is the next leader",
                    "in callback", "Exists /e/c-0000000001 watching", "[10] Watching predecessor /e/c-0000000001"));
    EXPECT_TRUE(twoAhead.IsArmed()) << "let go of, not disarmed";
    EXPECT_TRUE(ahead.IsArmed()) << "let go of, not disarmed";
    EXPECT_EQ(ahead.Keepers(), 0);
    EXPECT_EQ(connection->LastWatch(Node(1)).Keepers(), 1);
}

TEST_F(LeaderCheck, LeaderThatFallsToSecondPlaceIsNext)
{
    const auto candidate = StartBehind(2);
    service.Delete(Node(0));
    service.Delete(Node(1));
    const Watch left = connection->LastWatch(Node(1));
    left.Fire();
    ASSERT_TRUE(candidate->IsLeader());
    service.Add("/e/a", *others);
    left.Fire();
    EXPECT_FALSE(candidate->IsLeader());
    EXPECT_TRUE(candidate->IsNextLeader());
}

TEST_F(LeaderCheck, NextLeaderThatMovesUpLeadsAndIsNotNext)
{
    const auto candidate = StartBehind(1);
    service.Delete(Node(0));
    EXPECT_EQ(connection->Deliver(), 1U);
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
}

TEST_F(LeaderCheck, FurtherPlacesLeaveTheLeaderFlagAsItIs)
{
    const auto candidate = StartBehind(2);
    service.Delete(Node(0));
    service.Delete(Node(1));
    const Watch left = connection->LastWatch(Node(1));
    left.Fire();
    service.Add("/e/a", *others);
    service.Add("/e/b", *others);
    Happened();
    left.Fire();
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
    EXPECT_THAT(Happened(),
                ElementsAre(kChecking, "GetChildren /e", kBefore + "b, a, c-0000000002, ",
                            kAfter + "a, b, c-0000000002, ", "Exists /e/b watching", "[10] Watching predecessor /e/b",
                            "Exists /e/a watching", "[10] Watching predecessor /e/a"));
}

TEST_F(LeaderCheck, FurtherPlacesLeaveTheNextFlagAsItIsAndMakeDoWithOneWatch)
{
    const auto candidate = StartBehind(1);
    service.Add("/e/a", *others);
    service.Touch(Node(0));
    connection->Deliver();
    EXPECT_TRUE(candidate->IsNextLeader());
    EXPECT_FALSE(candidate->IsLeader());
    EXPECT_THAT(Happened(), ElementsAre(kChecking, "GetChildren /e", kBefore + "a, c-0000000001, c-0000000000, ",
                                        kAfter + "a, c-0000000000, c-0000000001, ", "Exists /e/c-0000000000 watching",
                                        "[10] Watching predecessor /e/c-0000000000"));
}

// The order of steps within a place.

TEST_F(LeaderCheck, LeaderIsLoggedThenFlaggedThenCalled)
{
    std::shared_ptr<CandidateImpl> candidate;
    std::string flags;
    const auto note = [&] {
        flags += candidate->IsLeader() ? 'L' : '-';
        flags += candidate->IsNextLeader() ? 'N' : '-';
    };
    AddOthers(1);
    candidate = std::make_shared<CandidateImpl>(connection, "/e", note, [] {});
    candidate->Start();
    log.Watch([&](const LogRecord& record) {
        if (record.text == "Candidate c-0000000001 has become the leader")
        {
            note();
        }
    });
    service.Delete(Node(0));
    connection->Deliver();
    EXPECT_EQ(flags, "-NL-");
}

TEST_F(LeaderCheck, NextLeaderIsLoggedThenFlaggedThenCalled)
{
    std::shared_ptr<CandidateImpl> candidate;
    std::string flags;
    const auto note = [&] {
        flags += candidate->IsLeader() ? 'L' : '-';
        flags += candidate->IsNextLeader() ? 'N' : '-';
    };
    AddOthers(2);
    candidate = std::make_shared<CandidateImpl>(
        connection, "/e", [] {}, note);
    candidate->Start();
    service.Delete(Node(0));
    service.Delete(Node(1));
    const Watch left = connection->LastWatch(Node(1));
    left.Fire();
    ASSERT_TRUE(candidate->IsLeader());
    log.Watch([&](const LogRecord& record) {
        if (record.text == "Candidate c-0000000002 is the next leader")
        {
            note();
        }
    });
    service.Add("/e/a", *others);
    left.Fire();
    EXPECT_EQ(flags, "L--N");
}

TEST_F(LeaderCheck, WatchIsLoggedBeforeItReplacesTheFormerOne)
{
    const auto candidate = StartBehind(1);
    const Watch former = connection->LastWatch(Node(0));
    long keepers = -1;
    log.Watch([&](const LogRecord& record) {
        if (record.text == "Watching predecessor /e/c-0000000000")
        {
            keepers = former.Keepers();
        }
    });
    former.Fire();
    EXPECT_EQ(keepers, 1);
    EXPECT_EQ(former.Keepers(), 0);
}

TEST_F(LeaderCheck, ReplacedWatchStaysArmedAndCausesOneHarmlessCheck)
{
    const auto candidate = StartBehind(1);
    const Watch former = connection->LastWatch(Node(0));
    service.Touch(Node(0));
    EXPECT_EQ(former.state->active, true);
    connection->LastWatch(Node(0)).Fire();
    ASSERT_EQ(former.Keepers(), 0);
    EXPECT_TRUE(former.IsArmed());
    Happened();

    EXPECT_TRUE(former.Fire());
    EXPECT_EQ(journal.Count(kChecking), 1U);
    EXPECT_TRUE(candidate->IsNextLeader());
    EXPECT_THAT(Happened(), Contains("[10] Watching predecessor /e/c-0000000000"));
}

// The order of names.

class Placement : public CandidateTest, public ::testing::WithParamInterface<std::pair<std::string, bool>>
{};

TEST_P(Placement, ForeignChildSortsInByTheBytesOfItsName)
{
    const auto& [name, ahead] = GetParam();
    service.Add("/e/" + name, *others);
    const auto candidate = MakeCandidate();
    candidate->Start();
    EXPECT_EQ(candidate->IsLeader(), !ahead);
    EXPECT_EQ(candidate->IsNextLeader(), ahead);
    EXPECT_EQ(journal.Count("Exists /e/" + name + " watching"), ahead ? 1U : 0U);
}

INSTANTIATE_TEST_SUITE_P(Names, Placement,
                         ::testing::Values(std::pair("a-lock", true), std::pair("C-9999999999", true),
                                           std::pair("c-", true), std::pair("c-000000000", true),
                                           std::pair("c-00000000010", false), std::pair("c-x", false),
                                           std::pair("x", false), std::pair("\xc3\xa9", false)));

TEST_F(LeaderCheck, PersistentChildTakesAPlaceToo)
{
    service.Add("/e/b");
    const auto candidate = MakeCandidate();
    candidate->Start();
    EXPECT_TRUE(candidate->IsNextLeader());
}

TEST_F(LeaderCheck, EachCheckListsIntoAnEmptyList)
{
    const auto candidate = StartBehind(2);
    connection->LastWatch(Node(1)).Fire();
    EXPECT_EQ(journal.Count("GetChildren /e"), 1U) << "a list that is not empty is noted";
}

// The node ahead vanishes.

TEST_F(LeaderCheck, NodeAheadVanishesBetweenListingAndWatching)
{
    AddOthers(3);
    const auto candidate = MakeCandidate();
    connection->Next(Call::WatchingExists).Before([&] { service.Delete(Node(2)); });
    connection->Next(Call::Create).Before([&] { Happened(); });
    candidate->Start();
    EXPECT_THAT(Happened(),
                ElementsAre("[10] Created candidate node /e/c-0000000003",  //
                            kChecking,                                      //
                            "GetChildren /e",                               //
                            kBefore + "c-0000000003, c-0000000002, c-0000000001, c-0000000000, ",
                            kAfter + "c-0000000000, c-0000000001, c-0000000002, c-0000000003, ",
                            "Exists /e/c-0000000002 watching",                       //
                            kChecking,                                               //
                            "GetChildren /e",                                        //
                            kBefore + "c-0000000003, c-0000000001, c-0000000000, ",  //
                            kAfter + "c-0000000000, c-0000000001, c-0000000003, ",   //
                            "Exists /e/c-0000000001 watching",                       //
                            "[10] Watching predecessor /e/c-0000000001",             //
                            "Exists /e/c-0000000000 watching",                       //
                            "[10] Watching predecessor /e/c-0000000000",             //
                            "[0] Candidate started"));
}

TEST_F(LeaderCheck, LeaderVanishesBetweenListingAndWatching)
{
    AddOthers(1);
    const auto candidate = MakeCandidate();
    connection->Next(Call::WatchingExists).Before([&] { service.Delete(Node(0)); });
    candidate->Start();
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
    EXPECT_EQ(journal.Count("next leader"), 1U);
    EXPECT_EQ(journal.Count("leader"), 1U);
}

TEST_F(LeaderCheck, WatchLeftOnAnAbsentNodeIsDisarmedBeforeTheNextListing)
{
    AddOthers(2);
    const auto candidate = MakeCandidate();
    connection->Next(Call::WatchingExists).Before([&] { service.Delete(Node(1)); });
    connection->Nth(Call::GetChildren, 3).Before([&] {
        const Watch watch = connection->LastWatch(Node(1));
        EXPECT_FALSE(watch.state->active);
        EXPECT_FALSE(watch.state->callback);
        EXPECT_EQ(watch.Keepers(), 0);
    });
    candidate->Start();
    ASSERT_EQ(journal.Count(kChecking), 2U);

    // Somebody makes the node again: nothing reaches the candidate.
    Happened();
    service.Add(Node(1), *others);
    EXPECT_EQ(connection->Deliver(), 0U);
    EXPECT_THAT(Happened(), IsEmpty());
}

TEST_F(LeaderCheck, VanishedNodeLeavesTheFormerWatchWhereItWas)
{
    const auto candidate = StartBehind(3);
    const Watch former = connection->LastWatch(Node(2));
    connection->Next(Call::WatchingExists).Before([&] { service.Delete(Node(2)); });
    connection->Nth(Call::GetChildren, 2).Before([&] {
        EXPECT_EQ(former.Keepers(), 1);
        EXPECT_TRUE(former.IsArmed());
    });
    connection->LastWatch(Node(1)).Fire();
    EXPECT_EQ(journal.Count(kChecking), 2U);
}

TEST_F(LeaderCheck, NodeTwoAheadThatVanishesIsNotWatchedAndNotMissed)
{
    AddOthers(2);
    const auto candidate = MakeCandidate();
    connection->Nth(Call::WatchingExists, 2).Before([&] { service.Delete(Node(0)); });
    candidate->Start();
    EXPECT_EQ(journal.Count(kChecking), 1U);
    EXPECT_THAT(Happened(), Not(Contains("[10] Watching predecessor /e/c-0000000000")));
    EXPECT_FALSE(connection->LastWatch(Node(0)).IsArmed());
    EXPECT_TRUE(connection->LastWatch(Node(1)).IsArmed());
    EXPECT_FALSE(candidate->IsNextLeader());

    // It has been second since, and hears of it with the next event.
    connection->SessionEvent(ZOO_CONNECTED_STATE);
    connection->Deliver();
    EXPECT_TRUE(candidate->IsNextLeader());
}

TEST_F(LeaderCheck, NodeTwoAheadThatVanishesLeavesTheFormerSecondWatch)
{
    const auto candidate = StartBehind(2);
    const Watch former = connection->LastWatch(Node(0));
    connection->Nth(Call::WatchingExists, 2).Before([&] { service.Delete(Node(0)); });
    connection->LastWatch(Node(1)).Fire();
    EXPECT_EQ(former.Keepers(), 1);
    EXPECT_TRUE(former.IsArmed());
}

TEST_F(LeaderCheck, TenNodesAheadVanishOneAfterTheOther)
{
    AddOthers(10);
    const auto candidate = MakeCandidate();
    for (int n = 1; n <= 10; ++n)
    {
        connection->Nth(Call::WatchingExists, n).Before([this, n] { service.Delete(Node(10 - n)); });
    }
    candidate->Start();
    EXPECT_EQ(journal.Count(kChecking), 11U);
    EXPECT_EQ(journal.Count("next leader"), 1U);
    EXPECT_EQ(journal.Count("leader"), 1U);
    EXPECT_EQ(journal.Count("[0] Candidate started"), 1U);
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
    ASSERT_EQ(connection->Watches().size(), 10U);
    for (const Watch& watch : connection->Watches())
    {
        EXPECT_FALSE(watch.IsArmed()) << watch.path;
    }
}

TEST_F(LeaderCheck, ErrorInARepeatedCheckLeavesAllLevels)
{
    AddOthers(10);
    const auto candidate = MakeCandidate();
    for (int n = 1; n <= 5; ++n)
    {
        connection->Nth(Call::WatchingExists, n).Before([this, n] { service.Delete(Node(10 - n)); });
    }
    // One listing of the search, and five that succeed.
    connection->Nth(Call::GetChildren, 7).Returns(ZSESSIONMOVED);
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZSESSIONMOVED);
    EXPECT_EQ(journal.Count(kChecking), 6U);
    EXPECT_EQ(Happened().back(), "GetChildren /e");
    EXPECT_FALSE(IsLocked(MutexOf(*candidate)));
}

// The check fails.

TEST_F(LeaderCheck, ListingThatFailsIsThrownWithoutAWord)
{
    const auto candidate = MakeCandidate();
    connection->Nth(Call::GetChildren, 2).Returns(ZMARSHALLINGERROR);
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZMARSHALLINGERROR);
    const std::vector<std::string> happened = Happened();
    EXPECT_EQ(happened[happened.size() - 2], kChecking);
    EXPECT_EQ(happened.back(), "GetChildren /e");
}

TEST_F(LeaderCheck, ListingThatFailsChangesNothing)
{
    const auto candidate = StartBehind(2);
    connection->Next(Call::GetChildren).Returns(ZCONNECTIONLOSS);
    connection->LastWatch(Node(1)).Fire();
    EXPECT_THAT(Happened(), ElementsAre(kChecking, "GetChildren /e", kFailed + "connection loss"));
    EXPECT_FALSE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
    for (const Watch& watch : connection->Watches())
    {
        EXPECT_TRUE(watch.IsArmed());
        EXPECT_EQ(watch.Keepers(), 1);
    }
}

TEST_F(LeaderCheck, VanishedElectionNodeIsAnErrorWithItsCode)
{
    const auto candidate = MakeCandidate();
    connection->Nth(Call::GetChildren, 2).Before([&] {
        service.Delete(Node(0));
        service.Delete("/e");
    });
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZNONODE);
}

class OwnNodeMissing : public CandidateTest, public ::testing::WithParamInterface<int>
{};

TEST_P(OwnNodeMissing, IsAnErrorOfTheFamilyWithoutACode)
{
    AddOthers(1);
    const auto candidate = MakeCandidate();
    connection->Nth(Call::GetChildren, 2).Before([&] {
        service.Delete(Node(1));
        for (int later = 0; later < GetParam(); ++later)
        {
            service.Add(Node(2 + later), *others);
        }
        Happened();
    });
    try
    {
        candidate->Start();
        ADD_FAILURE() << "nothing was thrown";
    }
    catch (const ZooError&)
    {
        ADD_FAILURE() << "an error with a code was thrown";
    }
    catch (const details::ExceptionWrapper<VelmorErrorTag, std::runtime_error>& error)
    {
        EXPECT_STREQ(error.what(), "Failed to find own node");
    }
    const std::string later = GetParam() == 0 ? "" : "c-0000000002, ";
    EXPECT_THAT(Happened(), ElementsAre(kBefore + later + "c-0000000000, ", kAfter + "c-0000000000, " + later));
    EXPECT_FALSE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
    EXPECT_THAT(connection->Watches(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(LaterNodes, OwnNodeMissing, ::testing::Values(0, 1));

TEST_F(LeaderCheck, OwnNodeMissingInALaterCheckChangesNothing)
{
    const auto candidate = StartBehind(1);
    service.Delete(Node(1));
    const Watch watch = connection->LastWatch(Node(0));
    watch.Fire();
    EXPECT_THAT(Happened(), ElementsAre(kChecking, "GetChildren /e", kBefore + "c-0000000000, ",
                                        kAfter + "c-0000000000, ", kFailed + "Failed to find own node"));
    EXPECT_TRUE(candidate->IsNextLeader());
    EXPECT_TRUE(watch.IsArmed());
    EXPECT_EQ(watch.Keepers(), 1);
}

TEST_F(LeaderCheck, EmptyListingRendersAsNothing)
{
    const auto candidate = StartBehind(1);
    service.Delete(Node(1));
    service.Delete(Node(0));
    connection->Deliver();
    EXPECT_THAT(Happened(),
                ElementsAre(kChecking, "GetChildren /e", kBefore, kAfter, kFailed + "Failed to find own node"));
}

TEST_F(LeaderCheck, EmptyLeaderCallbackThrowsAfterTheFlagsAreSet)
{
    const auto candidate = std::make_shared<CandidateImpl>(connection, "/e", nullptr, [] {});
    EXPECT_THROW(candidate->Start(), std::bad_function_call);
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
    EXPECT_EQ(Happened().back(), "[0] Candidate c-0000000000 has become the leader");
    EXPECT_FALSE(IsLocked(MutexOf(*candidate)));
    EXPECT_EQ(candidate->Name(), "c-0000000000");
    EXPECT_TRUE(service.Has(Node(0)));
}

TEST_F(LeaderCheck, EmptyNextLeaderCallbackThrowsBeforeAnythingIsWatched)
{
    AddOthers(1);
    const auto candidate = std::make_shared<CandidateImpl>(
        connection, "/e", [] {}, nullptr);
    EXPECT_THROW(candidate->Start(), std::bad_function_call);
    EXPECT_FALSE(candidate->IsLeader());
    EXPECT_TRUE(candidate->IsNextLeader());
    EXPECT_EQ(Happened().back(), "[0] Candidate c-0000000001 is the next leader");
    EXPECT_THAT(connection->Watches(), IsEmpty());
}

/// With an empty callback or one that throws something of its own.
class NextLeaderCallbackThatThrows : public CandidateTest, public ::testing::WithParamInterface<bool>
{};

TEST_P(NextLeaderCallbackThatThrows, KeepsTheSecondWatchAndArmsNone)
{
    AddOthers(2);
    const bool empty = GetParam();
    std::function<void()> callback;
    if (!empty)
    {
        callback = [] { throw std::logic_error("no"); };
    }
    const auto candidate = std::make_shared<CandidateImpl>(
        connection, "/e", [] {}, std::move(callback));
    candidate->Start();
    const Watch ahead = connection->LastWatch(Node(1));
    const Watch twoAhead = connection->LastWatch(Node(0));
    service.Delete(Node(0));
    if (empty)
    {
        EXPECT_THROW(twoAhead.Fire(), std::bad_function_call);
    }
    else
    {
        EXPECT_THROW(twoAhead.Fire(), std::logic_error);
    }
    EXPECT_TRUE(candidate->IsNextLeader());
    EXPECT_FALSE(candidate->IsLeader());
    EXPECT_EQ(ahead.Keepers(), 1);
    EXPECT_EQ(twoAhead.Keepers(), 1);
    EXPECT_EQ(connection->Watches().size(), 2U);
    EXPECT_FALSE(IsLocked(MutexOf(*candidate)));
}

INSTANTIATE_TEST_SUITE_P(Callbacks, NextLeaderCallbackThatThrows, ::testing::Bool());

TEST_F(LeaderCheck, ThrowingLeaderCallbackLeavesStartWithTheFlagsSet)
{
    const auto candidate = std::make_shared<CandidateImpl>(
        connection, "/e", [] { throw std::length_error("too long"); }, [] {});
    EXPECT_THROW(candidate->Start(), std::length_error);
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_THAT(Happened(), Not(Contains("[0] Candidate started")));
}

TEST_F(LeaderCheck, WatchThatFailsIsThrownAndItsHandleDisarmed)
{
    AddOthers(1);
    const auto candidate = MakeCandidate();
    connection->Next(Call::WatchingExists).Returns(ZCONNECTIONLOSS);
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZCONNECTIONLOSS);
    EXPECT_EQ(Happened().back(), "Exists /e/c-0000000000 watching");
    EXPECT_TRUE(candidate->IsNextLeader());
    const Watch failed = connection->LastWatch(Node(0));
    EXPECT_FALSE(failed.state->active);
    EXPECT_FALSE(failed.state->callback);
    EXPECT_EQ(failed.Keepers(), 0);
    EXPECT_EQ(candidate.use_count(), 1);
}

TEST_F(LeaderCheck, WatchThatFailsLeavesTheFormerOneWhereItWas)
{
    const auto candidate = StartBehind(2);
    const Watch ahead = connection->LastWatch(Node(1));
    const Watch twoAhead = connection->LastWatch(Node(0));
    connection->Next(Call::WatchingExists).Returns(ZOPERATIONTIMEOUT);
    ahead.Fire();
    EXPECT_EQ(Happened().back(), kFailed + "operation timeout");
    for (const Watch& watch : {ahead, twoAhead})
    {
        EXPECT_TRUE(watch.IsArmed());
        EXPECT_EQ(watch.Keepers(), 1);
    }
    EXPECT_FALSE(connection->Watches().back().IsArmed());
}

TEST_F(LeaderCheck, SecondWatchThatFailsIsThrownToo)
{
    AddOthers(2);
    const auto candidate = MakeCandidate();
    connection->Nth(Call::WatchingExists, 2).Returns(ZCONNECTIONLOSS);
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZCONNECTIONLOSS);
    EXPECT_TRUE(connection->LastWatch(Node(1)).IsArmed());
    EXPECT_EQ(connection->LastWatch(Node(1)).Keepers(), 1);
    EXPECT_FALSE(connection->LastWatch(Node(0)).IsArmed());
}

TEST_F(LeaderCheck, CallbackOfAWatchHoldsTheCandidateAndNothingElseDoes)
{
    const auto candidate = StartBehind(2);
    EXPECT_EQ(candidate.use_count(), 3) << "this one and two watches";
    EXPECT_EQ(connection.use_count(), 2) << "this one and the candidate's";
}

TEST_F(LeaderCheck, CallbackIsMovedIntoTheQuery)
{
    AddOthers(1);
    const auto candidate = MakeCandidate();
    connection->Next(Call::WatchingExists).Before([&] {
        EXPECT_EQ(candidate.use_count(), 3) << "this one, the check's and the callback's";
    });
    candidate->Start();
}

TEST_F(LeaderCheck, EachArmedWatchIsTheCandidatesOnlyHandleOnIt)
{
    const auto candidate = StartBehind(2);
    for (int check = 0; check < 3; ++check)
    {
        connection->LastWatch(Node(1)).Fire();
        long keepers = 0;
        for (const Watch& watch : connection->Watches())
        {
            keepers += watch.Keepers();
        }
        EXPECT_EQ(keepers, 2);
    }
}

}  // namespace
}  // namespace kx::velmor::testing_support
