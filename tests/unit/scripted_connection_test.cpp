// The double itself: a test is worth what its double is.

#include "tests/support/scripted_connection.h"

#include "tests/support/mutex_probe.h"
#include "tests/support/scripted_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace kx::velmor::testing_support {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Double : public ::testing::Test
{
protected:
    int Create(const std::string& path, int flags, std::string* created)
    {
        return connection->Create(path, "", ZOO_OPEN_ACL_UNSAFE, flags, created);
    }

    Connection::WatchCallback Noting(const std::string& line)
    {
        return [this, line](int type, int state, const std::string& path) {
            journal.Note(line + " " + std::to_string(type) + " " + std::to_string(state) + " " + path);
        };
    }

    Journal journal;
    ScriptedService service{journal};
    std::shared_ptr<ScriptedConnection> connection = service.Open();
    std::shared_ptr<ScriptedConnection> other = service.Open("other");
};

void LeaveAStepUnused()
{
    Journal journal;
    ScriptedService service(journal);
    service.Open("lonely")->Nth(Call::GetChildren, 2).Returns(ZCONNECTIONLOSS);
}

TEST(UnusedScript, FailsTheTest)
{
    EXPECT_NONFATAL_FAILURE(LeaveAStepUnused(), "lonely GetChildren number 2 was never called");
}

TEST_F(Double, SequenceIsPerParentAndCountsAllChildren)
{
    service.Add("/e/plain");
    std::string created(15, '\0');
    EXPECT_EQ(Create("/e/s-", ZOO_SEQUENCE, &created), ZOK);
    EXPECT_EQ(created, "/e/s-0000000001") << "room for the path alone will do";
    service.Delete("/e/plain");
    created.assign(100, 'x');
    EXPECT_EQ(Create("/e/t-", ZOO_SEQUENCE, &created), ZOK);
    EXPECT_EQ(created, "/e/t-0000000002");
    created.assign(100, 'x');
    EXPECT_EQ(Create("/s-", ZOO_SEQUENCE, &created), ZOK);
    EXPECT_EQ(created, "/s-0000000001");
}

TEST_F(Double, TooLittleRoomIsAnErrorAndMakesNothing)
{
    service.Add("/e");
    std::string created(14, '\0');
    EXPECT_EQ(Create("/e/c-", ZOO_SEQUENCE, &created), ZBADARGUMENTS);
    EXPECT_THAT(service.Children("/e"), IsEmpty());
}

TEST_F(Double, CreationFailsAsTheServiceWouldHaveIt)
{
    EXPECT_EQ(Create("/no/parent", 0, nullptr), ZNONODE);
    EXPECT_EQ(Create("/e", ZOO_EPHEMERAL, nullptr), ZOK);
    EXPECT_EQ(Create("/e", 0, nullptr), ZNODEEXISTS);
    EXPECT_EQ(Create("/e/child", 0, nullptr), ZNOCHILDRENFOREPHEMERALS);
    EXPECT_EQ(Create("/trailing/", 0, nullptr), ZBADARGUMENTS);
    EXPECT_EQ(Create("/", 0, nullptr), ZNODEEXISTS);
}

TEST_F(Double, OwnerOfAnEphemeralNodeIsItsSession)
{
    service.Add("/e/theirs", *other);
    Create("/e/ours", ZOO_EPHEMERAL, nullptr);
    Create("/e/everybodys", 0, nullptr);
    Stat stat{};
    EXPECT_EQ(connection->Exists("/e/ours", &stat), ZOK);
    EXPECT_EQ(stat.ephemeralOwner, connection->ClientId()->client_id);
    EXPECT_EQ(connection->Exists("/e/theirs", &stat), ZOK);
    EXPECT_EQ(stat.ephemeralOwner, other->ClientId()->client_id);
    EXPECT_EQ(connection->Exists("/e/everybodys", &stat), ZOK);
    EXPECT_EQ(stat.ephemeralOwner, 0);
    EXPECT_EQ(connection->Exists("/e/nobodys", &stat), ZNONODE);
}

