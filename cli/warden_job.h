#pragma once

#include "cli/process_tree.h"
#include "cli/role_teller.h"
#include "cli/shared_lease.h"
#include "cli/warden.h"

#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <vector>

namespace kx::velmor::cli {

/// One command that a warden has started, from its start until nobody is left of it.
///
///     runs --End, lease--> ending --the process ends--> leftovers --> over
///       \______________________________________________/
///
/// Once `killAt` has come, everything is killed again and again until it is over.
class WardenJob
{
public:
    using Time = BootClock::time_point;

    WardenJob(Launch launch, pid_t pid, std::unique_ptr<RoleTeller> teller, Complain complain);

    const Launch& What() const noexcept { return launch_; }
    bool IsService() const noexcept { return launch_.kind == Launch::Kind::Service; }
    pid_t Pid() const noexcept { return pid_; }
    /// The process itself still runs.
    bool Runs() const noexcept { return runs_; }
    bool LeaseRanOut() const noexcept { return leaseRanOut_; }
    int WaitStatus() const noexcept { return waitStatus_; }
    /// Null unless it hears roles.
    RoleTeller* Teller() const noexcept { return teller_.get(); }

    /// The process itself has ended and been waited for.
    void HasEnded(int waitStatus) noexcept;
    /// To the process itself, or to all of its group.
    void Signal(int signal, bool wholeGroup) const noexcept;
    /// Asks the group to end, once, unless it is time to kill what is left, at `killAt`.
    void End(Time killAt, Time now) noexcept;
    /// Acts on what the lease says now. To be called for a service.
    void Mind(const SharedLease::Times& lease, Time now);
    /// Kills the group when it is time for that, without a look at who is in it, which may take long.
    void KillGroupWhenDue(Time now) const noexcept;
    /// Something is to be done about those who are left, which takes a look at who they are.
    bool WantsMembers(Time now) const noexcept { return !runs_ || now >= killAt_; }
    /// `members` is who is left, as far as is known.
    void TreatMembers(const std::vector<ProcessEntry>& members, Time now);
    /// When there is something to do next, after what was due at `done` has been done; `max` for never.
    Time NextDue(const SharedLease::Times& lease, Time done) const noexcept;

private:
    void SignalAll(const std::vector<ProcessEntry>& members, int signal);

    const Launch launch_;
    const pid_t pid_;
    const std::unique_ptr<RoleTeller> teller_;
    const Complain complain_;
    bool runs_ = true;
    int waitStatus_ = 0;
    /// Its group was asked to end.
    bool asked_ = false;
    /// Those who were left when the process itself had ended were asked, too.
    bool leftoversAsked_ = false;
    bool leaseRanOut_ = false;
    /// The lease of which a service that hears roles was told that it ran out.
    Time toldOf_ = Time::max();
    Time killAt_ = Time::max();
    /// Killed once; next at `killAt_`, later each time.
    std::chrono::milliseconds killPause_{0};
    bool complained_ = false;
};

}  // namespace kx::velmor::cli
