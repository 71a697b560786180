#pragma once

#include <kx/velmor/boot_clock.h>

#include <atomic>
#include <cstdint>

namespace kx::velmor::cli {

/// Until when somebody may lead, in memory that a process shares with those that it forks: one writes, another reads,
/// and neither ever waits.
class SharedLease
{
public:
    struct Times
    {
        BootClock::time_point end;
        BootClock::time_point killAt;
    };
    /// No lease, which never runs out.
    static constexpr Times kNone{BootClock::time_point::max(), BootClock::time_point::max()};

    /// Throws `std::system_error` when there is no memory.
    SharedLease();
    ~SharedLease();

    SharedLease(const SharedLease&) = delete;
    SharedLease& operator=(const SharedLease&) = delete;

    void Write(const Times& times) noexcept;
    /// A reader that sees the end of a lease sees its `killAt`, or that of a later one.
    Times Read() const noexcept;

private:
    struct Memory
    {
        std::atomic<std::int64_t> end;
        std::atomic<std::int64_t> killAt;
    };
    static_assert(std::atomic<std::int64_t>::is_always_lock_free, "a lock would be one process's own");

    Memory* const memory_;
};

}  // namespace kx::velmor::cli
