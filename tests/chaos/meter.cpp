#include "tests/chaos/meter.h"

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace kx::velmor::chaos {

namespace {

constexpr std::chrono::seconds kMeasureEvery{1};

std::int64_t Entries(const char* directory)
{
    const std::filesystem::directory_iterator entries(directory);
    return std::distance(begin(entries), end(entries));
}

Resources Measure(Instant at)
{
    std::int64_t size = 0;
    std::int64_t resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    const std::int64_t pageKilobytes = ::sysconf(_SC_PAGESIZE) / 1024;
    // The descriptor with which they are counted does not count.
    return {at, resident * pageKilobytes, Entries("/proc/self/task"), Entries("/proc/self/fd") - 1};
}

}  // namespace

void Meter::MeasureWhenDue()
{
    const Instant now = Now();
    if (now - measured_ >= kMeasureEvery)
    {
        measured_ = now;
        log_.Consumption(Measure(now));
    }
}

}  // namespace kx::velmor::chaos
