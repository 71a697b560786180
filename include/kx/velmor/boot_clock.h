#pragma once

#include <chrono>
#include <ctime>

namespace kx::velmor {

/// Time since the machine was started, time asleep included (CLOCK_BOOTTIME): no step of the wall clock moves it, and
/// every process of the machine and time namespace reads the same. Servers go on counting while a machine sleeps, and
/// so must whoever reckons with their timeouts. It cannot count while a host has paused its virtual machine.
struct BootClock
{
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<BootClock>;
    static constexpr bool is_steady = true;

    static time_point now() noexcept
    {
        std::timespec time{};
        clock_gettime(CLOCK_BOOTTIME, &time);
        return time_point(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
    }
};

}  // namespace kx::velmor
