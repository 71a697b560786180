#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace kx::velmor::simulation {

/// Time since the simulated machine was started. Both CLOCK_MONOTONIC and CLOCK_BOOTTIME show it inside a simulation.
using Time = std::chrono::nanoseconds;
using ProcessId = std::size_t;
using EventId = std::uint64_t;

/// Runs the threads of any number of simulated processes in virtual time, on one thread of the operating system.
///
/// The program that links this unit replaces the C library's threads, mutexes, condition variables, sleeps and clocks
/// (`pthread_create`, `pthread_mutex_lock`, `pthread_cond_clockwait`, `clock_gettime`, ...) and the standard library's
/// `std::random_device`. While a machine runs, they work on its coroutines and its clock, so that code under test runs
/// unchanged. Outside of a machine they do what the C library does. (`virtual_posix.cpp` has the list, and what cannot
/// be simulated.)
///
/// Each thread has its own thread-local variables of the executable. Those of shared libraries are shared, and so is
/// what `pthread_getspecific` tells.
///
/// Threads run one at a time, until they wait. Which of the runnable threads runs next, and where a thread is preempted
/// (at some of the calls above), depends on the seed and on nothing else: two runs with one seed take the same steps.
/// The clock moves only when no thread can run, to the next time for which something waits. Events happen only then,
/// too. A thread that asks for the time or gives way a thousand times without waiting sleeps for a microsecond.
///
/// One machine at a time. Not for threads: everything here is called by the thread that owns the machine or by a
/// simulated thread.
class VirtualMachine
{
public:
    /// A thread is preempted once in `preemption` calls on average at which that is possible; never with 0.
    explicit VirtualMachine(std::uint64_t seed, unsigned preemption = 64);
    /// All threads must have ended.
    ~VirtualMachine();
    VirtualMachine(const VirtualMachine&) = delete;
    VirtualMachine& operator=(const VirtualMachine&) = delete;

    /// The machine that exists; null outside of a simulation. Its clock is the clock of the thread that owns it, also
    /// between two calls of `Run`.
    static VirtualMachine* Current() noexcept;

    Time Now() const noexcept;

    /// A number below `limit` from the machine's own generator. For what is part of the simulated world.
    std::uint64_t Random(std::uint64_t limit);

    ProcessId AddProcess();

    /// The process of the thread that runs. Threads that a thread starts belong to its process.
    ProcessId CurrentProcess() const;

    /// A paused process runs no threads, and its events wait. The clock goes on.
    void Pause(ProcessId process);
    /// Pauses the process at its `calls`-th call from now that locks, unlocks or notifies something, or reads a clock:
    /// in the middle of what it does and with the locks that it holds, whereas `Pause` in an event finds all threads
    /// waiting. `Continue` takes it back.
    void PauseInside(ProcessId process, std::uint64_t calls);
    void Continue(ProcessId process);
    bool Paused(ProcessId process) const;

    /// Starts a thread. It runs during `Run`.
    void Start(ProcessId process, std::function<void()> main);

    /// Runs `action` once the clock shows `when`, on no thread: it must not wait, nor call code under test that may. It
    /// may wake threads: signal condition variables, and lock mutexes that no thread holds across a wait.
    EventId At(Time when, std::function<void()> action);
    /// The same, later when the process is paused then.
    EventId At(ProcessId process, Time when, std::function<void()> action);
    /// Does nothing when the event has happened or has been cancelled.
    void Cancel(EventId event);

    /// Is called after each step of a thread or event, and before the clock moves past the time at which it asks to be
    /// called again. Returns that time, or `Time::max()`. Same rules as for events.
    using Observer = std::function<Time()>;
    void Observe(Observer observer);

    enum class Outcome
    {
        /// `done` returned true.
        Done,
        /// The clock has reached `end`.
        EndReached,
        /// No thread can ever run again, and there are no events.
        Stalled,
    };
    /// Runs threads and events until `done` returns true or the clock shows `end`. `done` is asked after each step.
    Outcome Run(Time end, const std::function<bool()>& done = {});

    /// How many threads have not ended.
    std::size_t Threads() const;

    /// Whether the simulated thread with this number, as `gettid` tells it, waits for something.
    bool Asleep(pid_t thread) const;

    /// Counts everything that happened so far, in order: two runs that took the same steps have the same value.
    std::uint64_t Fingerprint() const;

    /// In a process that was forked while the machine ran (a real `fork`): from now on nothing may wait. A wait ends
    /// the process at once with `status`.
    void ForbidWaiting(int status);

private:
    class Impl;
    const std::unique_ptr<Impl> impl_;
};

}  // namespace kx::velmor::simulation
