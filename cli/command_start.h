#pragma once

#include "cli/warden.h"

#include <sys/types.h>

#include <string>

namespace kx::velmor::cli {

/// What a command gets beside what `Launch` says.
struct StartSurroundings
{
    /// The command leads a group of its own, brought to the foreground of the terminal that is standard input.
    bool foreground = false;
    /// Becomes descriptor 3 of the command; -1 for none.
    int rolePipe = -1;
    /// Standard input for a hook, which is not to read what is meant for the service.
    int null = -1;
};

struct StartResult
{
    /// 0 when it has not been started, and then why.
    pid_t pid = 0;
    int code = 0;
    std::string error{};
};

/// Starts a child of this process, which has one thread, with descriptor 3 in use and closed by exec, and SIGTTOU
/// blocked. The child is killed when this process ends; no signal is blocked in it, and SIGPIPE and SIGCHLD have their
/// default dispositions.
///
/// Blocks until the program has been loaded.
StartResult StartCommand(const Launch& launch, const StartSurroundings& surroundings);

}  // namespace kx::velmor::cli
