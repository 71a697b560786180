#pragma once

#include <functional>

namespace kx::velmor::process {

/// Runs `task` on the one thread of this process that starts children, and waits for it; what it throws passes through.
///
/// The kernel delivers a child's parent-death signal when the *thread* that forked it ends. That thread therefore lives
/// as long as the process. Being the only one, it also keeps descriptors of one start from leaking into another.
/// Threads: any, except from within a task.
void RunOnSpawner(const std::function<void()>& task);

}  // namespace kx::velmor::process
