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
    /// When the newest write was sent on whose answer a majority of the servers has agreed. Empty before the first one,
    /// and once the session is over.
    ///
    /// Reads do not count: a server that has lost the others answers them for seconds, while the others end the
    /// session. Codes that a single server may give by itself, `ZNOAUTH` among them, do not count either.
    std::optional<BootClock::time_point> lastHeard{};
    /// The smallest timeout that was granted in this session; `negotiatedTimeout` until a server has granted one.
    /// Servers may go back to it: a new leader of the ensemble starts every session anew with the timeout of its
    /// creation.
    std::chrono::milliseconds minTimeout{0};
    /// The servers keep the session, and its ephemeral nodes unless a client deletes them, until then at least,
    /// whichever server fails; with a margin of a twelfth of `minTimeout` for clocks that differ in speed. It is two
    /// thirds of `minTimeout` after `lastHeard`, or sooner when there were no regular answers before that. Empty with
    /// `lastHeard`. docs/guarantees.md has the arithmetic, and the exceptions.
    std::optional<BootClock::time_point> leaseEnd{};
};

}  // namespace kx::velmor
