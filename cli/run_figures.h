#pragma once

#include "cli/standing.h"

#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <string>

namespace kx::velmor::cli {

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
    Family<prometheus::Counter, 6> losses_;
    prometheus::Counter& handovers_;
    prometheus::Counter& commands_;
    prometheus::Gauge& epoch_;
    prometheus::Gauge& leaseLeft_;
    prometheus::Family<prometheus::Gauge>& queueLengths_;
    prometheus::Histogram& checks_;
};

}  // namespace kx::velmor::cli
