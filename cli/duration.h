#pragma once

#include <chrono>
#include <string>

namespace kx::velmor::cli {

/// "500ms", "10s", "1.5m", "2h": a number and a unit, without a sign. Throws `std::invalid_argument`, whose text says
/// what would do, for anything else: a number without a unit, too, since nobody can know which was meant.
std::chrono::milliseconds ParseDuration(const std::string& text);

/// The shortest text that `ParseDuration` reads as that.
std::string FormatDuration(std::chrono::milliseconds duration);

}  // namespace kx::velmor::cli
