// The candidate as an object, and how it joins an election: the path, its own node, the node's name.

#include "tests/support/mutex_probe.h"
#include "tests/unit/candidate_fixture.h"

#include <functional>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <utility>

namespace kx::velmor::testing_support {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;
using ::testing::Not;

static_assert(std::is_base_of_v<std::enable_shared_from_this<CandidateImpl>, CandidateImpl>);
static_assert(std::is_convertible_v<CandidateImpl*, std::enable_shared_from_this<CandidateImpl>*>, "a public base");
static_assert(!std::is_polymorphic_v<CandidateImpl>);
static_assert(std::is_same_v<decltype(std::declval<const CandidateImpl&>().Name()), const std::string&>);

const std::string kCreate = "Create /e/c- ephemeral sequential world:anyone:31 room:17";

/// Counts how often it is copied.
struct CountsCopies
{
    explicit CountsCopies(int& count) : copies(&count) {}
    CountsCopies(const CountsCopies& other) : copies(other.copies) { ++*copies; }
    CountsCopies(CountsCopies&& other) noexcept : copies(other.copies) {}
    CountsCopies& operator=(const CountsCopies&) = delete;
    CountsCopies& operator=(CountsCopies&&) = delete;
    ~CountsCopies() = default;
    void operator()() const {}

    int* copies;
};

// The object.

TEST_F(CandidateTest, FreshCandidateHasNoRoleAndNoName)
{
    const auto candidate = MakeCandidate();
    EXPECT_FALSE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
    EXPECT_EQ(candidate->Name(), "");
}

TEST_F(CandidateTest, ConstructionCallsNothingAndLogsNothing)
{
    const auto candidate = MakeCandidate();
    EXPECT_THAT(Happened(), IsEmpty());
}

TEST_F(CandidateTest, ElectionPathIsOneSeparatorAndTheNormalisedPath)
{
    for (const std::string path : {"a/b", "/a/b", "//a///b/", "a/b//"})
    {
        const auto candidate = std::make_shared<CandidateImpl>(
            connection, path, [] {}, [] {});
        candidate->Start();
        const std::vector<std::string> happened = Happened();
        EXPECT_EQ(happened.at(0), "Exists /a/b stat") << path;
        EXPECT_THAT(happened, IsSupersetOf({"GetChildren /a/b"})) << path;
        candidate->Stop();
        Happened();
    }
    EXPECT_THAT(service.Children("/"), ElementsAre("a"));
    EXPECT_THAT(service.Children("/a"), ElementsAre("b"));
}

TEST_F(CandidateTest, LaterChangesToThePathArgumentDoNotReachTheCandidate)
{
    std::string path = "/e";
    const auto candidate = std::make_shared<CandidateImpl>(
        connection, path, [] {}, [] {});
    path = "/elsewhere";
    candidate->Start();
    EXPECT_EQ(service.Children("/e").size(), 1U);
    EXPECT_FALSE(service.Has("/elsewhere"));
}

TEST_F(CandidateTest, EmptyCallbacksAreAccepted)
{
    EXPECT_NO_THROW(std::make_shared<CandidateImpl>(connection, "/e", nullptr, nullptr));
}

TEST_F(CandidateTest, SessionAndCallbacksAreMovedIn)
{
    int copies = 0;
    std::function<void()> leader{CountsCopies(copies)};
    std::function<void()> next{CountsCopies(copies)};
    std::shared_ptr<Connection> session = connection;
    const long users = connection.use_count();
    copies = 0;
    const CandidateImpl candidate(std::move(session), "/e", std::move(leader), std::move(next));
    EXPECT_EQ(session, nullptr);
    EXPECT_FALSE(leader);  // NOLINT(bugprone-use-after-move): that it is empty is what is tested
    EXPECT_FALSE(next);    // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(copies, 0);
    EXPECT_EQ(connection.use_count(), users);
}

TEST_F(CandidateTest, PathThatNamesNoNodeLeavesTheConstructorAndReleasesTheRest)
{
    const long users = connection.use_count();
    const auto probe = std::make_shared<int>(0);
    EXPECT_THROW(CandidateImpl(
                     connection, "//", [probe] {}, [probe] {}),
                 VelmorError);
    EXPECT_EQ(connection.use_count(), users);
    EXPECT_EQ(probe.use_count(), 1);
    EXPECT_THAT(Happened(), IsEmpty());
}

TEST_F(CandidateTest, AccessorsTakeNoLock)
{
    const auto candidate = StartBehind(0);
    MakeErrorChecking(MutexOf(*candidate));
    const std::lock_guard<std::mutex> lock(MutexOf(*candidate));
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
    EXPECT_EQ(candidate->Name(), "c-0000000000");
}

TEST_F(CandidateTest, AccessorsCanBeCalledFromCallbacks)
{
    std::shared_ptr<CandidateImpl> candidate;
    const auto look = [&] {
        journal.Note(std::to_string(candidate->IsLeader()) + std::to_string(candidate->IsNextLeader()) +
                     candidate->Name());
    };
    service.Add("/e/b", *others);
    candidate = std::make_shared<CandidateImpl>(connection, "/e", look, look);
    candidate->Start();
    service.Delete("/e/b");
    connection->Deliver();
    EXPECT_THAT(Happened(), IsSupersetOf({"01c-0000000001", "10c-0000000001"}));
}

TEST_F(CandidateTest, EveryStatementIsLoggedUnderTheCandidatesSource)
{
    AddOthers(2);
    const auto candidate = MakeCandidate();
    connection->Next(Call::Create).Returns(ZOPERATIONTIMEOUT);
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZOPERATIONTIMEOUT);
    candidate->Start();
    connection->Next(Call::GetChildren).Returns(ZCONNECTIONLOSS);
    service.Delete(Node(0));
    connection->Deliver();
    service.Delete(Node(1));
    connection->Deliver();
    candidate->Stop();
    const auto second = MakeCandidate(others);
    second->Start();
    others->Next(Call::GuaranteedDelete).Returns(ZCONNECTIONLOSS);
    EXPECT_EQ(ThrownCode([&] { second->Stop(); }), ZCONNECTIONLOSS);

