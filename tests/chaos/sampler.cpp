#include "tests/chaos/sampler.h"

#include <sys/prctl.h>

#include <chrono>

namespace kx::velmor::chaos {

namespace {

constexpr std::chrono::microseconds kPauseOfFollowers{50};

}  // namespace

Sampler::Sampler(const Candidate& candidate, MemberLog& log)
    : candidate_(candidate),
      meter_(log),
      track_([&log](const Tenure& tenure) { log.Tenure(tenure); }),
      thread_([this] { Run(); })
{}

Sampler::~Sampler()
{
    ends_ = true;
    thread_.join();
}

void Sampler::Run()
{
    // The kernel adds fifty microseconds to every sleep otherwise.
    ::prctl(PR_SET_TIMERSLACK, 1);
    while (!ends_)
    {
        if (leadership_)
        {
            AskAbout(*leadership_);
        }
        else
        {
            Ask();
        }
        meter_.MeasureWhenDue();
    }
    track_.End();
}

void Sampler::Ask()
{
    const BootClock::time_point before = BootClock::now();
    const bool leads = candidate_.IsLeader();
    const BootClock::time_point after = BootClock::now();
    if (!leads)
    {
        std::this_thread::sleep_for(kPauseOfFollowers);
        return;
    }
    // Which one that was cannot be told: it may have been over, and another one begun, before the next call.
    track_.SomeStood({before, after});
    leadership_ = candidate_.CurrentLeadership();
    if (leadership_)
    {
        AskAbout(*leadership_);
    }
}

void Sampler::AskAbout(const velmor::Leadership& leadership)
{
    const BootClock::time_point before = BootClock::now();
    const bool leads = candidate_.IsLeader();
    const bool stands = leadership.Stands();
    const BootClock::time_point after = BootClock::now();
    if (stands)
    {
        track_.Stood(leadership.Epoch(), {before, after});
        return;
    }
    track_.End();
    if (leads)
    {
        track_.SomeStood({before, after});
    }
    leadership_.reset();
}

}  // namespace kx::velmor::chaos
