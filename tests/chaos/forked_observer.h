#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>

namespace kx::velmor::chaos {

/// Forks. The child asks `leads`, from its first instruction on and for `time`, writes to the history what it was
/// answered, and ends. It calls nothing else of its parent's, whose locks other threads may have held.
///
/// Returns the child's process id. Throws `std::system_error` when the history cannot be opened, or for `fork`.
pid_t ForkObserver(const std::function<bool()>& leads, const std::filesystem::path& history,
                   std::chrono::milliseconds time);

/// Waits until all children have ended.
void AwaitObservers();

}  // namespace kx::velmor::chaos
