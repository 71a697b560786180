#include "source/lease.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <utility>

namespace kx::velmor {
namespace {

using std::chrono::milliseconds;

BootClock::time_point At(int time)
{
    return BootClock::time_point(milliseconds(time));
}

class LeaseTest : public ::testing::Test
{
protected:
    bool Grant(std::uint64_t leadership, int end, int now)
    {
        now_ = now;
        return lease_.Grant(leadership, 7, At(end));
    }

    void Update(std::int64_t session, int end, int now)
    {
        now_ = now;
        lease_.Update(session, At(end));
    }

    std::atomic<int> now_{0};
    /// Runs when the clock has been read the next time, before the reader has the result.
    std::function<void()> afterClock_;
    /// As above, each time.
    std::function<void()> afterEachClock_;
    Lease lease_{[this] {
        const BootClock::time_point now = At(now_);
        if (afterEachClock_)
        {
            afterEachClock_();
        }
        else if (const auto run = std::exchange(afterClock_, nullptr))
        {
            run();
        }
        return now;
    }};
};

TEST_F(LeaseTest, NobodyHasOneToBeginWith)
{
    EXPECT_LE(lease_.End(), At(0));
    EXPECT_EQ(lease_.Left(), milliseconds(0));
    EXPECT_FALSE(lease_.Holds(0));
}

TEST_F(LeaseTest, LastsUntilTheEndOfItsSessionsLease)
{
    EXPECT_TRUE(Grant(1, 1'600, 1'599));
    EXPECT_EQ(lease_.End(), At(1'600));
    EXPECT_EQ(lease_.Left(), milliseconds(1));
    EXPECT_TRUE(lease_.Holds(1));
    EXPECT_FALSE(lease_.Holds(2));
    now_ = 1'600;
    EXPECT_EQ(lease_.Left(), milliseconds(0));
    EXPECT_FALSE(lease_.Holds(1));
}

TEST_F(LeaseTest, IsNotGrantedOnceItIsOver)
{
    EXPECT_FALSE(Grant(1, 1'600, 1'600));
    EXPECT_LE(lease_.End(), At(0));
    Update(7, 2'200, 1'601);
    EXPECT_LE(lease_.End(), At(0));
}

TEST_F(LeaseTest, IsExtendedByItsSessionOnly)
{
    Grant(1, 1'600, 1'000);
    Update(8, 2'100, 1'510);
    EXPECT_EQ(lease_.End(), At(1'600));
    Update(7, 2'100, 1'510);
    EXPECT_EQ(lease_.End(), At(2'100));
}

TEST_F(LeaseTest, IsShortenedByItsSession)
{
    Grant(1, 1'600, 1'000);
    Update(7, 1'200, 1'100);
    EXPECT_EQ(lease_.End(), At(1'200));
    Update(7, 1'150, 1'180);
    EXPECT_EQ(lease_.End(), At(1'150)) << "it is over";
    Update(7, 1'900, 1'190);
    EXPECT_EQ(lease_.End(), At(1'150)) << "and stays so";
}

TEST_F(LeaseTest, IsNotLongerThanItsSessionHasSaidMeanwhile)
{
    Update(7, 1'200, 1'000);
    EXPECT_TRUE(Grant(1, 1'600, 1'100)) << "the caller had asked before the end came sooner";
    EXPECT_EQ(lease_.End(), At(1'200));
    lease_.Revoke();
    Update(8, 1'100, 1'100);
    EXPECT_TRUE(Grant(2, 1'600, 1'100)) << "another session's does not count";
    EXPECT_EQ(lease_.End(), At(1'600));
}

TEST_F(LeaseTest, StaysOverOnceItHasRunOut)
{
    Grant(1, 1'600, 1'000);
    Update(7, 2'190, 1'600);
    EXPECT_EQ(lease_.End(), At(1'600));
}

TEST_F(LeaseTest, StaysOverOnceItIsRevoked)
{
    Grant(1, 1'600, 1'000);
    lease_.Revoke();
    Update(7, 2'100, 1'510);
    EXPECT_LE(lease_.End(), At(0));
    EXPECT_FALSE(lease_.Holds(1));
}

TEST_F(LeaseTest, EndsWithItsSessionForGood)
{
    Grant(1, 1'600, 1'000);
    lease_.EndSession(8);
    EXPECT_EQ(lease_.End(), At(1'600));
    EXPECT_FALSE(lease_.SessionEnded(7));
    lease_.EndSession(7);
    EXPECT_LE(lease_.End(), At(0));
    EXPECT_TRUE(lease_.SessionEnded(7));
    EXPECT_FALSE(Grant(2, 1'700, 1'100));
}

TEST_F(LeaseTest, StaysOverOnceItsEndWasSeenDuringAnExtension)
{
    Grant(1, 1'600, 1'599);
    // The extension has read the clock when time passes and a reader asks.
    afterClock_ = [this] {
        now_ = 1'600;
        EXPECT_EQ(lease_.Left(), milliseconds(0));
    };
    Update(7, 2'190, 1'599);
    EXPECT_EQ(lease_.Left(), milliseconds(0));
    EXPECT_FALSE(lease_.Holds(1));
    Update(7, 2'200, 1'600);
    EXPECT_FALSE(lease_.Holds(1));
}

TEST_F(LeaseTest, IsNotSeenToEndByAReaderThatAnExtensionOvertakes)
{
    Grant(1, 1'600, 1'599);
    now_ = 1'600;
    // The reader has read the end and the clock when the extension comes, which has read the clock before.
    afterClock_ = [this] { Update(7, 2'190, 1'599); };
    EXPECT_EQ(lease_.Left(), milliseconds(591));
    now_ = 1'600;
    EXPECT_TRUE(lease_.Holds(1));
}

TEST_F(LeaseTest, DoesNotComeBackWithinALeadershipHoweverReadersAndExtensionsMeet)
{
    std::atomic<bool> stop{false};
    std::atomic<std::uint64_t> present{0};
    std::atomic<std::uint64_t> extended{0};
    std::atomic<int> cameBack{0};
    afterEachClock_ = [] { std::this_thread::yield(); };
    std::thread reader([&] {
        while (!stop)
        {
            const std::uint64_t leadership = present;
            const bool before = lease_.Left() > milliseconds(0);
            const bool after = lease_.Left() > milliseconds(0);
            cameBack += leadership != 0 && leadership == present && !before && after;
        }
    });
    std::thread extender([&] {
        while (!stop)
        {
            const std::uint64_t leadership = present;
            if (leadership != extended && leadership != 0)
            {
                lease_.Update(7, At(2'190));
                extended = leadership;
            }
            std::this_thread::yield();
        }
    });
    // As many as a busy machine manages.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    for (std::uint64_t leadership = 1; leadership <= 20'000 && std::chrono::steady_clock::now() < end; ++leadership)
    {
        EXPECT_TRUE(Grant(leadership, 1'600, 1'599));
        present = leadership;
        std::this_thread::yield();
        now_ = 1'600;
        while (extended != leadership)
        {
            std::this_thread::yield();
        }
        present = 0;
        lease_.Revoke();
    }
    stop = true;
    reader.join();
    extender.join();
    EXPECT_EQ(cameBack, 0);
}

TEST_F(LeaseTest, IsNeverSeenUnderTheWrongLeadership)
{
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::atomic<std::uint64_t> former{0};
    std::thread reader([&] {
        while (!stop)
        {
            wrong += lease_.Holds(former);
        }
    });
    for (std::uint64_t leadership = 1; leadership <= 400'000; ++leadership)
    {
        EXPECT_TRUE(Grant(leadership, 1'600, 1'000));
        EXPECT_TRUE(lease_.Holds(leadership));
        lease_.Revoke();
        former = leadership;
        // The next one begins sooner or later after the reader has seen the number.
        for (std::uint64_t spins = leadership % 64; spins > 0; --spins)
        {
            std::atomic_signal_fence(std::memory_order_seq_cst);
        }
    }
    stop = true;
    reader.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace kx::velmor
