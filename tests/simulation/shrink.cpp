#include "tests/simulation/shrink.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>
#include <vector>

namespace kx::velmor::simulation {

namespace {

using std::chrono::milliseconds;

class Shrinker
{
public:
    Shrinker(Schedule schedule, const StillFails& stillFails, std::size_t maxRuns)
        : schedule_(std::move(schedule)), stillFails_(stillFails), runsLeft_(maxRuns)
    {}

    Schedule Shrink()
    {
        for (bool again = true; again;)
        {
            again = DropFaults();
            again = SimplifyEnsemble() || again;
            again = PullForward() || again;
            again = ShortenDurations() || again;
            again = RoundTimes() || again;
        }
        return schedule_;
    }

private:
    /// With other seeds, too: a simpler schedule takes other steps, which may just miss what the first one met.
    bool Try(Schedule simpler)
    {
        constexpr std::uint64_t kOtherSeeds = 2;
        const std::uint64_t seed = simpler.seed;
        for (std::uint64_t other = 0; other <= kOtherSeeds && runsLeft_ > 0; ++other)
        {
            --runsLeft_;
            simpler.seed = other == 0 ? seed : other;
            if (stillFails_(simpler))
            {
                schedule_ = std::move(simpler);
                return true;
            }
        }
        return false;
    }

    template <typename Change>
    bool TryWith(const Change& change)
    {
        Schedule simpler = schedule_;
        return change(simpler) && Try(std::move(simpler));
    }

    /// In halves, quarters and so on, down to single ones.
    bool DropFaults()
    {
        bool any = false;
        for (std::size_t size = std::max<std::size_t>(schedule_.faults.size() / 2, 1); size > 0; size /= 2)
        {
            for (std::size_t end = schedule_.faults.size(); end > 0;)
            {
                const std::size_t begin = end - std::min(size, end);
                const bool dropped = TryWith([&](Schedule& simpler) {
                    const auto faults = simpler.faults.begin();
                    simpler.faults.erase(faults + static_cast<std::ptrdiff_t>(begin),
                                         faults + static_cast<std::ptrdiff_t>(end));
                    return true;
                });
                any = dropped || any;
                end = begin;
            }
        }
        return any;
    }

    template <typename Value>
    bool TryValue(Value& (*field)(Schedule&), Value value)
    {
        return TryWith([&](Schedule& simpler) {
            if (!(value < field(simpler)))
            {
                return false;
            }
            field(simpler) = value;
            return true;
        });
    }

    bool SimplifyEnsemble()
    {
        bool any = false;
        for (const std::size_t servers : {1U, 3U})
        {
            any =
                TryValue<std::size_t>([](Schedule& each) -> std::size_t& { return each.ensemble.servers; }, servers) ||
                any;
        }
        for (const std::size_t processes : {1U, 2U, 3U, 4U})
        {
            any =
                TryValue<std::size_t>([](Schedule& each) -> std::size_t& { return each.processes; }, processes) || any;
        }
        any = TryValue<bool>([](Schedule& each) -> bool& { return each.ensemble.limits.answersAlone; }, false) || any;
        any = TryWith([](Schedule& simpler) {
                  const bool changes = simpler.maxRejoinDelay != milliseconds(1000) || simpler.ensemble.syncLimit != 5;
                  simpler.maxRejoinDelay = milliseconds(1000);
                  simpler.ensemble.syncLimit = 5;
                  return changes;
              }) ||
              any;
        return any;
    }

    /// A fault, and all that follow it, earlier.
    bool PullForward()
    {
        bool any = false;
        for (std::size_t first = 0; first < schedule_.faults.size(); ++first)
        {
            const bool pulled = TryWith([&](Schedule& simpler) {
                const Time before = first == 0 ? Time() : simpler.faults[first - 1].at;
                const Time gap = simpler.faults[first].at - before;
                if (gap < milliseconds(2))
                {
                    return false;
                }
                for (std::size_t each = first; each < simpler.faults.size(); ++each)
                {
                    simpler.faults[each].at -= gap / 2;
                }
                return true;
            });
            any = pulled || any;
        }
        return any;
    }

    bool ShortenDurations()
    {
        bool any = false;
        for (std::size_t each = 0; each < schedule_.faults.size(); ++each)
        {
            for (Time Fault::*const member : {&Fault::duration, &Fault::amount})
            {
                const bool shortened = TryWith([&](Schedule& simpler) {
                    Time& time = simpler.faults[each].*member;
                    time /= 2;
                    return time >= milliseconds(1);
                });
                any = shortened || any;
            }
        }
        return any;
    }

    /// Down to milliseconds, tens and hundreds of them.
    bool RoundTimes()
    {
        constexpr std::array<milliseconds, 3> kUnits{milliseconds(100), milliseconds(10), milliseconds(1)};
        bool any = false;
        for (std::size_t each = 0; each < schedule_.faults.size(); ++each)
        {
            for (Time Fault::*const member : {&Fault::at, &Fault::duration, &Fault::amount})
            {
                for (const milliseconds unit : kUnits)
                {
                    const Time time = schedule_.faults[each].*member;
                    if (time % unit == Time() || time < unit)
                    {
                        continue;
                    }
                    any = TryWith([&](Schedule& simpler) {
                              simpler.faults[each].*member = time - time % unit;
                              return IsOrdered(simpler);
                          }) ||
                          any;
                }
            }
        }
        return any;
    }

    static bool IsOrdered(const Schedule& schedule)
    {
        const auto earlier = [](const Fault& one, const Fault& other) { return one.at < other.at; };
        return std::is_sorted(schedule.faults.begin(), schedule.faults.end(), earlier);
    }

    Schedule schedule_;
    const StillFails& stillFails_;
    std::size_t runsLeft_;
};

}  // namespace

Schedule Shrink(Schedule schedule, const StillFails& stillFails, std::size_t maxRuns)
{
    return Shrinker(std::move(schedule), stillFails, maxRuns).Shrink();
}

}  // namespace kx::velmor::simulation
