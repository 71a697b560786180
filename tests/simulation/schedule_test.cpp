#include "tests/simulation/schedule.h"

#include "tests/simulation/schedule_draw.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>

namespace kx::velmor::simulation {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

const std::string kHeader =
    "ensemble seed=17 servers=3 tick=200ms min=400ms max=4000ms answers-alone=0 sync=5 processes=5 timeout=2000ms "
    "rejoin=1000ms\n";

/// What `Parse` says about a text that it refuses.
std::string Refusal(const std::string& text)
{
    try
    {
        Parse(text);
    }
    catch (const std::invalid_argument& error)
    {
        return error.what();
    }
    return "accepted";
}

TEST(ScheduleTest, IsReadAsItIsWritten)
{
    const std::string text = kHeader +
                             "2500ms pause process=leader for=1160ms\n"
                             "3660400us freeze-server server=of-same for=4000ms\n"
                             "5000ms limits server=s2 min=400ms max=600ms restart=1\n"
                             "5001ms delay process=p3 server=all direction=to-client by=250ms for=1000ms\n"
                             "6000ms pause-inside process=next calls=12 for=10ms\n"
                             "7000ms delete-node place=1\n"
                             "8000ms delete-path\n";

    const Schedule schedule = Parse(text);

    EXPECT_EQ(Print(schedule), text);
    EXPECT_EQ(schedule.seed, 17U);
    EXPECT_EQ(schedule.ensemble.limits.tick, milliseconds(200));
    ASSERT_EQ(schedule.faults.size(), 7U);
    EXPECT_EQ(schedule.faults[0].kind, FaultKind::Pause);
    EXPECT_EQ(schedule.faults[0].duration, milliseconds(1160));
    EXPECT_EQ(schedule.faults[1].at, microseconds(3660400));
    EXPECT_EQ(schedule.faults[1].server.kind, ServerTarget::Kind::OfSame);
    EXPECT_EQ(schedule.faults[2].server.index, 2U);
    EXPECT_EQ(schedule.faults[2].number, 1U);
    EXPECT_EQ(schedule.faults[3].process.slot, 3U);
    EXPECT_EQ(schedule.faults[3].direction, EnsembleModel::Direction::ToClient);
    EXPECT_EQ(schedule.faults[3].amount, milliseconds(250));
}

TEST(ScheduleTest, CommentsAndEmptyLinesAreIgnored)
{
    EXPECT_EQ(Print(Parse("# Found once.\n\n" + kHeader + "  # no faults\n")), kHeader);
}

TEST(ScheduleTest, FaultsAreOrderedByTime)
{
    const Schedule schedule = Parse(kHeader + "20ms delete-path\n10ms delete-node place=0\n");

    EXPECT_EQ(schedule.faults.front().kind, FaultKind::DeleteNode);
}

TEST(ScheduleTest, WhatIsWrongIsRefusedWithItsLine)
{
    EXPECT_EQ(Refusal(""), "no line describes the ensemble");
    EXPECT_EQ(Refusal(kHeader + kHeader), "line 2: the ensemble is described once, in the first line");
    EXPECT_EQ(Refusal("10ms delete-path\n"), "line 1: the ensemble is described once, in the first line");
    EXPECT_EQ(Refusal(kHeader + "10 delete-path\n"), "line 2: \"10\" is not a duration");
    EXPECT_EQ(Refusal(kHeader + "10ms explode\n"), "line 2: \"explode\" is not a fault");
    EXPECT_EQ(Refusal(kHeader + "10ms kill process=leader\n"), "line 2: \"for=\" is missing");
    EXPECT_EQ(Refusal(kHeader + "10ms fork process=leader for=1ms\n"), "line 2: \"for=1ms\" does not belong here");
    EXPECT_EQ(Refusal(kHeader + "10ms fork process=leader process=next\n"),
              "line 2: \"process=next\" does not belong here");
    EXPECT_EQ(Refusal(kHeader + "10ms fork process=server\n"), "line 2: \"server\" does not name a process");
    EXPECT_EQ(Refusal(kHeader + "10ms kill-server server=leader for=1ms\n"),
              "line 2: \"leader\" does not name a server");
    EXPECT_EQ(Refusal("ensemble seed=1\n"), "line 1: \"answers-alone=\" is missing");
    EXPECT_EQ(Refusal(kHeader + "10ms delete-node place=x\n"), "line 2: \"x\" is not a number");
}

TEST(ScheduleTest, TheLargestTimeoutThatCanBeGranted)
{
    EXPECT_EQ(MaxTimeout(Parse(kHeader)), milliseconds(2000));
    EXPECT_EQ(MaxTimeout(Parse(kHeader + "1ms limits server=all min=400ms max=600ms restart=0\n")), milliseconds(2000));
    EXPECT_EQ(MaxTimeout(Parse(kHeader + "1ms limits server=all min=3000ms max=4000ms restart=0\n")),
              milliseconds(3000));
}

TEST(ScheduleDrawTest, DependsOnTheSeedAlone)
{
    EXPECT_EQ(Print(DrawSchedule(7)), Print(DrawSchedule(7)));
    EXPECT_NE(Print(DrawSchedule(7)), Print(DrawSchedule(8)));
}

TEST(ScheduleDrawTest, EverySchedulesTextIsReadAsItIsWritten)
{
    for (std::uint64_t seed = 0; seed < 2000; ++seed)
    {
        const std::string text = Print(DrawSchedule(seed));
        ASSERT_EQ(Print(Parse(text)), text);
    }
}

TEST(ScheduleDrawTest, DrawsEveryFault)
{
    std::set<FaultKind> kinds;
    for (std::uint64_t seed = 0; seed < 2000; ++seed)
    {
        for (const Fault& fault : DrawSchedule(seed).faults)
        {
            kinds.insert(fault.kind);
        }
    }
    EXPECT_EQ(kinds.size(), kFaultKinds);
}

TEST(ScheduleDrawTest, GrantsNoTimeoutBelowTwoTicks)
{
    for (std::uint64_t seed = 0; seed < 2000; ++seed)
    {
        const Schedule schedule = DrawSchedule(seed);
        ASSERT_GE(schedule.ensemble.limits.minSessionTimeout, 2 * schedule.ensemble.limits.tick);
        for (const Fault& fault : schedule.faults)
        {
            if (fault.kind == FaultKind::Limits)
            {
                ASSERT_GE(fault.minSessionTimeout, 2 * schedule.ensemble.limits.tick);
                ASSERT_GE(fault.maxSessionTimeout, fault.minSessionTimeout);
            }
        }
    }
}

}  // namespace
}  // namespace kx::velmor::simulation
