#pragma once

#include <kx/logging/logger.h>

#include <memory>

namespace kx::velmor {

/// The log source of all candidates, "velmor.election".
const std::shared_ptr<const logging::Source>& ElectionLog();

}  // namespace kx::velmor
