#pragma once

#include <kx/logging/logger.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string_view>

/// The logging library for processes that have none of their own: link `velmor::logging_default`.
///
/// Statements go to handlers. One is there from the start and writes a line to standard error; others can be added.
/// Everything here may be called from any thread at any time, before and after `main` as well.
namespace kx::logging {

/// Names the environment variable that sets the threshold at start: "debug", "info", "warning", "error" or "off" in
/// any case, or a number. With anything else a line on standard error says so, and the threshold is `LogLevel::Info`,
/// as it is when the variable is empty or not set.
inline constexpr const char* kLogLevelVariable = "KX_LOG_LEVEL";

/// As a threshold: nothing is written.
inline constexpr LogLevel kLogLevelOff = static_cast<LogLevel>(std::numeric_limits<std::int32_t>::max());

/// Sets the threshold for the whole process. The environment is read before `main`, so what `main` sets prevails.
void SetMinLogLevel(LogLevel level) noexcept;

/// Reads a level as it may stand in the environment; nothing for a text that names none.
std::optional<LogLevel> ParseLogLevel(std::string_view text);

/// One finished statement, as handlers see it. The views are valid during the call only.
struct Record
{
    LogLevel level;
    /// Passed through from the statement; 0 for `KX_LOG`.
    unsigned int code;
    /// The source's name.
    std::string_view source;
    /// The statement's source file as the compiler knew it; static, never null, empty when unknown.
    const char* file;
    /// 0 when unknown.
    int line;
    /// Of the thread that made the statement, as the kernel, `top` and debuggers count threads.
    std::size_t threadId;
    std::chrono::system_clock::time_point time;
    std::string_view text;
    /// What follows `text`, mostly nothing.
    std::string_view extra;
};

/// Receives statements on the threads that make them, with whatever locks their makers hold, and on several threads at
/// once. No lock of this library is held meanwhile: a slow handler delays the statements it is given and no others.
///
/// What it throws is dropped; the first time, a line on standard error says so.
/// Statements that a handler makes go to the standard error handler only, so that they come to an end.
using Handler = std::function<void(const Record&)>;

enum class HandlerId : std::uint64_t
{
};

/// The handler that is there from the start. It writes one line per statement, as in
/// "2024-05-01 13:37:00.123+02:00 info    velmor.candidate [4711] [candidate_impl.cpp:58] Created ...".
///
/// Lines are written one at a time and at once, so a standard error that nobody reads blocks. One that is closed,
/// broken or full loses lines and does no other harm.
inline constexpr HandlerId kStderrHandler{0};

/// Adds a handler, after those already there, for statements whose delivery begins later.
///
/// Throws `std::invalid_argument` for an empty one.
HandlerId AddHandler(Handler handler);

/// When this returns the handler is not running, will not be called again, and what it captured is destroyed. Blocks
/// for as long as other threads are in the handler: hold no lock that it takes.
///
/// Only where that wait could never end does this return without it: in a handler that removes itself, or one that is
/// already waiting for the caller to be gone. The handler is then not called again, and what it captured is destroyed
/// when its last run ends. Unknown and removed ids are fine.
void RemoveHandler(HandlerId id);

/// Adds the standard error handler back, if it was removed.
void AddStderrHandler();

}  // namespace kx::logging
