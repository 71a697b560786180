#include "cli/warden_job.h"

#include <signal.h>

#include <string>
#include <utility>

namespace kx::velmor::cli {

namespace {

constexpr std::chrono::milliseconds kFirstKillPause{5};
constexpr std::chrono::milliseconds kLongestKillPause{500};

/// A stopped process ends, or goes about it, only when it goes on.
void AskGroupToEnd(pid_t group) noexcept
{
    ::kill(-group, SIGTERM);
    ::kill(-group, SIGCONT);
}

}  // namespace

WardenJob::WardenJob(Launch launch, pid_t pid, std::unique_ptr<RoleTeller> teller, Complain complain)
    : launch_(std::move(launch)), pid_(pid), teller_(std::move(teller)), complain_(std::move(complain))
{
    if (!IsService())
    {
        killAt_ = BootClock::now() + launch_.grace;
    }
}

void WardenJob::HasEnded(int waitStatus) noexcept
{
    runs_ = false;
    waitStatus_ = waitStatus;
}

void WardenJob::Signal(int signal, bool wholeGroup) const noexcept
{
    // The number is the process's until it is waited for. A group's members are asked about when there is no leader.
    if (runs_)
    {
        ::kill(wholeGroup ? -pid_ : pid_, signal);
    }
}

void WardenJob::End(Time killAt, Time now) noexcept
{
    killAt_ = std::min(killAt_, killAt);
    if (runs_ && now < killAt_ && !std::exchange(asked_, true))
    {
        AskGroupToEnd(pid_);
    }
}

void WardenJob::Mind(const SharedLease::Times& lease, Time now)
{
    const bool ends = asked_ || !runs_;
    if (runs_ && now >= lease.end)
    {
        if (!launch_.hearsRoles)
        {
            leaseRanOut_ = leaseRanOut_ || !ends;
            // Also when the lease is made longer now: whoever is to end is not to be kept in doubt.
            End(lease.killAt, now);
        }
        else if (toldOf_ != lease.end)
        {
            toldOf_ = lease.end;
            teller_->Tell(launch_.lineWhenLeaseRunsOut);
        }
    }
    const bool killing = killPause_.count() != 0;
    if (now >= lease.killAt && !killing && (ends || !launch_.hearsRoles))
    {
        leaseRanOut_ = true;
        killAt_ = now;
    }
}

void WardenJob::KillGroupWhenDue(Time now) const noexcept
{
    if (now >= killAt_)
    {
        Signal(SIGKILL, true);
    }
}

void WardenJob::TreatMembers(const std::vector<ProcessEntry>& members, Time now)
{
    if (now >= killAt_)
    {
        SignalAll(members, SIGKILL);
        killPause_ = std::clamp(2 * killPause_, kFirstKillPause, kLongestKillPause);
        killAt_ = now + killPause_;
    }
    else if (!std::exchange(leftoversAsked_, true))
    {
        SignalAll(members, SIGTERM);
        SignalAll(members, SIGCONT);
        killAt_ = std::min(killAt_, now + launch_.grace);
    }
}

WardenJob::Time WardenJob::NextDue(const SharedLease::Times& lease, Time done) const noexcept
{
    Time due = killAt_;
    if (IsService())
    {
        for (const Time time : {lease.end, lease.killAt})
        {
            due = time > done ? std::min(due, time) : due;
        }
    }
    return due;
}

void WardenJob::SignalAll(const std::vector<ProcessEntry>& members, int signal)
{
    if (runs_)
    {
        // At once, before any of them can start another.
        ::kill(-pid_, signal);
    }
    for (const ProcessEntry& member : members)
    {
        if (!SignalProcess(member, signal) && !std::exchange(complained_, true))
        {
            complain_("May not end a process that a command has started, waiting until it ends by itself; process " +
                      std::to_string(member.pid));
        }
    }
}

}  // namespace kx::velmor::cli
