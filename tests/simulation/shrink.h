#pragma once

#include "tests/simulation/schedule.h"

#include <cstddef>
#include <functional>

namespace kx::velmor::simulation {

/// Tells whether a schedule still shows what was found.
using StillFails = std::function<bool(const Schedule&)>;

/// Makes a schedule simpler for as long as it still fails: fewer faults, processes and servers, a plainer
/// configuration, shorter and rounder times. Asks at most `maxRuns` times.
Schedule Shrink(Schedule schedule, const StillFails& stillFails, std::size_t maxRuns);

}  // namespace kx::velmor::simulation
