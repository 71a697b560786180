#pragma once

#include "tests/chaos/checker.h"
#include "tests/chaos/history.h"

#include <string>
#include <vector>

namespace kx::velmor::chaos {

/// A stretch of leadership, and whose it was.
struct Reign
{
    const Member* member;
    const Stay* stay;
    Interval when;
};

using Reigns = std::vector<Reign>;

/// All members' stretches, in the order in which they began.
Reigns CollectReigns(const History& history, std::vector<Leadership> Member::*view);

/// Only with `violations` is an overlap one.
Overlaps CheckOverlaps(const History& history, const Bounds& bounds, const Reigns& reigns,
                       std::vector<Violation>* violations);

Leaderless CheckLeaderless(const History& history, const Bounds& bounds, const Reigns& reigns, const std::string& view,
                           std::vector<Violation>& violations);

/// Each node leads at most once, at a stretch, in the order in which the nodes were made, and none is passed over. The
/// result is how many led.
std::size_t CheckSuccession(const History& history, const Bounds& bounds, const Reigns& reigns,
                            std::vector<Violation>& violations);

}  // namespace kx::velmor::chaos
