#include "source/thread_state.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <thread>

namespace kx::velmor {
namespace {

pid_t ThisThread()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

TEST(ThreadStateTest, ThreadThatLooksAtItselfRuns)
{
    EXPECT_FALSE(Asleep(ThisThread()));
}

TEST(ThreadStateTest, ThreadThatWaitsIsAsleepWhateverItsName)
{
    std::promise<pid_t> started;
    std::promise<void> enough;
    std::thread waiting([&] {
        pthread_setname_np(pthread_self(), "a) R (b");
        started.set_value(ThisThread());
        enough.get_future().wait();
    });
    const pid_t thread = started.get_future().get();
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!Asleep(thread) && std::chrono::steady_clock::now() < giveUp)
    {
        std::this_thread::yield();
    }
    EXPECT_TRUE(Asleep(thread));
    enough.set_value();
    waiting.join();
}

TEST(ThreadStateTest, ThreadThatIsNoneIsNotAsleep)
{
    EXPECT_FALSE(Asleep(0));
    EXPECT_FALSE(Asleep(-1));
}

}  // namespace
}  // namespace kx::velmor