    const std::vector<LogRecord> records = log.Records();
    ASSERT_GT(records.size(), 15U);
    for (const LogRecord& record : records)
    {
        EXPECT_EQ(record.source->Name(), "velmor.candidate") << record.text;
        EXPECT_EQ(record.source, records.front().source) << "all candidates share one source";
        EXPECT_EQ(record.source->Attached(), nullptr);
        EXPECT_EQ(record.code, 0U) << record.text;
        EXPECT_EQ(static_cast<int>(record.decodeType), 1) << record.text;
        EXPECT_EQ(record.extra, "") << record.text;
        EXPECT_THAT(record.file, ::testing::EndsWith("candidate_impl.cpp"));
        EXPECT_GT(record.line, 0);
    }
}

// Joining.

TEST_F(CandidateTest, StartMakesThePathAndTheNodeAndChecks)
{
    const auto candidate = MakeCandidate();
    candidate->Start();
    EXPECT_THAT(Happened(), ElementsAre("Exists /e stat",                       //
                                        "Create /e world:anyone:31 room:1002",  //
                                        "GetChildren /e",                       //
                                        "ClientId",                             //
                                        "RootPath",                             //
                                        kCreate,                                //
                                        "[10] Created candidate node /e/c-0000000000",
                                        "[0] Checking for new leader",  //
                                        "GetChildren /e",               //
                                        "[10] CheckLeader: before sorting children=c-0000000000, ",
                                        "[10] CheckLeader: after sorting children=c-0000000000, ",
                                        "[0] Candidate c-0000000000 has become the leader",
                                        "leader",  //
                                        "[0] Candidate started"));
    EXPECT_EQ(candidate->Name(), "c-0000000000");
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_THAT(service.Children("/e"), ElementsAre("c-0000000000"));
}

TEST_F(CandidateTest, NodeIsEphemeral)
{
    const auto candidate = StartBehind(0);
    service.Expire(*connection);
    EXPECT_THAT(service.Children("/e"), IsEmpty());
}

TEST_F(CandidateTest, SecondStartDoesNothing)
{
    const auto candidate = StartBehind(1);
    candidate->Start();
    EXPECT_THAT(Happened(), IsEmpty());
    EXPECT_TRUE(candidate->IsNextLeader());
    EXPECT_EQ(candidate->Name(), "c-0000000001");
}

TEST_F(CandidateTest, NameIsTheBareName)
{
    const auto candidate = std::make_shared<CandidateImpl>(
        connection, "/deep/down/e", [] {}, [] {});
    candidate->Start();
    EXPECT_EQ(candidate->Name(), "c-0000000000");
}

