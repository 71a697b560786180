#pragma once

#include <string>

namespace kx::velmor::testing_support {

/// Whether a list of servers must be taken: "host:port,[host]:port", with ports from 1 to 65535, hosts without spaces,
/// control characters, brackets and separators, and colons in brackets only.
bool ServersAreGood(const std::string& servers);

}  // namespace kx::velmor::testing_support
