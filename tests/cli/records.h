#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace kx::velmor::cli {

/// One line that the recording service wrote.
struct Record
{
    std::string word;
    pid_t process = 0;
    /// 0 for what does not run under a leadership.
    std::int64_t epoch = 0;
    /// By the clock of the machine, the same for all processes.
    std::chrono::nanoseconds at{0};
    std::string text;
};

/// All complete lines of the file; none when there is no file. Throws `std::runtime_error` for a line that is none.
std::vector<Record> ReadRecords(const std::filesystem::path& file);

/// From the first sign of life to the last of all processes that ran under one leadership.
struct Tenure
{
    std::int64_t epoch = 0;
    std::chrono::nanoseconds begin{0};
    std::chrono::nanoseconds end{0};
};

/// In the order of their beginnings.
std::vector<Tenure> Tenures(const std::vector<Record>& records);

/// A line for each two that were there at the same time, and for each whose epoch is no greater than the one before;
/// none is how it should be.
std::vector<std::string> Conflicts(const std::vector<Tenure>& tenures);

}  // namespace kx::velmor::cli