TEST_F(CandidateTest, RoomIsTheRootThePathAndTwelveMore)
{
    const auto rooted = service.Open("", "/app");
    const auto candidate = MakeCandidate(rooted);
    candidate->Start();
    EXPECT_THAT(Happened(), IsSupersetOf({"Create /e/c- ephemeral sequential world:anyone:31 room:21"}));
    EXPECT_EQ(rooted->RoomOfLastCreate(), std::string(21, '\0'));
    EXPECT_THAT(service.Children("/app/e"), ElementsAre("c-0000000000"));
}

TEST_F(CandidateTest, RoomKeepsTheCharactersOfThePreviousName)
{
    const auto candidate = StartBehind(0);
    candidate->Stop();
    candidate->Start();
    EXPECT_EQ(connection->RoomOfLastCreate(), "c-0000000000" + std::string(5, '\0'));
    EXPECT_EQ(candidate->Name(), "c-0000000001");
}

TEST_F(CandidateTest, RoomIsCutFromALongerPreviousName)
{
    const auto candidate = MakeCandidate();
    connection->Next(Call::Create).Returns(ZOPERATIONTIMEOUT).Leaves("0123456789abcdefghijklmnopqrstuvwxyz");
    connection->Nth(Call::Create, 2).Returns(ZOPERATIONTIMEOUT);
    service.Add("/e");
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZOPERATIONTIMEOUT);
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZOPERATIONTIMEOUT);
    EXPECT_EQ(connection->RoomOfLastCreate(), "0123456789abcdefg");
}

TEST_F(CandidateTest, CreatedPathMayCarryTheRoot)
{
    const auto rooted = service.Open("", "/app");
    service.Add("/app/e");
    rooted->Next(Call::Create).DoesAndReturns(ZOK).Leaves("/app/e/c-0000000000");
    const auto candidate = MakeCandidate(rooted);
    candidate->Start();
    EXPECT_THAT(Happened(), IsSupersetOf({"[10] Created candidate node /app/e/c-0000000000"}));
    EXPECT_EQ(candidate->Name(), "c-0000000000");
    EXPECT_TRUE(candidate->IsLeader());
}

TEST_F(CandidateTest, CreatedPathWithoutASeparatorIsTheName)
{
    service.Add("/e");
    connection->Next(Call::Create).DoesAndReturns(ZOK).Leaves("c-0000000000");
    const auto candidate = MakeCandidate();
    candidate->Start();
    EXPECT_THAT(Happened(), IsSupersetOf({"[10] Created candidate node c-0000000000"}));
    EXPECT_EQ(candidate->Name(), "c-0000000000");
}

TEST_F(CandidateTest, CallbacksOfTheFirstCheckRunOnTheThreadThatStarts)
{
    std::thread::id ran;
    const auto candidate = std::make_shared<CandidateImpl>(
        connection, "/e", [&] { ran = std::this_thread::get_id(); }, [] {});
    candidate->Start();
    EXPECT_EQ(ran, std::this_thread::get_id());
}

TEST_F(CandidateTest, StartHoldsTheLockAcrossCallsStatementsAndCallbacks)
{
    AddOthers(2);
    std::shared_ptr<CandidateImpl> candidate;
    int looks = 0;
    const auto look = [&] {
        ++looks;
        EXPECT_TRUE(IsLocked(MutexOf(*candidate)));
    };
    candidate = std::make_shared<CandidateImpl>(connection, "/e", look, look);
    connection->BeforeEveryCall(look);
    log.Watch([&](const LogRecord&) { look(); });
    candidate->Start();
    // Exists, GetChildren, ClientId, 2 x Exists, RootPath, Create; GetChildren, 2 x Exists; 7 statements.
    EXPECT_EQ(looks, 17);
    EXPECT_FALSE(IsLocked(MutexOf(*candidate)));
}

TEST_F(CandidateTest, EventDuringStartWaitsAndFindsTheCandidateStarted)
{
    AddOthers(2);
    const auto candidate = MakeCandidate();
    std::thread events;
    connection->Nth(Call::WatchingExists, 2).Before([&] {
        events = std::thread([&] {
            journal.Note("event");
            connection->LastWatch(Node(1)).Fire();
        });
        journal.Await("event");
    });
    candidate->Start();
    events.join();

    const std::vector<std::string> happened = Happened();
    const auto started = std::find(happened.begin(), happened.end(), "[0] Candidate started");
    EXPECT_EQ(std::count(happened.begin(), started, "[0] Checking for new leader"), 1);
    EXPECT_EQ(std::count(started, happened.end(), "[0] Checking for new leader"), 1);
}

