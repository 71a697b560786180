#pragma once

#include <kx/logging/logger.h>

#include <cstddef>
#include <memory>
#include <string>

namespace kx::velmor {

/// The log source of all sessions, "velmor.session".
const std::shared_ptr<const logging::Source>& SessionLog();

/// A path as log statements show it: the beginning of one that is too long to be read.
inline std::string Shown(const std::string& path)
{
    constexpr std::size_t kMostShown = 100;
    return path.substr(0, kMostShown);
}

}  // namespace kx::velmor
