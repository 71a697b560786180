#pragma once

#include <sys/types.h>

namespace kx::velmor::cli {

/// The foreground of the terminal that is standard input, lent to a command's process group.
///
/// Only when standard input is this session's terminal with the group `owner` in its foreground: otherwise somebody
/// else has it, and everything here does nothing. Callers have SIGTTOU blocked.
class TerminalForeground
{
public:
    explicit TerminalForeground(pid_t owner) noexcept : owner_(owner) {}

    /// Whether the owner has the foreground now.
    bool IsOwners() const noexcept;
    /// Whether `group` has it now.
    static bool IsOf(pid_t group) noexcept;
    /// In the process that leads its group.
    static void Take() noexcept;
    /// Back to the owner, when the group that has it is one of which nobody is left.
    void GiveBack() const noexcept;

private:
    const pid_t owner_;
};

}  // namespace kx::velmor::cli
