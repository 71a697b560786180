#pragma once

#include "source/server_list.h"

#include <kx/velmor/session.h>

#include <vector>

namespace kx::velmor {

/// Checks every option and returns the servers. Throws `ZooError(ZBADARGUMENTS)` after a log line that names the
/// option.
std::vector<Server> CheckOptions(const SessionOptions& options);

}  // namespace kx::velmor
