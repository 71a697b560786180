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
/// What the handle of a state holds.
using Handle = std::shared_ptr<WatchState>;

class WatchRegistryTest : public ::testing::Test
{
protected:
    /// What the handle of a state holds.
    Handle Add(const std::string& path, Connection::WatchCallback callback = nullptr)
    {
        const auto watch = std::make_shared<WatchRegistry::Watch>(std::move(callback));
        Handle handle = WatchRegistry::Watch::ForHandle(watch);
        registry.Add(path, watch);
        return handle;
    }

    WatchRegistry::States TakeReleased()
    {
        return registry.TakeReleased([this](const std::string& path) { unwatched.push_back(path); });
    }

    static std::vector<State> Lock(const WatchRegistry::WeakStates& weakStates)
    {
        std::vector<State> states;
        for (const std::weak_ptr<WatchRegistry::Watch>& weak : weakStates)
        {
            states.push_back(weak.lock());
        }
        return states;
    }

    std::vector<State> Snapshot(WatchRegistry::Position position) const { return Lock(registry.Snapshot(position)); }

    std::vector<State> Consume(const std::string& path, WatchRegistry::Position position)
    {
        return Lock(registry.Consume(path, position));
    }

    void Remove(const Handle& handle) { registry.Remove(std::static_pointer_cast<WatchRegistry::Watch>(handle)); }

    WatchRegistry registry;
    std::vector<std::string> unwatched;
};

TEST_F(WatchRegistryTest, WatchIsArmedAndHeldUntilItsHandleLetsGoOfIt)
{
    int told = 0;
    const auto watch = std::make_shared<WatchRegistry::Watch>([&](int, int, const std::string&) { ++told; });
    Handle handle = WatchRegistry::Watch::ForHandle(watch);
    EXPECT_EQ(handle, watch);
    EXPECT_TRUE(watch->active);
    EXPECT_TRUE(watch->hasCallback);
    watch->callback(0, 0, "");
    EXPECT_EQ(told, 1);
    EXPECT_TRUE(watch->Held());
    Handle moved = std::move(handle);
    EXPECT_TRUE(watch->Held());
    moved.reset();
    EXPECT_FALSE(watch->Held());
}

TEST_F(WatchRegistryTest, NodeEventEndsTheWatchesOnItsPath)
{
    const Handle first = Add("/a");
    const Handle second = Add("/a");
    const Handle other = Add("/b");
    const WatchRegistry::Position event = registry.Now();
    EXPECT_THAT(Consume("/a", event), ElementsAre(first, second));
    EXPECT_THAT(Consume("/a", event), IsEmpty());
    EXPECT_THAT(Consume("/none", event), IsEmpty());
}

TEST_F(WatchRegistryTest, StateStaysListedForSessionEventsAfterItsNodeEvent)
{
    const Handle first = Add("/a");
    const Handle second = Add("/b");
    Handle third = Add("/a");
    Consume("/a", registry.Now());
    EXPECT_THAT(Snapshot(registry.Now()), ElementsAre(first, second, third)) << "in the order of arming";
    EXPECT_EQ(registry.HeldCount(), 3U);

    third.reset();
    EXPECT_THAT(Snapshot(registry.Now()), ElementsAre(first, second));
    EXPECT_EQ(TakeReleased().size(), 1U);
    EXPECT_EQ(registry.HeldCount(), 2U);
}

TEST_F(WatchRegistryTest, PathIsUnwatchedAfterItsNodeEvent)
{
    const auto unwatch = [this](const std::string& path) { unwatched.push_back(path); };
    Handle fired = Add("/a");
    Consume("/a", registry.Now());
    registry.UnwatchIfUnwatched("/a", unwatch);
    EXPECT_THAT(unwatched, ElementsAre("/a"));

    const Handle armedAgain = Add("/a");
    registry.UnwatchIfUnwatched("/a", unwatch);
    fired.reset();
    TakeReleased();
    EXPECT_THAT(unwatched, ElementsAre("/a")) << "the new state still watches the path";
    EXPECT_THAT(Consume("/a", registry.Now()), ElementsAre(armedAgain));
}

