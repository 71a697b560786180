#pragma once

#include <kx/velmor/boot_clock.h>

#include <chrono>
#include <cstdint>
#include <optional>

namespace kx::velmor {

/// Where a session stands.
enum class SessionState
{
    /// There is no session yet: a server is looked for.
    Connecting,
    /// A server has answered, and nothing was heard to the contrary since.
    Connected,
    /// The connection is lost. The session may live on, or may be over at the servers.
    Suspended,
    /// The session is over, and so are its ephemeral nodes, or will be. Another one is about to be opened.
    Expired,
    /// The user has closed it.
    Closed,
};

/// "connecting", "connected", "suspended", "expired", "closed".
const char* ToString(SessionState state) noexcept;

/// What is known of a session at one moment.
struct SessionStatus
{
    SessionState state = SessionState::Connecting;
    /// The number that servers print and that nodes carry as their ephemeral owner. 0 while there is none; once it is
    /// over, the one that was.
    std::int64_t sessionId = 0;
    /// After this long without a word from it the servers end the session. What was asked for, until a server has first
    /// granted something; between sessions, what was granted last.
    std::chrono::milliseconds negotiatedTimeout{0};
    /// The latest moment at which the servers are known to have heard from this session: when the newest write that has
    /// been answered was sent. Empty while none has, and once the session is over.
    ///
    /// Reads do not count: a server that has lost touch with the others answers them for seconds, while the others end
    /// the session. On a write a majority has agreed.
    ///
    /// The servers keep the session, and its ephemeral nodes unless somebody deletes them, until `negotiatedTimeout`
    /// after that, less a third of it where there are several servers: a follower tells the leader, who ends sessions,
    /// only now and then whom it has heard.
    std::optional<BootClock::time_point> lastHeard{};
};

}  // namespace kx::velmor
