#pragma once

#include "cli/restart_policy.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor::cli {

/// What `velmor run` is asked for, apart from where the election is.
struct RunOptions
{
    /// The program and its arguments.
    std::vector<std::string> command;
    /// Empty: "<host name>:<process id>".
    std::string identity;
    /// Between SIGTERM and SIGKILL, and the longest that the hook of a loss may take.
    std::chrono::milliseconds grace{10'000};
    /// Give up when not leading within this time.
    std::optional<std::chrono::milliseconds> wait;
    Restart restart = Restart::Never;
    /// For a shell; may be empty.
    std::string onNext;
    std::string onLost;
    /// The command runs all the time and is told its role.
    bool standby = false;
    std::string roleFile;
    /// "[address:]port"; empty: none.
    std::string http;
};

}  // namespace kx::velmor::cli
