#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace kx::velmor::testing_support {

/// How long things may take that take milliseconds: long enough for a loaded machine and a sanitizer.
constexpr std::chrono::milliseconds kPatience{20'000};

/// Waits until `condition` holds, asking every few milliseconds.
///
/// Blocks for up to `deadline`. Threads: any; `condition` runs on the caller's.
/// Throws `std::runtime_error` that says for what it waited in vain, how long, and what `explain` tells, if given. What
/// `condition` throws passes through.
void Await(const std::string& what, const std::function<bool()>& condition,
           std::chrono::milliseconds deadline = kPatience, const std::function<std::string()>& explain = {});

}  // namespace kx::velmor::testing_support
