#pragma once

#include <kx/velmor/boot_clock.h>
#include <kx/velmor/candidate.h>

#include <optional>

namespace kx::velmor::testing_support {

/// A stretch of time through which a candidate led for certain.
struct Lead
{
    /// When the first call of `IsLeader` that said true had returned.
    BootClock::time_point from;
    /// Before the last such call.
    BootClock::time_point until;
};

/// What the answers of `IsLeader` prove, of a candidate that does not rejoin: all that say true belong to one
/// leadership, so that it led from the first one to the last one.
///
/// Threads: one at a time.
class LeadRecord
{
public:
    /// Asks, and returns the answer.
    bool Ask(const Candidate& candidate)
    {
        const BootClock::time_point before = BootClock::now();
        const bool leads = candidate.IsLeader();
        const BootClock::time_point after = BootClock::now();
        asked_ = before;
        if (leads)
        {
            lead_ = Lead{lead_ ? lead_->from : after, before};
        }
        return leads;
    }

    /// When it was last asked.
    BootClock::time_point Asked() const { return asked_; }
    /// Empty until it has led.
    const std::optional<Lead>& Known() const { return lead_; }

private:
    BootClock::time_point asked_{};
    std::optional<Lead> lead_;
};

}  // namespace kx::velmor::testing_support
