#pragma once

#include "tests/chaos/history.h"

#include <chrono>
#include <functional>
#include <optional>

namespace kx::velmor::chaos {

/// Turns looks at whether a member takes itself for the leader into stretches of time.
///
/// A stretch lasts from one look to another, never beyond: nothing is claimed for the time in which nobody looked, such
/// as a pause of the process. Threads: one at a time.
class LeadershipTrack
{
public:
    /// Looks that are further apart belong to different stretches.
    static constexpr std::chrono::milliseconds kLongestGap{20};
    /// A stretch that grows is told again this often, so that whoever is killed has told nearly all of it.
    static constexpr std::chrono::milliseconds kTellEvery{50};

    /// Called with the stay, the first and the last look of a stretch: when it begins, as it grows, when it ends.
    using Tell = std::function<void(int stay, Instant begin, Instant seen)>;

    explicit LeadershipTrack(Tell tell) : tell_(std::move(tell)) {}

    void Look(bool leads, int stay, Instant at)
    {
        if (open_ && (!leads || open_->stay != stay || at - open_->seen > kLongestGap))
        {
            TellOpen();
            open_.reset();
        }
        if (!leads)
        {
            return;
        }
        if (!open_)
        {
            open_ = Stretch{stay, at, at, at};
            TellOpen();
            return;
        }
        open_->seen = at;
        if (at - open_->told >= kTellEvery)
        {
            TellOpen();
        }
    }

    /// No more looks follow.
    void Finish()
    {
        if (open_)
        {
            TellOpen();
            open_.reset();
        }
    }

private:
    struct Stretch
    {
        int stay;
        Instant begin;
        Instant seen;
        Instant told;
    };

    void TellOpen()
    {
        open_->told = open_->seen;
        tell_(open_->stay, open_->begin, open_->seen);
    }

    const Tell tell_;
    std::optional<Stretch> open_;
};

}  // namespace kx::velmor::chaos
