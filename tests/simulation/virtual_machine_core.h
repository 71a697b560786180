#pragma once

#include "tests/simulation/coroutine.h"
#include "tests/simulation/virtual_machine.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <tuple>
#include <vector>

namespace kx::velmor::simulation {

constexpr Time kNever = Time::max();

/// Pseudo-random numbers (splitmix64). The same on every platform, unlike the distributions of the standard library.
class Generator
{
public:
    explicit Generator(std::uint64_t seed) : state_(seed) {}

    std::uint64_t Next();
    /// Below `limit`, which is not 0.
    std::uint64_t Below(std::uint64_t limit);

private:
    std::uint64_t state_;
};

/// A thread of a simulated process.
struct SimulatedThread
{
    enum class State
    {
        /// Runs or could.
        Runnable,
        Waiting,
        Ended,
    };

    SimulatedThread(std::uint64_t itsId, std::size_t itsSlot, ProcessId itsProcess, std::function<void()> main)
        : id(itsId), slot(itsSlot), process(itsProcess), coroutine(std::move(main))
    {}

    const std::uint64_t id;
    const std::size_t slot;
    const ProcessId process;
    State state = State::Runnable;
    /// While waiting: what for, and until when.
    const void* waitsAt = nullptr;
    Time deadline = kNever;
    bool timedOut = false;
    bool detached = false;
    /// How often it has asked for the time or given way since it last waited.
    unsigned spins = 0;
    Coroutine coroutine;
};

/// What a `VirtualMachine` is made of, as the replaced functions of the C library see it.
///
/// Threads wait at addresses, those of the objects that they wait for, and are woken there.
class MachineCore
{
public:
    MachineCore(VirtualMachine& machine, std::uint64_t seed, unsigned preemption);
    ~MachineCore();
    MachineCore(const MachineCore&) = delete;
    MachineCore& operator=(const MachineCore&) = delete;

    /// That of the thread of the operating system that calls; null when it has none.
    static MachineCore* Current() noexcept { return g_thread == __builtin_thread_pointer() ? g_current : nullptr; }

    VirtualMachine& Machine() noexcept { return machine_; }
    Time Now() const noexcept { return now_; }
    /// As a simulated thread sees it that asks.
    Time ReadClock();
    /// For what the simulated programs draw.
    std::uint64_t DeviceRandom() { return deviceRandom_.Next(); }
    std::uint64_t WorldRandom(std::uint64_t limit) { return worldRandom_.Below(limit); }

    // Threads: virtual_machine_threads.cpp

    /// Null in events, observers, and outside of `Run`.
    SimulatedThread* CurrentThread() noexcept { return current_; }
    SimulatedThread& StartThread(ProcessId process, std::function<void()> main);
    /// Null when there is none with this number, or it is joined or detached and has ended.
    SimulatedThread* FindThread(std::uint64_t id);
    /// Waits until it has ended.
    void Join(SimulatedThread& thread);
    void Detach(SimulatedThread& thread);
    std::size_t Threads() const noexcept { return threads_; }

    /// Lets the thread be preempted here, or its process be paused.
    void Point();
    /// Lets other threads run.
    void GiveWay();
    /// Waits until it is woken at `address`; false when `deadline` comes before that.
    bool Wait(const void* address, Time deadline);
    void Sleep(Time until);
    void WakeAll(const void* address);
    void WakeOne(const void* address);
    void ForbidWaiting(int status) { forbidden_ = status; }

    // Processes: virtual_machine_threads.cpp

    ProcessId AddProcess();
    ProcessId CurrentProcess() const;
    void Pause(ProcessId process);
    void PauseInside(ProcessId process, std::uint64_t calls);
    void Continue(ProcessId process);
    bool Paused(ProcessId process) const { return processes_.at(process).paused; }

    // Time: virtual_machine.cpp

    EventId At(std::optional<ProcessId> process, Time when, std::function<void()> action);
    void Cancel(EventId event);
    void Observe(VirtualMachine::Observer observer) { observers_.push_back(std::move(observer)); }
    VirtualMachine::Outcome Run(Time end, const std::function<bool()>& done);
    std::uint64_t Fingerprint() const noexcept { return fingerprint_; }

private:
    struct Process
    {
        bool paused = false;
        /// After so many points; 0: no.
        std::uint64_t pauseAfter = 0;
        /// Events that became due while it was paused.
        std::vector<EventId> held{};
    };
    struct Event
    {
        std::optional<ProcessId> process;
        Time when;
        std::function<void()> action;
    };
    /// When, whether a thread, and its number: the order in which things become due.
    using Timer = std::tuple<Time, bool, std::uint64_t, SimulatedThread*>;

    static Timer TimerOf(SimulatedThread& thread);
    static Timer TimerOf(EventId id, const Event& event);
    std::size_t& WaitersAt(const void* address);
    void SetRunnable(const SimulatedThread& thread, bool runnable);
    SimulatedThread& ChooseThread();
    void RunThread(SimulatedThread& thread);
    void Suspend();
    void Wake(SimulatedThread& thread);
    void Remove(SimulatedThread& thread);
    unsigned NextPreemption();

    void RunObservers();
    void RunWhatIsDue();
    void RunEvent(EventId id);
    void Count(std::uint64_t kind, std::uint64_t id);

    static MachineCore* g_current;
    static const void* g_thread;

    VirtualMachine& machine_;
    Generator scheduleRandom_;
    Generator worldRandom_;
    Generator deviceRandom_;
    const unsigned preemption_;
    unsigned preemptIn_;
    Time now_{0};
    std::uint64_t fingerprint_;
    std::optional<int> forbidden_{};

    std::vector<Process> processes_{};
    /// By slot, the lowest free one for a new thread, so that slots, too, depend on nothing but the seed.
    std::vector<std::unique_ptr<SimulatedThread>> slots_{};
    /// A bit per slot.
    std::vector<std::uint64_t> runnable_{};
    std::size_t runnableCount_ = 0;
    std::size_t threads_ = 0;
    std::uint64_t lastThread_ = 0;
    SimulatedThread* current_ = nullptr;
    /// How many threads wait at the addresses that share an entry: most wake-ups find nobody.
    std::array<std::size_t, 256> waiters_{};
    std::vector<SimulatedThread*> found_{};

    std::set<Timer> timers_{};
    std::map<EventId, Event> events_{};
    EventId lastEvent_ = 0;
    std::optional<ProcessId> eventsProcess_{};
    std::vector<VirtualMachine::Observer> observers_{};
    Time observeAt_ = kNever;
    bool running_ = false;
};

/// Ends the process: what was asked for is not possible in a simulation.
[[noreturn]] void FailSimulation(const char* why);

/// Sees to it that the functions that replace the C library's are linked.
void LinkReplacements();
void LinkRuntimeReplacements();

}  // namespace kx::velmor::simulation
