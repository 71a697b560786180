// The threads and processes of a simulated machine: which one runs, what they wait for.

#include "tests/simulation/virtual_machine_core.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace kx::velmor::simulation {

namespace {

constexpr std::size_t kBits = 64;

/// A thread that does so much without waiting may wait for the clock, which stands still until all threads wait.
constexpr unsigned kMaxSpins = 1'000;
constexpr std::chrono::microseconds kSpinPause{1};

}  // namespace

void FailSimulation(const char* why)
{
    std::fprintf(stderr, "Simulation: %s\n", why);
    std::abort();
}

SimulatedThread& MachineCore::StartThread(ProcessId process, std::function<void()> main)
{
    std::size_t slot = 0;
    while (slot < slots_.size() && slots_[slot])
    {
        ++slot;
    }
    auto thread = std::make_unique<SimulatedThread>(++lastThread_, slot, process, std::move(main));
    if (slot == slots_.size())
    {
        slots_.emplace_back();
        runnable_.resize(slot / kBits + 1);
    }
    slots_[slot] = std::move(thread);
    ++threads_;
    SetRunnable(*slots_[slot], !processes_.at(process).paused);
    return *slots_[slot];
}

SimulatedThread* MachineCore::FindThread(std::uint64_t id)
{
    const auto found = std::find_if(slots_.begin(), slots_.end(),
                                    [id](const auto& thread) { return thread != nullptr && thread->id == id; });
    return found != slots_.end() ? found->get() : nullptr;
}

void MachineCore::Join(SimulatedThread& thread)
{
    while (thread.state != SimulatedThread::State::Ended)
    {
        Wait(&thread, kNever);
    }
    Remove(thread);
}

void MachineCore::Detach(SimulatedThread& thread)
{
    thread.detached = true;
    if (thread.state == SimulatedThread::State::Ended)
    {
        Remove(thread);
    }
}

void MachineCore::Remove(SimulatedThread& thread)
{
    slots_[thread.slot] = nullptr;
}

void MachineCore::SetRunnable(const SimulatedThread& thread, bool runnable)
{
    std::uint64_t& word = runnable_[thread.slot / kBits];
    const std::uint64_t bit = std::uint64_t{1} << (thread.slot % kBits);
    if (((word & bit) != 0) != runnable)
    {
        word ^= bit;
        runnableCount_ += runnable ? 1 : std::size_t(-1);
    }
}

SimulatedThread& MachineCore::ChooseThread()
{
    std::uint64_t skip = runnableCount_ > 1 ? scheduleRandom_.Below(runnableCount_) : 0;
    for (std::size_t i = 0;; ++i)
    {
        const auto here = static_cast<std::uint64_t>(__builtin_popcountll(runnable_[i]));
        if (skip >= here)
        {
            skip -= here;
            continue;
        }
        std::uint64_t word = runnable_[i];
        for (; skip > 0; --skip)
        {
            word &= word - 1;
        }
        return *slots_[i * kBits + static_cast<std::size_t>(__builtin_ctzll(word))];
    }
}

void MachineCore::RunThread(SimulatedThread& thread)
{
    Count(0, thread.id);
    current_ = &thread;
    thread.coroutine.Resume();
    current_ = nullptr;
    if (!thread.coroutine.Ended())
    {
        return;
    }
    thread.state = SimulatedThread::State::Ended;
    SetRunnable(thread, false);
    --threads_;
    WakeAll(&thread);
    if (thread.detached)
    {
        Remove(thread);
    }
}

void MachineCore::Suspend()
{
    current_->coroutine.Suspend();
}

unsigned MachineCore::NextPreemption()
{
    return preemption_ == 0 ? 0 : 1 + static_cast<unsigned>(scheduleRandom_.Below(2 * preemption_ - 1));
}

void MachineCore::Point()
{
    if (current_ == nullptr || forbidden_)
    {
        return;
    }
    Process& process = processes_[current_->process];
    if (process.pauseAfter > 0 && --process.pauseAfter == 0)
    {
        Pause(current_->process);
    }
    if (preemptIn_ > 0 && --preemptIn_ == 0)
    {
        preemptIn_ = NextPreemption();
        if (runnableCount_ > 1)
        {
            Suspend();
        }
    }
}

