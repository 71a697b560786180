// What simulated threads do with each other.

#include "tests/simulation/virtual_machine_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kx::velmor::simulation {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using ::testing::ElementsAre;
using Outcome = VirtualMachine::Outcome;

TEST(VirtualMachineThreadsTest, MutexLetsOneInAtATime)
{
    WithSeeds([](TestMachine& machine) {
        std::mutex mutex;
        int inside = 0;
        int total = 0;
        for (int i = 0; i < 4; ++i)
        {
            machine.Start([&] {
                for (int round = 0; round < 10; ++round)
                {
                    const std::lock_guard<std::mutex> lock(mutex);
                    EXPECT_EQ(++inside, 1);
                    std::this_thread::sleep_for(milliseconds(1));
                    --inside;
                    ++total;
                }
            });
        }

        EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
        EXPECT_EQ(total, 40);
        EXPECT_EQ(machine.Now(), milliseconds(40));
    });
}

TEST(VirtualMachineThreadsTest, MutexLockedOutsideKeepsThreadsOut)
{
    std::mutex mutex;
    mutex.lock();
    TestMachine machine(1);
    Time locked{};
    machine.Start([&] {
        EXPECT_FALSE(mutex.try_lock());
        const std::lock_guard<std::mutex> lock(mutex);
        locked = machine.Now();
    });
    machine.At(seconds(2), [&mutex] { mutex.unlock(); });

    machine.RunAll();

    EXPECT_EQ(locked, seconds(2));
    EXPECT_TRUE(mutex.try_lock());
    mutex.unlock();
}

TEST(VirtualMachineThreadsTest, TimedLockGivesUpAtItsDeadline)
{
    TestMachine machine(1);
    std::timed_mutex mutex;
    machine.Start([&mutex] {
        const std::lock_guard<std::timed_mutex> lock(mutex);
        std::this_thread::sleep_for(seconds(5));
    });
    machine.Start([&] {
        std::this_thread::sleep_for(seconds(1));
        EXPECT_FALSE(mutex.try_lock_for(seconds(2)));
        EXPECT_EQ(machine.Now(), seconds(3));
        EXPECT_FALSE(mutex.try_lock_until(std::chrono::system_clock::now() + seconds(1)));
        EXPECT_EQ(machine.Now(), seconds(4));
        EXPECT_TRUE(mutex.try_lock_for(seconds(2)));
        EXPECT_EQ(machine.Now(), seconds(5));
        mutex.unlock();
    });

    EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
    EXPECT_EQ(machine.Now(), seconds(5));
}

TEST(VirtualMachineThreadsTest, ConditionTimesOutAtItsDeadline)
{
    TestMachine machine(1);
    machine.Start([&machine] {
        std::mutex mutex;
        std::condition_variable changed;
        std::unique_lock<std::mutex> lock(mutex);
        EXPECT_EQ(changed.wait_until(lock, steady_clock::now() + seconds(4)), std::cv_status::timeout);
        EXPECT_EQ(machine.Now(), seconds(4));
        EXPECT_EQ(changed.wait_until(lock, std::chrono::system_clock::now() + seconds(4)), std::cv_status::timeout);
        EXPECT_EQ(machine.Now(), seconds(8));
        EXPECT_EQ(changed.wait_until(lock, steady_clock::now() - seconds(1)), std::cv_status::timeout);
        EXPECT_EQ(machine.Now(), seconds(8));
    });

    EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
}

TEST(VirtualMachineThreadsTest, ConditionIsNotifiedBeforeItsDeadline)
{
    WithSeeds([](TestMachine& machine) {
        std::mutex mutex;
        std::condition_variable changed;
        machine.Start([&] {
            std::unique_lock<std::mutex> lock(mutex);
            EXPECT_EQ(changed.wait_until(lock, steady_clock::now() + seconds(4)), std::cv_status::no_timeout);
            EXPECT_EQ(machine.Now(), seconds(1));
            // The first deadline wakes nobody any more.
            EXPECT_EQ(changed.wait_until(lock, steady_clock::now() + seconds(4)), std::cv_status::timeout);
            EXPECT_EQ(machine.Now(), seconds(5));
        });
        machine.Start([&] {
            std::this_thread::sleep_for(seconds(1));
            const std::lock_guard<std::mutex> lock(mutex);
            changed.notify_all();
        });

        EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
    });
}

TEST(VirtualMachineThreadsTest, NotifyOneWakesOneThatTheSeedChooses)
{
    std::set<int> chosen;
    WithSeeds([&chosen](TestMachine& machine) {
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<int> woken;
        for (int i = 0; i < 3; ++i)
        {
            machine.Start([&, i] {
                std::unique_lock<std::mutex> lock(mutex);
                changed.wait(lock);
                woken.push_back(i);
            });
        }
        machine.At(seconds(1), [&changed] { changed.notify_one(); });
        machine.At(seconds(2), [&] {
            ASSERT_EQ(woken.size(), 1U);
            chosen.insert(woken[0]);
            changed.notify_all();
        });

        EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
        EXPECT_EQ(woken.size(), 3U);
    });
    EXPECT_THAT(chosen, ElementsAre(0, 1, 2));
}

