#pragma once

#include "source/watch_registry.h"

#include <functional>
#include <string>

// Events on their way from a session to the callbacks of its watches. For the session's event thread, with no lock
// held. What callbacks throw is logged.

namespace kx::velmor {

/// Whether the session is closed, so that no callback may begin any more.
using ClosedCheck = std::function<bool()>;

/// Tells every state that was there at `position` and is still held of a session event, which uses none up.
void TellSessionEvent(const WatchRegistry& watches, WatchRegistry::Position position, int state,
                      const ClosedCheck& closed);

/// Uses up the states that watched `path` at `position`, and tells those that are still held; to them the node is
/// called `nodePath`.
void TellNodeEvent(WatchRegistry& watches, WatchRegistry::Position position, int type, int state,
                   const std::string& path, const std::string& nodePath, const ClosedCheck& closed);

/// Disarms all states and drops their callbacks.
void DropWatches(WatchRegistry& watches);

}  // namespace kx::velmor
