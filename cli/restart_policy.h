#pragma once

#include <chrono>

namespace kx::velmor::cli {

/// Whether a command is run again when it has ended.
enum class Restart
{
    Never,
    /// When it did not end with status 0, or the leadership was lost.
    OnFailure,
    Always,
};

bool RunsAgain(Restart policy, bool failed) noexcept;

/// How long to wait before it is run again: a second, twice as long each time, a minute at most; from the beginning
/// when it has run for a minute.
class RestartDelay
{
public:
    std::chrono::milliseconds Next(std::chrono::steady_clock::duration ran) noexcept;

private:
    std::chrono::milliseconds next_ = kFirst;

    static constexpr std::chrono::milliseconds kFirst{1'000};
    static constexpr std::chrono::milliseconds kMost{60'000};
};

}  // namespace kx::velmor::cli
