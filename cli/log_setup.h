#pragma once

#include <kx/logging/default_library.h>

#include <optional>
#include <string>

namespace kx::velmor::cli {

enum class LogFormat
{
    /// The line of the logging library.
    Text,
    /// A JSON object per line: time, level, source, thread, file, line, text.
    Json,
};

/// Sets the threshold to `level`; to `otherwise` when nobody asked for one, neither here nor by the environment
/// variable of the logging library. Statements go to standard error in `format`, a line each.
void SetUpLog(std::optional<logging::LogLevel> level, logging::LogLevel otherwise, LogFormat format);

/// Without an end of line. What is not UTF-8 is replaced.
std::string ToJson(const logging::Record& record);

/// Writes all of `line` in one piece, as far as the descriptor takes it; waits while it is full. Never raises SIGPIPE:
/// a reader that is gone loses the line and does no other harm. Threads: any, one line at a time.
void WriteLine(int descriptor, const std::string& line) noexcept;

}  // namespace kx::velmor::cli
