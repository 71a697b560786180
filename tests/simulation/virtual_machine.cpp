// Time on a simulated machine: events, observers, the clock; and the class that its users see.

#include "tests/simulation/virtual_machine.h"

#include "tests/simulation/virtual_machine_core.h"

#include <algorithm>

namespace kx::velmor::simulation {

namespace {

std::uint64_t Mix(std::uint64_t value)
{
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9U;
    value = (value ^ (value >> 27)) * 0x94d049bb133111ebU;
    return value ^ (value >> 31);
}

}  // namespace

std::uint64_t Generator::Next()
{
    state_ += 0x9e3779b97f4a7c15U;
    return Mix(state_);
}

std::uint64_t Generator::Below(std::uint64_t limit)
{
    return static_cast<std::uint64_t>((static_cast<unsigned __int128>(Next()) * limit) >> 64);
}

MachineCore* MachineCore::g_current = nullptr;
const void* MachineCore::g_thread = nullptr;

MachineCore::MachineCore(VirtualMachine& machine, std::uint64_t seed, unsigned preemption)
    : machine_(machine),
      scheduleRandom_(Mix(seed + 1)),
      worldRandom_(Mix(seed + 2) + 1),
      deviceRandom_(Mix(seed + 3) + 2),
      preemption_(preemption),
      preemptIn_(NextPreemption()),
      fingerprint_(Mix(seed))
{
    if (g_current != nullptr)
    {
        FailSimulation("there is a machine already");
    }
    LinkReplacements();
    LinkRuntimeReplacements();
    g_thread = __builtin_thread_pointer();
    g_current = this;
}

MachineCore::~MachineCore()
{
    if (threads_ > 0)
    {
        FailSimulation("the machine is destroyed while it has threads");
    }
    g_current = nullptr;
    g_thread = nullptr;
}

MachineCore::Timer MachineCore::TimerOf(SimulatedThread& thread)
{
    return {thread.deadline, true, thread.id, &thread};
}

MachineCore::Timer MachineCore::TimerOf(EventId id, const Event& event)
{
    return {event.when, false, id, nullptr};
}

EventId MachineCore::At(std::optional<ProcessId> process, Time when, std::function<void()> action)
{
    const EventId id = ++lastEvent_;
    const auto [event, added] = events_.emplace(id, Event{process, when, std::move(action)});
    timers_.insert(TimerOf(id, event->second));
    return id;
}

void MachineCore::Cancel(EventId id)
{
    const auto event = events_.find(id);
    if (event != events_.end())
    {
        timers_.erase(TimerOf(id, event->second));
        events_.erase(event);
    }
}

void MachineCore::Count(std::uint64_t kind, std::uint64_t id)
{
    fingerprint_ = Mix(fingerprint_ ^ Mix(2 * id + kind) ^ static_cast<std::uint64_t>(now_.count()));
}

void MachineCore::RunObservers()
{
    observeAt_ = kNever;
    // By index: an observer may add another one.
    for (std::size_t i = 0; i < observers_.size(); ++i)
    {
        const Time next = observers_[i]();
        // The clock shows an earlier time already.
        if (next > now_)
        {
            observeAt_ = std::min(observeAt_, next);
        }
    }
}

void MachineCore::RunEvent(EventId id)
{
    const auto found = events_.find(id);
    Event& event = found->second;
    if (event.process && processes_.at(*event.process).paused)
    {
        processes_[*event.process].held.push_back(id);
        return;
    }
    const std::function<void()> action = std::move(event.action);
    eventsProcess_ = event.process;
    events_.erase(found);
    Count(1, id);
    action();
    eventsProcess_.reset();
}

void MachineCore::RunWhatIsDue()
{
    const auto [when, isThread, id, thread] = *timers_.begin();
    if (!isThread)
    {
        timers_.erase(timers_.begin());
        RunEvent(id);
        return;
    }
    thread->timedOut = true;
    Wake(*thread);
}

VirtualMachine::Outcome MachineCore::Run(Time end, const std::function<bool()>& done)
{
    using Outcome = VirtualMachine::Outcome;
    if (Coroutine::Current() != nullptr || running_)
    {
        FailSimulation("the machine runs already");
    }
    running_ = true;
    RunObservers();
    Outcome outcome = Outcome::EndReached;
    for (;;)
    {
        if (done && done())
        {
            outcome = Outcome::Done;
            break;
        }
        if (now_ >= end)
        {
            break;
        }
        if (runnableCount_ > 0)
        {
            RunThread(ChooseThread());
            RunObservers();
            continue;
        }
        if (timers_.empty() && observeAt_ == kNever)
        {
            outcome = Outcome::Stalled;
            break;
        }
        const Time next = timers_.empty() ? kNever : std::get<Time>(*timers_.begin());
        const Time to = std::min({next, observeAt_, end});
        if (to > now_)
        {
            now_ = to;
            RunObservers();
            continue;
        }
        // All that becomes due at once, before one of the threads runs; events one by one.
        do
        {
            RunWhatIsDue();
        } while (runnableCount_ > 0 && !timers_.empty() && std::get<bool>(*timers_.begin()) &&
                 std::get<Time>(*timers_.begin()) <= now_);
        RunObservers();
    }
    running_ = false;
    return outcome;
}

class VirtualMachine::Impl : public MachineCore
{
public:
    using MachineCore::MachineCore;
};

VirtualMachine::VirtualMachine(std::uint64_t seed, unsigned preemption)
    : impl_(std::make_unique<Impl>(*this, seed, preemption))
{}

VirtualMachine::~VirtualMachine() = default;

VirtualMachine* VirtualMachine::Current() noexcept
{
    MachineCore* const core = MachineCore::Current();
    return core != nullptr ? &core->Machine() : nullptr;
}

Time VirtualMachine::Now() const noexcept
{
    return impl_->Now();
}

std::uint64_t VirtualMachine::Random(std::uint64_t limit)
{
    return impl_->WorldRandom(limit);
}

ProcessId VirtualMachine::AddProcess()
{
    return impl_->AddProcess();
}

ProcessId VirtualMachine::CurrentProcess() const
{
    return impl_->CurrentProcess();
}

void VirtualMachine::Pause(ProcessId process)
{
    impl_->Pause(process);
}

void VirtualMachine::PauseInside(ProcessId process, std::uint64_t calls)
{
    impl_->PauseInside(process, calls);
}

void VirtualMachine::Continue(ProcessId process)
{
    impl_->Continue(process);
}

bool VirtualMachine::Paused(ProcessId process) const
{
    return impl_->Paused(process);
}

void VirtualMachine::Start(ProcessId process, std::function<void()> main)
{
    impl_->Detach(impl_->StartThread(process, std::move(main)));
}

EventId VirtualMachine::At(Time when, std::function<void()> action)
{
    return impl_->At({}, when, std::move(action));
}

EventId VirtualMachine::At(ProcessId process, Time when, std::function<void()> action)
{
    return impl_->At(process, when, std::move(action));
}

void VirtualMachine::Cancel(EventId event)
{
    impl_->Cancel(event);
}

void VirtualMachine::Observe(Observer observer)
{
    impl_->Observe(std::move(observer));
}

VirtualMachine::Outcome VirtualMachine::Run(Time end, const std::function<bool()>& done)
{
    return impl_->Run(end, done);
}

std::size_t VirtualMachine::Threads() const
{
    return impl_->Threads();
}

bool VirtualMachine::Asleep(pid_t thread) const
{
    const SimulatedThread* const found = impl_->FindThread(static_cast<std::uint64_t>(thread));
    return found != nullptr && found->state == SimulatedThread::State::Waiting;
}

std::uint64_t VirtualMachine::Fingerprint() const
{
    return impl_->Fingerprint();
}

void VirtualMachine::ForbidWaiting(int status)
{
    impl_->ForbidWaiting(status);
}

}  // namespace kx::velmor::simulation
