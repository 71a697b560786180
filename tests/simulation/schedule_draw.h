#pragma once

#include "tests/simulation/schedule.h"

#include <cstdint>

namespace kx::velmor::simulation {

/// A schedule that depends on the seed and on nothing else.
///
/// Stays clear of what docs/guarantees.md excludes: no server loses data, no session is ended by another client, no
/// claim is deleted, and no server grants a timeout of less than two ticks.
Schedule DrawSchedule(std::uint64_t seed);

}  // namespace kx::velmor::simulation
