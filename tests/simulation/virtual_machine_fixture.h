#pragma once

#include "tests/simulation/virtual_machine.h"

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

}  // namespace kx::velmor::simulation
