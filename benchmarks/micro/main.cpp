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
    // The library's warning of a build for debugging is about itself: Debian leaves its assertions in.
    benchmark::AddCustomContext("Velmor's build", VELMOR_BUILD);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
