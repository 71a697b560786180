#include "source/teller.h"

#include "tests/support/await.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

namespace kx::velmor {
namespace {

using std::chrono::milliseconds;
using testing_support::Await;

class TellerTest : public ::testing::Test
{
protected:
    ~TellerTest() override
    {
        teller_->Finish();
        teller_->Join();
    }

    void Start(Teller::Watchman watchman = [] { return std::chrono::hours(1); })
    {
        teller_->Start([teller = teller_, watchman = std::move(watchman)] { teller->Run(watchman); });
    }

    const std::shared_ptr<Teller> teller_ = std::make_shared<Teller>();
};

TEST_F(TellerTest, RunsTasksInOrderOnOneThreadOfItsOwn)
{
    std::vector<int> ran;
    for (int i = 0; i < 100; ++i)
    {
        teller_->Tell([&, i] {
            EXPECT_TRUE(teller_->OnThread());
            ran.push_back(i);
        });
    }
    EXPECT_FALSE(teller_->OnThread());
    Start();
    teller_->AwaitSilence();
    ASSERT_EQ(ran.size(), 100U);
    EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
}

TEST_F(TellerTest, SilenceIsWhenTheLastTaskHasReturned)
{
    std::promise<void> begun;
    std::promise<void> finished;
    std::atomic<bool> done{false};
    teller_->Tell([&] {
        begun.set_value();
        finished.get_future().wait();
        done = true;
    });
    Start();
    begun.get_future().wait();
    auto silent = std::async(std::launch::async, [&] {
        teller_->AwaitSilence();
        return done.load();
    });
    finished.set_value();
    EXPECT_TRUE(silent.get());
}

TEST_F(TellerTest, TasksMayTellMore)
{
    std::atomic<int> ran{0};
    teller_->Tell([&] {
        ++ran;
        teller_->Tell([&] { ++ran; });
    });
    Start();
    teller_->AwaitSilence();
    EXPECT_EQ(ran, 2);
}

TEST_F(TellerTest, WatchmanLooksWhenItIsDueAndWhenWoken)
{
    const auto looks = std::make_shared<std::atomic<int>>(0);
    Start([looks] { return ++*looks < 3 ? milliseconds(1) : milliseconds(std::chrono::hours(1)); });
    Await("looks that are due", [&] { return *looks == 3; });
    teller_->Wake();
    Await("a look when woken", [&] { return *looks == 4; });
}

TEST_F(TellerTest, WhatWasToldBeforeTheEndIsRun)
{
    std::atomic<int> ran{0};
    std::promise<void> begun;
    std::promise<void> finished;
    teller_->Tell([&] {
        begun.set_value();
        finished.get_future().wait();
    });
    teller_->Tell([&] { ++ran; });
    Start();
    begun.get_future().wait();
    teller_->Finish();
    finished.set_value();
    teller_->Join();
    EXPECT_EQ(ran, 1);
}

TEST_F(TellerTest, JoinOnItsOwnThreadDoesNotWait)
{
    std::promise<void> joined;
    teller_->Tell([&] {
        teller_->Finish();
        teller_->Join();
        joined.set_value();
    });
    Start();
    joined.get_future().wait();
}

TEST_F(TellerTest, WhatATaskHoldsGoesBeforeSilence)
{
    auto held = std::make_shared<int>(1);
    const std::weak_ptr<int> weak = held;
    teller_->Tell([held = std::move(held)] {});
    Start();
    teller_->AwaitSilence();
    EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace kx::velmor
