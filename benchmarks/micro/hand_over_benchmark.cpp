// From one thread to another that sleeps: answers to whoever waits for them, events to the event thread.

#include "source/event_loop.h"
#include "source/request.h"
#include "source/thread_state.h"

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>

namespace kx::velmor::benchmarks {
namespace {

constexpr std::chrono::seconds kPatience{10};

double Seconds(Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

template <typename Condition>
void AwaitBusily(const Condition& condition)
{
    while (!condition())
    {
        std::this_thread::yield();
    }
}

/// Waits until the thread has gone to sleep. False when the system does not tell.
bool AwaitSleep(pid_t thread)
{
    const Clock::time_point deadline = Clock::now() + kPatience;
    bool asleep = false;
    AwaitBusily([&] {
        asleep = Asleep(thread);
        return asleep || Clock::now() > deadline;
    });
    return asleep;
}

/// The calls alone: nobody waits.
void FinishThenAwait(benchmark::State& state)
{
    for (auto _ : state)
    {
        const auto request = std::make_shared<Request>();
        request->Finish(ZOK);
        benchmark::DoNotOptimize(request->Await(Clock::now() + kPatience));
    }
}

/// From before `Finish` on one thread to the return of `Await` on the other.
void FinishWhileAwaited(benchmark::State& state)
{
    const pid_t awaiting = gettid();
    // Written by this thread before it sets `asked`, taken by the other one after that.
    std::shared_ptr<Request> next;
    std::atomic<bool> asked{false};
    std::atomic<bool> over{false};
    // The other way round, and the request's lock orders them.
    Clock::time_point begun;
    Clock::duration finishing{0};
    std::thread finisher([&] {
        for (;;)
        {
            AwaitBusily([&] { return asked || over; });
            if (!asked.exchange(false))
            {
                return;
            }
            const std::shared_ptr<Request> request = std::move(next);
            if (!AwaitSleep(awaiting))
            {
                continue;
            }
            begun = Clock::now();
            request->Finish(ZOK);
            finishing += Clock::now() - begun;
        }
    });
    for (auto _ : state)
    {
        const auto request = std::make_shared<Request>();
        next = request;
        asked = true;
        const int rc = request->Await(Clock::now() + kPatience);
        const Clock::time_point end = Clock::now();
        if (rc != ZOK)
        {
            state.SkipWithError("not finished in time");
            break;
        }
        state.SetIterationTime(Seconds(end - begun));
    }
    over = true;
    finisher.join();
    state.counters["Finish"] = benchmark::Counter(Seconds(finishing), benchmark::Counter::kAvgIterations);
}

class RunningLoop
{
public:
    RunningLoop()
    {
        loop_.Start([this] { loop_.Run(); });
        std::atomic<bool> known{false};
        loop_.Post([&] {
            thread_ = gettid();
            known = true;
        });
        AwaitBusily([&] { return known.load(); });
    }

    EventLoop& Loop() { return loop_; }
    pid_t Thread() const { return thread_; }

private:
    pid_t thread_ = 0;
    // Last, so that its thread ends first.
    EventLoop loop_;
};

/// From before `Post` to the beginning of the task.
void PostToASleepingLoop(benchmark::State& state)
{
    RunningLoop running;
    Clock::duration posting{0};
    for (auto _ : state)
    {
        if (!AwaitSleep(running.Thread()))
        {
            state.SkipWithError("does not go to sleep");
            break;
        }
        std::atomic<bool> ran{false};
        Clock::time_point end;
        const Clock::time_point begin = Clock::now();
        running.Loop().Post([&] {
            end = Clock::now();
            ran = true;
        });
        posting += Clock::now() - begin;
        AwaitBusily([&] { return ran.load(); });
        state.SetIterationTime(Seconds(end - begin));
    }
    state.counters["Post"] = benchmark::Counter(Seconds(posting), benchmark::Counter::kAvgIterations);
}

/// One after the other, by a thread that does not wait in between.
void PostMany(benchmark::State& state)
{
    constexpr int kTasks = 1'000;
    RunningLoop running;
    std::atomic<int> ran{0};
    for (auto _ : state)
    {
        ran = 0;
        for (int task = 0; task < kTasks; ++task)
        {
            running.Loop().Post([&] { ran.fetch_add(1, std::memory_order_relaxed); });
        }
        AwaitBusily([&] { return ran == kTasks; });
    }
    state.SetItemsProcessed(state.iterations() * kTasks);
}

BENCHMARK(FinishThenAwait)->Name("request finished, then awaited");
BENCHMARK(FinishWhileAwaited)
    ->Name("request finished to awaiting thread awake")
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(PostToASleepingLoop)
    ->Name("event posted to sleeping event thread running it")
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(PostMany)->Name("1000 events posted and run")->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace kx::velmor::benchmarks
