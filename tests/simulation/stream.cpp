#include "tests/simulation/stream.h"

namespace kx::velmor::simulation {

Time RandomLatency(VirtualMachine& machine)
{
    constexpr std::chrono::microseconds kMin{100};
    constexpr std::chrono::microseconds kMax{1000};
    constexpr std::chrono::milliseconds kMaxSlow{30};
    constexpr std::uint64_t kOneInSlow = 100;
    const auto draw = static_cast<std::int64_t>(machine.Random(kOneInSlow * 10'000));
    const bool slow = draw % kOneInSlow == 0;
    const Time range = slow ? Time(kMaxSlow) : Time(kMax - kMin);
    return Time(kMin) + range / 10'000 * (draw / static_cast<std::int64_t>(kOneInSlow));
}

}  // namespace kx::velmor::simulation
