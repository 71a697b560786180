#pragma once

#include "tests/chaos/checker.h"
#include "tests/chaos/history.h"

#include <string>
#include <vector>

namespace kx::velmor::chaos {

/// The history as a picture, SVG: time goes from left to right; each member has a lane that shows its role as a colour
/// and, below it, when it was the leader by the session's view or by `IsLeader`; faults are grey across the lanes of
/// those whom they hit, with a label above; violations are red lines, with what is violated below.
std::string DrawTimeline(const History& history, const std::vector<Violation>& violations, const std::string& title);

}  // namespace kx::velmor::chaos
