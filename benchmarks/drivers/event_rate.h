#pragma once

#include "benchmarks/drivers/contender.h"

#include <cstddef>

namespace kx::velmor::benchmarks {

/// Watches as many nodes with one session, has all of them deleted by another, and counts the events per second: from
/// just before the first deletion is asked for to the last event's callback.
///
/// The one is a `Session`; the other, for comparison, a handle of the client library and nothing else.
double SessionEventsPerSecond(const Election& election, std::size_t events);
double FloorEventsPerSecond(const Election& election, std::size_t events);

}  // namespace kx::velmor::benchmarks
