#include "tests/simulation/stream.h"

namespace kx::velmor::simulation {

Time RandomLatency(VirtualMachine& machine)
{
    constexpr std::chrono::microseconds kMin{100};
    constexpr std::chrono::microseconds kMax{1000};
    constexpr std::chrono::milliseconds kMaxSlow{30};
    constexpr std::int64_t kOneInSlow = 100;
    constexpr std::int64_t kSteps = 10'000;
    const auto draw = static_cast<std::int64_t>(machine.Random(static_cast<std::uint64_t>(kOneInSlow * kSteps)));
    const Time range = draw % kOneInSlow == 0 ? Time(kMaxSlow) : Time(kMax - kMin);
    return Time(kMin) + range / kSteps * (draw / kOneInSlow);
}

}  // namespace kx::velmor::simulation
