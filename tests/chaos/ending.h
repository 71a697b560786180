#pragma once

#include "tests/chaos/history.h"
#include "tests/chaos/stage.h"

#include <chrono>
#include <functional>

namespace kx::velmor::chaos {

/// Waits until every member's node is in the queue, nobody else's is, and the first alone takes itself for the leader;
/// with candidates, until there are their identities and the leader's claim, too, and nobody else's.
///
/// Blocks for up to `deadline`, or until `interrupted` says so; then tells why the election has not come to rest.
Ending AwaitRest(Stage& stage, Subject subject, std::chrono::milliseconds deadline,
                 const std::function<bool()>& interrupted);

}  // namespace kx::velmor::chaos
