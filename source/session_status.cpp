#include <kx/velmor/session_status.h>

namespace kx::velmor {

const char* ToString(SessionState state) noexcept
{
    switch (state)
    {
        case SessionState::Connecting:
            return "connecting";
        case SessionState::Connected:
            return "connected";
        case SessionState::Suspended:
            return "suspended";
        case SessionState::Expired:
            return "expired";
        case SessionState::Closed:
            return "closed";
    }
    return "?";
}

}  // namespace kx::velmor
