#include "source/session_lifetime.h"

#include <gtest/gtest.h>

namespace kx::velmor {
namespace {

using std::chrono::milliseconds;

BootClock::time_point At(int time)
{
    return BootClock::time_point(milliseconds(time));
}

/// T is 12 s, so that a second is a twelfth of it; the session begins at 100 s.
class SessionLifetimeTest : public ::testing::Test
{
protected:
    static constexpr int kBegin = 100'000;

    SessionLifetimeTest()
    {
        lifetime_.Begin(At(kBegin));
        lifetime_.Grant(milliseconds(12'000));
    }

    /// Both are milliseconds after the beginning.
    void Read(int sent, int answered) { lifetime_.NoteAnswer(At(kBegin + sent), At(kBegin + answered), false); }
    void Write(int sent, int answered) { lifetime_.NoteAnswer(At(kBegin + sent), At(kBegin + answered), true); }
    /// The end of the lease, as above; -1 when there is none.
    int End() const
    {
        const auto end = lifetime_.LeaseEnd();
        return end ? static_cast<int>((*end - At(kBegin)) / milliseconds(1)) : -1;
    }

    SessionLifetime lifetime_;
};

TEST_F(SessionLifetimeTest, HasNoLeaseBeforeAWriteIsAnswered)
{
    EXPECT_EQ(End(), -1);
    Read(10, 20);
    EXPECT_EQ(End(), -1);
    EXPECT_FALSE(lifetime_.LastAgreed());
}

TEST_F(SessionLifetimeTest, FirstWriteOfANewSessionCountsInFull)
{
    Write(10, 20);
    EXPECT_EQ(End(), 8'010);
    EXPECT_EQ(lifetime_.LastAgreed(), At(kBegin + 10));
}

TEST_F(SessionLifetimeTest, WriteAfterALongSilenceProvesOnlyThatTheSessionWasThere)
{
    Write(10, 20);
    // The follower may fail before it tells the ensemble's leader of this one; the leader counts from the first.
    Write(7'000, 7'010);
    EXPECT_EQ(End(), 11'010) << "eleven twelfths after the first";
}

TEST_F(SessionLifetimeTest, ReadCountsOnceAWriteFollowsAQuarterLater)
{
    Write(10, 20);
    Read(6'000, 6'010);
    Write(9'009, 9'020);
    EXPECT_EQ(End(), 11'010) << "too soon after the answer";
    Write(9'010, 9'020);
    EXPECT_EQ(End(), 17'000) << "eleven twelfths after the read";
    Write(9'500, 9'510);
    EXPECT_EQ(End(), 17'000);
}

TEST_F(SessionLifetimeTest, ReadWhoseAnswerWasLateCountsLate)
{
    Read(6'000, 8'500);
    Write(10'000, 10'010);
    EXPECT_EQ(End(), 11'000);
    Write(11'500, 11'510);
    EXPECT_EQ(End(), 17'000);
}

TEST_F(SessionLifetimeTest, RegularWritesGiveTwoThirdsOfTheTimeout)
{
    constexpr int kRoundTrip = 10;
    int sent = 0;
    for (int i = 0; i < 100; ++i)
    {
        Write(sent, sent + kRoundTrip);
        if (i >= 2)
        {
            EXPECT_EQ(End(), sent + 8'000 - 2 * kRoundTrip);
        }
        sent += kRoundTrip + static_cast<int>(SessionLifetime::WriteInterval(milliseconds(12'000)) / milliseconds(1));
    }
}

TEST_F(SessionLifetimeTest, RegularReadsMakeTheFirstWriteWorthFiveTwelfths)
{
    int sent = 20'000;
    for (int i = 0; i < 10; ++i)
    {
        Read(sent, sent + 10);
        sent += 10 + static_cast<int>(SessionLifetime::ReadInterval(milliseconds(12'000)) / milliseconds(1));
    }
    for (const int write : {sent - 2'000, sent - 1'000, sent - 10})
    {
        SessionLifetime copy = lifetime_;
        copy.NoteAnswer(At(kBegin + write), At(kBegin + write + 10), true);
        EXPECT_GE(*copy.LeaseEnd(), At(kBegin + write + 5'000 - 20));
        EXPECT_LE(*copy.LeaseEnd(), At(kBegin + write + 8'000));
    }
}

TEST_F(SessionLifetimeTest, ManyRequestsAtOnceLoseNextToNothing)
{
    for (int sent = 0; sent < 30'000; ++sent)
    {
        Read(sent, sent + 1);
    }
    Write(30'000, 30'010);
    EXPECT_GE(End(), 30'000 + 8'000 - 50) << "12,000 / 256 is about 47";
    EXPECT_LT(End(), 26'999 + 11'000) << "as long as if each read were kept";
}

TEST_F(SessionLifetimeTest, AnswerToAnOlderWriteChangesNothing)
{
    Write(1'000, 1'010);
    Write(500, 1'020);
    EXPECT_EQ(End(), 9'000);
    EXPECT_EQ(lifetime_.LastAgreed(), At(kBegin + 1'000));
}

TEST_F(SessionLifetimeTest, SmallestTimeoutCountsAndShortensTheLease)
{
    Write(10, 20);
    lifetime_.Grant(milliseconds(3'000));
    EXPECT_EQ(lifetime_.MinTimeout(), milliseconds(3'000));
    EXPECT_EQ(End(), 2'010);
    lifetime_.Grant(milliseconds(12'000));
    EXPECT_EQ(End(), 2'010) << "a new leader of the ensemble may go back to the smaller one";
    Write(1'000, 1'010);
    EXPECT_EQ(End(), 2'760) << "eleven twelfths of 3,000 after the first write";
}

TEST_F(SessionLifetimeTest, NextSessionKnowsNothingOfTheLast)
{
    Write(10, 20);
    lifetime_.Grant(milliseconds(3'000));
    lifetime_.Begin(At(kBegin + 50'000));
    EXPECT_EQ(End(), -1);
    lifetime_.Grant(milliseconds(12'000));
    Write(50'010, 50'020);
    EXPECT_EQ(End(), 58'010);
}

}  // namespace
}  // namespace kx::velmor
