#pragma once

#include <kx/logging/logger.h>

#include <memory>

namespace kx::velmor {

/// The log source of all sessions, "velmor.session".
const std::shared_ptr<const logging::Source>& SessionLog();

}  // namespace kx::velmor
