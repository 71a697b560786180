// Simulated processes: paused, continued, and the simulation itself forked.

#include "tests/simulation/virtual_machine_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kx::velmor::simulation {
namespace {

using std::chrono::seconds;
using Outcome = VirtualMachine::Outcome;

TEST(VirtualMachineProcessesTest, PausedProcessDoesNothing)
{
    TestMachine machine(1);
    const ProcessId other = machine.AddProcess();
    std::vector<std::string> happened;
    const auto note = [&](const std::string& what) {
        happened.push_back(what + " at " + std::to_string(machine.Now() / seconds(1)));
    };
    machine.Start([&] {
        EXPECT_EQ(machine.CurrentProcess(), machine.process);
        std::this_thread::sleep_for(seconds(3));
        note("ours");
    });
    machine.VirtualMachine::Start(other, [&] {
        EXPECT_EQ(machine.CurrentProcess(), other);
        std::this_thread::sleep_for(seconds(3));
        note("theirs");
    });
    machine.At(machine.process, seconds(4), [&] {
        EXPECT_EQ(machine.CurrentProcess(), machine.process);
        note("our event");
    });
    const EventId cancelled = machine.At(machine.process, seconds(4), [&] { note("cancelled event"); });
    machine.At(seconds(1), [&] { machine.Pause(machine.process); });
    machine.At(seconds(5), [&] { machine.Cancel(cancelled); });
    machine.At(seconds(6), [&] {
        EXPECT_TRUE(machine.Paused(machine.process));
        machine.Continue(machine.process);
    });

    EXPECT_EQ(machine.RunAll(), Outcome::Stalled);

    EXPECT_EQ(happened.size(), 3U);
    EXPECT_EQ(happened[0], "theirs at 3");
    EXPECT_THAT(happened, ::testing::UnorderedElementsAre("theirs at 3", "ours at 6", "our event at 6"));
    EXPECT_FALSE(machine.Paused(machine.process));
    EXPECT_THROW(machine.CurrentProcess(), std::logic_error);
}

TEST(VirtualMachineProcessesTest, ProcessIsPausedInTheMiddleOfWhatItDoes)
{
    TestMachine machine(1);
    std::mutex mutex;
    int rounds = 0;
    machine.Start([&] {
        std::this_thread::sleep_for(seconds(1));
        for (; rounds < 10; ++rounds)
        {
            const std::lock_guard<std::mutex> lock(mutex);
        }
        EXPECT_EQ(machine.Now(), seconds(9));
    });
    // A lock and its release are two calls.
    machine.PauseInside(machine.process, 7);
    machine.At(seconds(2), [&] {
        EXPECT_TRUE(machine.Paused(machine.process));
        EXPECT_EQ(rounds, 3);
    });
    machine.At(seconds(9), [&] { machine.Continue(machine.process); });

    EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
    EXPECT_EQ(rounds, 10);
}

TEST(VirtualMachineProcessesTest, ForkedChildEndsInsteadOfWaiting)
{
    constexpr int kWaited = 7;
    constexpr int kPassed = 8;
    TestMachine machine(1);
    std::mutex free;
    std::mutex held;
    machine.Start([&held] {
        const std::lock_guard<std::mutex> lock(held);
        std::this_thread::sleep_for(seconds(9));
    });
    const auto fork = [&](std::mutex& mutex) {
        const pid_t child = ::fork();
        if (child == 0)
        {
            machine.ForbidWaiting(kWaited);
            const std::lock_guard<std::mutex> lock(mutex);
            _exit(kPassed);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status));
        return WEXITSTATUS(status);
    };
    machine.At(seconds(1), [&] {
        EXPECT_EQ(fork(free), kPassed);
        EXPECT_EQ(fork(held), kWaited);
    });

    EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
}

}  // namespace
}  // namespace kx::velmor::simulation
