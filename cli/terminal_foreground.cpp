#include "cli/terminal_foreground.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>

namespace kx::velmor::cli {

bool TerminalForeground::IsOwners() const noexcept
{
    return IsOf(owner_);
}

bool TerminalForeground::IsOf(pid_t group) noexcept
{
    return ::tcgetpgrp(STDIN_FILENO) == group;
}

void TerminalForeground::Take() noexcept
{
    ::tcsetpgrp(STDIN_FILENO, ::getpgrp());
}

void TerminalForeground::GiveBack() const noexcept
{
    const pid_t group = ::tcgetpgrp(STDIN_FILENO);
    if (group > 1 && group != owner_ && ::kill(-group, 0) != 0 && errno == ESRCH)
    {
        ::tcsetpgrp(STDIN_FILENO, owner_);
    }
}

}  // namespace kx::velmor::cli
