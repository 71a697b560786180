#include "source/lease.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

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
    Lease lease_{[this] { return At(now_); }};
};

TEST_F(LeaseTest, NobodyHasOneToBeginWith)
{
    EXPECT_LE(lease_.End(), At(0));
    EXPECT_LE(lease_.EndOf(0), At(0));
}

TEST_F(LeaseTest, LastsUntilTheEndOfItsSessionsLease)
{
    EXPECT_TRUE(Grant(1, 1'600, 1'599));
    EXPECT_EQ(lease_.End(), At(1'600));
    EXPECT_EQ(lease_.EndOf(1), At(1'600));
    EXPECT_LE(lease_.EndOf(2), At(0));
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
    EXPECT_LE(lease_.EndOf(1), At(0));
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

TEST_F(LeaseTest, IsNeverSeenUnderTheWrongLeadership)
{
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::atomic<std::uint64_t> present{0};
    // Those with odd numbers end at 1'600, those with even ones at 2'600. Numbers do not come again.
    std::thread reader([&] {
        while (!stop)
        {
            const std::uint64_t leadership = present;
            const BootClock::time_point end = lease_.EndOf(leadership);
            wrong += end > At(0) && end != At(leadership % 2 == 1 ? 1'600 : 2'600);
        }
    });
    for (std::uint64_t leadership = 1; leadership <= 40'000; ++leadership)
    {
        present = leadership;
        const int end = leadership % 2 == 1 ? 1'600 : 2'600;
        EXPECT_TRUE(Grant(leadership, end, end - 600));
        lease_.Revoke();
    }
    stop = true;
    reader.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace kx::velmor
