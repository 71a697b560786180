#pragma once

#include <kx/logging/default_library.h>

#include <string>

namespace kx::logging::details {

/// Writes one line to standard error. Blocks while other threads write theirs. Never throws, and never raises SIGPIPE.
void WriteToStderr(const Record& record) noexcept;

/// The same for what the library itself has to say.
void WriteOwnMessageToStderr(LogLevel level, const std::string& text) noexcept;

}  // namespace kx::logging::details