TEST_F(CandidateTest, LockThatCannotBeTakenLeavesStart)
{
    const auto candidate = MakeCandidate();
    MakeErrorChecking(MutexOf(*candidate));
    {
        const std::lock_guard<std::mutex> lock(MutexOf(*candidate));
        EXPECT_THROW(candidate->Start(), std::system_error);
    }
    EXPECT_THAT(Happened(), IsEmpty());
}

// Joining fails.

TEST_F(CandidateTest, PathThatCannotBeMadeChangesNothing)
{
    const auto candidate = MakeCandidate();
    connection->Next(Call::Exists).Returns(ZAUTHFAILED);
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZAUTHFAILED);
    EXPECT_THAT(Happened(), ElementsAre("Exists /e stat"));
    EXPECT_EQ(candidate->Name(), "");
    EXPECT_FALSE(candidate->IsLeader());

    candidate->Start();
    EXPECT_TRUE(candidate->IsLeader());
}

TEST_F(CandidateTest, SearchThatFailsChangesNothing)
{
    const auto candidate = MakeCandidate();
    service.Add("/e");
    connection->Next(Call::GetChildren).Returns(ZCONNECTIONLOSS);
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZCONNECTIONLOSS);
    EXPECT_THAT(Happened(), ElementsAre("Exists /e stat", "GetChildren /e"));
    EXPECT_EQ(candidate->Name(), "");

    candidate->Start();
    EXPECT_TRUE(candidate->IsLeader());
}

class RefusedCreation : public CandidateTest, public ::testing::WithParamInterface<int>
{};

TEST_P(RefusedCreation, IsLoggedAndThrown)
{
    service.Add("/e");
    const auto candidate = MakeCandidate();
    connection->Next(Call::Create).Returns(GetParam());
    EXPECT_EQ(ThrownCode([&] {
                  try
                  {
                      candidate->Start();
                  }
                  catch (...)
                  {
                      journal.Note("thrown");
                      throw;
                  }
              }),
              GetParam());
    EXPECT_THAT(Happened(),
                ElementsAre("Exists /e stat", "GetChildren /e", "ClientId", "RootPath", kCreate,
                            std::string("[30] Failed to create election node /e/c-: ") + zerror(GetParam()), "thrown"));
    EXPECT_EQ(candidate->Name(), std::string(17, '\0'));
    EXPECT_FALSE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
    EXPECT_FALSE(IsLocked(MutexOf(*candidate)));
}

INSTANTIATE_TEST_SUITE_P(Codes, RefusedCreation,
                         ::testing::Values(ZNODEEXISTS, ZNONODE, ZCONNECTIONLOSS, ZSESSIONEXPIRED, ZNOAUTH, 1));

TEST_F(CandidateTest, StartAfterARefusedCreationBeginsAgainWithThePath)
{
    const auto candidate = MakeCandidate();
    service.Add("/e");
    connection->Next(Call::Create).Returns(ZOPERATIONTIMEOUT);
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZOPERATIONTIMEOUT);
    service.Delete("/e");
    Happened();

    candidate->Start();
    EXPECT_THAT(Happened(), ::testing::Contains("Create /e world:anyone:31 room:1002"));
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_EQ(candidate->Name(), "c-0000000000");
}

TEST_F(CandidateTest, NameAfterARefusedCreationIsWhatCreateLeft)
{
    const auto candidate = MakeCandidate();
    service.Add("/e");
    connection->Next(Call::Create).Returns(ZCONNECTIONLOSS).Leaves("half a /path");
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZCONNECTIONLOSS);
    EXPECT_EQ(candidate->Name(), "half a /path");
}

TEST_F(CandidateTest, RefusedCreationLeavesTheFlagsAsTheyAre)
{
    const auto candidate = std::make_shared<CandidateImpl>(
        connection, "/e", [] { throw std::runtime_error("not ready"); }, [] {});
    EXPECT_THROW(candidate->Start(), std::runtime_error);
    ASSERT_TRUE(candidate->IsLeader());
    service.Delete(Node(0));
    connection->Next(Call::Create).Returns(ZSESSIONEXPIRED);
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZSESSIONEXPIRED);
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
}

