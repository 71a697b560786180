#pragma once

#include "tests/simulation/schedule.h"
#include "tests/simulation/simulation.h"

#include <chrono>
#include <string>

namespace kx::velmor::simulation {

/// The longest that one run may take, in real time. Runs take milliseconds.
constexpr std::chrono::seconds kMaxRealTime{60};

/// Plays a schedule in a child process. A child that crashes or takes longer than `kMaxRealTime` is a violation of
/// `Check::Crash`.
RunResult RunIsolated(const Schedule& schedule, const RunOptions& options);

/// A result as one line, and back. Throws `std::invalid_argument`.
std::string Print(const RunResult& result);
RunResult ParseResult(const std::string& line);

/// As in "overlap at 2500.000000 ms: more than one leads".
std::string Describe(const Violation& violation);

}  // namespace kx::velmor::simulation
