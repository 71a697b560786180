// What replaces the C library's threads, locks, sleeps and clocks, and a few functions of the C++ runtime. They are
// found before the real ones, since the executable defines them, also by shared libraries. Outside of a machine, and on
// threads of the operating system that own none, they call the real ones.
//
// Mutexes and read-write locks are really locked, so that it does not matter whether that was done inside of a machine;
// all simulated threads are one thread for them, which never waits in them. Condition variables are addresses alone.
//
// What waits otherwise stops the whole simulation: `std::future`, `std::call_once`, semaphores, `poll`. Recursive
// mutexes are refused.

#include "source/thread_state.h"
#include "tests/simulation/virtual_machine_core.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <random>

namespace kx::velmor::simulation {

namespace {

using std::chrono::nanoseconds;
using std::chrono::seconds;

/// The time of day at which machines start: 2026-01-01 00:00:00 UTC.
constexpr seconds kStartOfDay{1'767'225'600};

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

using MutexFunction = int(pthread_mutex_t*);
using TimedMutexFunction = int(pthread_mutex_t*, const timespec*);
using ClockMutexFunction = int(pthread_mutex_t*, clockid_t, const timespec*);
using RwLockFunction = int(pthread_rwlock_t*);
using TimedRwLockFunction = int(pthread_rwlock_t*, const timespec*);
using ClockRwLockFunction = int(pthread_rwlock_t*, clockid_t, const timespec*);
using ConditionFunction = int(pthread_cond_t*);

Real<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)> g_create("pthread_create");
Real<int(pthread_t, void**)> g_join("pthread_join");
Real<int(pthread_t)> g_detach("pthread_detach");
Real<pthread_t()> g_self("pthread_self");
Real<MutexFunction> g_mutexLock("pthread_mutex_lock");
Real<MutexFunction> g_mutexTryLock("pthread_mutex_trylock");
Real<MutexFunction> g_mutexUnlock("pthread_mutex_unlock");
Real<TimedMutexFunction> g_mutexTimedLock("pthread_mutex_timedlock");
Real<ClockMutexFunction> g_mutexClockLock("pthread_mutex_clocklock");
Real<int(pthread_cond_t*, pthread_mutex_t*)> g_condWait("pthread_cond_wait", "GLIBC_2.3.2");
Real<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> g_condTimedWait("pthread_cond_timedwait", "GLIBC_2.3.2");
Real<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, const timespec*)> g_condClockWait("pthread_cond_clockwait");
Real<ConditionFunction> g_condSignal("pthread_cond_signal", "GLIBC_2.3.2");
Real<ConditionFunction> g_condBroadcast("pthread_cond_broadcast", "GLIBC_2.3.2");
Real<RwLockFunction> g_readLock("pthread_rwlock_rdlock");
Real<RwLockFunction> g_writeLock("pthread_rwlock_wrlock");
Real<RwLockFunction> g_tryReadLock("pthread_rwlock_tryrdlock");
Real<RwLockFunction> g_tryWriteLock("pthread_rwlock_trywrlock");
Real<TimedRwLockFunction> g_timedReadLock("pthread_rwlock_timedrdlock");
Real<TimedRwLockFunction> g_timedWriteLock("pthread_rwlock_timedwrlock");
Real<ClockRwLockFunction> g_clockReadLock("pthread_rwlock_clockrdlock");
Real<ClockRwLockFunction> g_clockWriteLock("pthread_rwlock_clockwrlock");
Real<RwLockFunction> g_rwUnlock("pthread_rwlock_unlock");
Real<int()> g_yield("sched_yield");
Real<int(const timespec*, timespec*)> g_nanosleep("nanosleep");
Real<int(clockid_t, int, const timespec*, timespec*)> g_clockNanosleep("clock_nanosleep");
Real<int(useconds_t)> g_usleep("usleep");
Real<int(clockid_t, timespec*)> g_clockGettime("clock_gettime");
Real<pid_t()> g_gettid("gettid");
Real<int(abi::__guard*)> g_guardAcquire("__cxa_guard_acquire");
Real<void(abi::__guard*)> g_guardRelease("__cxa_guard_release");
Real<void(abi::__guard*)> g_guardAbort("__cxa_guard_abort");
Real<int(void (*)(void*), void*, void*)> g_atThreadExit("__cxa_thread_atexit");
Real<void(std::random_device*, const std::string&)> g_randomInit(
    "_ZNSt13random_device7_M_initERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE");
Real<unsigned int(std::random_device*)> g_randomValue("_ZNSt13random_device9_M_getvalEv");

/// Handles of simulated threads: their numbers, marked as nothing that the C library would hand out.
constexpr pthread_t kHandleMark = 0x51UL << 56;

pthread_t HandleOf(const SimulatedThread& thread)
{
    return kHandleMark | thread.id;
}

bool IsSimulated(pthread_t handle)
{
    return (handle & (0xFFUL << 56)) == kHandleMark;
}

Time DurationOf(const timespec& time)
{
    return seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

/// When a clock of the machine shows this.
Time DeadlineOf(clockid_t clock, const timespec& time)
{
    const Time shown = DurationOf(time);
    return clock == CLOCK_REALTIME ? shown - kStartOfDay : shown;
}

/// `tryLock` returns 0 or an error.
template <typename TryLock>
int Lock(MachineCore& machine, const void* address, Time deadline, TryLock&& tryLock)
{
    for (;;)
    {
        const int error = tryLock();
        if (error != EBUSY)
        {
            return error;
        }
        if (!machine.Wait(address, deadline))
        {
            return ETIMEDOUT;
        }
    }
}

int LockMutex(MachineCore& machine, pthread_mutex_t* mutex, Time deadline)
{
    if (mutex->__data.__kind != PTHREAD_MUTEX_TIMED_NP)
    {
        FailSimulation("a mutex is recursive, or checks for errors, which all threads being one it cannot");
    }
    return Lock(machine, mutex, deadline, [mutex] { return g_mutexTryLock(mutex); });
}

int UnlockMutex(MachineCore& machine, pthread_mutex_t* mutex)
{
    const int error = g_mutexUnlock(mutex);
    machine.WakeAll(mutex);
    return error;
}

int WaitForCondition(MachineCore& machine, const pthread_cond_t* condition, pthread_mutex_t* mutex, Time deadline)
{
    UnlockMutex(machine, mutex);
    const bool inTime = machine.Wait(condition, deadline);
    LockMutex(machine, mutex, kNever);
    return inTime ? 0 : ETIMEDOUT;
}

int LockReadWrite(MachineCore& machine, pthread_rwlock_t* lock, Real<RwLockFunction>& tryLock, Time deadline)
{
    machine.Point();
    return Lock(machine, lock, deadline, [&tryLock, lock] { return tryLock(lock); });
}

SimulatedThread* CurrentThread()
{
    MachineCore* const machine = MachineCore::Current();
    return machine != nullptr ? machine->CurrentThread() : nullptr;
}

}  // namespace

void LinkReplacements() {}

}  // namespace kx::velmor::simulation

