#pragma once

#include "tests/simulation/checks.h"
#include "tests/simulation/schedule.h"
#include "tests/simulation/virtual_machine.h"

#include <cstdint>
#include <optional>
#include <set>

namespace kx::velmor::simulation {

struct RunOptions
{
    std::set<Check> without{};
    /// Print the log, the faults and every change of who leads to stderr.
    bool trace = false;
};

struct RunResult
{
    std::optional<Violation> violation{};
    /// `VirtualMachine::Fingerprint` at the end.
    std::uint64_t fingerprint = 0;
    /// In virtual time.
    Time length{};
    /// All threads have ended. Otherwise the machine cannot be given back, and the process must not run another
    /// simulation.
    bool reusable = true;
};

/// Plays a schedule to its end or to the first violation, in this process.
RunResult Run(const Schedule& schedule, const RunOptions& options);

}  // namespace kx::velmor::simulation
