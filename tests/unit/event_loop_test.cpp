#include "source/event_loop.h"

#include "tests/unit/no_threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

namespace kx::velmor {
namespace {

/// What a session is to its loop: it owns it, and the loop's thread owns the session.
struct Owner
{
    EventLoop loop;

    static std::shared_ptr<Owner> Started()
    {
        auto owner = std::make_shared<Owner>();
        owner->loop.Start([owner] { owner->loop.Run(); });
        return owner;
    }

    void End()
    {
        loop.Finish();
        loop.Join();
    }
};

TEST(EventLoopTest, TasksRunOneByOneInTheOrderOfPosting)
{
    const auto owner = Owner::Started();
    std::vector<int> ran;
    for (int i = 0; i < 1'000; ++i)
    {
        owner->loop.Post([&ran, i] { ran.push_back(i); });
    }
    owner->End();
    ASSERT_EQ(ran.size(), 1'000U);
    for (int i = 0; i < 1'000; ++i)
    {
        ASSERT_EQ(ran[static_cast<std::size_t>(i)], i);
    }
}

TEST(EventLoopTest, TaskMayPostTheNext)
{
    const auto owner = Owner::Started();
    std::promise<std::thread::id> second;
    std::thread::id first;
    owner->loop.Post([&] {
        first = std::this_thread::get_id();
        owner->loop.Post([&] { second.set_value(std::this_thread::get_id()); });
    });
    EXPECT_EQ(second.get_future().get(), first);
    owner->End();
}

TEST(EventLoopTest, WhatIsQueuedRunsAfterFinishAndWhatComesLaterDoesNot)
{
    const auto owner = Owner::Started();
    std::promise<void> finished;
    bool queued = false;
    bool late = false;
    owner->loop.Post([&] { finished.get_future().wait(); });
    owner->loop.Post([&] { queued = true; });
    owner->loop.Finish();
    owner->loop.Post([&] { late = true; });
    finished.set_value();
    owner->loop.Join();
    EXPECT_TRUE(queued);
    EXPECT_FALSE(late);
}

TEST(EventLoopTest, TaskIsDestroyedBeforeTheNextRunsAndOutsideTheLock)
{
    const auto owner = Owner::Started();
    bool destroyed = false;
    std::optional<bool> destroyedBefore;
    owner->loop.Post([probe = std::shared_ptr<void>(nullptr, [&](void*) {
                          // Would wait for ever if the queue's lock were held.
                          owner->loop.Post([] {});
                          destroyed = true;
                      })] {});
    owner->loop.Post([&] { destroyedBefore = destroyed; });
    owner->End();
    EXPECT_EQ(destroyedBefore, true);
}

TEST(EventLoopTest, EveryoneWhoJoinsWaitsForTheEnd)
{
    const auto owner = std::make_shared<Owner>();
    std::promise<void> release;
    std::atomic<bool> through{false};
    owner->loop.Start([owner, &release, &through] {
        owner->loop.Run();
        release.get_future().wait();
        through = true;
    });
    owner->loop.Finish();
    std::vector<std::thread> joiners;
    std::atomic<int> early{0};
    for (int i = 0; i < 4; ++i)
    {
        joiners.emplace_back([&] {
            owner->loop.Join();
            early += through ? 0 : 1;
        });
    }
    release.set_value();
    for (std::thread& joiner : joiners)
    {
        joiner.join();
    }
    EXPECT_EQ(early, 0);
}

TEST(EventLoopTest, KnowsItsThread)
{
    const auto owner = Owner::Started();
    std::optional<bool> inside;
    owner->loop.Post([&] { inside = owner->loop.OnEventThread(); });
    EXPECT_FALSE(owner->loop.OnEventThread());
    owner->End();
    EXPECT_EQ(inside, true);
}

TEST(EventLoopTest, JoinOnTheEventThreadDoesNotWaitAndOthersStillDo)
{
    const auto owner = Owner::Started();
    std::promise<void> joined;
    std::promise<void> release;
    std::atomic<bool> through{false};
    owner->loop.Post([&] {
        owner->loop.Finish();
        owner->loop.Join();
        joined.set_value();
        release.get_future().wait();
        through = true;
    });
    joined.get_future().wait();
    std::thread other([&] {
        owner->loop.Join();
        EXPECT_TRUE(through);
    });
    release.set_value();
    other.join();
}

TEST(EventLoopTest, LastReferenceMayGoOnTheEventThread)
{
    auto owner = Owner::Started();
    const std::weak_ptr<Owner> alive = owner;
    std::promise<void> dropped;
    owner->loop.Post([&dropped, owner]() mutable {
        dropped.get_future().wait();
        owner->loop.Finish();
        owner.reset();
    });
    owner.reset();
    ASSERT_FALSE(alive.expired());
    dropped.set_value();
    // The thread ends by itself, and the loop goes with it.
    while (!alive.expired())
    {
        std::this_thread::yield();
    }
}

TEST(EventLoopTest, LoopThatNeverStartedEndsAtOnce)
{
    EventLoop loop;
    loop.Post([] {});
    loop.Finish();
    loop.Join();
    EXPECT_FALSE(loop.OnEventThread());
}

TEST(EventLoopTest, ThreadThatCannotBeMadeIsAnErrorAndLeavesNothing)
{
    const auto owner = std::make_shared<Owner>();
    {
        const testing_support::NoThreads noThreads;
        EXPECT_THROW(owner->loop.Start([owner] { owner->loop.Run(); }), std::system_error);
    }
    owner->End();
    EXPECT_EQ(owner.use_count(), 1);
}

}  // namespace
}  // namespace kx::velmor
