#include "tests/unit/session_scripted_fixture.h"

namespace kx::velmor::testing_support {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

/// What a session may watch is bounded, because the client library registers all of it anew in one request.
class RoomForWatches : public SessionScripted
{
protected:
    const std::string first = "/a" + std::string(600'000, 'a');
    const std::string second = "/b" + std::string(600'000, 'b');
};

TEST_F(RoomForWatches, WatchThatFindsNoneIsRefusedAndNotSent)
{
    const auto session = OpenConnected();
    const Connection::WatchHandle held = Watch(*session, first, "first");
    const auto [rc, handle] = session->Exists(second, Noting("second"), nullptr);
    EXPECT_EQ(rc, ZMARSHALLINGERROR);
    EXPECT_THAT(AskedWith(second), IsEmpty());
    EXPECT_THAT(Logged("No room for one more watched path: /b"), SizeIs(1));

    library.Fire(1, ZOO_DELETED_EVENT, first);
    AwaitQuiet(*session, 1);
    const Connection::WatchHandle roomAgain = Watch(*session, second, "second");
}

TEST_F(RoomForWatches, IsMadeByWatchesThatWereLetGoOf)
{
    const auto session = OpenConnected();
    Connection::WatchHandle held = Watch(*session, first, "first");
    held = Connection::WatchHandle();
    const Connection::WatchHandle other = Watch(*session, second, "second");
    EXPECT_THAT(AskedWith("forget " + first), SizeIs(1));
}

}  // namespace
}  // namespace kx::velmor::testing_support
