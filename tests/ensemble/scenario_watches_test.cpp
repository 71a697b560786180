// As many watches as a connection can carry over to the next one: the client library sends their paths in one request,
// and servers refuse one that is too large, again and again.
#include "tests/ensemble/session_fixture.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::testing_support {
namespace {

class ManyWatches : public SessionFixture
{
protected:
    /// Errors only: there is a line for each watch.
    ManyWatches() : SessionFixture(static_cast<std::int32_t>(logging::LogLevel::Warning)) {}

    static constexpr std::size_t kServersLimit = std::size_t{1024} * 1024;
    static constexpr std::size_t kPathSize = 20'000;

    static std::string Path(std::size_t number)
    {
        std::string path = "/" + std::to_string(number) + "-";
        path.resize(kPathSize, 'x');
        return path;
    }

    /// Arms watches on nodes that are missing until that fails; the code with which it does.
    int ArmAsManyAsPossible(const Session& session)
    {
        while ((handles_.size() + 1) * kPathSize < kServersLimit)
        {
            auto [rc, handle] = session.Exists(Path(handles_.size()), events_.Callback(), nullptr);
            if (rc != ZNONODE)
            {
                return rc;
            }
            handles_.push_back(std::move(handle));
        }
        return ZOK;
    }

    /// Each watch is told of its node.
    void ExpectAllTold()
    {
        for (std::size_t i = 0; i < handles_.size(); ++i)
        {
            observer_.Create(Path(i));
        }
        for (std::size_t i = 0; i < handles_.size(); ++i)
        {
            events_.Await(NodeEvent(ZOO_CREATED_EVENT, Path(i)));
            observer_.Delete(Path(i));
        }
    }

    EventRecorder events_;
    std::vector<Connection::WatchHandle> handles_;
};

TEST_F(ManyWatches, EndWhereAReconnectionCouldNotCarryThem)
{
    const auto session = Open();
    ASSERT_EQ(ArmAsManyAsPossible(*session), ZMARSHALLINGERROR);
    // It is no small number, or elections would notice.
    EXPECT_GT(handles_.size() * kPathSize, kServersLimit / 2);
    const std::size_t sent = proxy_.Forwarded(Request::Exists);
    EXPECT_EQ(session->Exists(Path(handles_.size()), events_.Callback(), nullptr).first, ZMARSHALLINGERROR);
    EXPECT_EQ(proxy_.Forwarded(Request::Exists), sent);
    // Looking without watching is no matter of room.
    EXPECT_EQ(session->Exists(Path(handles_.size()), nullptr), ZNONODE);

    const std::int64_t identity = session->ClientId()->client_id;
    for (int round = 0; round < 3; ++round)
    {
        const std::size_t told = events_.Events().size();
        proxy_.Cut();
        // Lost and found again, by each of them.
        events_.AwaitCount(told + 2 * handles_.size());
    }
    EXPECT_EQ(session->ClientId()->client_id, identity);
    EXPECT_EQ(session->Exists("/", nullptr), ZOK);
    ExpectAllTold();
}

TEST_F(ManyWatches, GiveRoomWhenTheyAreLetGoOf)
{
    const auto session = Open();
    for (int round = 0; round < 2; ++round)
    {
        ASSERT_EQ(ArmAsManyAsPossible(*session), ZMARSHALLINGERROR);
        const std::size_t all = handles_.size();
        handles_.resize(all / 2);
        ASSERT_EQ(ArmAsManyAsPossible(*session), ZMARSHALLINGERROR);
        EXPECT_EQ(handles_.size(), all);
    }
    ExpectAllTold();
    // What has been told has been used up, too.
    handles_.clear();
    EXPECT_EQ(ArmAsManyAsPossible(*session), ZMARSHALLINGERROR);
    EXPECT_GT(handles_.size() * kPathSize, kServersLimit / 2);
}

}  // namespace
}  // namespace kx::velmor::testing_support
