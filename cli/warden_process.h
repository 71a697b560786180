#pragma once

#include "cli/owned_descriptor.h"
#include "cli/shared_lease.h"
#include "cli/terminal_foreground.h"
#include "cli/warden_job.h"
#include "cli/warden_protocol.h"

#include <sys/types.h>

#include <memory>
#include <optional>
#include <vector>

namespace kx::velmor::cli {

/// What runs in the process of a warden, in its one thread.
///
/// Who belongs to which command: whoever descends from it, or, when the parents have ended, is in its process group.
/// Anybody else counts as the service's, and when there is none as the oldest hook's: so there is always somebody who
/// waits for them.
class WardenProcess
{
public:
    /// Makes this process one that everything it starts falls back to, and no signal disturbs. `owner` is the process
    /// group of the other side. Throws `std::system_error`.
    WardenProcess(OwnedDescriptor socket, SharedLease& lease, pid_t owner);
    /// Kills all that is left and waits until it is gone.
    ~WardenProcess();

    WardenProcess(const WardenProcess&) = delete;
    WardenProcess& operator=(const WardenProcess&) = delete;

    /// Until the other side has ended. Throws when that does not work out any more.
    void Run();

private:
    using Time = BootClock::time_point;

    /// False when the other side has ended.
    bool Obey();
    void Do(const Order& order);
    void Start(const Launch& launch);
    void Started(const Launch& launch, pid_t pid, std::unique_ptr<RoleTeller> teller);
    void NotStarted(const Launch& launch, int code, const std::string& error, bool leaseRanOut = false);
    void Reap();
    void Stopped(const WardenJob& job, int signal) const;
    void Advance();
    bool IsOver(WardenJob& job, Time now);
    /// Empty when that is not to be found out now.
    std::optional<std::vector<ProcessEntry>> MembersOf(const WardenJob& job) const;
    const WardenJob& JobOf(const ProcessEntry& process, const std::vector<ProcessEntry>& all) const;
    void Wait();
    void Tell(WardenJob& service, const std::string& line);
    void Report(const WardenReport& report);
    /// Whoever logs may have to wait, and nobody here may.
    Complain Complaining();
    /// Null when there is none.
    WardenJob* Service() const;

    const OwnedDescriptor socket_;
    const SharedLease& lease_;
    const TerminalForeground terminal_;
    OwnedDescriptor null_;
    OwnedDescriptor children_;
    OwnedDescriptor timer_;
    /// Oldest first.
    std::vector<std::unique_ptr<WardenJob>> jobs_;
    bool ownerIsGone_ = false;
    /// What was due then has been done.
    Time advancedAt_{};
    /// Who is left was not seen, and may not be noticed when they end.
    bool lookAgain_ = false;
};

}  // namespace kx::velmor::cli
