// What a simulated thread has for itself while others run: exceptions, variables, errno.

#include "tests/simulation/virtual_machine_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kx::velmor::simulation {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using Outcome = VirtualMachine::Outcome;

TEST(CoroutineTest, ThreadWaitsWhileItHandlesAnException)
{
    WithSeeds([](TestMachine& machine) {
        std::vector<std::string> caught;
        for (const int i : {1, 2, 3})
        {
            machine.Start([&, i] {
                try
                {
                    try
                    {
                        throw std::runtime_error(std::to_string(i));
                    }
                    catch (const std::exception&)
                    {
                        std::this_thread::sleep_for(seconds(4 - i));
                        throw;
                    }
                }
                catch (const std::exception& error)
                {
                    std::this_thread::sleep_for(seconds(i));
                    caught.emplace_back(error.what());
                    EXPECT_EQ(std::uncaught_exceptions(), 0);
                }
                EXPECT_EQ(std::current_exception(), nullptr);
            });
        }

        EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
        EXPECT_THAT(caught, ::testing::UnorderedElementsAre("1", "2", "3"));
    });
}

struct WaitsWhenDestroyed
{
    WaitsWhenDestroyed() = default;
    ~WaitsWhenDestroyed()
    {
        std::this_thread::sleep_for(seconds(1));
        EXPECT_EQ(std::uncaught_exceptions(), 1);
    }
    WaitsWhenDestroyed(const WaitsWhenDestroyed&) = delete;
    WaitsWhenDestroyed& operator=(const WaitsWhenDestroyed&) = delete;
};

TEST(CoroutineTest, ThreadWaitsWhileAnExceptionPasses)
{
    TestMachine machine(1);
    for (int i = 0; i < 3; ++i)
    {
        machine.Start([i] {
            std::this_thread::sleep_for(milliseconds(i * 400));
            EXPECT_EQ(std::uncaught_exceptions(), 0);
            try
            {
                const WaitsWhenDestroyed waits;
                throw std::runtime_error("passes");
            }
            catch (const std::exception&)
            {
                EXPECT_EQ(std::uncaught_exceptions(), 0);
            }
        });
    }

    EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
    EXPECT_EQ(machine.Now(), milliseconds(1'800));
}

thread_local int t_number = 5;

struct NotesItsEnd
{
    ~NotesItsEnd()
    {
        if (ends != nullptr)
        {
            ends->push_back(number);
        }
    }
    std::vector<int>* ends = nullptr;
    int number = 0;
};
thread_local NotesItsEnd t_notes;

TEST(CoroutineTest, ThreadsHaveTheirOwnVariables)
{
    std::vector<int> ends;
    t_number = 6;
    WithSeeds([&ends](TestMachine& machine) {
        ends.clear();
        for (const int i : {1, 2, 3})
        {
            machine.Start([&ends, i] {
                EXPECT_EQ(t_number, 5);
                t_number = i;
                t_notes.ends = &ends;
                t_notes.number = i;
                errno = i;
                std::this_thread::sleep_for(seconds(4 - i));
                EXPECT_EQ(t_number, i);
                EXPECT_EQ(errno, i);
            });
        }

        EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
        EXPECT_THAT(ends, ElementsAre(3, 2, 1));
        EXPECT_EQ(t_number, 6);
    });
}

TEST(CoroutineTest, StaticObjectIsMadeOnce)
{
    static int made = 0;
    struct MadeSlowly
    {
        MadeSlowly()
        {
            std::this_thread::sleep_for(seconds(1));
            ++made;
        }
    };
    TestMachine machine(1);
    for (int i = 0; i < 3; ++i)
    {
        machine.Start([&machine] {
            static const MadeSlowly object;
            EXPECT_EQ(made, 1);
            EXPECT_EQ(machine.Now(), seconds(1));
        });
    }

    EXPECT_EQ(machine.RunAll(), Outcome::Stalled);
    EXPECT_EQ(made, 1);
}

}  // namespace
}  // namespace kx::velmor::simulation
