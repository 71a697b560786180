#pragma once

#include "source/event_loop.h"

namespace kx::velmor {

/// Passes the client library's own log lines to the process's logging library, under the source "velmor.zookeeper".
///
/// The library writes on its I/O thread, which keeps sessions alive, and gives no hint of the session. So a line is
/// only put into one bounded queue, and the event thread of some attached session hands it on. Where lines come faster
/// than anybody reads (an unreachable server makes dozens a second), the surplus is counted in a line of its own.
class ClientLog
{
public:
    /// What the client library calls. Any thread; does not block.
    static void OnLine(const char* line) noexcept;

    /// Lets `loop` hand lines on, until it is detached. The first call also sets the library's level.
    static void Attach(EventLoop& loop);

    /// Afterwards `loop` is not touched. Hands on what is left when it was the last one.
    static void Detach(EventLoop& loop);
};

}  // namespace kx::velmor
