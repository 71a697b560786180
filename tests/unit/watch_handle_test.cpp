#include "source/disarming.h"
#include "tests/support/mutex_probe.h"

#include <kx/velmor/connection.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

namespace kx::velmor {
namespace {

using testing_support::IsLocked;
using testing_support::MakeErrorChecking;
using WatchHandle = Connection::WatchHandle;
using WatchState = Connection::WatchState;

static_assert(std::is_nothrow_default_constructible_v<WatchHandle>);
static_assert(std::is_nothrow_move_constructible_v<WatchHandle>);
static_assert(std::is_nothrow_move_assignable_v<WatchHandle>);
static_assert(std::is_nothrow_destructible_v<WatchHandle>);
static_assert(!std::is_copy_constructible_v<WatchHandle> && !std::is_copy_assignable_v<WatchHandle>);
static_assert(std::is_constructible_v<WatchHandle, std::shared_ptr<WatchState>>);
static_assert(!std::is_convertible_v<std::shared_ptr<WatchState>, WatchHandle>, "explicit");
static_assert(std::is_same_v<Connection::WatchCallback, std::function<void(int, int, std::string)>>);

/// A state as a connection registers it.
std::shared_ptr<WatchState> Armed(Connection::WatchCallback callback = [](int, int, const std::string&) {})
{
    auto state = std::make_shared<WatchState>();
    state->active = true;
    state->hasCallback = true;
    state->callback = std::move(callback);
    return state;
}

/// A callback that runs `act` when it is destroyed.
Connection::WatchCallback WhenDestroyed(std::function<void()> act)
{
    const std::shared_ptr<void> probe(nullptr, [act = std::move(act)](void*) { act(); });
    return [probe](int, int, const std::string&) {};
}

/// What the connection does with an event.
bool Deliver(WatchState& state)
{
    Connection::WatchCallback callback;
    {
        const std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.active)
        {
            return false;
        }
        callback = state.callback;
    }
    callback(ZOO_DELETED_EVENT, ZOO_CONNECTED_STATE, "/e");
    return true;
}

TEST(WatchStateTest, IsInactiveWithoutACallbackWhenNew)
{
    const WatchState state;
    EXPECT_FALSE(state.active);
    EXPECT_FALSE(state.hasCallback);
    EXPECT_FALSE(state.callback);
}

TEST(WatchStateTest, FieldsAreInOrder)
{
    const WatchState state;
    const auto address = [](const auto& field) { return reinterpret_cast<std::uintptr_t>(&field); };
    EXPECT_LT(address(state.mutex), address(state.active));
    EXPECT_LT(address(state.active), address(state.hasCallback));
    EXPECT_LT(address(state.hasCallback), address(state.callback));
}

TEST(WatchHandleTest, EmptyHandleDoesNothing)
{
    EXPECT_NO_THROW({ const WatchHandle handle; });
    EXPECT_NO_THROW({ const WatchHandle handle{std::shared_ptr<WatchState>()}; });
}

TEST(WatchHandleTest, SharesTheState)
{
    const auto state = Armed();
    const WatchHandle handle(state);
    EXPECT_EQ(state.use_count(), 2);
    EXPECT_TRUE(state->active);
    EXPECT_TRUE(state->callback);
}

TEST(WatchHandleTest, DestructionDisarmsAndReleasesTheState)
{
    const auto state = Armed();
    {
        const WatchHandle handle(state);
    }
    EXPECT_FALSE(state->active);
    EXPECT_FALSE(state->callback);
    EXPECT_EQ(state.use_count(), 1);
    EXPECT_FALSE(IsLocked(state->mutex));
    EXPECT_FALSE(Deliver(*state));
}

TEST(WatchHandleTest, CallbackThatIsNotTheHandlesToDropStays)
{
    const auto state = Armed();
    state->hasCallback = false;
    {
        const WatchHandle handle(state);
    }
    EXPECT_FALSE(state->active);
    EXPECT_TRUE(state->callback);
}

TEST(WatchHandleTest, CallbackIsDestroyedUnderTheMutexAfterTheStateIsInactive)
{
    const auto state = Armed();
    std::optional<bool> locked;
    std::optional<bool> active;
    state->callback = WhenDestroyed([&] {
        locked = IsLocked(state->mutex);
        active = state->active;
    });
    {
        const WatchHandle handle(state);
    }
    EXPECT_EQ(locked, true);
    EXPECT_EQ(active, false);
}

TEST(WatchHandleTest, ThreadThatDestroysACallbackKnowsThatItHoldsAMutex)
{
    std::optional<bool> here;
    std::optional<bool> elsewhere;
    const auto state = Armed(WhenDestroyed([&] {
        {
            // A callback may own handles on other watches.
            const WatchHandle inner(Armed());
        }
        here = DisarmsOnThisThread();
        std::thread([&] { elsewhere = DisarmsOnThisThread(); }).join();
    }));
    EXPECT_FALSE(DisarmsOnThisThread());
    {
        const WatchHandle handle(state);
    }
    EXPECT_EQ(here, true);
    EXPECT_EQ(elsewhere, false);
    EXPECT_FALSE(DisarmsOnThisThread());
}

TEST(WatchHandleTest, LastHandleDestroysTheStateAfterUnlocking)
{
    auto state = Armed();
    state->hasCallback = false;
    std::mutex* const mutex = &state->mutex;
    std::optional<bool> locked;
    state->callback = WhenDestroyed([&, mutex] { locked = IsLocked(*mutex); });
    const std::weak_ptr<WatchState> gone = state;
    {
        const WatchHandle handle(std::move(state));
        EXPECT_FALSE(gone.expired());
    }
    EXPECT_TRUE(gone.expired());
    EXPECT_EQ(locked, false);
}

TEST(WatchHandleTest, LastHandleDropsItsCallbackWithTheState)
{
    int destroyed = 0;
    {
        const WatchHandle handle(Armed(WhenDestroyed([&] { ++destroyed; })));
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(WatchHandleTest, MoveConstructionHandsTheStateOn)
{
    const auto state = Armed();
    {
        std::optional<WatchHandle> source(std::in_place, state);
        const WatchHandle target(std::move(*source));
        EXPECT_EQ(state.use_count(), 2);
        source.reset();
        EXPECT_TRUE(state->active) << "a moved-from handle disarms nothing";
        EXPECT_TRUE(state->callback);
    }
    EXPECT_FALSE(state->active);
}

TEST(WatchHandleTest, MovesAndTheDestructionOfMovedFromHandlesTakeNoLock)
{
    const auto state = Armed();
    const auto replaced = Armed();
    MakeErrorChecking(state->mutex);
    MakeErrorChecking(replaced->mutex);
    std::optional<WatchHandle> kept;
    {
        // A lock that is taken twice by this thread throws, and ends the process where nothing may be thrown.
        const std::scoped_lock lock(state->mutex, replaced->mutex);
        std::optional<WatchHandle> source(std::in_place, state);
        WatchHandle middle(std::move(*source));
        source.reset();
        kept.emplace(replaced);
        *kept = std::move(middle);
    }
    EXPECT_EQ(state.use_count(), 2);
    EXPECT_EQ(replaced.use_count(), 1);
}

TEST(WatchHandleTest, AssignmentLetsGoOfTheFormerStateWithoutDisarmingIt)
{
    int ran = 0;
    const auto former = Armed([&](int, int, const std::string&) { ++ran; });
    const auto next = Armed();
    WatchHandle handle(former);
    handle = WatchHandle(next);
    EXPECT_EQ(former.use_count(), 1);
    EXPECT_EQ(next.use_count(), 2);
    EXPECT_TRUE(former->active);
    EXPECT_TRUE(former->hasCallback);
    EXPECT_TRUE(next->active) << "the moved-from temporary disarmed nothing";
    EXPECT_TRUE(Deliver(*former));
    EXPECT_EQ(ran, 1);
}

TEST(WatchHandleTest, AssignmentOfAnEmptyHandleLetsGoToo)
{
    const auto state = Armed();
    WatchHandle handle(state);
    handle = WatchHandle();
    EXPECT_EQ(state.use_count(), 1);
    EXPECT_TRUE(state->active);
    EXPECT_TRUE(state->callback);
}

TEST(WatchHandleTest, AssignmentOverTheLastHandleDestroysTheState)
{
    auto state = Armed();
    const std::weak_ptr<WatchState> gone = state;
    WatchHandle handle(std::move(state));
    handle = WatchHandle();
    EXPECT_TRUE(gone.expired());
}

TEST(WatchHandleTest, OwnerThatGoesWithTheCallbackIsDestroyedUnderTheMutex)
{
    // As a candidate does: a callback holds the owner, which holds handles on other watches.
    struct Owner
    {
        WatchHandle otherWatch;
        WatchState* own;
        bool* wasLocked;
        ~Owner() { *wasLocked = IsLocked(own->mutex); }
    };
    const auto state = Armed();
    const auto other = Armed();
    bool wasLocked = false;
    auto owner = std::shared_ptr<Owner>(new Owner{WatchHandle(other), state.get(), &wasLocked});
    state->callback = [owner = std::move(owner)](int, int, const std::string&) {};
    {
        const WatchHandle handle(state);
    }
    EXPECT_TRUE(wasLocked);
    EXPECT_FALSE(other->active);
    EXPECT_FALSE(other->callback);
}

TEST(WatchHandleTest, NoCallbackStartsOnceTheHandleIsGone)
{
    for (int round = 0; round < 200; ++round)
    {
        std::atomic<bool> gone{false};
        std::atomic<bool> delivering{false};
        std::atomic<int> late{0};
        const auto state = Armed();
        std::optional<WatchHandle> handle(std::in_place, state);
        std::thread events([&] {
            delivering = true;
            for (bool armed = true; armed;)
            {
                const bool goneBefore = gone;
                armed = Deliver(*state);
                late += armed && goneBefore ? 1 : 0;
            }
        });
        while (!delivering)
        {
            std::this_thread::yield();
        }
        handle.reset();
        gone = true;
        events.join();
        ASSERT_EQ(late, 0);
    }
}

TEST(WatchHandleDeathTest, LockThatCannotBeTakenEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            const auto state = Armed();
            MakeErrorChecking(state->mutex);
            const std::lock_guard<std::mutex> lock(state->mutex);
            const WatchHandle handle(state);
        },
        "");
}

}  // namespace
}  // namespace kx::velmor
