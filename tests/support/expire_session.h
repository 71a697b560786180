#pragma once

#include "tests/support/proxy.h"

#include <zookeeper/zookeeper.h>

#include <string>
#include <vector>

namespace kx::velmor::testing_support {

/// Ends a session at the servers while its owner, who reaches them through `proxies` only, is kept away; then lets the
/// owner reconnect, whereupon it learns that its session has expired. Its ephemeral nodes are gone when this returns.
///
/// Blocks for some ten milliseconds, with `proxies` refusing connections meanwhile. `servers` are direct addresses.
/// Threads: any that may use the proxies. Throws `std::runtime_error` when no server answers.
void ExpireSession(const std::vector<Proxy*>& proxies, const std::string& servers, const clientid_t& session);
void ExpireSession(Proxy& proxy, const std::string& server, const clientid_t& session);

}  // namespace kx::velmor::testing_support
