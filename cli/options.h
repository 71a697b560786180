#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace kx::velmor::cli {

// Options that CLI11 has no type for. Like every option of a subcommand they have an environment variable and a key in
// configuration files without further ado, and of several on the command line the last one counts.

/// `--grace DURATION`, read by `ParseDuration`; below `least` it is refused. What `value` holds is shown as the
/// default. `value` must outlive the parsing.
CLI::Option* AddDuration(CLI::App& application, const std::string& flag, std::chrono::milliseconds& value,
                         const std::string& description,
                         std::chrono::milliseconds least = std::chrono::milliseconds(1));

/// The same for one that need not be given.
CLI::Option* AddDuration(CLI::App& application, const std::string& flag,
                         std::optional<std::chrono::milliseconds>& value, const std::string& description,
                         std::chrono::milliseconds least = std::chrono::milliseconds(1));

}  // namespace kx::velmor::cli
