#pragma once

#include "tests/chaos/member_log.h"
#include "tests/chaos/meter.h"
#include "tests/chaos/tenure_track.h"

#include <kx/velmor/candidate.h>

#include <atomic>
#include <optional>
#include <thread>

namespace kx::velmor::chaos {

/// Asks a candidate whether it leads, on a thread of its own: without any pause while it does, and every fifty
/// microseconds while it does not, so that those who wait leave the processors to who leads.
class Sampler
{
public:
    /// `candidate` and `log` must outlive the sampler.
    Sampler(const Candidate& candidate, MemberLog& log);
    /// What was found out is in the log afterwards.
    ~Sampler();

    Sampler(const Sampler&) = delete;
    Sampler& operator=(const Sampler&) = delete;

private:
    void Run();
    void Ask();
    void AskAbout(const velmor::Leadership& leadership);

    const Candidate& candidate_;
    Meter meter_;
    TenureTrack track_;
    /// The one that stood when last asked.
    std::optional<velmor::Leadership> leadership_;
    std::atomic<bool> ends_{false};
    std::thread thread_;
};

}  // namespace kx::velmor::chaos
