#include "tests/support/await.h"

#include <algorithm>
#include <stdexcept>
#include <thread>

namespace kx::velmor::testing_support {

void Await(const std::string& what, const std::function<bool()>& condition, std::chrono::milliseconds deadline,
           const std::function<std::string()>& explain)
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + deadline;
    // Short at first, for what is nearly there; longer later, so that waiting does not slow down what is waited for.
    std::chrono::milliseconds pause{1};
    constexpr std::chrono::milliseconds kLongestPause{16};
    while (true)
    {
        // Read before asking: a condition that takes long, or a thread that is not scheduled, still gets its last look.
        const bool late = Clock::now() >= end;
        if (condition())
        {
            return;
        }
        if (late)
        {
            std::string message = "waited in vain for " + std::to_string(deadline.count()) + " ms: " + what;
            if (explain)
            {
                message += "; " + explain();
            }
            throw std::runtime_error(message);
        }
        std::this_thread::sleep_for(pause);
        pause = std::min(2 * pause, kLongestPause);
    }
}

}  // namespace kx::velmor::testing_support
