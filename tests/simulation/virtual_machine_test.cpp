#include "tests/simulation/virtual_machine.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace kx::velmor::simulation {
namespace {

using std::chrono::seconds;

TEST(VirtualMachineTest, SleepingTakesNoRealTime)
{
    const auto before = std::chrono::steady_clock::now();
    std::chrono::steady_clock::duration slept{};
    {
        VirtualMachine machine(1);
        machine.Start(machine.AddProcess(), [&slept] {
            const auto start = std::chrono::steady_clock::now();
            std::this_thread::sleep_for(seconds(3'600));
            slept = std::chrono::steady_clock::now() - start;
        });

        EXPECT_EQ(machine.Run(seconds(7'200)), VirtualMachine::Outcome::Stalled);
        EXPECT_EQ(machine.Now(), seconds(3'600));
    }

    EXPECT_EQ(slept, seconds(3'600));
    EXPECT_LT(std::chrono::steady_clock::now() - before, seconds(3'600));
}

}  // namespace
}  // namespace kx::velmor::simulation
