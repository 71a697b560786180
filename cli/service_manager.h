#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace kx::velmor::cli {

/// What a service manager that has started this process (systemd, with Type=notify) is told. Without one, nothing
/// happens. Threads: one at a time. Does not block.
class ServiceManager
{
public:
    /// Up and doing. Told once.
    void Ready();
    /// A line for people.
    void Status(const std::string& text);
    /// Begins to end. Told once.
    void Stopping();
    void Alive();
    /// How often it wants to hear `Alive`, at least; empty when it does not care.
    std::optional<std::chrono::microseconds> AliveInterval() const;

private:
    bool ready_ = false;
    bool stopping_ = false;
};

}  // namespace kx::velmor::cli
