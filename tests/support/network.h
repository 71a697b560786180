#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace kx::velmor::testing_support {

/// "127.0.0.1:<port>".
std::string LoopbackAddress(std::uint16_t port);

/// A loopback port on which nobody listens at the moment.
///
/// Outside the range from which the system gives ports to outgoing connections: a client that keeps on trying a dead
/// server there would sooner or later be given the server's port, connect to itself and keep it.
/// Threads: any. Throws `std::runtime_error` when a thousand ports in a row are taken.
std::uint16_t ChooseFreePort();

/// Sends a ZooKeeper four-letter command and reads the answer until the server closes the connection; empty when there
/// is no server or it does not answer in time.
///
/// Blocks for up to `deadline`. Threads: any.
std::optional<std::string> FourLetterCommand(std::uint16_t port, const std::string& command,
                                             std::chrono::milliseconds deadline);

}  // namespace kx::velmor::testing_support
