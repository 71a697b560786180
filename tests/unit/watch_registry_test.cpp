#include "source/watch_registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace kx::velmor {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using WatchState = Connection::WatchState;
using State = WatchRegistry::State;

class WatchRegistryTest : public ::testing::Test
{
protected:
    /// What the handle of a state holds.
    State Add(const std::string& path)
    {
        auto state = std::make_shared<WatchState>();
        registry.Add(path, state);
        return state;
    }

    WatchRegistry::States TakeReleased()
    {
        return registry.TakeReleased([this](const std::string& path) { unwatched.push_back(path); });
    }

    std::vector<State> Snapshot(WatchRegistry::Position position) const
    {
        std::vector<State> states;
        for (const std::weak_ptr<WatchState>& weak : registry.Snapshot(position))
        {
            states.push_back(weak.lock());
        }
        return states;
    }

    WatchRegistry registry;
    std::vector<std::string> unwatched;
};

TEST_F(WatchRegistryTest, NodeEventConsumesTheStatesOfItsPath)
{
    const State first = Add("/a");
    const State second = Add("/a");
    const State other = Add("/b");
    const WatchRegistry::Position event = registry.Now();
    EXPECT_THAT(registry.Consume("/a", event), ElementsAre(first, second));
    EXPECT_THAT(registry.Consume("/a", event), IsEmpty());
    EXPECT_EQ(registry.HeldCount(), 1U);
    EXPECT_THAT(registry.Consume("/none", event), IsEmpty());
}

TEST_F(WatchRegistryTest, NodeEventLeavesWhatWasArmedAfterIt)
{
    const State before = Add("/a");
    const WatchRegistry::Position event = registry.Now();
    const State after = Add("/a");
    EXPECT_THAT(registry.Consume("/a", event), ElementsAre(before));
    EXPECT_THAT(registry.Consume("/a", registry.Now()), ElementsAre(after));
}

TEST_F(WatchRegistryTest, SnapshotIsInTheOrderOfArmingAndConsumesNothing)
{
    const State first = Add("/b");
    const State second = Add("/a");
    const State third = Add("/b");
    const WatchRegistry::Position event = registry.Now();
    const State after = Add("/c");
    EXPECT_THAT(Snapshot(event), ElementsAre(first, second, third));
    EXPECT_THAT(Snapshot(event), ElementsAre(first, second, third));
    EXPECT_THAT(Snapshot(registry.Now()), ElementsAre(first, second, third, after));
}

TEST_F(WatchRegistryTest, SnapshotNeitherHasNorKeepsWhatWasLetGoOf)
{
    State released = Add("/a");
    State dropped = Add("/a");
    released.reset();
    const auto snapshot = registry.Snapshot(registry.Now());
    ASSERT_EQ(snapshot.size(), 1U);
    dropped.reset();
    EXPECT_EQ(TakeReleased().size(), 2U);
    EXPECT_TRUE(snapshot.front().expired());
}

TEST_F(WatchRegistryTest, ReleasedStatesAreTakenAndTheirPathsUnwatched)
{
    State alone = Add("/a");
    State one = Add("/b");
    const State another = Add("/b");
    const WatchState* const aloneState = alone.get();
    const WatchState* const oneState = one.get();
    alone.reset();
    one.reset();
    EXPECT_EQ(registry.HeldCount(), 1U);

    const WatchRegistry::States released = TakeReleased();
    std::vector<const WatchState*> states;
    for (const State& state : released)
    {
        states.push_back(state.get());
    }
    EXPECT_THAT(states, UnorderedElementsAre(aloneState, oneState));
    EXPECT_THAT(unwatched, ElementsAre("/a")) << "somebody still watches /b";
    EXPECT_THAT(TakeReleased(), IsEmpty());
    EXPECT_THAT(unwatched, ElementsAre("/a"));
    EXPECT_EQ(registry.HeldCount(), 1U);
}

TEST_F(WatchRegistryTest, ReleasedStateIsDestroyedOutsideTheLock)
{
    State state = Add("/a");
    bool destroyed = false;
    state->callback = [probe = std::shared_ptr<void>(nullptr, [&](void*) {
                           // Would wait for ever if the registry's lock were held.
                           EXPECT_EQ(registry.HeldCount(), 0U);
                           destroyed = true;
                       })](int, int, const std::string&) {};
    state.reset();
    TakeReleased();
    EXPECT_TRUE(destroyed);
}

TEST_F(WatchRegistryTest, RemoveDropsOneStateOnly)
{
    const State one = Add("/a");
    const State another = Add("/a");
    registry.Remove("/a", one);
    EXPECT_EQ(one.use_count(), 1);
    EXPECT_EQ(registry.HeldCount(), 1U);
    registry.Remove("/a", one);
    registry.Remove("/none", one);
    EXPECT_EQ(registry.HeldCount(), 1U);
    registry.Remove("/a", another);
    EXPECT_EQ(registry.HeldCount(), 0U);
}

TEST_F(WatchRegistryTest, PathIsUnwatchedOnlyWhenNoStateWatchesIt)
{
    const auto unwatch = [this](const std::string& path) { unwatched.push_back(path); };
    State state = Add("/a");
    registry.UnwatchIfUnwatched("/a", unwatch);
    EXPECT_THAT(unwatched, IsEmpty());
    registry.Remove("/a", state);
    registry.UnwatchIfUnwatched("/a", unwatch);
    EXPECT_THAT(unwatched, ElementsAre("/a"));

    state = Add("/b");
    EXPECT_EQ(registry.Consume("/b", registry.Now()).size(), 1U);
    registry.UnwatchIfUnwatched("/b", unwatch);
    EXPECT_THAT(unwatched, ElementsAre("/a", "/b"));
}

TEST_F(WatchRegistryTest, NewWatchWaitsUntilItsPathIsUnwatched)
{
    Add("/a").reset();
    std::promise<void> inside;
    std::atomic<bool> through{false};
    std::thread arming([&] {
        inside.get_future().wait();
        Add("/a");
        EXPECT_TRUE(through);
    });
    registry.TakeReleased([&](const std::string&) {
        inside.set_value();
        // Long enough for the other thread to get in if nothing kept it out.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        through = true;
    });
    arming.join();
}

TEST_F(WatchRegistryTest, PathsTakeNoMoreRoomThanARequestHas)
{
    const std::string half = "/" + std::string(499'995, 'a');
    const std::string other = "/" + std::string(499'995, 'b');
    State state = Add(half);
    const State second = Add(other);
    const auto oneMore = std::make_shared<WatchState>();
    EXPECT_FALSE(registry.Add("/", oneMore));
    EXPECT_TRUE(registry.Add(half, oneMore)) << "the path is there already";

    registry.Remove(half, oneMore);
    EXPECT_FALSE(registry.Add("/", oneMore)) << "the path is still watched";
    registry.Remove(half, state);
    EXPECT_TRUE(registry.Add("/", oneMore));
}

TEST_F(WatchRegistryTest, TakeAllLeavesNothing)
{
    const State held = Add("/a");
    Add("/b").reset();
    EXPECT_EQ(registry.TakeAll().size(), 2U);
    EXPECT_EQ(registry.HeldCount(), 0U);
    EXPECT_THAT(registry.TakeAll(), IsEmpty());
    EXPECT_EQ(held.use_count(), 1);
}

}  // namespace
}  // namespace kx::velmor
