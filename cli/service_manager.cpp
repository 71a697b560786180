#include "cli/service_manager.h"

#include <systemd/sd-daemon.h>

#include <cstdint>
#include <utility>

namespace kx::velmor::cli {

namespace {

/// A manager that cannot be told is not worth a failure: it finds out by itself.
void Notify(const std::string& state)
{
    constexpr int kKeepEnvironment = 0;
    static_cast<void>(sd_notify(kKeepEnvironment, state.c_str()));
}

}  // namespace

void ServiceManager::Ready()
{
    if (!std::exchange(ready_, true))
    {
        Notify("READY=1");
    }
}

void ServiceManager::Status(const std::string& text)
{
    Notify("STATUS=" + text);
}

void ServiceManager::Stopping()
{
    if (!std::exchange(stopping_, true))
    {
        Notify("STOPPING=1");
    }
}

void ServiceManager::Alive()
{
    Notify("WATCHDOG=1");
}

std::optional<std::chrono::microseconds> ServiceManager::AliveInterval() const
{
    constexpr int kKeepEnvironment = 0;
    std::uint64_t timeout = 0;
    if (sd_watchdog_enabled(kKeepEnvironment, &timeout) <= 0)
    {
        return std::nullopt;
    }
    // As its manual advises, and so that one that is late by as much is in time.
    return std::chrono::microseconds(timeout / 2);
}

}  // namespace kx::velmor::cli
