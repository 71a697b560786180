// What single operations cost. Needs no server. `--help` tells how to choose among them.

#include <kx/logging/default_library.h>

#include <benchmark/benchmark.h>

int main(int argc, char** argv)
{
    // What is to be measured with more sets it so.
    kx::logging::SetMinLogLevel(kx::logging::LogLevel::Warning);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
    {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