using namespace kx::velmor::simulation;

extern "C" {

int pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*main)(void*), void* argument) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    if (machine == nullptr)
    {
        return g_create(handle, attributes, main, argument);
    }
    SimulatedThread& thread = machine->StartThread(machine->CurrentProcess(), [main, argument] { main(argument); });
    *handle = HandleOf(thread);
    int detached = PTHREAD_CREATE_JOINABLE;
    if (attributes != nullptr && pthread_attr_getdetachstate(attributes, &detached) == 0 &&
        detached == PTHREAD_CREATE_DETACHED)
    {
        machine->Detach(thread);
    }
    machine->Point();
    return 0;
}

int pthread_join(pthread_t handle, void** result)
{
    MachineCore* const machine = MachineCore::Current();
    if (machine == nullptr || !IsSimulated(handle))
    {
        return g_join(handle, result);
    }
    SimulatedThread* const thread = machine->FindThread(handle & ~kHandleMark);
    if (thread == nullptr)
    {
        return ESRCH;
    }
    if (thread == machine->CurrentThread())
    {
        return EDEADLK;
    }
    machine->Join(*thread);
    if (result != nullptr)
    {
        *result = nullptr;
    }
    return 0;
}

int pthread_detach(pthread_t handle) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    if (machine == nullptr || !IsSimulated(handle))
    {
        return g_detach(handle);
    }
    SimulatedThread* const thread = machine->FindThread(handle & ~kHandleMark);
    if (thread == nullptr)
    {
        return ESRCH;
    }
    machine->Detach(*thread);
    return 0;
}

pthread_t pthread_self() noexcept
{
    const SimulatedThread* const thread = CurrentThread();
    return thread != nullptr ? HandleOf(*thread) : g_self();
}

pid_t gettid() noexcept
{
    const SimulatedThread* const thread = CurrentThread();
    return thread != nullptr ? static_cast<pid_t>(thread->id) : g_gettid();
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    if (machine == nullptr)
    {
        return g_mutexLock(mutex);
    }
    machine->Point();
    return LockMutex(*machine, mutex, kNever);
}

