#pragma once

#include "tests/simulation/simulation.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

namespace kx::velmor::simulation {

struct BatchOptions
{
    std::uint64_t seed = 1;
    std::uint64_t schedules = 1000;
    /// Stops when this time is over, too.
    std::optional<std::chrono::steady_clock::duration> maxRealTime{};
    /// Worker processes at a time.
    std::size_t jobs = 1;
    RunOptions run{};
};

/// The seed of one of the schedules of a run.
std::uint64_t ScheduleSeed(std::uint64_t seed, std::uint64_t index);

struct Progress
{
    std::uint64_t done = 0;
    /// Of all schedules together.
    Time virtualTime{};
};

class BatchListener
{
public:
    BatchListener() = default;
    virtual ~BatchListener() = default;
    BatchListener(const BatchListener&) = delete;
    BatchListener& operator=(const BatchListener&) = delete;

    /// About once per second.
    virtual void OnProgress(const Progress& progress) = 0;
    /// Returns false to stop.
    virtual bool OnViolation(std::uint64_t index, const Violation& violation, const Progress& progress) = 0;
};

/// Plays drawn schedules in worker processes, some hundred in each, since what a killed process holds is not always
/// given back. A worker that crashes or hangs is a violation. Every so many schedules one is played twice, the second
/// time as it was printed and parsed.
///
/// Returns what was done.
Progress RunBatches(const BatchOptions& options, BatchListener& listener);

}  // namespace kx::velmor::simulation
