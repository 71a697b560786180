#pragma once

#include "tests/chaos/history.h"

#include <algorithm>
#include <vector>

namespace kx::velmor::chaos {

/// In order, none touching another.
inline std::vector<Interval> Union(std::vector<Interval> intervals)
{
    std::sort(intervals.begin(), intervals.end(),
              [](const Interval& left, const Interval& right) { return left.begin < right.begin; });
    std::vector<Interval> merged;
    for (const Interval& interval : intervals)
    {
        if (!merged.empty() && interval.begin <= merged.back().end)
        {
            merged.back().end = std::max(merged.back().end, interval.end);
        }
        else
        {
            merged.push_back(interval);
        }
    }
    return merged;
}

/// How much of `interval` one of the others covers.
inline Instant Covered(const Interval& interval, const std::vector<Interval>& others)
{
    Instant covered{0};
    for (const Interval& other : Union(others))
    {
        const Interval common{std::max(interval.begin, other.begin), std::min(interval.end, other.end)};
        covered += std::max(Instant{0}, Length(common));
    }
    return covered;
}

inline bool Contains(const Interval& interval, Instant at)
{
    return interval.begin <= at && at <= interval.end;
}

}  // namespace kx::velmor::chaos
