#pragma once

#include <kx/velmor/session.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kx::velmor::cli {

/// What all subcommands have in common: where the election is, and how to get there.
struct Settings
{
    /// "host:port,host:port".
    std::string servers;
    /// The election path, below `root`.
    std::string election;
    /// Put in front of every path; may be empty.
    std::string root;
    /// "user:password"; may be empty.
    std::string digest;
    std::chrono::milliseconds sessionTimeout{10'000};
    /// How long to wait for a first server. Empty: what the subcommand does by itself.
    std::optional<std::chrono::milliseconds> connectTimeout;
    /// What stands behind `--`, word for word; for subcommands that take a command, and not empty for them.
    std::vector<std::string> command{};
};

/// As `settings` say.
SessionOptions SessionOptionsFor(const Settings& settings);

/// Ends the program with a message for people and a status of `ExitStatus`.
class Failure : public std::runtime_error
{
public:
    Failure(int status, const std::string& message) : std::runtime_error(message), status_(status) {}
    int Status() const noexcept { return status_; }

private:
    int status_;
};

}  // namespace kx::velmor::cli
