#pragma once

#include "tests/simulation/virtual_machine_core.h"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <ctime>

namespace kx::velmor::simulation {

/// The time of day at which machines start: 2026-01-01 00:00:00 UTC.
constexpr std::chrono::seconds kStartOfDay{1'767'225'600};

inline Time DurationOf(const timespec& time)
{
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/// When a clock of the machine shows this.
inline Time DeadlineOf(clockid_t clock, const timespec& time)
{
    const Time shown = DurationOf(time);
    return clock == CLOCK_REALTIME ? shown - kStartOfDay : shown;
}

/// The function that is replaced. Looked up when it is first called: before any static object exists, maybe.
template <typename Function>
class Real
{
public:
    /// `version` for a name that has several; the linker would find the oldest one.
    constexpr explicit Real(const char* name, const char* version = nullptr) : name_(name), version_(version) {}

    template <typename... Arguments>
    auto operator()(Arguments... arguments)
    {
        return Get()(arguments...);
    }

private:
    Function* Get()
    {
        void* found = function_.load(std::memory_order_relaxed);
        if (found == nullptr)
        {
            found = version_ != nullptr ? dlvsym(RTLD_NEXT, name_, version_) : dlsym(RTLD_NEXT, name_);
            if (found == nullptr)
            {
                FailSimulation(name_);
            }
            function_.store(found, std::memory_order_relaxed);
        }
        return reinterpret_cast<Function*>(found);
    }

    const char* const name_;
    const char* const version_;
    std::atomic<void*> function_{nullptr};
};

}  // namespace kx::velmor::simulation
