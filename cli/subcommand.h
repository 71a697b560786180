#pragma once

#include "cli/settings.h"

#include <kx/logging/logger.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace CLI {
class App;
}  // namespace CLI

namespace kx::velmor::cli {

/// What is true of a subcommand when nobody asks for anything else.
struct Defaults
{
    /// Empty: it must be given.
    std::string election{};
    std::chrono::milliseconds sessionTimeout{10'000};
    /// As in `Settings`.
    std::optional<std::chrono::milliseconds> connectTimeout = std::chrono::milliseconds(10'000);
    logging::LogLevel logLevel = logging::LogLevel::Warning;
    /// Whether a command with its arguments follows behind `--`, which must then be there.
    bool takesCommand = false;
};

/// One subcommand: how it is asked for, and what does it.
struct Subcommand
{
    /// Owned by the application that it was added to.
    CLI::App* app;
    /// Called when it was asked for, with everything parsed and the log set up, while the process has one thread and no
    /// signal is blocked. Returns the exit status. What it throws is told as a message, with the status for it.
    std::function<int(const Settings&)> run;
    Defaults defaults{};
};

// Each adds its options, help and examples to `application`: plain options of CLI11 with a description, the examples
// and the exit statuses in the footer. Nothing else is needed for an option to be found in the environment and in
// configuration files; one that must be given is `required()` as ever, and is asked for when all three are read.
Subcommand AddRun(CLI::App& application);
Subcommand AddStatus(CLI::App& application);
Subcommand AddWatch(CLI::App& application);
Subcommand AddDemo(CLI::App& application);
/// Not shown: what the demonstration starts.
Subcommand AddDemoParticipant(CLI::App& application);

}  // namespace kx::velmor::cli
