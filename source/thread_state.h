#pragma once

#include <sys/types.h>

namespace kx::velmor {

/// Whether a thread of this process waits for something: it neither runs nor is ready to. Also false when the system
/// does not tell. Does not block. Threads: any.
bool Asleep(pid_t thread) noexcept;

}  // namespace kx::velmor
