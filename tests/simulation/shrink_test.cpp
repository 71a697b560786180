#include "tests/simulation/shrink.h"

#include "tests/simulation/schedule_draw.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>

namespace kx::velmor::simulation {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr std::size_t kPlenty = 10'000;

const Fault* Find(const Schedule& schedule, FaultKind kind)
{
    const auto found = std::find_if(schedule.faults.begin(), schedule.faults.end(),
                                    [kind](const Fault& fault) { return fault.kind == kind; });
    return found == schedule.faults.end() ? nullptr : &*found;
}

/// Many faults, of which the pause of more than 500 ms and a later kill matter, with three processes.
Schedule MadeUp()
{
    Schedule schedule;
    schedule.ensemble.servers = 5;
    schedule.ensemble.limits.answersAlone = true;
    for (int each = 0; each < 20; ++each)
    {
        Fault& fault = schedule.faults.emplace_back();
        fault.at = microseconds(1'000'333) * (each + 1);
        fault.kind = each == 4 ? FaultKind::Pause : each == 17 ? FaultKind::Kill : FaultKind::Cut;
        fault.duration = microseconds(3'000'777);
    }
    return schedule;
}

bool Fails(const Schedule& schedule)
{
    const Fault* const pause = Find(schedule, FaultKind::Pause);
    const Fault* const kill = Find(schedule, FaultKind::Kill);
    return pause != nullptr && kill != nullptr && pause->duration > milliseconds(500) && pause->at < kill->at &&
           schedule.processes >= 3;
}

TEST(ShrinkTest, KeepsWhatMattersAndNothingElse)
{
    const Schedule shortened = Shrink(MadeUp(), Fails, kPlenty);

    ASSERT_TRUE(Fails(shortened));
    EXPECT_EQ(shortened.faults.size(), 2U);
    EXPECT_EQ(shortened.processes, 3U);
    EXPECT_EQ(shortened.ensemble.servers, 1U);
    EXPECT_FALSE(shortened.ensemble.limits.answersAlone);
    EXPECT_LE(Find(shortened, FaultKind::Pause)->duration, milliseconds(1'000));
    EXPECT_EQ(Find(shortened, FaultKind::Pause)->duration % milliseconds(1), Time());
    EXPECT_LT(Find(shortened, FaultKind::Kill)->at, milliseconds(100));
}

TEST(ShrinkTest, ReturnsWhatCannotBeSimpler)
{
    const Schedule schedule = MadeUp();

    const Schedule shortened = Shrink(
        schedule, [&](const Schedule& simpler) { return Print(simpler) == Print(schedule); }, kPlenty);

    EXPECT_EQ(Print(shortened), Print(schedule));
}

TEST(ShrinkTest, TriesOtherSeeds)
{
    const Schedule shortened = Shrink(
        MadeUp(), [](const Schedule& simpler) { return simpler.seed == 2 || simpler.faults.size() == 20; }, kPlenty);

    EXPECT_EQ(shortened.seed, 2U);
    EXPECT_TRUE(shortened.faults.empty());
}

TEST(ShrinkTest, AsksNoMoreOftenThanItMay)
{
    std::size_t asked = 0;

    const Schedule shortened = Shrink(
        MadeUp(),
        [&](const Schedule& simpler) {
            ++asked;
            return Fails(simpler);
        },
        7);

    EXPECT_EQ(asked, 7U);
    EXPECT_TRUE(Fails(shortened));
}

TEST(ShrinkTest, EndsForEveryDrawnSchedule)
{
    for (std::uint64_t seed = 0; seed < 100; ++seed)
    {
        const Schedule shortened = Shrink(
            DrawSchedule(seed), [](const Schedule&) { return true; }, kPlenty);

        ASSERT_TRUE(shortened.faults.empty());
    }
}

}  // namespace
}  // namespace kx::velmor::simulation