TEST(VirtualMachineThreadsTest, ReadersShareALockAndAWriterHasItAlone)
{
    WithSeeds([](TestMachine& machine) {
        std::shared_mutex mutex;
        int readers = 0;
        int mostReaders = 0;
        bool writing = false;
        for (int i = 0; i < 3; ++i)
        {
            machine.Start([&] {
                const std::shared_lock<std::shared_mutex> lock(mutex);
                mostReaders = std::max(mostReaders, ++readers);
                EXPECT_FALSE(writing);
                std::this_thread::sleep_for(seconds(1));
                --readers;
            });
        }
        machine.Start([&] {
            std::this_thread::sleep_for(milliseconds(500));
            EXPECT_FALSE(mutex.try_lock());
            const std::lock_guard<std::shared_mutex> lock(mutex);
            EXPECT_EQ(readers, 0);
            writing = true;
            std::this_thread::sleep_for(seconds(1));
            writing = false;
        });
        machine.Start([&] {
            std::this_thread::sleep_for(milliseconds(1'500));
            EXPECT_FALSE(mutex.try_lock_shared());
            const std::shared_lock<std::shared_mutex> lock(mutex);
            EXPECT_EQ(machine.Now(), seconds(2));
            EXPECT_FALSE(writing);
        });

        EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
        EXPECT_EQ(mostReaders, 3);
    });
}

TEST(VirtualMachineThreadsTest, JoinWaitsForTheEnd)
{
    WithSeeds([](TestMachine& machine) {
        machine.Start([&machine] {
            std::thread::id its;
            std::thread thread([&] {
                its = std::this_thread::get_id();
                std::this_thread::sleep_for(seconds(3));
            });
            const std::thread::id id = thread.get_id();
            thread.join();
            EXPECT_EQ(machine.Now(), seconds(3));
            EXPECT_EQ(id, its);
            EXPECT_NE(id, std::this_thread::get_id());

            std::thread ended([] {});
            std::this_thread::sleep_for(seconds(1));
            ended.join();
            EXPECT_EQ(machine.Now(), seconds(4));
        });

        EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
    });
}

TEST(VirtualMachineThreadsTest, DetachedThreadRunsOn)
{
    WithSeeds([](TestMachine& machine) {
        bool ended = false;
        machine.Start([&ended] {
            std::thread([&ended] {
                std::this_thread::sleep_for(seconds(3));
                ended = true;
            }).detach();
            std::thread early([] {});
            std::this_thread::sleep_for(seconds(1));
            const pthread_t handle = early.native_handle();
            early.detach();
            // Nothing is left of it.
            EXPECT_EQ(pthread_detach(handle), ESRCH);
        });

        EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
        EXPECT_TRUE(ended);
        EXPECT_EQ(machine.Now(), seconds(3));
    });
}

TEST(VirtualMachineThreadsTest, ThreadsHaveNumbersThatTellWhetherTheyWait)
{
    TestMachine machine(1);
    pid_t sleeper = 0;
    pid_t runner = 0;
    machine.Start([&sleeper] {
        sleeper = gettid();
        std::this_thread::sleep_for(seconds(3));
    });
    machine.Start([&] {
        std::this_thread::sleep_for(seconds(1));
        runner = gettid();
        EXPECT_TRUE(machine.Asleep(sleeper));
        EXPECT_FALSE(machine.Asleep(runner));
    });

    machine.RunAll();

    EXPECT_NE(sleeper, runner);
    EXPECT_FALSE(machine.Asleep(sleeper));
}

TEST(VirtualMachineThreadsTest, ManyThreadsRunAtOnce)
{
    TestMachine machine(1);
    int ended = 0;
    machine.Start([&ended] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 200; ++i)
        {
            threads.emplace_back([&ended, i] {
                std::this_thread::sleep_for(milliseconds(i % 7));
                ++ended;
            });
        }
        for (std::thread& thread : threads)
        {
            thread.join();
        }
    });

    EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
    EXPECT_EQ(ended, 200);
    EXPECT_EQ(machine.Now(), milliseconds(6));
}

TEST(VirtualMachineThreadsDeathTest, ExceptionThatLeavesAThreadTerminates)
{
    EXPECT_DEATH(
        {
            TestMachine machine(1);
            machine.Start([] { throw std::runtime_error("not caught"); });
            machine.RunAll();
        },
        "not caught");
}

TEST(VirtualMachineThreadsDeathTest, RecursiveMutexIsRefused)
{
    EXPECT_DEATH(
        {
            TestMachine machine(1);
            std::recursive_mutex mutex;
            machine.Start([&mutex] { mutex.lock(); });
            machine.RunAll();
        },
        "recursive");
}

}  // namespace
}  // namespace kx::velmor::simulation