TEST_F(CandidateTest, RefusedCreationIsThrownAlsoWhenItIsNotLogged)
{
    logging::g_minLogLevel = 31;
    service.Add("/e");
    const auto candidate = MakeCandidate();
    connection->Next(Call::Create).Returns(ZINVALIDACL);
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZINVALIDACL);
    EXPECT_THAT(Happened(), ElementsAre("Exists /e stat", "GetChildren /e", "ClientId", "RootPath", kCreate));
}

TEST_F(CandidateTest, ErrorsAreLoggedAtAThresholdOfThirty)
{
    logging::g_minLogLevel = 30;
    service.Add("/e");
    const auto candidate = MakeCandidate();
    connection->Next(Call::Create).Returns(ZINVALIDACL);
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZINVALIDACL);
    EXPECT_EQ(Happened().back(), "[30] Failed to create election node /e/c-: invalid acl");
}

TEST_F(CandidateTest, FirstCheckThatFailsLeavesTheNodeForTheNextStart)
{
    service.Add("/e");
    const auto candidate = MakeCandidate();
    connection->Nth(Call::GetChildren, 2).Returns(ZCONNECTIONLOSS);
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZCONNECTIONLOSS);
    EXPECT_THAT(Happened(), ElementsAre("Exists /e stat", "GetChildren /e", "ClientId", "RootPath", kCreate,
                                        "[10] Created candidate node /e/c-0000000000", "[0] Checking for new leader",
                                        "GetChildren /e"));
    EXPECT_EQ(candidate->Name(), "c-0000000000");
    EXPECT_FALSE(candidate->IsLeader());
    EXPECT_TRUE(service.Has(Node(0)));

    // Stop does nothing for a candidate that never got started.
    candidate->Stop();
    EXPECT_THAT(Happened(), IsEmpty());

    candidate->Start();
    EXPECT_THAT(Happened(), ElementsAre("Exists /e stat",               //
                                        "GetChildren /e",               //
                                        "ClientId",                     //
                                        "Exists /e/c-0000000000 stat",  //
                                        "[10] Found an existing candidate node /e/c-0000000000",
                                        "[0] Checking for new leader",  //
                                        "GetChildren /e",               //
                                        "[10] CheckLeader: before sorting children=c-0000000000, ",
                                        "[10] CheckLeader: after sorting children=c-0000000000, ",
                                        "[0] Candidate c-0000000000 has become the leader",
                                        "leader",  //
                                        "[0] Candidate started"));
    EXPECT_EQ(candidate->Name(), "c-0000000000");
    EXPECT_THAT(service.Children("/e"), ElementsAre("c-0000000000"));
}

TEST_F(CandidateTest, StartItselfResetsNoFlag)
{
    const auto candidate = std::make_shared<CandidateImpl>(
        connection, "/e", [] { throw std::runtime_error("not ready"); }, [] {});
    EXPECT_THROW(candidate->Start(), std::runtime_error);
    service.Add("/e/a", *others);
    service.Add("/e/b", *others);
    candidate->Start();
    EXPECT_TRUE(candidate->IsLeader()) << "the check finds it third, which changes no flag";
    EXPECT_FALSE(candidate->IsNextLeader());
}

TEST_F(CandidateTest, StartItselfLetsGoOfNoWatch)
{
    AddOthers(2);
    const auto candidate = MakeCandidate();
    connection->Nth(Call::WatchingExists, 2).Returns(ZCONNECTIONLOSS);
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZCONNECTIONLOSS);
    service.Delete(Node(0));
    service.Delete(Node(1));
    candidate->Start();
    ASSERT_TRUE(candidate->IsLeader());
    EXPECT_EQ(connection->LastWatch(Node(1)).Keepers(), 1) << "the check finds it first, which touches no watch";
}

TEST_F(CandidateTest, CandidateThatNoSharedPointerOwnsCannotWatch)
{
    AddOthers(1);
    CandidateImpl candidate(
        connection, "/e", [this] { journal.Note("leader"); }, [this] { journal.Note("next leader"); });
    EXPECT_THROW(candidate.Start(), std::bad_weak_ptr);
    EXPECT_EQ(Happened().back(), "next leader");
    EXPECT_THAT(connection->Watches(), IsEmpty());
    EXPECT_EQ(candidate.Name(), "c-0000000001");
    EXPECT_TRUE(candidate.IsNextLeader());
    EXPECT_TRUE(service.Has(Node(1)));
    EXPECT_FALSE(IsLocked(MutexOf(candidate)));

    // It is not started: it adopts its node, and stops without a word.
    candidate.Stop();
    EXPECT_THAT(Happened(), IsEmpty());
}

