#pragma once

#include <kx/velmor/boot_clock.h>

#include <chrono>
#include <deque>
#include <optional>

namespace kx::velmor {

/// How long the servers keep a session at least, as far as this client knows: the arithmetic behind every lease.
///
/// The ensemble's leader ends a session when it has heard nothing of it for the session timeout T. It hears of requests
/// on its own connections at once. A follower reports the sessions that it has heard from when it answers the leader's
/// ping, every half tick; what it has not reported when it fails is lost. A timeout is at least two ticks, so half a
/// tick is at most T/4. A write that a follower forwards counts for nothing by itself.
///
/// Let w be the time at which the newest answered write was sent, and p the time at which the newest request was sent
/// that had been answered by w - T/4. The follower heard p at least half a tick before it forwarded w, and has answered
/// a ping of the leader in between: it received that ping ahead of the agreement on w, on the same connection. So the
/// leader counts from p or later, and keeps the session until p + T. A write needs a majority, so the ensemble that
/// agreed on w had not ended the session before w. After a reconnection the leader counts from the reconnection, which
/// is later than every answer before it.
///
/// A lease ends at the earlier of w + 2T/3 and p + 11T/12. The first term bounds the lease of a client that hears from
/// the servers all the time: the servers keep its session until w + 3T/4. Both terms leave T/12 for clocks that differ
/// in speed, and for pings that are late while the session is heard from every half tick. After a silence a ping that
/// is missing between p and w would cost the whole silence. So T/4 must be longer than half a tick by as much as pings
/// are late: a timeout of exactly two ticks leaves nothing for that.
///
/// T is the smallest timeout that was granted in this session. The newest is not safe: a new leader of the ensemble
/// starts each session anew with the timeout of its creation.
///
/// Not synchronised.
class SessionLifetime
{
public:
    /// The longest lease with this session timeout.
    static std::chrono::milliseconds LeaseLength(std::chrono::milliseconds sessionTimeout)
    {
        return sessionTimeout * 2 / 3;
    }

    /// A heartbeat of reads at this interval makes p recent enough for a lease of 5T/12, less two round trips, with the
    /// first write in a session that has been connected for T/4.
    static std::chrono::nanoseconds ReadInterval(std::chrono::milliseconds sessionTimeout)
    {
        return std::chrono::nanoseconds(sessionTimeout) / 4;
    }

    /// With less a leadership should not begin: after a connection that took long, p stays where it is until a write
    /// that is sent a quarter of the timeout later has been answered.
    static std::chrono::nanoseconds MinFirstLease(std::chrono::milliseconds sessionTimeout)
    {
        return std::chrono::nanoseconds(sessionTimeout) / 3;
    }

    /// Writes at this interval keep p close to w - T/4, so that leases are as long as the first term allows.
    static std::chrono::nanoseconds WriteInterval(std::chrono::milliseconds sessionTimeout)
    {
        return std::chrono::nanoseconds(sessionTimeout) / 8;
    }

    /// The client asks for a session at `time`: the servers count from then or later.
    void Begin(BootClock::time_point time);

    /// A server has granted this timeout. May shorten the lease.
    void Grant(std::chrono::milliseconds timeout);

    /// A request that was sent at `sent` has been answered at `answered`. `agreed`: by a majority of the servers.
    void NoteAnswer(BootClock::time_point sent, BootClock::time_point answered, bool agreed);

    /// The smallest timeout granted so far; 0 before the first.
    std::chrono::milliseconds MinTimeout() const { return minTimeout_; }

    /// w.
    std::optional<BootClock::time_point> LastAgreed() const { return lastAgreed_; }

    /// Empty before the first answered write.
    std::optional<BootClock::time_point> LeaseEnd() const;

private:
    struct Answer
    {
        BootClock::time_point sent;
        BootClock::time_point answered;
    };

    std::chrono::milliseconds minTimeout_{0};
    std::optional<BootClock::time_point> lastAgreed_;
    /// p.
    BootClock::time_point reported_{};
    /// Answers that are too recent for p, oldest first.
    std::deque<Answer> recent_;
};

}  // namespace kx::velmor
