#include "cli/restart_policy.h"

#include <algorithm>

namespace kx::velmor::cli {

bool RunsAgain(Restart policy, bool failed) noexcept
{
    return policy == Restart::Always || (policy == Restart::OnFailure && failed);
}

std::chrono::milliseconds RestartDelay::Next(std::chrono::steady_clock::duration ran) noexcept
{
    if (ran >= kMost)
    {
        next_ = kFirst;
    }
    const std::chrono::milliseconds now = next_;
    next_ = std::min(2 * next_, kMost);
    return now;
}

}  // namespace kx::velmor::cli