TEST_F(CandidateTest, CandidateThatNoSharedPointerOwnsCanLead)
{
    CandidateImpl candidate(
        connection, "/e", [] {}, [] {});
    candidate.Start();
    EXPECT_TRUE(candidate.IsLeader());
}

// The threshold.

const std::vector<std::string> kNodeDetail = {"[10] Created candidate node /e/c-0000000000",
                                              "[10] CheckLeader: before sorting children=c-0000000000, ",
                                              "[10] CheckLeader: after sorting children=c-0000000000, "};
const std::vector<std::string> kAllLines = {"[10] Created candidate node /e/c-0000000000",
                                            "[0] Checking for new leader",
                                            "[10] CheckLeader: before sorting children=c-0000000000, ",
                                            "[10] CheckLeader: after sorting children=c-0000000000, ",
                                            "[0] Candidate c-0000000000 has become the leader",
                                            "[0] Candidate started"};

class Threshold : public CandidateTest, public ::testing::WithParamInterface<int>
{};

TEST_P(Threshold, DecidesAboutLinesAndNothingElse)
{
    logging::g_minLogLevel = GetParam();
    const auto candidate = MakeCandidate();
    candidate->Start();
    std::vector<std::string> calls;
    std::vector<std::string> lines;
    for (const std::string& line : Happened())
    {
        (line.front() == '[' ? lines : calls).push_back(line);
    }
    EXPECT_EQ(lines, GetParam() <= 0 ? kAllLines : GetParam() <= 10 ? kNodeDetail : std::vector<std::string>());
    EXPECT_THAT(calls, ElementsAre("Exists /e stat", "Create /e world:anyone:31 room:1002", "GetChildren /e",
                                   "ClientId", "RootPath", kCreate, "GetChildren /e", "leader"));
    EXPECT_EQ(candidate->Name(), "c-0000000000");
    EXPECT_TRUE(candidate->IsLeader());
}

INSTANTIATE_TEST_SUITE_P(Levels, Threshold, ::testing::Values(-1, 0, 1, 10, 11, 31));

// Its own node.

TEST_F(CandidateTest, EmptyElectionHasNoNodeOfOurs)
{
    service.Add("/e");
    const auto candidate = MakeCandidate();
    candidate->Start();
    const std::vector<std::string> happened = Happened();
    EXPECT_EQ(std::count(happened.begin(), happened.end(), "ClientId"), 1);
    EXPECT_EQ(happened.at(3), "RootPath") << "on to creating";
}

TEST_F(CandidateTest, NodeIsRecognisedByItsOwnerWhateverItsName)
{
    service.Add("/e/whatever", *connection);
    const auto candidate = MakeCandidate();
    candidate->Start();
    EXPECT_THAT(Happened(), IsSupersetOf({"[10] Found an existing candidate node /e/whatever"}));
    EXPECT_EQ(candidate->Name(), "whatever");
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_THAT(service.Children("/e"), ElementsAre("whatever"));
}

TEST_F(CandidateTest, CandidateNodeOfAnotherSessionIsNotOurs)
{
    const auto candidate = StartBehind(1);
    EXPECT_EQ(candidate->Name(), "c-0000000001");
}

TEST_F(CandidateTest, SearchGoesOnBehindForeignNodesAndEndsAtOurs)
{
    // Listed from the newest to the oldest.
    service.Add(Node(0), *others);
    service.Add(Node(1), *connection);
    service.Add(Node(2), *others);
    service.Add(Node(3), *others);
    const auto candidate = MakeCandidate();
    candidate->Start();
    const std::vector<std::string> happened = Happened();
    EXPECT_THAT(std::vector<std::string>(happened.begin(), happened.begin() + 7),
                ElementsAre("Exists /e stat", "GetChildren /e", "ClientId", "Exists /e/c-0000000003 stat",
                            "Exists /e/c-0000000002 stat", "Exists /e/c-0000000001 stat",
                            "[10] Found an existing candidate node /e/c-0000000001"));
    EXPECT_EQ(candidate->Name(), "c-0000000001");
}

