#pragma once

#include "tests/chaos/history.h"

#include <kx/velmor/boot_clock.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

namespace kx::velmor::chaos {

/// When a call was made, and when it had returned.
struct Call
{
    BootClock::time_point before;
    BootClock::time_point after;
};

/// Turns calls that said true into tenures, which claim nothing that the calls do not prove.
///
/// Threads: one at a time.
class TenureTrack
{
public:
    /// A tenure that grows is told again this often, so that whoever is killed has told nearly all of it.
    static constexpr std::chrono::milliseconds kTellEvery{10};

    /// Called when a tenure begins, as it grows, and when it ends.
    using Tell = std::function<void(const Tenure&)>;

    explicit TenureTrack(Tell tell) : tell_(std::move(tell)) {}

    /// The leadership of this epoch stood during the call.
    void Stood(std::int64_t epoch, const Call& call)
    {
        if (open_ && open_->epoch != epoch)
        {
            End();
        }
        if (!open_)
        {
            open_ = Proven(epoch, call);
            TellOpen();
            return;
        }
        open_->until = Proven(epoch, call).until;
        if (open_->until - told_ >= kTellEvery)
        {
            TellOpen();
        }
    }

    /// Some leadership stood during the call.
    void SomeStood(const Call& call) const { tell_(Proven(0, call)); }

    /// The leadership that stood does not any more.
    void End()
    {
        if (open_)
        {
            TellOpen();
            open_.reset();
        }
    }

private:
    /// Rounded to where it claims less.
    static Tenure Proven(std::int64_t epoch, const Call& call)
    {
        return {epoch, std::chrono::ceil<Instant>(call.after.time_since_epoch()),
                std::chrono::floor<Instant>(call.before.time_since_epoch())};
    }

    void TellOpen()
    {
        told_ = open_->until;
        tell_(*open_);
    }

    const Tell tell_;
    std::optional<Tenure> open_;
    Instant told_{};
};

}  // namespace kx::velmor::chaos
