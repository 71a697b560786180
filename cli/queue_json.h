#pragma once

#include "cli/election_changes.h"

#include <kx/velmor/observer.h>

#include <chrono>
#include <string>

namespace kx::velmor::cli {

// What programs read, always valid UTF-8 and in one line: bytes of an identity that are no UTF-8 are replaced by
// U+FFFD. What is not known is null; sessions are texts as servers print them, times ISO 8601 in UTC, positions count
// from 1.

/// The election as `velmor status --json` tells it.
std::string StatusJson(const std::string& election, const ElectionView& view);

/// One change as `velmor watch --json` tells it.
std::string ChangeJson(const std::string& election, const ElectionChange& change,
                       std::chrono::system_clock::time_point time);

}  // namespace kx::velmor::cli
