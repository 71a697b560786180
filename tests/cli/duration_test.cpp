#include "cli/duration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>

namespace kx::velmor::cli {
namespace {

using std::chrono::milliseconds;
using namespace std::chrono_literals;

TEST(DurationTest, NumbersWithUnitsAreRead)
{
    const std::map<std::string, milliseconds> all{
        {"500ms", 500ms}, {"10s", 10s},    {"1.5m", 90s},       {"2h", 2h},     {"0s", 0ms},          {"0ms", 0ms},
        {"0.5s", 500ms},  {"1.0004s", 1s}, {"1.0006s", 1001ms}, {"90m", 90min}, {"876000h", 876000h}, {"010s", 10s}};
    for (const auto& [text, duration] : all)
    {
        EXPECT_EQ(ParseDuration(text), duration) << text;
    }
}

TEST(DurationTest, EverythingElseIsRefusedWithWhatWouldDo)
{
    for (const std::string text :
         {"",     "10",  "s",    "-1s",  "-0s",  "+1s",  " 1s",  "1s ",  "1 s",     "1S",
          "1d",   "1us", "1e3s", "0x1s", "nans", "infs", "1s1s", "1,5s", "876001h", "99999999999999999999999h",
          "ten s"})
    {
        try
        {
            ParseDuration(text);
            ADD_FAILURE() << text;
        }
        catch (const std::invalid_argument& error)
        {
            EXPECT_EQ(error.what(),
                      "\"" + text + "\" is no duration: write a number and ms, s, m or h, as in 500ms or 10s");
        }
    }
}

TEST(DurationTest, TheShortestTextIsWrittenAndReadBack)
{
    const std::map<std::string, milliseconds> all{{"0s", 0ms},  {"1ms", 1ms}, {"1500ms", 1500ms}, {"10s", 10s},
                                                  {"90s", 90s}, {"2m", 2min}, {"1h", 60min},      {"25h", 25h}};
    for (const auto& [text, duration] : all)
    {
        EXPECT_EQ(FormatDuration(duration), text);
        EXPECT_EQ(ParseDuration(text), duration);
    }
}

}  // namespace
}  // namespace kx::velmor::cli
