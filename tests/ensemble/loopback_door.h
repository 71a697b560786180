#pragma once

#include <cstdint>
#include <memory>

namespace kx::velmor::testing_support {

/// A port of ::1 behind which is a port of 127.0.0.1: the servers of tests listen on the latter alone.
///
/// Threads: one at a time.
class LoopbackDoor
{
public:
    /// Throws `std::system_error` where there is no IPv6.
    explicit LoopbackDoor(std::uint16_t target);
    /// Closes all connections.
    ~LoopbackDoor();

    LoopbackDoor(const LoopbackDoor&) = delete;
    LoopbackDoor& operator=(const LoopbackDoor&) = delete;

    std::uint16_t Port() const;

private:
    class Impl;
    const std::unique_ptr<Impl> impl_;
};

}  // namespace kx::velmor::testing_support
