// A candidate's check after an event, and its joining, by how many take part. Beside them what they cannot do without.

#include "benchmarks/micro/listing_connection.h"
#include "benchmarks/micro/log_entry_point.h"
#include "source/candidate_impl.h"

#include <kx/logging/logger.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace kx::velmor::benchmarks {
namespace {

std::size_t Candidates(const benchmark::State& state)
{
    return static_cast<std::size_t>(state.range(0));
}

std::shared_ptr<CandidateImpl> MakeCandidate(const std::shared_ptr<ListingConnection>& connection)
{
    return std::make_shared<CandidateImpl>(
        connection, ListingConnection::ElectionPath(), [] {}, [] {});
}

void Check(benchmark::State& state)
{
    const auto connection = std::make_shared<ListingConnection>(Candidates(state) - 1);
    const auto candidate = MakeCandidate(connection);
    candidate->Start();
    for (auto _ : state)
    {
        connection->TellReconnection();
    }
    connection->DropWatches();
}

/// At the threshold that is in force unless somebody changes it, at which a check says whom it has found.
void CheckThatLogs(benchmark::State& state)
{
    const StatementsGoNowhere nowhere;
    const auto before = logging::g_minLogLevel.exchange(static_cast<std::int32_t>(logging::LogLevel::Info));
    Check(state);
    logging::g_minLogLevel = before;
}

void CopyOfTheListing(benchmark::State& state)
{
    const std::vector<std::string> listing = ShuffledNames(Candidates(state));
    for (auto _ : state)
    {
        std::vector<std::string> children = listing;
        benchmark::DoNotOptimize(children.data());
    }
}

/// Includes the copy, since sorted names cannot be sorted again.
void CopyAndSortOfTheListing(benchmark::State& state)
{
    const std::vector<std::string> listing = ShuffledNames(Candidates(state));
    for (auto _ : state)
    {
        std::vector<std::string> children = listing;
        std::sort(children.begin(), children.end());
        benchmark::DoNotOptimize(children.data());
    }
}

void Join(benchmark::State& state, const std::shared_ptr<ListingConnection>& connection)
{
    const auto candidate = MakeCandidate(connection);
    candidate->Start();
    state.PauseTiming();
    candidate->Stop();
    connection->DropWatches();
    state.ResumeTiming();
}

/// Looks at all nodes for one that its session owns, finds none, makes one, and checks. Beside it the share of the
/// look.
void JoinWithANewNode(benchmark::State& state)
{
    const auto connection = std::make_shared<ListingConnection>(Candidates(state) - 1);
    for (auto _ : state)
    {
        Join(state, connection);
    }
    const std::chrono::duration<double> looking = connection->BeforeCreation();
    state.counters["FindOurNode"] = benchmark::Counter(looking.count(), benchmark::Counter::kAvgIterations);
}

/// The same number of calls without a candidate.
void LookAtAllNodes(benchmark::State& state)
{
    const ListingConnection connection(Candidates(state) - 1);
    std::vector<std::string> paths;
    for (const std::string& name : ShuffledNames(Candidates(state) - 1))
    {
        paths.push_back(ListingConnection::ElectionPath() + "/" + name);
    }
    for (auto _ : state)
    {
        for (const std::string& path : paths)
        {
            Stat stat{};
            connection.Exists(path, &stat);
            benchmark::DoNotOptimize(stat);
        }
    }
}

void Sizes(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Arg(10)->Arg(1'000)->Arg(100'000)->ArgName("candidates")->Unit(benchmark::kMicrosecond);
}

BENCHMARK(Check)->Name("check")->Apply(Sizes);
BENCHMARK(CheckThatLogs)->Name("check, listing logged")->Apply(Sizes);
BENCHMARK(CopyOfTheListing)->Name("copy of the listing alone")->Apply(Sizes);
BENCHMARK(CopyAndSortOfTheListing)->Name("copy and sort of the listing alone")->Apply(Sizes);
BENCHMARK(JoinWithANewNode)->Name("join")->Apply(Sizes);
BENCHMARK(LookAtAllNodes)->Name("look at all nodes alone")->Apply(Sizes);

}  // namespace
}  // namespace kx::velmor::benchmarks
