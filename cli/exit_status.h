#pragma once

#include <sysexits.h>

namespace kx::velmor::cli {

/// What `velmor` ends with when not with the status of a command that it ran: by the numbers of <sysexits.h>, so that
/// they are unlikely to be a command's own. 128 + N stands for signal N, as in shells.
enum ExitStatus : int
{
    kSuccess = EX_OK,
    /// `velmor status`: nobody leads.
    kNobodyLeads = 1,
    /// What was asked for makes no sense.
    kUsage = EX_USAGE,
    /// No server answered in time.
    kUnavailable = EX_UNAVAILABLE,
    /// A defect, or a machine that is out of something.
    kInternal = EX_SOFTWARE,
    /// `velmor run --wait`: did not become leader in time.
    kNotElected = EX_TEMPFAIL,
    /// `velmor run`: the leadership was lost before the command had ended.
    kLeadershipLost = EX_PROTOCOL,
    /// The servers do not permit it.
    kNotPermitted = EX_NOPERM,
    /// A configuration file cannot be read, or says what makes no sense.
    kConfiguration = EX_CONFIG,
    /// The command was found and cannot be executed.
    kCannotExecute = 126,
    /// The command was not found.
    kNotFound = 127,
};

constexpr int OfSignal(int signal)
{
    return 128 + signal;
}

}  // namespace kx::velmor::cli
