#pragma once

#include "tests/simulation/virtual_machine.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <utility>

namespace kx::velmor::simulation {

/// A machine with one process.
struct TestMachine : VirtualMachine
{
    using VirtualMachine::VirtualMachine;

    void Start(std::function<void()> main) { VirtualMachine::Start(process, std::move(main)); }
    Outcome RunAll() { return Run(std::chrono::hours(24)); }

    const ProcessId process = AddProcess();
};

/// What happens with each of many seeds.
template <typename Scenario>
void WithSeeds(const Scenario& scenario)
{
    for (std::uint64_t seed = 0; seed < 50; ++seed)
    {
        SCOPED_TRACE(seed);
        // Preempted at every second call.
        TestMachine machine(seed, 2);
        scenario(machine);
        EXPECT_EQ(machine.Threads(), 0U);
    }
}

}  // namespace kx::velmor::simulation
