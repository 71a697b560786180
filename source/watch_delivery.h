#pragma once

#include "source/watch_registry.h"

#include <functional>
#include <string>

// Events on their way from a session to the callbacks of its watches. For the session's event thread, with no lock
// held. What callbacks throw is logged.

namespace kx::velmor {

/// Whether the session is closed, so that no callback may begin any more.
using ClosedCheck = std::function<bool()>;

/// Tells every state that was there at `position` and is still held of a session event, which ends no watch. States
/// that have had their node event are told too.
void TellSessionEvent(const WatchRegistry& watches, WatchRegistry::Position position, int state,
                      const ClosedCheck& closed);

/// Ends the watches on `path` that were there at `position`, and tells the states that are still held; to them the node
/// is called `nodePath`. The states keep their callbacks, for session events.
void TellNodeEvent(WatchRegistry& watches, WatchRegistry::Position position, int type, int state,
                   const std::string& path, const std::string& nodePath, const ClosedCheck& closed);

/// Disarms all states and drops their callbacks.
void DropWatches(WatchRegistry& watches);

}  // namespace kx::velmor
