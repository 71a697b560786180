// What replaces the C library's threads and locks; virtual_runtime.cpp replaces the rest. These functions are found
// before the real ones, since the executable defines them, also by shared libraries. Outside of a machine, and on
// threads of the operating system that own none, they call the real ones.
//
// Mutexes and read-write locks are really locked, so that it does not matter whether that was done inside of a machine;
// all simulated threads are one thread for them, which never waits in them. Condition variables are addresses alone.
//
// What waits otherwise stops the whole simulation: `std::future`, `std::call_once`, semaphores, `poll`. Recursive
// mutexes are refused.

#include "source/thread_state.h"
#include "tests/simulation/real_function.h"
#include "tests/simulation/virtual_machine_core.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace kx::velmor::simulation {

namespace {

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
Real<pid_t()> g_gettid("gettid");

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

}  // extern "C"

bool kx::velmor::Asleep(pid_t thread) noexcept
{
    const VirtualMachine* const machine = VirtualMachine::Current();
    return machine != nullptr && machine->Asleep(thread);
}