TEST_F(WatchRegistryTest, StateReleasedBeforeItsNodeEventIsDroppedAfterIt)
{
    const auto captured = std::make_shared<int>();
    Handle handle = Add("/a", [captured](int, int, const std::string&) {});
    handle.reset();
    Consume("/a", registry.Now());
    EXPECT_EQ(captured.use_count(), 2);
    EXPECT_EQ(TakeReleased().size(), 1U);
    EXPECT_EQ(captured.use_count(), 1);
    EXPECT_THAT(unwatched, IsEmpty()) << "the node event has ended the watch already";
}

TEST_F(WatchRegistryTest, NodeEventLeavesWhatWasArmedAfterIt)
{
    const Handle before = Add("/a");
    const WatchRegistry::Position event = registry.Now();
    const Handle after = Add("/a");
    EXPECT_THAT(Consume("/a", event), ElementsAre(before));
    EXPECT_THAT(Consume("/a", registry.Now()), ElementsAre(after));
}

TEST_F(WatchRegistryTest, SnapshotIsInTheOrderOfArmingAndConsumesNothing)
{
    const Handle first = Add("/b");
    const Handle second = Add("/a");
    const Handle third = Add("/b");
    const WatchRegistry::Position event = registry.Now();
    const Handle after = Add("/c");
    EXPECT_THAT(Snapshot(event), ElementsAre(first, second, third));
    EXPECT_THAT(Snapshot(event), ElementsAre(first, second, third));
    EXPECT_THAT(Snapshot(registry.Now()), ElementsAre(first, second, third, after));
}

TEST_F(WatchRegistryTest, SnapshotNeitherHasNorKeepsWhatWasLetGoOf)
{
    Handle released = Add("/a");
    Handle dropped = Add("/a");
    released.reset();
    const auto snapshot = registry.Snapshot(registry.Now());
    ASSERT_EQ(snapshot.size(), 1U);
    dropped.reset();
    EXPECT_EQ(TakeReleased().size(), 2U);
    EXPECT_TRUE(snapshot.front().expired());
}

