#pragma once

#include <sys/types.h>

#include <optional>
#include <vector>

namespace kx::velmor::cli {

/// A process, as /proc has it at one moment.
struct ProcessEntry
{
    pid_t pid = 0;
    pid_t parent = 0;
    pid_t group = 0;
    /// In ticks since the machine was started: with the number it says which process is meant, also when the number
    /// is given again.
    unsigned long long startTime = 0;
    /// The one of its ancestors, or it itself, that is a child of the process that was asked about.
    pid_t top = 0;
};

/// Everything that descends from `root`, ended processes that nobody has waited for included: an ended main thread
/// looks the same while others of its process still run. Empty when that is not to be found out now, for want of
/// descriptors or memory.
///
/// No snapshot: what is started while /proc is read may be missing. Those whose parents have ended are there when
/// `root` adopts them (PR_SET_CHILD_SUBREAPER).
std::optional<std::vector<ProcessEntry>> Descendants(pid_t root);

/// Sends a signal to that very process, and none to another that was given its number. Says whether it may be sent:
/// true also when the process has ended.
bool SignalProcess(const ProcessEntry& process, int signal);

}  // namespace kx::velmor::cli