TEST_F(CandidateTest, FirstListedOfTwoNodesOfOursIsTaken)
{
    service.Add(Node(0), *connection);
    service.Add(Node(1), *connection);
    const auto candidate = MakeCandidate();
    candidate->Start();
    EXPECT_EQ(candidate->Name(), "c-0000000001");
}

TEST_F(CandidateTest, ChildThatVanishesDuringTheSearchIsSkipped)
{
    service.Add(Node(0), *connection);
    service.Add(Node(1), *others);
    connection->Nth(Call::Exists, 2).Before([&] { service.Delete(Node(1)); });
    const auto candidate = MakeCandidate();
    candidate->Start();
    const std::vector<std::string> happened = Happened();
    EXPECT_THAT(std::vector<std::string>(happened.begin(), happened.begin() + 6),
                ElementsAre("Exists /e stat", "GetChildren /e", "ClientId", "Exists /e/c-0000000001 stat",
                            "Exists /e/c-0000000000 stat", "[10] Found an existing candidate node /e/c-0000000000"));
}

TEST_F(CandidateTest, ChildThatCannotBeLookedAtEndsTheSearch)
{
    service.Add(Node(0), *connection);
    service.Add(Node(1), *others);
    connection->Nth(Call::Exists, 2).Returns(ZCONNECTIONLOSS);
    const auto candidate = MakeCandidate();
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZCONNECTIONLOSS);
    EXPECT_THAT(Happened(), ElementsAre("Exists /e stat", "GetChildren /e", "ClientId", "Exists /e/c-0000000001 stat"));
    EXPECT_EQ(candidate->Name(), "");
}

TEST_F(CandidateTest, ElectionNodeThatVanishesBeforeTheSearchIsAnError)
{
    service.Add("/e");
    connection->Next(Call::GetChildren).Before([&] { service.Delete("/e"); });
    const auto candidate = MakeCandidate();
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZNONODE);
    EXPECT_THAT(Happened(), ElementsAre("Exists /e stat", "GetChildren /e"));
}

TEST_F(CandidateTest, WithoutAnIdentityEveryChildIsLookedAtAndNoneIsOurs)
{
    service.Add(Node(0), *connection);
    service.Add("/e/persistent");
    connection->SetIdentity(std::nullopt);
    const auto candidate = MakeCandidate();
    candidate->Start();
    const std::vector<std::string> happened = Happened();
    EXPECT_THAT(std::vector<std::string>(happened.begin(), happened.begin() + 6),
                ElementsAre("Exists /e stat", "GetChildren /e", "ClientId", "Exists /e/persistent stat",
                            "Exists /e/c-0000000000 stat", "RootPath"));
    EXPECT_EQ(candidate->Name(), "c-0000000002");
}

TEST_F(CandidateTest, WithoutAnIdentityFailuresAreStillReported)
{
    service.Add(Node(0), *connection);
    connection->SetIdentity(std::nullopt);
    connection->Nth(Call::Exists, 2).Returns(ZOPERATIONTIMEOUT);
    const auto candidate = MakeCandidate();
    EXPECT_EQ(ThrownCode([&] { candidate->Start(); }), ZOPERATIONTIMEOUT);
}

TEST_F(CandidateTest, IdentityZeroClaimsTheFirstPersistentChild)
{
    service.Add("/e/older");
    service.Add("/e/newer");
    service.Add(Node(2), *others);
    connection->SetIdentity(0);
    const auto candidate = MakeCandidate();
    candidate->Start();
    EXPECT_THAT(Happened(), IsSupersetOf({"[10] Found an existing candidate node /e/newer"}));
    EXPECT_EQ(candidate->Name(), "newer");
}

TEST_F(CandidateTest, TwoCandidatesOfOneSessionShareANode)
{
    const auto first = MakeCandidate();
    const auto second = MakeCandidate();
    first->Start();
    Happened();
    second->Start();
    const std::vector<std::string> happened = Happened();
    EXPECT_THAT(happened, IsSupersetOf({"[10] Found an existing candidate node /e/c-0000000000"}));
    EXPECT_THAT(happened, Each(Not(::testing::StartsWith("Create"))));
    EXPECT_EQ(second->Name(), first->Name());
    EXPECT_TRUE(first->IsLeader());
    EXPECT_TRUE(second->IsLeader());
    EXPECT_THAT(service.Children("/e"), ElementsAre("c-0000000000"));
}

}  // namespace
}  // namespace kx::velmor::testing_support
