#include "cli/restart_policy.h"

#include <gtest/gtest.h>

namespace kx::velmor::cli {
namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

TEST(RestartPolicy, RunsAgainAsItSays)
{
    for (const bool failed : {false, true})
    {
        EXPECT_FALSE(RunsAgain(Restart::Never, failed));
        EXPECT_EQ(RunsAgain(Restart::OnFailure, failed), failed);
        EXPECT_TRUE(RunsAgain(Restart::Always, failed));
    }
}

TEST(RestartDelay, DoublesUpToAMinute)
{
    RestartDelay delay;
    for (const int expected : {1, 2, 4, 8, 16, 32, 60, 60})
    {
        EXPECT_EQ(delay.Next(seconds(59)), seconds(expected));
    }
}

TEST(RestartDelay, BeginsAnewWhenTheCommandHasRunForAMinute)
{
    RestartDelay delay;
    delay.Next(seconds(0));
    delay.Next(seconds(0));
    EXPECT_EQ(delay.Next(minutes(1)), seconds(1));
    EXPECT_EQ(delay.Next(milliseconds(1)), seconds(2));
}

}  // namespace
}  // namespace kx::velmor::cli
