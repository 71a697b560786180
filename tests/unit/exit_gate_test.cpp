#include "source/exit_gate.h"

#include "tests/support/forked_child.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <thread>

namespace kx::velmor {
namespace {

constexpr int kAsItShould = 0;
constexpr int kWrong = 1;
/// The process came to its end without having been judged.
constexpr int kUnjudged = 2;

/// Judges the process when static objects go.
class Judge
{
public:
    explicit Judge(bool (*asItShould)()) : asItShould_(asItShould) {}
    ~Judge() { std::_Exit(asItShould_() ? kAsItShould : kWrong); }
    Judge(const Judge&) = delete;
    Judge& operator=(const Judge&) = delete;

private:
    bool (*const asItShould_)();
};

std::atomic<bool> g_left{false};

bool IsClosed()
{
    return !ExitGate::Pass();
}

void ExitWithTheGateGuarded()
{
    static const Judge judge(&IsClosed);
    ExitGate::Guard();
    ExitGate::Guard();
    std::exit(kUnjudged);
}

void ExitWhileSomebodyIsInside()
{
    static const Judge judge([] { return g_left.load(); });
    ExitGate::Guard();
    std::promise<void> entered;
    std::thread([&entered] {
        const ExitGate::Pass pass;
        entered.set_value();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        g_left = true;
    }).detach();
    entered.get_future().wait();
    std::exit(kUnjudged);
}

void ExitFromInside()
{
    static const Judge judge(&IsClosed);
    ExitGate::Guard();
    std::thread([] {
        const ExitGate::Pass pass;
        std::exit(kUnjudged);
    }).join();
}

void ExitWhileSomebodyStaysInside()
{
    static const Judge judge(&IsClosed);
    ExitGate::Guard();
    std::promise<void> entered;
    std::thread([&entered] {
        const ExitGate::Pass pass;
        entered.set_value();
        std::promise<void>().get_future().wait();
    }).detach();
    entered.get_future().wait();
    std::exit(kUnjudged);
}

/// How long a forked child takes to exit while a thread of its parent is inside the gate.
std::chrono::steady_clock::duration TimeAChild()
{
    const auto begin = std::chrono::steady_clock::now();
    const pid_t child = ::fork();
    if (child == 0)
    {
        std::exit(kUnjudged);
    }
    return testing_support::AwaitEndOf(child) == kAsItShould ? std::chrono::steady_clock::now() - begin
                                                             : std::chrono::steady_clock::duration::max();
}

void ForkWhileSomebodyStaysInside()
{
    static const Judge judge(&IsClosed);
    ExitGate::Guard();
    std::promise<void> entered;
    std::thread([&entered] {
        const ExitGate::Pass pass;
        entered.set_value();
        std::promise<void>().get_future().wait();
    }).detach();
    entered.get_future().wait();
    // A process that waits for those who stay takes a second. A busy machine may be as slow, but not each time.
    for (int attempt = 0; attempt < 20; ++attempt)
    {
        if (TimeAChild() < std::chrono::milliseconds(700))
        {
            std::_Exit(kAsItShould);
        }
    }
    std::_Exit(kWrong);
}

void ForkInside()
{
    ExitGate::Guard();
    pid_t child = 0;
    {
        const ExitGate::Pass pass;
        child = ::fork();
    }
    if (child == 0)
    {
        std::_Exit(kUnjudged);
    }
    std::_Exit(testing_support::AwaitEndOf(child) == EXIT_FAILURE ? kAsItShould : kWrong);
}

class ExitGateTest : public ::testing::Test
{
protected:
    ExitGateTest() { ::testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};

TEST_F(ExitGateTest, IsOpenUntilTheProcessExits)
{
    ExitGate::Guard();
    EXPECT_TRUE(ExitGate::Pass());
    EXPECT_TRUE(ExitGate::Pass());
}

TEST_F(ExitGateTest, IsClosedWhenOlderObjectsGo)
{
    EXPECT_EXIT(ExitWithTheGateGuarded(), ::testing::ExitedWithCode(kAsItShould), "");
}

TEST_F(ExitGateTest, WaitsForThoseWhoAreInside)
{
    EXPECT_EXIT(ExitWhileSomebodyIsInside(), ::testing::ExitedWithCode(kAsItShould), "");
}

TEST_F(ExitGateTest, DoesNotWaitForTheThreadThatEndsTheProcess)
{
    EXPECT_EXIT(ExitFromInside(), ::testing::ExitedWithCode(kAsItShould), "");
}

TEST_F(ExitGateTest, DoesNotWaitForEverForThoseWhoStay)
{
    EXPECT_EXIT(ExitWhileSomebodyStaysInside(), ::testing::ExitedWithCode(kAsItShould), "");
}

TEST_F(ExitGateTest, OfAForkedChildWaitsForNobodyInItsParent)
{
    EXPECT_EXIT(ForkWhileSomebodyStaysInside(), ::testing::ExitedWithCode(kAsItShould), "");
}

TEST_F(ExitGateTest, EndsAChildThatWasForkedInside)
{
    EXPECT_EXIT(ForkInside(), ::testing::ExitedWithCode(kAsItShould), "");
}

}  // namespace
}  // namespace kx::velmor
