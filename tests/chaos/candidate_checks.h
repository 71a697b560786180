#pragma once

#include "tests/chaos/checker.h"
#include "tests/chaos/history.h"

#include <vector>

namespace kx::velmor::chaos {

/// What a candidate promises, whatever happens: never two that lead, no forked child that leads, epochs that grow from
/// one leadership to the next, and callbacks in pairs.
CandidateReport CheckCandidates(const History& history, const Bounds& bounds, std::vector<Violation>& violations);

}  // namespace kx::velmor::chaos
