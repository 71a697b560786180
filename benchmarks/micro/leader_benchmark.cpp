// What it costs to ask whether one leads.

#include "benchmarks/micro/listing_connection.h"
#include "benchmarks/micro/real_clock_session.h"
#include "source/candidate_impl.h"

#include <kx/velmor/candidate.h>
#include <kx/velmor/testing/memory_service.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <memory>

namespace kx::velmor::benchmarks {
namespace {

/// What there is to ask that lasts as long as the benchmarks do.
constexpr std::chrono::hours kSessionTimeout{24};
constexpr std::chrono::minutes kPatience{1};

void PlainAtomic(benchmark::State& state)
{
    std::atomic<bool> flag{true};
    benchmark::DoNotOptimize(&flag);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(flag.load());
        benchmark::ClobberMemory();
    }
}

void Recipe(benchmark::State& state)
{
    const auto connection = std::make_shared<ListingConnection>(0);
    const auto candidate = std::make_shared<CandidateImpl>(
        connection, ListingConnection::ElectionPath(), [] {}, [] {});
    candidate->Start();
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(candidate->IsLeader());
        benchmark::ClobberMemory();
    }
}

std::shared_ptr<ElectionSession> OpenSession(testing::MemoryService& service)
{
    testing::MemorySessionOptions options;
    options.sessionTimeout = kSessionTimeout;
    return std::make_shared<RealClockSession>(service.Open(options));
}

CandidateOptions Options()
{
    CandidateOptions options;
    options.electionPath = ListingConnection::ElectionPath();
    return options;
}

void AskACandidate(benchmark::State& state, Role role)
{
    testing::MemoryService service;
    Candidate leader(OpenSession(service), Options());
    Candidate next(OpenSession(service), Options());
    leader.Start();
    const bool leads = leader.WaitForRole(Role::Leader, kPatience);
    next.Start();
    if (!leads || !next.WaitForRole(Role::NextLeader, kPatience))
    {
        state.SkipWithError("nobody leads");
        return;
    }
    const Candidate& asked = role == Role::Leader ? leader : next;
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(asked.IsLeader());
        benchmark::ClobberMemory();
    }
    if (asked.IsLeader() != (role == Role::Leader))
    {
        state.SkipWithError("the role has changed");
    }
}

/// The lease is reckoned by it.
void Clock(benchmark::State& state)
{
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(BootClock::now());
    }
}

BENCHMARK(PlainAtomic)->Name("load of a std::atomic<bool>");
BENCHMARK(Recipe)->Name("CandidateImpl::IsLeader");
BENCHMARK(Clock)->Name("BootClock::now");
BENCHMARK_CAPTURE(AskACandidate, leader, Role::Leader)->Name("Candidate::IsLeader of the leader");
BENCHMARK_CAPTURE(AskACandidate, next, Role::NextLeader)->Name("Candidate::IsLeader of the next leader");

}  // namespace
}  // namespace kx::velmor::benchmarks
