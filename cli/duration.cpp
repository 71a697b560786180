#include "cli/duration.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace kx::velmor::cli {

namespace {

using std::chrono::milliseconds;

// From the longest to the shortest.
constexpr std::array<std::pair<std::string_view, std::int64_t>, 4> kUnits{
    {{"h", 3'600'000}, {"m", 60'000}, {"s", 1'000}, {"ms", 1}}};
/// A hundred years: sums of some of them fit every clock.
constexpr double kMost = 100.0 * 365 * 24 * 3'600'000;

[[noreturn]] void Refuse(const std::string& text)
{
    throw std::invalid_argument("\"" + text +
                                "\" is no duration: write a number and ms, s, m or h, as in 500ms or 10s");
}

}  // namespace

milliseconds ParseDuration(const std::string& text)
{
    double number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number, std::chars_format::fixed);
    if (error != std::errc() || std::signbit(number) || !std::isfinite(number))
    {
        Refuse(text);
    }
    const std::string_view given(rest, static_cast<std::size_t>(end - rest));
    for (const auto& [unit, length] : kUnits)
    {
        const double value = number * static_cast<double>(length);
        if (given == unit && value <= kMost)
        {
            return milliseconds(std::llround(value));
        }
    }
    Refuse(text);
}

std::string FormatDuration(milliseconds duration)
{
    for (const auto& [unit, length] : kUnits)
    {
        if (duration.count() % length == 0 && (duration.count() != 0 || unit == "s"))
        {
            return std::to_string(duration.count() / length) + std::string(unit);
        }
    }
    return {};
}

}  // namespace kx::velmor::cli
