// What replaces the C library's sleeps and clocks, and a few functions of the C++ runtime: as in virtual_posix.cpp.

#include "tests/simulation/real_function.h"
#include "tests/simulation/virtual_machine_core.h"

#include <cxxabi.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <random>
#include <string>

namespace kx::velmor::simulation {

namespace {

using std::chrono::seconds;

Real<int()> g_yield("sched_yield");
Real<int(const timespec*, timespec*)> g_nanosleep("nanosleep");
Real<int(clockid_t, int, const timespec*, timespec*)> g_clockNanosleep("clock_nanosleep");
Real<int(useconds_t)> g_usleep("usleep");
Real<int(clockid_t, timespec*)> g_clockGettime("clock_gettime");
Real<int(abi::__guard*)> g_guardAcquire("__cxa_guard_acquire");
Real<void(abi::__guard*)> g_guardRelease("__cxa_guard_release");
Real<void(abi::__guard*)> g_guardAbort("__cxa_guard_abort");
Real<int(void (*)(void*), void*, void*)> g_atThreadExit("__cxa_thread_atexit");
Real<void(std::random_device*, const std::string&)> g_randomInit(
    "_ZNSt13random_device7_M_initERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE");
Real<unsigned int(std::random_device*)> g_randomValue("_ZNSt13random_device9_M_getvalEv");

}  // namespace

void LinkRuntimeReplacements() {}

}  // namespace kx::velmor::simulation

using namespace kx::velmor::simulation;

extern "C" {

int sched_yield() noexcept
{
    MachineCore* const machine = MachineCore::Current();
    if (machine == nullptr)
    {
        return g_yield();
    }
    machine->GiveWay();
    return 0;
}

int nanosleep(const timespec* time, timespec* left)
{
    MachineCore* const machine = MachineCore::Current();
    if (machine == nullptr)
    {
        return g_nanosleep(time, left);
    }
    machine->Sleep(machine->Now() + DurationOf(*time));
    return 0;
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* time, timespec* left)
{
    MachineCore* const machine = MachineCore::Current();
    if (machine == nullptr)
    {
        return g_clockNanosleep(clock, flags, time, left);
    }
    machine->Sleep((flags & TIMER_ABSTIME) != 0 ? DeadlineOf(clock, *time) : machine->Now() + DurationOf(*time));
    return 0;
}

int usleep(useconds_t time)
{
    MachineCore* const machine = MachineCore::Current();
    if (machine == nullptr)
    {
        return g_usleep(time);
    }
    machine->Sleep(machine->Now() + std::chrono::microseconds(time));
    return 0;
}

int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    if (machine == nullptr)
    {
        return g_clockGettime(clock, time);
    }
    Time now{};
    switch (clock)
    {
        case CLOCK_MONOTONIC:
        case CLOCK_MONOTONIC_COARSE:
        case CLOCK_MONOTONIC_RAW:
        case CLOCK_BOOTTIME:
            now = machine->ReadClock();
            break;
        case CLOCK_REALTIME:
        case CLOCK_REALTIME_COARSE:
            now = machine->ReadClock() + kStartOfDay;
            break;
        default:
            return g_clockGettime(clock, time);
    }
    time->tv_sec = std::chrono::duration_cast<seconds>(now).count();
    time->tv_nsec = (now % seconds(1)).count();
    return 0;
}

}  // extern "C"

// Guards of static objects in functions: a byte that tells whether the object exists, and one that tells whether a
// thread is about to make it, as in the runtime. A thread may be preempted while it does.
namespace __cxxabiv1 {

extern "C" int __cxa_guard_acquire(__guard* guard)
{
    MachineCore* const machine = MachineCore::Current();
    if (machine == nullptr)
    {
        return g_guardAcquire(guard);
    }
    char* const bytes = reinterpret_cast<char*>(guard);
    while (bytes[0] == 0)
    {
        if (bytes[1] == 0)
        {
            bytes[1] = 1;
            return 1;
        }
        machine->Wait(guard, kNever);
    }
    return 0;
}

extern "C" void __cxa_guard_release(__guard* guard) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    g_guardRelease(guard);
    if (machine != nullptr)
    {
        machine->WakeAll(guard);
    }
}

extern "C" void __cxa_guard_abort(__guard* guard) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    g_guardAbort(guard);
    if (machine != nullptr)
    {
        machine->WakeAll(guard);
    }
}

extern "C" int __cxa_thread_atexit(void (*destroy)(void*), void* object, void* library) noexcept
{
    Coroutine* const coroutine = Coroutine::Current();
    // Other threads of the operating system may ask, too.
    if (coroutine == nullptr || MachineCore::Current() == nullptr)
    {
        return g_atThreadExit(destroy, object, library);
    }
    coroutine->AtEnd(destroy, object);
    return 0;
}

}  // namespace __cxxabiv1

void std::random_device::_M_init(const std::string& token)
{
    if (MachineCore::Current() == nullptr)
    {
        g_randomInit(this, token);
        return;
    }
    // Nothing to be released.
    _M_file = nullptr;
    _M_func = nullptr;
    _M_fd = -1;
}

std::random_device::result_type std::random_device::_M_getval()
{
    MachineCore* const machine = MachineCore::Current();
    return machine != nullptr ? static_cast<result_type>(machine->DeviceRandom() >> 32) : g_randomValue(this);
}
