// What a log statement costs, from not being written to its line in standard error.

#include "benchmarks/micro/log_entry_point.h"

#include <kx/logging/default_library.h>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <system_error>

namespace kx::velmor::benchmarks {
namespace {

using logging::LogLevel;

const std::shared_ptr<const logging::Source> g_log = std::make_shared<const logging::Source>("velmor.candidate");

/// One that the recipe has.
void Watching(LogLevel level, const std::string& path)
{
    KX_LOG(level, g_log) << "Watching predecessor " << path;
}

const std::string g_path = "/services/billing/leader/c-0000000042";

/// What the loop around everything else costs.
void Nothing(benchmark::State& state)
{
    for (auto _ : state)
    {
        benchmark::ClobberMemory();
    }
}

void BelowTheThreshold(benchmark::State& state)
{
    for (auto _ : state)
    {
        Watching(LogLevel::Info, g_path);
        benchmark::ClobberMemory();
    }
}

void ToNowhere(benchmark::State& state)
{
    const StatementsGoNowhere nowhere;
    for (auto _ : state)
    {
        Watching(LogLevel::Warning, g_path);
    }
}

void ToAHandler(benchmark::State& state)
{
    logging::RemoveHandler(logging::kStderrHandler);
    std::size_t bytes = 0;
    const logging::HandlerId handler =
        logging::AddHandler([&](const logging::Record& record) { bytes += record.text.size(); });
    for (auto _ : state)
    {
        Watching(LogLevel::Warning, g_path);
    }
    logging::RemoveHandler(handler);
    logging::AddStderrHandler();
    benchmark::DoNotOptimize(bytes);
}

/// While it lives, standard error is /dev/null.
class StderrIsNull
{
public:
    StderrIsNull() : before_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0))
    {
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (before_ < 0 || null < 0 || dup2(null, STDERR_FILENO) < 0)
        {
            throw std::system_error(errno, std::generic_category(), "/dev/null");
        }
        close(null);
    }
    ~StderrIsNull()
    {
        dup2(before_, STDERR_FILENO);
        close(before_);
    }
    StderrIsNull(const StderrIsNull&) = delete;
    StderrIsNull& operator=(const StderrIsNull&) = delete;

private:
    const int before_;
};

void ToStandardError(benchmark::State& state)
{
    const StderrIsNull null;
    for (auto _ : state)
    {
        Watching(LogLevel::Warning, g_path);
    }
}

BENCHMARK(Nothing)->Name("an empty loop");
BENCHMARK(BelowTheThreshold)->Name("log statement below the threshold");
BENCHMARK(ToNowhere)->Name("log statement to an entry point that does nothing");
BENCHMARK(ToAHandler)->Name("log statement to a handler of the default library");
BENCHMARK(ToStandardError)->Name("log statement to standard error, which is /dev/null");

}  // namespace
}  // namespace kx::velmor::benchmarks