TEST_F(Double, ExpiryTakesTheNodesAndTellsBothSides)
{
    service.Add("/e/theirs", *other);
    auto ours = connection->Exists("/e/theirs", Noting("ours"), nullptr);
    auto theirs = other->Exists("/e/theirs", Noting("theirs"), nullptr);
    journal.Take();
    service.Expire(*other);
    EXPECT_EQ(connection->Deliver(), 1U);
    EXPECT_EQ(other->Deliver(), 1U);
    EXPECT_THAT(journal.Take(), ElementsAre("ours 2 3 /e/theirs", "theirs -1 -112 "));
    EXPECT_EQ(other->Exists("/e", nullptr), ZSESSIONEXPIRED);

    service.Add("/e/theirs");
    other->SessionEvent(ZOO_CONNECTED_STATE);
    journal.Take();
    EXPECT_EQ(other->Deliver(), 1U);
    EXPECT_THAT(journal.Take(), ElementsAre("theirs -1 3 ")) << "the watch on the node ended with the session";
}

TEST_F(Double, NodeEventIsDeliveredOnceAndASessionEventEachTimeAlsoAfterIt)
{
    service.Add("/e");
    auto [rc, handle] = connection->Exists("/e", Noting("event"), nullptr);
    EXPECT_EQ(rc, ZOK);
    connection->SessionEvent(ZOO_CONNECTING_STATE);
    connection->SessionEvent(ZOO_CONNECTED_STATE);
    service.Touch("/e");
    service.Touch("/e");
    connection->SessionEvent(ZOO_CONNECTED_STATE);
    journal.Take();
    EXPECT_EQ(connection->Deliver(), 4U);
    EXPECT_THAT(journal.Take(), ElementsAre("event -1 1 ", "event -1 3 ", "event 3 3 /e", "event -1 3 "));
}

TEST_F(Double, WatchThatIsReleasedAfterItsNodeEventGetsNothing)
{
    service.Add("/e");
    auto result = connection->Exists("/e", Noting("event"), nullptr);
    service.Touch("/e");
    EXPECT_EQ(connection->Deliver(), 1U);
    result.second = Connection::WatchHandle();
    connection->SessionEvent(ZOO_CONNECTED_STATE);
    EXPECT_EQ(connection->Deliver(), 0U);
}

TEST_F(Double, NodeEventOfAReleasedWatchDropsItsCallback)
{
    service.Add("/e");
    const auto captured = std::make_shared<int>();
    auto released = connection->Exists(
        "/e", [captured](int, int, const std::string&) {}, nullptr);
    const auto held = connection->Exists(
        "/e", [captured](int, int, const std::string&) {}, nullptr);
    released.second = Connection::WatchHandle();
    EXPECT_EQ(captured.use_count(), 3);
    service.Touch("/e");
    EXPECT_EQ(connection->Deliver(), 2U);
    EXPECT_EQ(captured.use_count(), 2) << "the one that is held keeps its callback";
}

TEST_F(Double, WatchOnAnAbsentNodeFiresWhenItAppears)
{
    auto [rc, handle] = connection->Exists("/e", Noting("event"), nullptr);
    EXPECT_EQ(rc, ZNONODE);
    service.Add("/e");
    journal.Take();
    EXPECT_EQ(connection->Deliver(), 1U);
    EXPECT_THAT(journal.Take(), ElementsAre("event 1 3 /e"));
}

TEST_F(Double, DisarmedWatchGetsNothingAndOneThatWasLetGoOfDoes)
{
    service.Add("/e");
    {
        const auto disarmed = connection->Exists("/e", Noting("disarmed"), nullptr);
    }
    auto letGo = connection->Exists("/e", Noting("let go"), nullptr);
    letGo.second = Connection::WatchHandle();
    service.Delete("/e");
    journal.Take();
    EXPECT_EQ(connection->Deliver(), 1U);
    EXPECT_THAT(journal.Take(), ElementsAre("let go 2 3 /e"));
}

