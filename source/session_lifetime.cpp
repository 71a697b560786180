#include "source/session_lifetime.h"

#include <algorithm>

namespace kx::velmor {

namespace {

/// A busy session answers thousands of requests in a quarter of its timeout. Of those closer together than this part of
/// the timeout one is enough.
constexpr int kMinSpacingDivisor = 256;

}  // namespace

void SessionLifetime::Begin(BootClock::time_point time)
{
    *this = SessionLifetime();
    reported_ = time;
}

void SessionLifetime::Grant(std::chrono::milliseconds timeout)
{
    minTimeout_ = minTimeout_.count() == 0 ? timeout : std::min(minTimeout_, timeout);
}

void SessionLifetime::NoteAnswer(BootClock::time_point sent, BootClock::time_point answered, bool agreed)
{
    const std::chrono::nanoseconds timeout = minTimeout_;
    if (agreed && (!lastAgreed_ || sent > *lastAgreed_))
    {
        lastAgreed_ = sent;
        while (!recent_.empty() && recent_.front().answered <= sent - timeout / 4)
        {
            reported_ = std::max(reported_, recent_.front().sent);
            recent_.pop_front();
        }
    }
    // Later requests find only the newest of these.
    while (recent_.size() > 1 && recent_[1].answered <= sent - timeout / 4)
    {
        recent_.pop_front();
    }
    if (recent_.empty() || sent >= recent_.back().sent + timeout / kMinSpacingDivisor)
    {
        recent_.push_back({sent, answered});
    }
}

std::optional<BootClock::time_point> SessionLifetime::LeaseEnd() const
{
    if (!lastAgreed_)
    {
        return std::nullopt;
    }
    const std::chrono::nanoseconds timeout = minTimeout_;
    return std::min(*lastAgreed_ + LeaseLength(minTimeout_), reported_ + timeout * 11 / 12);
}

}  // namespace kx::velmor
