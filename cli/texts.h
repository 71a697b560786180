#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kx::velmor::cli {

// How things look that somebody else has written, or that have a form of their own. Threads: any.

/// The text as a terminal can show it without harm, in one line: what would move the cursor, begin a sequence or turn
/// the direction of writing, and what is no UTF-8, is shown as its code, as in "\x1b" or "\u202e".
std::string Printable(std::string_view text);

/// How many columns of a terminal a text takes that `Printable` has made.
std::size_t Width(std::string_view text);

/// As many whole characters from its beginning as fit into `columns`; where some do not, the last column says so.
std::string Cut(std::string_view text, std::size_t columns);

/// "2026-05-01T13:37:00.123Z".
std::string IsoTime(std::chrono::system_clock::time_point time);

/// "59s", "12m 05s", "3h 07m", "9d 04h".
std::string ShortDuration(std::chrono::milliseconds duration);

/// "0x100003e8f2a0001", as servers print sessions.
std::string SessionNumber(std::int64_t session);

}  // namespace kx::velmor::cli