void MachineCore::GiveWay()
{
    if (current_ == nullptr || forbidden_)
    {
        return;
    }
    if (++current_->spins > kMaxSpins)
    {
        Sleep(now_ + kSpinPause);
    }
    else if (runnableCount_ > 1)
    {
        Suspend();
    }
}

Time MachineCore::ReadClock()
{
    if (current_ != nullptr && !forbidden_)
    {
        Point();
        if (++current_->spins > kMaxSpins)
        {
            Sleep(now_ + kSpinPause);
        }
    }
    return now_;
}

bool MachineCore::Wait(const void* address, Time deadline)
{
    if (deadline <= now_)
    {
        GiveWay();
        return false;
    }
    if (forbidden_)
    {
        _exit(*forbidden_);
    }
    if (current_ == nullptr)
    {
        FailSimulation("an event or an observer waits, or the owner of the machine does");
    }
    SimulatedThread& thread = *current_;
    thread.state = SimulatedThread::State::Waiting;
    thread.waitsAt = address;
    thread.deadline = deadline;
    thread.timedOut = false;
    thread.spins = 0;
    ++WaitersAt(address);
    if (deadline != kNever)
    {
        timers_.insert(TimerOf(thread));
    }
    SetRunnable(thread, false);
    Suspend();
    return !thread.timedOut;
}

void MachineCore::Sleep(Time until)
{
    Wait(nullptr, until);
}

std::size_t& MachineCore::WaitersAt(const void* address)
{
    // Objects with waiters are at least eight bytes apart.
    return waiters_[reinterpret_cast<std::uintptr_t>(address) / 8 % waiters_.size()];
}

void MachineCore::Wake(SimulatedThread& thread)
{
    if (thread.deadline != kNever)
    {
        timers_.erase(TimerOf(thread));
        thread.deadline = kNever;
    }
    --WaitersAt(thread.waitsAt);
    thread.waitsAt = nullptr;
    thread.state = SimulatedThread::State::Runnable;
    SetRunnable(thread, !processes_[thread.process].paused);
}

void MachineCore::WakeAll(const void* address)
{
    if (WaitersAt(address) == 0)
    {
        return;
    }
    for (const auto& thread : slots_)
    {
        if (thread && thread->state == SimulatedThread::State::Waiting && thread->waitsAt == address)
        {
            Wake(*thread);
        }
    }
}

void MachineCore::WakeOne(const void* address)
{
    if (WaitersAt(address) == 0)
    {
        return;
    }
    found_.clear();
    for (const auto& thread : slots_)
    {
        if (thread && thread->state == SimulatedThread::State::Waiting && thread->waitsAt == address)
        {
            found_.push_back(thread.get());
        }
    }
    if (!found_.empty())
    {
        Wake(*found_[found_.size() > 1 ? scheduleRandom_.Below(found_.size()) : 0]);
    }
}

ProcessId MachineCore::AddProcess()
{
    processes_.emplace_back();
    return processes_.size() - 1;
}

ProcessId MachineCore::CurrentProcess() const
{
    if (current_ != nullptr)
    {
        return current_->process;
    }
    if (!eventsProcess_)
    {
        throw std::logic_error("No thread of a simulated process runs");
    }
    return *eventsProcess_;
}

void MachineCore::Pause(ProcessId process)
{
    processes_.at(process).paused = true;
    processes_[process].pauseAfter = 0;
    for (const auto& thread : slots_)
    {
        if (thread && thread->process == process)
        {
            SetRunnable(*thread, false);
        }
    }
    if (current_ != nullptr && current_->process == process)
    {
        Suspend();
    }
}

void MachineCore::PauseInside(ProcessId process, std::uint64_t calls)
{
    processes_.at(process).pauseAfter = processes_.at(process).paused ? 0 : calls;
}

void MachineCore::Continue(ProcessId process)
{
    processes_.at(process).paused = false;
    processes_[process].pauseAfter = 0;
    for (const auto& thread : slots_)
    {
        if (thread && thread->process == process && thread->state == SimulatedThread::State::Runnable)
        {
            SetRunnable(*thread, true);
        }
    }
    for (const EventId id : processes_[process].held)
    {
        const auto event = events_.find(id);
        if (event != events_.end())
        {
            timers_.insert(TimerOf(id, event->second));
        }
    }
    processes_[process].held.clear();
}

}  // namespace kx::velmor::simulation