TEST_F(WatchRegistryTest, ReleasedStatesAreTakenAndTheirPathsUnwatched)
{
    Handle alone = Add("/a");
    Handle one = Add("/b");
    const Handle another = Add("/b");
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

TEST_F(WatchRegistryTest, WatchLetGoOfAfterItsEventLeavesItsPathWatched)
{
    Handle consumed = Add("/a");
    Handle removed = Add("/a");
    Consume("/a", registry.Now() - 1);
    Remove(removed);
    const Handle armedAgain = Add("/a");
    consumed.reset();
    removed.reset();
    TakeReleased();
    EXPECT_THAT(unwatched, IsEmpty());
    EXPECT_THAT(Snapshot(registry.Now()), ElementsAre(armedAgain));
}

TEST_F(WatchRegistryTest, LargeNumbersAreLetGoOfOneByOne)
{
    constexpr int kMany = 20'000;
    std::vector<Handle> handles;
    for (int number = 0; number < kMany; ++number)
    {
        handles.push_back(Add("/" + std::to_string(number)));
    }
    for (Handle& handle : handles)
    {
        handle.reset();
    }
    EXPECT_EQ(TakeReleased().size(), handles.size());
    EXPECT_EQ(unwatched.size(), handles.size());
    EXPECT_EQ(registry.HeldCount(), 0U);
}

TEST_F(WatchRegistryTest, HandlesGoOnOtherThreadsWhileEventsComeAndReleasedOnesAreTaken)
{
    constexpr int kRounds = 2'000;
    std::atomic<bool> over{false};
    std::thread events([&] {
        while (!over)
        {
            for (const std::weak_ptr<WatchRegistry::Watch>& weak : registry.Snapshot(registry.Now()))
            {
                const State watch = weak.lock();
                EXPECT_TRUE(watch == nullptr || watch->active);
            }
            registry.Consume("/a", registry.Now());
        }
    });
    std::thread operations([&] {
        while (!over)
        {
            registry.TakeReleased([](const std::string& /*path*/) {});
        }
    });
    for (int round = 0; round < kRounds; ++round)
    {
        std::vector<Handle> handles{Add("/a"), Add("/b"), Add("/c")};
        std::thread([given = std::move(handles)]() mutable { given.clear(); }).join();
    }
    over = true;
    events.join();
    operations.join();
    EXPECT_EQ(registry.HeldCount(), 0U);
    TakeReleased();
    EXPECT_THAT(registry.TakeAll(), IsEmpty());
}

TEST(WatchRegistryEndTest, HandlesMayOutliveTheRegistry)
{
    auto registry = std::make_unique<WatchRegistry>();
    const auto captured = std::make_shared<int>();
    const auto add = [&] {
        auto watch = std::make_shared<WatchRegistry::Watch>([captured](int, int, const std::string&) {});
        Handle handle = WatchRegistry::Watch::ForHandle(watch);
        registry->Add("/a", watch);
        return handle;
    };
    Handle before = add();
    Handle after = add();
    Handle last = add();
    before.reset();
    registry.reset();
    after.reset();
    EXPECT_EQ(captured.use_count(), 2) << "held by one handle";
    last.reset();
    EXPECT_EQ(captured.use_count(), 1);
}

TEST_F(WatchRegistryTest, ReleasedStateIsDestroyedOutsideTheLock)
{
    bool destroyed = false;
    Handle state = Add("/a", [probe = std::shared_ptr<void>(nullptr, [&](void*) {
                                  // Would wait for ever if the registry's lock were held.
                                  EXPECT_EQ(registry.HeldCount(), 0U);
                                  destroyed = true;
                              })](int, int, const std::string&) {});
    state.reset();
    EXPECT_FALSE(destroyed) << "whoever lets go may hold any lock";
    TakeReleased();
    EXPECT_TRUE(destroyed);
}

TEST_F(WatchRegistryTest, RemoveDropsOneStateOnly)
{
    const Handle one = Add("/a");
    const Handle another = Add("/a");
    Remove(one);
    EXPECT_THAT(Snapshot(registry.Now()), ElementsAre(another));
    EXPECT_EQ(registry.HeldCount(), 1U);
    Remove(one);
    EXPECT_EQ(registry.HeldCount(), 1U);
    Remove(another);
    EXPECT_EQ(registry.HeldCount(), 0U);
}

TEST_F(WatchRegistryTest, RemoveDropsAStateAfterItsNodeEvent)
{
    const Handle fired = Add("/a");
    Consume("/a", registry.Now());
    const Handle armed = Add("/a");
    Remove(fired);
    EXPECT_THAT(Snapshot(registry.Now()), ElementsAre(armed));
    EXPECT_THAT(Consume("/a", registry.Now()), ElementsAre(armed));
}

TEST_F(WatchRegistryTest, PathIsUnwatchedOnlyWhenNoStateWatchesIt)
{
    const auto unwatch = [this](const std::string& path) { unwatched.push_back(path); };
    Handle state = Add("/a");
    registry.UnwatchIfUnwatched("/a", unwatch);
    EXPECT_THAT(unwatched, IsEmpty());
    Remove(state);
    registry.UnwatchIfUnwatched("/a", unwatch);
    EXPECT_THAT(unwatched, ElementsAre("/a"));
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
    Handle state = Add(half);
    const Handle second = Add(other);
    const auto oneMore = std::make_shared<WatchRegistry::Watch>(nullptr);
    EXPECT_FALSE(registry.Add("/", oneMore));
    EXPECT_TRUE(registry.Add(half, oneMore)) << "the path is there already";

    registry.Remove(oneMore);
    EXPECT_FALSE(registry.Add("/", oneMore)) << "the path is still watched";
    Remove(state);
    EXPECT_TRUE(registry.Add("/", oneMore));
}

TEST_F(WatchRegistryTest, StateAfterItsNodeEventTakesNoRoom)
{
    const std::string half = "/" + std::string(499'995, 'a');
    const Handle first = Add(half);
    const Handle second = Add("/" + std::string(499'995, 'b'));
    const auto oneMore = std::make_shared<WatchRegistry::Watch>(nullptr);
    ASSERT_FALSE(registry.Add("/", oneMore));
    Consume(half, registry.Now());
    EXPECT_TRUE(registry.Add("/", oneMore));
    EXPECT_EQ(registry.HeldCount(), 3U);
}

TEST_F(WatchRegistryTest, TakeAllLeavesNothing)
{
    const Handle held = Add("/a");
    Add("/b").reset();
    const Handle fired = Add("/c");
    Consume("/c", registry.Now());
    EXPECT_EQ(registry.TakeAll().size(), 3U);
    EXPECT_EQ(registry.HeldCount(), 0U);
    EXPECT_THAT(registry.TakeAll(), IsEmpty());
    EXPECT_EQ(registry.HeldCount(), 0U);
}

}  // namespace
}  // namespace kx::velmor
