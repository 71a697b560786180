#include "source/backoff.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <vector>

namespace kx::velmor {
namespace {

using std::chrono::milliseconds;

TEST(BackoffTest, DelaysDoubleUpToTheMost)
{
    Backoff backoff(milliseconds(100), milliseconds(350));
    for (const milliseconds ceiling : {milliseconds(100), milliseconds(200), milliseconds(350), milliseconds(350)})
    {
        const milliseconds delay = backoff.Next();
        EXPECT_GE(delay, ceiling / 2);
        EXPECT_LE(delay, ceiling);
    }
}

TEST(BackoffTest, DelaysAreSpreadOverTheLastHalf)
{
    Backoff backoff(milliseconds(1'000), milliseconds(1'000));
    std::vector<milliseconds> delays;
    for (int i = 0; i < 200; ++i)
    {
        delays.push_back(backoff.Next());
    }
    const auto [least, most] = std::minmax_element(delays.begin(), delays.end());
    EXPECT_GE(*least, milliseconds(500));
    EXPECT_LT(*least, milliseconds(600));
    EXPECT_GT(*most, milliseconds(900));
    EXPECT_LE(*most, milliseconds(1'000));
}

TEST(BackoffTest, TwoOfThemDoNotKeepStep)
{
    Backoff one(milliseconds(1'000'000), milliseconds(1'000'000));
    Backoff other(milliseconds(1'000'000), milliseconds(1'000'000));
    int same = 0;
    for (int i = 0; i < 10; ++i)
    {
        same += one.Next() == other.Next() ? 1 : 0;
    }
    EXPECT_LT(same, 5);
}

TEST(BackoffTest, SmallestDelayIsNotNegative)
{
    Backoff backoff(milliseconds(1), milliseconds(1));
    for (int i = 0; i < 20; ++i)
    {
        const milliseconds delay = backoff.Next();
        EXPECT_GE(delay, milliseconds(0));
        EXPECT_LE(delay, milliseconds(1));
    }
}

}  // namespace
}  // namespace kx::velmor