int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    if (machine != nullptr)
    {
        machine->Point();
    }
    return g_mutexTryLock(mutex);
}

int pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* time) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    if (machine == nullptr)
    {
        return g_mutexTimedLock(mutex, time);
    }
    machine->Point();
    return LockMutex(*machine, mutex, DeadlineOf(CLOCK_REALTIME, *time));
}

int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock, const timespec* time) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    if (machine == nullptr)
    {
        return g_mutexClockLock(mutex, clock, time);
    }
    machine->Point();
    return LockMutex(*machine, mutex, DeadlineOf(clock, *time));
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    if (machine == nullptr)
    {
        return g_mutexUnlock(mutex);
    }
    const int error = UnlockMutex(*machine, mutex);
    machine->Point();
    return error;
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    MachineCore* const machine = MachineCore::Current();
    return machine != nullptr ? WaitForCondition(*machine, condition, mutex, kNever) : g_condWait(condition, mutex);
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* time)
{
    MachineCore* const machine = MachineCore::Current();
    return machine != nullptr ? WaitForCondition(*machine, condition, mutex, DeadlineOf(CLOCK_REALTIME, *time))
                              : g_condTimedWait(condition, mutex, time);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* time)
{
    MachineCore* const machine = MachineCore::Current();
    return machine != nullptr ? WaitForCondition(*machine, condition, mutex, DeadlineOf(clock, *time))
                              : g_condClockWait(condition, mutex, clock, time);
}

int pthread_cond_signal(pthread_cond_t* condition) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    if (machine == nullptr)
    {
        return g_condSignal(condition);
    }
    machine->WakeOne(condition);
    machine->Point();
    return 0;
}

int pthread_cond_broadcast(pthread_cond_t* condition) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    if (machine == nullptr)
    {
        return g_condBroadcast(condition);
    }
    machine->WakeAll(condition);
    machine->Point();
    return 0;
}

int pthread_rwlock_rdlock(pthread_rwlock_t* lock) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    return machine != nullptr ? LockReadWrite(*machine, lock, g_tryReadLock, kNever) : g_readLock(lock);
}

int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    return machine != nullptr ? LockReadWrite(*machine, lock, g_tryWriteLock, kNever) : g_writeLock(lock);
}

int pthread_rwlock_tryrdlock(pthread_rwlock_t* lock) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    if (machine != nullptr)
    {
        machine->Point();
    }
    return g_tryReadLock(lock);
}

int pthread_rwlock_trywrlock(pthread_rwlock_t* lock) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    if (machine != nullptr)
    {
        machine->Point();
    }
    return g_tryWriteLock(lock);
}

int pthread_rwlock_timedrdlock(pthread_rwlock_t* lock, const timespec* time) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    return machine != nullptr ? LockReadWrite(*machine, lock, g_tryReadLock, DeadlineOf(CLOCK_REALTIME, *time))
                              : g_timedReadLock(lock, time);
}

int pthread_rwlock_timedwrlock(pthread_rwlock_t* lock, const timespec* time) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    return machine != nullptr ? LockReadWrite(*machine, lock, g_tryWriteLock, DeadlineOf(CLOCK_REALTIME, *time))
                              : g_timedWriteLock(lock, time);
}

int pthread_rwlock_clockrdlock(pthread_rwlock_t* lock, clockid_t clock, const timespec* time) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    return machine != nullptr ? LockReadWrite(*machine, lock, g_tryReadLock, DeadlineOf(clock, *time))
                              : g_clockReadLock(lock, clock, time);
}

int pthread_rwlock_clockwrlock(pthread_rwlock_t* lock, clockid_t clock, const timespec* time) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    return machine != nullptr ? LockReadWrite(*machine, lock, g_tryWriteLock, DeadlineOf(clock, *time))
                              : g_clockWriteLock(lock, clock, time);
}

int pthread_rwlock_unlock(pthread_rwlock_t* lock) noexcept
{
    MachineCore* const machine = MachineCore::Current();
    const int error = g_rwUnlock(lock);
    if (machine != nullptr)
    {
        machine->WakeAll(lock);
        machine->Point();
    }
    return error;
}

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
    Coroutine* const coroutine = CurrentThread() != nullptr ? Coroutine::Current() : nullptr;
    if (coroutine == nullptr)
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

bool kx::velmor::Asleep(pid_t thread) noexcept
{
    const VirtualMachine* const machine = VirtualMachine::Current();
    return machine != nullptr && machine->Asleep(thread);
}
