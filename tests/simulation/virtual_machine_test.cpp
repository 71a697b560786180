// Time, events, and what is the same with the same seed.

#include "tests/simulation/virtual_machine.h"

#include "tests/simulation/virtual_machine_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kx::velmor::simulation {
namespace {

using std::chrono::hours;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using ::testing::ElementsAre;
using ::testing::SizeIs;
using Outcome = VirtualMachine::Outcome;

struct Steps
{
    std::string order{};
    std::uint64_t fingerprint = 0;
};

/// Three threads that take turns with a mutex, as the seed has it.
Steps TakeTurns(std::uint64_t seed, unsigned preemption = 8)
{
    Steps steps;
    TestMachine machine(seed, preemption);
    std::mutex mutex;
    for (const char name : {'a', 'b', 'c'})
    {
        machine.Start([&steps, &mutex, name] {
            for (int i = 0; i < 50; ++i)
            {
                const std::lock_guard<std::mutex> lock(mutex);
                steps.order += name;
            }
        });
    }
    EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
    steps.fingerprint = machine.Fingerprint();
    return steps;
}

TEST(VirtualMachineTest, OneSeedAlwaysTakesTheSameSteps)
{
    for (std::uint64_t seed = 0; seed < 20; ++seed)
    {
        const Steps one = TakeTurns(seed);
        const Steps other = TakeTurns(seed);
        EXPECT_EQ(one.order, other.order);
        EXPECT_EQ(one.fingerprint, other.fingerprint);
    }
}

TEST(VirtualMachineTest, AnotherSeedTakesOtherSteps)
{
    std::set<std::string> orders;
    std::set<std::uint64_t> fingerprints;
    for (std::uint64_t seed = 0; seed < 20; ++seed)
    {
        const Steps steps = TakeTurns(seed);
        orders.insert(steps.order);
        fingerprints.insert(steps.fingerprint);
    }
    EXPECT_GT(orders.size(), 15U);
    EXPECT_THAT(fingerprints, SizeIs(20));
}

TEST(VirtualMachineTest, ThreadsArePreemptedAsOftenAsAsked)
{
    const auto changes = [](unsigned preemption) {
        std::size_t count = 0;
        for (std::uint64_t seed = 0; seed < 20; ++seed)
        {
            const std::string order = TakeTurns(seed, preemption).order;
            for (std::size_t i = 1; i < order.size(); ++i)
            {
                count += order[i] != order[i - 1] ? 1U : 0U;
            }
        }
        return count;
    };

    EXPECT_EQ(changes(0), 20U * 2);
    EXPECT_GT(changes(64), 20U * 2 + 20);
    EXPECT_GT(changes(8), 2 * changes(64));
}

TEST(VirtualMachineTest, FingerprintTellsTimesApart)
{
    const auto sleep = [](Time time) {
        TestMachine machine(1);
        machine.Start([time] { std::this_thread::sleep_for(time); });
        machine.RunAll();
        return machine.Fingerprint();
    };

    EXPECT_EQ(sleep(seconds(1)), sleep(seconds(1)));
    EXPECT_NE(sleep(seconds(1)), sleep(seconds(2)));
}

TEST(VirtualMachineTest, SleepingTakesNoRealTime)
{
    const auto before = steady_clock::now();
    steady_clock::duration slept{};
    {
        TestMachine machine(1);
        machine.Start([&slept] {
            const auto start = steady_clock::now();
            std::this_thread::sleep_for(hours(1));
            slept = steady_clock::now() - start;
        });

        EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
        EXPECT_EQ(machine.Now(), hours(1));
    }

    EXPECT_EQ(slept, hours(1));
    EXPECT_LT(steady_clock::now() - before, hours(1));
}

TEST(VirtualMachineTest, AllClocksShowItsTime)
{
    TestMachine machine(1);
    machine.Start([] {
        const auto day = std::chrono::system_clock::now();
        std::this_thread::sleep_until(steady_clock::now() + milliseconds(1'500));
        EXPECT_EQ(steady_clock::now().time_since_epoch(), milliseconds(1'500));
        EXPECT_EQ(std::chrono::system_clock::now() - day, milliseconds(1'500));
        timespec time{};
        clock_gettime(CLOCK_BOOTTIME, &time);
        EXPECT_EQ(time.tv_sec, 1);
        EXPECT_EQ(time.tv_nsec, 500'000'000);
        std::this_thread::sleep_until(day + seconds(2));
        EXPECT_EQ(steady_clock::now().time_since_epoch(), seconds(2));
        usleep(7);
        EXPECT_EQ(steady_clock::now().time_since_epoch(), seconds(2) + microseconds(7));
    });

    machine.RunAll();

    EXPECT_EQ(machine.Now(), seconds(2) + microseconds(7));
}

TEST(VirtualMachineTest, WaitingForTheClockWithoutSleepingEnds)
{
    TestMachine machine(1);
    machine.Start([] {
        const auto end = steady_clock::now() + microseconds(50);
        while (steady_clock::now() < end)
        {}
    });
    machine.Start([&machine] {
        while (machine.Now() < microseconds(100))
        {
            std::this_thread::yield();
        }
    });

    EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
    EXPECT_EQ(machine.Now(), microseconds(100));
}

TEST(VirtualMachineTest, OtherThreadsOfTheSystemHaveRealTime)
{
    std::atomic<bool> exists{false};
    std::atomic<bool> measured{false};
    steady_clock::time_point there{};
    std::thread real([&] {
        while (!exists)
        {
            std::this_thread::sleep_for(milliseconds(1));
        }
        there = steady_clock::now();
        EXPECT_EQ(VirtualMachine::Current(), nullptr);
        measured = true;
    });
    const auto before = steady_clock::now();
    {
        const TestMachine machine(1);
        exists = true;
        EXPECT_EQ(VirtualMachine::Current(), &machine);
        EXPECT_EQ(steady_clock::now().time_since_epoch(), seconds(0));
        while (!measured)
        {
            // Not one of the replaced functions, which would not let others run.
            syscall(SYS_sched_yield);
        }
    }
    real.join();

    EXPECT_EQ(VirtualMachine::Current(), nullptr);
    EXPECT_GE(there, before);
    EXPECT_GE(steady_clock::now(), there);
}

TEST(VirtualMachineTest, RandomDeviceFollowsTheSeed)
{
    const auto draw = [](std::uint64_t seed) {
        std::vector<unsigned int> drawn;
        TestMachine machine(seed);
        machine.Start([&drawn] {
            std::random_device device;
            drawn = {device(), device(), std::random_device()()};
        });
        machine.RunAll();
        return drawn;
    };

    EXPECT_EQ(draw(1), draw(1));
    EXPECT_NE(draw(1), draw(2));
    EXPECT_NE(draw(1)[0], draw(1)[1]);
    // The real one: equal once in 2^64.
    const std::vector<unsigned int> real{std::random_device()(), std::random_device()()};
    EXPECT_NE(real, std::vector<unsigned int>({std::random_device()(), std::random_device()()}));
}

TEST(VirtualMachineTest, EventsHappenInTheOrderOfTheirTimes)
{
    TestMachine machine(1);
    std::vector<std::string> happened;
    machine.At(seconds(2), [&] { happened.push_back("second at " + std::to_string(machine.Now() / seconds(1))); });
    machine.At(seconds(1), [&] {
        happened.push_back("first at " + std::to_string(machine.Now() / seconds(1)));
        machine.At(seconds(0), [&] { happened.push_back("late at " + std::to_string(machine.Now() / seconds(1))); });
    });
    machine.At(seconds(2), [&] { happened.emplace_back("third"); });
    const EventId cancelled = machine.At(seconds(1), [&] { happened.emplace_back("cancelled"); });
    machine.Cancel(cancelled);
    machine.Cancel(cancelled);

    EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
    EXPECT_THAT(happened, ElementsAre("first at 1", "late at 1", "second at 2", "third"));
}

TEST(VirtualMachineTest, EventWakesAThread)
{
    TestMachine machine(1);
    std::mutex mutex;
    std::condition_variable changed;
    bool set = false;
    Time woken{};
    machine.Start([&] {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&set] { return set; });
        woken = machine.Now();
    });
    machine.At(seconds(3), [&] {
        const std::lock_guard<std::mutex> lock(mutex);
        set = true;
        changed.notify_one();
    });

    machine.RunAll();

    EXPECT_EQ(woken, seconds(3));
}

TEST(VirtualMachineTest, RunEndsWhenAskedTo)
{
    TestMachine machine(1);
    int rounds = 0;
    machine.Start([&rounds] {
        for (; rounds < 10; ++rounds)
        {
            std::this_thread::sleep_for(seconds(1));
        }
    });

    EXPECT_EQ(machine.Run(milliseconds(2'500)), Outcome::EndReached);
    EXPECT_EQ(machine.Now(), milliseconds(2'500));
    EXPECT_EQ(rounds, 2);
    EXPECT_EQ(machine.Run(seconds(100), [&rounds] { return rounds == 5; }), Outcome::Done);
    EXPECT_EQ(machine.Now(), seconds(5));
    EXPECT_EQ(machine.Threads(), 1U);
    EXPECT_EQ(machine.Run(seconds(100)), Outcome::Stalled);
    EXPECT_EQ(machine.Now(), seconds(10));
    EXPECT_EQ(machine.Threads(), 0U);
}

TEST(VirtualMachineTest, StallsWhenAllThreadsWaitForEachOther)
{
    TestMachine machine(1);
    std::mutex mutex;
    std::condition_variable changed;
    bool set = false;
    machine.Start([&] {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&set] { return set; });
    });

    EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
    EXPECT_EQ(machine.Now(), seconds(0));
    EXPECT_EQ(machine.Threads(), 1U);

    set = true;
    changed.notify_all();
    EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
    EXPECT_EQ(machine.Threads(), 0U);
}

TEST(VirtualMachineTest, ObserverSeesEachTimeItAsksFor)
{
    TestMachine machine(1);
    std::vector<std::int64_t> seen;
    machine.Start([] {
        std::this_thread::sleep_for(milliseconds(30));
        std::this_thread::sleep_for(milliseconds(30));
    });
    machine.At(milliseconds(45), [] {});
    machine.Observe([&] {
        const std::int64_t now = machine.Now() / milliseconds(1);
        if (seen.empty() || seen.back() != now)
        {
            seen.push_back(now);
        }
        return now < 20 ? milliseconds(now + 10) : now < 60 ? milliseconds(50) : Time::max();
    });

    machine.RunAll();

    EXPECT_THAT(seen, ElementsAre(0, 10, 20, 30, 45, 50, 60));
}

TEST(VirtualMachineTest, ObserverIsCalledAfterEachStep)
{
    TestMachine machine(1);
    int done = 0;
    std::vector<int> seen;
    for (int i = 0; i < 3; ++i)
    {
        machine.Start([&done] { ++done; });
    }
    machine.Observe([&] {
        seen.push_back(done);
        return Time::max();
    });

    machine.RunAll();

    EXPECT_THAT(seen, ElementsAre(0, 1, 2, 3));
}

TEST(VirtualMachineDeathTest, EventsDoNotWait)
{
    EXPECT_DEATH(
        {
            TestMachine machine(1);
            machine.At(seconds(1), [] { std::this_thread::sleep_for(seconds(1)); });
            machine.RunAll();
        },
        "waits");
}

TEST(VirtualMachineDeathTest, MachineIsNotDestroyedBeforeItsThreadsEnd)
{
    EXPECT_DEATH(
        {
            TestMachine machine(1);
            machine.Start([] {});
        },
        "threads");
}

}  // namespace
}  // namespace kx::velmor::simulation
