#pragma once

#include "cli/settings.h"

#include <functional>

namespace CLI {
class App;
}  // namespace CLI

namespace kx::velmor::cli {

/// One subcommand: how it is asked for, and what does it.
struct Subcommand
{
    /// Owned by the application that it was added to.
    CLI::App* app;
    /// Called when it was asked for, with everything parsed and the log set up, while the process has one thread and no
    /// signal is blocked. Returns the exit status. What it throws is told as a message, with the status for it.
    std::function<int(const Settings&)> run;
};

// Each adds its options, help and examples to `application`.
Subcommand AddRun(CLI::App& application);
Subcommand AddStatus(CLI::App& application);
Subcommand AddWatch(CLI::App& application);
Subcommand AddDemo(CLI::App& application);

}  // namespace kx::velmor::cli