TEST_F(Double, WatchThatWasLetGoOfCanBeDropped)
{
    service.Add("/e");
    auto letGo = connection->Exists("/e", Noting("let go"), nullptr);
    const auto kept = connection->Exists("/e", Noting("kept"), nullptr);
    connection->SessionEvent(ZOO_CONNECTED_STATE);
    service.DropWatchesThatAreLetGoOf();
    letGo.second = Connection::WatchHandle();
    connection->SessionEvent(ZOO_CONNECTED_STATE);
    service.Delete("/e");
    journal.Take();
    EXPECT_EQ(connection->Deliver(), 3U);
    EXPECT_THAT(journal.Take(), ElementsAre("kept -1 3 ", "kept -1 3 ", "kept 2 3 /e"));
}

TEST_F(Double, InactiveWatchGetsNothing)
{
    service.Add("/e");
    const auto result = connection->Exists("/e", Noting("event"), nullptr);
    connection->LastWatch("/e").state->active = false;
    EXPECT_FALSE(connection->LastWatch("/e").Fire());
    service.Delete("/e");
    EXPECT_EQ(connection->Deliver(), 0U);
}

TEST_F(Double, CallbackRunsOutsideTheMutexOfItsState)
{
    service.Add("/e");
    bool locked = true;
    const auto result = connection->Exists(
        "/e", [&](int, int, const std::string&) { locked = IsLocked(connection->LastWatch("/e").state->mutex); },
        nullptr);
    service.Delete("/e");
    EXPECT_EQ(connection->Deliver(), 1U);
    EXPECT_FALSE(locked);
}

TEST_F(Double, PathsAreRelativeToTheRoot)
{
    const auto rooted = service.Open("", "/app");
    std::string created(20, '\0');
    EXPECT_EQ(rooted->Create("/n-", "", ZOO_OPEN_ACL_UNSAFE, ZOO_SEQUENCE, &created), ZOK);
    EXPECT_EQ(created, "/n-0000000000");
    EXPECT_TRUE(service.Has("/app/n-0000000000"));
    EXPECT_EQ(rooted->Exists("/", nullptr), ZOK);
    const auto result = rooted->Exists(created, Noting("event"), nullptr);
    service.Delete("/app/n-0000000000");
    journal.Take();
    rooted->Deliver();
    EXPECT_THAT(journal.Take(), ElementsAre("event 2 3 /n-0000000000"));
}

TEST_F(Double, ScriptedCallsDifferOnceAndInTheirTurn)
{
    service.Add("/e");
    connection->Nth(Call::Exists, 2).Returns(ZAUTHFAILED);
    connection->Next(Call::Create).DoesAndReturns(ZCONNECTIONLOSS);
    connection->Next(Call::GuaranteedDelete).Before([] { throw std::domain_error("thrown"); });
    EXPECT_EQ(connection->Exists("/e", nullptr), ZOK);
    EXPECT_EQ(connection->Exists("/e", nullptr), ZAUTHFAILED);
    EXPECT_EQ(connection->Exists("/e", nullptr), ZOK);
    EXPECT_EQ(Create("/e/done", 0, nullptr), ZCONNECTIONLOSS);
    EXPECT_TRUE(service.Has("/e/done"));
    EXPECT_THROW(connection->GuaranteedDelete("/e/done"), std::domain_error);
    EXPECT_EQ(connection->GuaranteedDelete("/e/done"), ZOK);
    EXPECT_EQ(connection->GuaranteedDelete("/e/done"), ZNONODE);
}

TEST_F(Double, EventThreadDeliversAsEventsArrive)
{
    service.Add("/e");
    const auto result = connection->Exists("/e", Noting("event"), nullptr);
    const EventThread events(connection);
    service.Delete("/e");
    journal.Await("event 2 3 /e");
    service.AwaitQuiet();
}

}  // namespace
}  // namespace kx::velmor::testing_support
