// The user's callbacks as they run, and what becomes of those that run for too long.

#include "source/candidate_core.h"
#include "source/exit_gate.h"

#include <algorithm>
#include <utility>

namespace kx::velmor {

namespace {

using logging::LogLevel;
using std::chrono::milliseconds;

constexpr const char* kOnLeader = "onLeader";

/// Longer than any callback runs, and short enough to be added to a time.
constexpr std::chrono::hours kForever{24 * 365};

}  // namespace

void CandidateCore::TellCallback(const char* name, Teller::Task callback)
{
    teller_.Tell([this, name, callback = std::move(callback)] { OnCallback(name, callback); });
}

void CandidateCore::TellLeader(Leadership leadership)
{
    TellCallback(kOnLeader, [this, leadership = std::move(leadership)] {
        try
        {
            options_.onLeader(leadership);
        }
        catch (...)
        {
            const Access access(*this);
            NoticeLapse();
            if (stay_.number == leadership.stay_)
            {
                EndStay(LossReason::CallbackFailed);
            }
            throw;
        }
    });
}

void CandidateCore::OnCallback(const char* name, const Teller::Task& callback)
{
    struct End
    {
        ~End()
        {
            const MutexLock lock(core.mutex_);
            core.running_.reset();
        }
        CandidateCore& core;
    };
    {
        const MutexLock lock(mutex_);
        const bool worksWhileLeading = name == kOnLeader && !stay_.over;
        running_ = RunningCallback{name, worksWhileLeading ? BootClock::time_point::max() : session_->Now()};
        // It has to look after this one, too.
        WakeWorker();
    }
    const End end{*this};
    callback();
}

BootClock::time_point CandidateCore::CallbackDue() const
{
    if (!running_ || running_->since == BootClock::time_point::max() || stay_.abandoned)
    {
        return BootClock::time_point::max();
    }
    const BootClock::time_point reportAt = running_->since + (running_->reported + 1) * stay_.sessionTimeout;
    if (options_.maxCallbackTime == milliseconds(0))
    {
        return reportAt;
    }
    return std::min(reportAt, running_->since + std::min<milliseconds>(options_.maxCallbackTime, kForever));
}

void CandidateCore::CheckCallback()
{
    {
        const Access access(*this);
        const BootClock::time_point now = session_->Now();
        if (CallbackDue() > now)
        {
            return;
        }
        const auto time = std::chrono::floor<milliseconds>(now - running_->since);
        std::string text =
            std::string(running_->name) + " has been running for " + std::to_string(time.count()) + " ms";
        if (running_->name == kOnLeader)
        {
            text += " since its leadership ended";
        }
        if (options_.maxCallbackTime == milliseconds(0) || time < options_.maxCallbackTime)
        {
            running_->reported = time / stay_.sessionTimeout;
            Log(LogLevel::Warning,
                "Candidate " + signature_.identity + ": " + text +
                    (stay_.over && stay_.led ? "; the next leader waits" : "; later callbacks wait"));
            return;
        }
        stay_.abandoned = true;
        Fail(text + ", longer than it may: the session is closed", LossReason::SessionExpired);
    }
    session_->Close();
}

void CandidateCore::AwaitCallbacks()
{
    for (;;)
    {
        {
            const MutexLock lock(mutex_);
            awaitsCallbacks_ = true;
            while (!stay_.abandoned && !teller_.Silent() && CallbackDue() > session_->Now())
            {
                AwaitNews(CallbackDue());
            }
            awaitsCallbacks_ = false;
            if (stay_.abandoned || teller_.Silent())
            {
                return;
            }
        }
        const ExitGate::Pass pass;
        if (!pass)
        {
            return;
        }
        CheckCallback();
    }
}

}  // namespace kx::velmor
