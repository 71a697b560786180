#pragma once

#include <kx/velmor/candidate.h>
#include <kx/velmor/session_status.h>

#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace kx::velmor::cli {

/// Where a participant stands at one moment, for people and for those who watch.
struct Standing
{
    std::string election;
    std::string identity;
    Role role = Role::Stopped;
    /// Empty while it has no place in the queue.
    std::string node;
    /// Of its leadership.
    std::optional<std::int64_t> epoch;
    std::chrono::milliseconds leaseLeft{0};
    SessionStatus session;
    /// When it was last known; empty until then.
    std::optional<std::size_t> queueLength;
    /// Of its command, while that runs.
    std::optional<pid_t> command;
};

/// What there is to be told in one place of a participant: how it stands, and what has happened so far.
///
/// Threads: any.
class RunFigures
{
public:
    RunFigures();

    void OnGain();
    void OnLoss(LossReason reason);
    void OnCommandStarted();
    /// A check of the queue took this long.
    void OnCheck(std::chrono::steady_clock::duration duration);

    /// One object, as JSON.
    std::string Json(const Standing& standing) const;
    /// In the text format of Prometheus.
    std::string Metrics(const Standing& standing);

private:
    template <typename Value, std::size_t N>
    using Family = std::array<Value*, N>;

    prometheus::Registry registry_;
    Family<prometheus::Gauge, 5> roles_;
    Family<prometheus::Gauge, 5> sessionStates_;
    Family<prometheus::Counter, 5> losses_;
    prometheus::Counter& handovers_;
    prometheus::Counter& commands_;
    prometheus::Gauge& epoch_;
    prometheus::Gauge& leaseLeft_;
    prometheus::Family<prometheus::Gauge>& queueLengths_;
    prometheus::Histogram& checks_;
};

}  // namespace kx::velmor::cli
