// What a session's watches cost by how many paths it watches.

#include "source/watch_registry.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kx::velmor::benchmarks {
namespace {

using Handle = std::shared_ptr<Connection::WatchState>;

std::string Path(std::int64_t number)
{
    return "/services/" + std::to_string(number) + "/leader/c-0000000042";
}

/// A registry with as many paths as a benchmark is told, all of them held.
class Watched
{
public:
    explicit Watched(const benchmark::State& state)
    {
        for (std::int64_t number = 0; number < state.range(0); ++number)
        {
            held_.push_back(Watch(Path(number)));
        }
    }

    /// What the handle of a watch holds.
    Handle Watch(const std::string& path)
    {
        const auto watch = std::make_shared<WatchRegistry::Watch>(Connection::WatchCallback());
        Handle handle = WatchRegistry::Watch::ForHandle(watch);
        if (!registry.Add(path, watch))
        {
            throw std::length_error("no room for so many paths");
        }
        return handle;
    }

    WatchRegistry registry;

private:
    std::vector<Handle> held_;
};

/// One more watch, the event of its node, and its release.
void AddAndConsume(benchmark::State& state)
{
    Watched watched(state);
    const std::string path = Path(state.range(0));
    for (auto _ : state)
    {
        Handle watch = watched.Watch(path);
        benchmark::DoNotOptimize(watched.registry.Consume(path, watched.registry.Now()));
        watch.reset();
        benchmark::DoNotOptimize(watched.registry.TakeReleased([](const std::string& /*path*/) {}));
    }
}

/// As each operation of a session does first; mostly there is nothing to take.
void TakeNothing(benchmark::State& state)
{
    Watched watched(state);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(watched.registry.TakeReleased([](const std::string& /*path*/) {}));
    }
}

/// One more watch, whose handle goes before its node has an event.
void AddAndTakeReleased(benchmark::State& state)
{
    Watched watched(state);
    const std::string path = Path(state.range(0));
    for (auto _ : state)
    {
        watched.Watch(path).reset();
        benchmark::DoNotOptimize(watched.registry.TakeReleased([](const std::string& /*path*/) {}));
    }
}

/// As for each session event.
void Snapshot(benchmark::State& state)
{
    Watched watched(state);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(watched.registry.Snapshot(watched.registry.Now()));
    }
}

void Paths(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Arg(1)->Arg(1'000)->Arg(20'000)->ArgName("paths");
}

BENCHMARK(AddAndConsume)->Name("watch added, its event, released and taken")->Apply(Paths);
BENCHMARK(AddAndTakeReleased)->Name("watch added, let go of and taken")->Apply(Paths);
BENCHMARK(TakeNothing)->Name("look for watches let go of, none is")->Apply(Paths);
BENCHMARK(Snapshot)->Name("all watches listed")->Apply(Paths);

}  // namespace
}  // namespace kx::velmor::benchmarks
