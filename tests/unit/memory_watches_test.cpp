// What the watches of a session in memory are told.

#include "tests/unit/memory_fixture.h"

#include <mutex>

namespace kx::velmor {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using MemoryWatches = MemoryTest;

TEST_F(MemoryWatches, NodeEventIsToldOnce)
{
    service.Add("/a");
    const auto deleted = Watching(*session, "/a", "deleted");
    service.Delete("/a");
    EXPECT_THAT(Told(), ElementsAre("deleted: deleted /a"));

    const auto created = Watching(*session, "/a", "created");
    EXPECT_EQ(ZOK, Create(*session, "/a").first);
    service.Set("/a", "new");
    EXPECT_THAT(Told(), ElementsAre("created: created /a"));

    const auto changed = Watching(*session, "/a", "changed");
    const auto too = Watching(*other, "/a", "changed too");
    service.Add("/a/child");
    EXPECT_THAT(Told(), IsEmpty());
    service.Set("/a", "newer");
    service.Set("/a", "newest");
    EXPECT_THAT(Told(), ::testing::UnorderedElementsAre("changed: changed /a", "changed too: changed /a"));
}

TEST_F(MemoryWatches, TransactionTellsOfEachChange)
{
    service.Add("/a");
    service.Add("/b");
    const auto a = Watching(*other, "/a");
    const auto b = Watching(*other, "/b");
    const auto c = Watching(*other, "/c");
    TransactionResult result;
    EXPECT_EQ(ZOK, session->Transact({Operation::Create("/c", ""), Operation::Set("/a", ""), Operation::Delete("/b")},
                                     result));
    EXPECT_THAT(Told(), ElementsAre("watch: created /c", "watch: changed /a", "watch: deleted /b"));
}

TEST_F(MemoryWatches, PathIsToldAsTheSessionCallsIt)
{
    service.Add("/apps/x/a");
    const auto rooted = service.Open({"/apps/x"});
    const auto a = Watching(*rooted, "/a");
    const auto root = Watching(*rooted, "/");
    service.Set("/apps/x", "");
    service.Delete("/apps/x/a");
    EXPECT_THAT(Told(), ElementsAre("watch: changed /", "watch: deleted /a"));
}

TEST_F(MemoryWatches, DisarmedWatchIsToldNothingAndNeitherIsOneThatWasLetGoOf)
{
    service.Add("/a");
    {
        const auto disarmed = Watching(*session, "/a");
    }
    auto letGoOf = Watching(*session, "/a");
    letGoOf = Connection::WatchHandle();
    service.Delete("/a");
    service.Cut(*session);
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(MemoryWatches, WatchThatWasLetGoOfIsDroppedAtTheNextOperation)
{
    const auto captured = std::make_shared<int>(0);
    auto [rc, handle] = session->Exists(
        "/a", [captured](int, int, const std::string&) {}, nullptr);
    EXPECT_EQ(ZNONODE, rc);
    EXPECT_EQ(2, captured.use_count());
    handle = Connection::WatchHandle();
    EXPECT_EQ(2, captured.use_count());
    EXPECT_EQ(ZNONODE, session->Exists("/a", nullptr));
    EXPECT_EQ(1, captured.use_count());
}

TEST_F(MemoryWatches, CallbackRunsWithoutTheMutexOfItsStateAndMayUseTheSession)
{
    const auto handle = std::make_shared<Connection::WatchHandle>();
    const auto look = [this, handle](int, int, const std::string&) {
        EXPECT_EQ(ZNONODE, session->Exists("/a", nullptr));
        EXPECT_EQ(ZOK, Create(*session, "/b").first);
        {
            // Needs the state's mutex.
            const Connection::WatchHandle gone = std::move(*handle);
        }
        journal.Note("through");
    };
    service.Add("/a");
    *handle = session->Exists("/a", look, nullptr).second;
    service.Delete("/a");
    EXPECT_THAT(Told(), ElementsAre("through"));
}

TEST_F(MemoryWatches, WhatACallbackThrowsIsLogged)
{
    service.Add("/a");
    const auto throws = session->Exists(
        "/a", [](int, int, const std::string&) { throw std::runtime_error("ouch"); }, nullptr);
    const auto next = Watching(*session, "/a");
    service.Delete("/a");
    EXPECT_THAT(Told(), ElementsAre(::testing::HasSubstr("A watch callback threw: ouch"), "watch: deleted /a"));
}

TEST_F(MemoryWatches, SessionEventsComeEachTimeBeforeAndAfterTheNodesOwn)
{
    const auto armed = Watching(*session, "/a");
    const auto spared = Watching(*other, "/a", "other");
    for (int i = 0; i < 2; ++i)
    {
        service.Cut(*session);
        service.Heal(*session);
    }
    EXPECT_THAT(Told(), ElementsAre("watch: connecting", "watch: connected", "watch: connecting", "watch: connected"));
    service.Add("/a");
    service.Cut(*session);
    EXPECT_THAT(Told(), ::testing::UnorderedElementsAre("watch: created /a", "watch: connecting", "other: created /a"));
    service.Set("/a", "new");
    service.Heal(*session);
    EXPECT_THAT(Told(), ElementsAre("watch: connected")) << "it watches the node no more";
}

TEST_F(MemoryWatches, WatchThatWasLetGoOfAfterItsEventIsDroppedAtTheNextOperation)
{
    service.Add("/a");
    const auto captured = std::make_shared<int>(0);
    auto [rc, handle] = session->Exists(
        "/a", [captured](int, int, const std::string&) {}, nullptr);
    EXPECT_EQ(ZOK, rc);
    service.Set("/a", "new");
    Told();
    const auto armedAgain = Watching(*session, "/a", "again");
    EXPECT_EQ(2, captured.use_count());
    handle = Connection::WatchHandle();
    EXPECT_EQ(ZOK, session->Exists("/a", nullptr));
    EXPECT_EQ(1, captured.use_count());
    service.Set("/a", "newer");
    EXPECT_THAT(Told(), ElementsAre("again: changed /a"));
}

TEST_F(MemoryWatches, CloseDropsTheCallbacksOfWatchesThatHaveFired)
{
    service.Add("/a");
    const auto captured = std::make_shared<int>(0);
    const auto watched = session->Exists(
        "/a", [captured](int, int, const std::string&) {}, nullptr);
    service.Set("/a", "new");
    Told();
    EXPECT_EQ(2, captured.use_count());
    session->Close();
    EXPECT_EQ(1, captured.use_count());
}

TEST_F(MemoryWatches, ChangesThatWereMissedAreToldAfterTheReconnection)
{
    service.Add("/deleted");
    service.Add("/replaced");
    service.Add("/changed");
    service.Add("/same");
    std::vector<Connection::WatchHandle> watches;
    for (const char* path :
         {"/created", "/created-and-deleted", "/missing", "/deleted", "/replaced", "/changed", "/same"})
    {
        watches.push_back(Watching(*session, path));
    }
    service.Cut(*session);
    service.Delete("/deleted");
    service.Delete("/replaced");
    service.Add("/replaced");
    service.Set("/changed", "");
    service.Add("/same/child");
    service.Add("/created");
    service.Add("/created-and-deleted");
    service.Delete("/created-and-deleted");
    EXPECT_THAT(Told(), ::testing::Each("watch: connecting"));

    service.Heal(*session);
    std::vector<std::string> told = Told();
    ASSERT_EQ(7U + 4U, told.size());
    EXPECT_THAT(std::vector<std::string>(told.begin(), told.begin() + 7), ::testing::Each("watch: connected"));
    EXPECT_THAT(std::vector<std::string>(told.begin() + 7, told.end()),
                ::testing::UnorderedElementsAre("watch: created /created", "watch: deleted /deleted",
                                                "watch: changed /replaced", "watch: changed /changed"));

    service.Delete("/same/child");
    service.Delete("/same");
    service.Add("/missing");
    service.Add("/created-and-deleted");
    EXPECT_THAT(Told(),
                ElementsAre("watch: deleted /same", "watch: created /missing", "watch: created /created-and-deleted"));
}

TEST_F(MemoryWatches, EndOfTheSessionEndsTheWatchOnTheNode)
{
    service.Add("/a");
    const auto armed = Watching(*session, "/a");
    service.Expire(*session);
    EXPECT_THAT(Told(), ElementsAre("watch: connecting", "watch: expired", "watch: connected"));
    service.Delete("/a");
    EXPECT_THAT(Told(), IsEmpty());
    service.Cut(*session);
    EXPECT_THAT(Told(), ElementsAre("watch: connecting"));
}

TEST_F(MemoryWatches, NothingIsWatchedAfterAnError)
{
    service.Add("/a");
    service.Cut(*session);
    EXPECT_EQ(ZCONNECTIONLOSS, Watch(*session, "/a").first);
    EXPECT_EQ(ZBADARGUMENTS, Watch(*session, "a").first);
    service.Heal(*session);
    service.Refuse("/a", ZNOAUTH);
    EXPECT_EQ(ZNOAUTH, Watch(*session, "/a").first);
    service.Delete("/a");
    service.Cut(*session);
    EXPECT_THAT(Told(), IsEmpty());
}

}  // namespace
}  // namespace kx::velmor
