#pragma once

#include "tests/chaos/history.h"
#include "tests/chaos/member_log.h"

namespace kx::velmor::chaos {

/// Writes down every second what the process uses: also the sign of life of the thread that looks at the candidate.
///
/// Threads: one at a time.
class Meter
{
public:
    /// `log` must outlive the meter.
    explicit Meter(MemberLog& log) : log_(log) {}

    /// Does nothing when it was called less than a second ago.
    void MeasureWhenDue();

private:
    MemberLog& log_;
    Instant measured_{};
};

}  // namespace kx::velmor::chaos
