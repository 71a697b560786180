#include "tests/simulation/simulation.h"

#include "tests/simulation/ensemble_model.h"
#include "tests/simulation/injector.h"
#include "tests/simulation/participant.h"
#include "tests/simulation/trace.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::simulation {

namespace {

using std::chrono::milliseconds;

const std::string kElectionPath = "/election";
const std::string kIdentitiesPath = kElectionPath + "-identities";

/// For everything that is not a matter of session timeouts: retries, look-ups, the closing of connections.
constexpr milliseconds kLeeway{30'000};
constexpr milliseconds kStartApart{3};
/// A lease ends between two milliseconds.
constexpr Time kLookAgain = std::chrono::microseconds(100);

class Simulation
{
public:
    Simulation(const Schedule& schedule, const RunOptions& options);
    void Play();
    RunResult Result() const;

private:
    void StartProcess(std::size_t slot);
    Time Look();
    Checks::Participants Unaware(Checks::Participants leading) const;
    void PlayFaults();
    void AwaitStableLeader();
    void StopAll();
    void ExitAll();
    void DiscardKilled();
    /// One leads, one is next, the others wait.
    bool Settled() const;
    bool AllIdle() const;
    template <typename Condition>
    bool Await(Time bound, Time interval, const Condition& condition);
    /// Waits for commands. Reports a hang.
    void AwaitCommands(const std::string& what);
    bool Failed() const { return checks_.Found().has_value(); }

    const Schedule& schedule_;
    const RunOptions& options_;
    const milliseconds maxTimeout_;
    /// How long anything may take once the ensemble is healed.
    Time bound_;
    VirtualMachine machine_;
    EnsembleModel ensemble_;
    Checks checks_;
    Participants participants_;
    Injector injector_;
    /// Until then nothing can change by the clock alone.
    Time leaseLook_{};
    Checks::Participants unaware_ = 0;
};

Simulation::Simulation(const Schedule& schedule, const RunOptions& options)
    : schedule_(schedule),
      options_(options),
      maxTimeout_(MaxTimeout(schedule)),
      bound_(12 * maxTimeout_ + 3 * schedule.maxRejoinDelay + kLeeway),
      machine_(schedule.seed),
      ensemble_(machine_, schedule.ensemble),
      checks_(options.without),
      participants_{
          {}, std::vector<Participant*>(schedule.processes), [this](std::size_t slot) { StartProcess(slot); }},
      injector_(machine_, ensemble_, checks_, participants_, kElectionPath, schedule.ensemble.limits, options.trace)
{
    for (const Fault& fault : schedule_.faults)
    {
        bound_ += fault.amount;
    }
    machine_.Observe([this] { return Look(); });
}

void Simulation::StartProcess(std::size_t slot)
{
    const Checks::Participant number = participants_.all.size();
    participants_.all.push_back(std::make_unique<Participant>(
        machine_, checks_, number, slot,
        ParticipantOptions{ensemble_.Addresses(), kElectionPath, schedule_.sessionTimeout, schedule_.maxRejoinDelay}));
    Participant& started = *participants_.all.back();
    participants_.slots[slot] = &started;
    if (options_.trace)
    {
        Trace("process " + std::to_string(started.Process()) + " is participant " + std::to_string(number) +
              " in slot p" + std::to_string(slot));
    }
    started.Open();
}

Time Simulation::Look()
{
    Checks::Participants leading = 0;
    for (const auto& each : participants_.all)
    {
        if (!each->Killed() && each->Leads())
        {
            leading |= Checks::Participants{1} << each->Number();
        }
    }
    const Time now = machine_.Now();
    if (leading != checks_.LeadingNow())
    {
        unaware_ = (unaware_ & leading) | Unaware(leading);
        checks_.Leading(now, leading, unaware_);
        leaseLook_ = Time();
        if (options_.trace)
        {
            Trace("leading (one bit per participant): " + std::to_string(leading));
        }
    }
    if (now < leaseLook_)
    {
        return leaseLook_;
    }
    leaseLook_ = Time::max();
    for (const auto& each : participants_.all)
    {
        if ((leading >> each->Number() & 1) != 0)
        {
            injector_.Leads(*each);
            leaseLook_ = std::min(leaseLook_, now + std::max<Time>(each->LeaseLeft(), kLookAgain));
        }
    }
    return leaseLook_;
}

/// A leader whose session the servers may end before its lease is over: they have granted it less than it has heard of.
/// It is no defect when the successor cannot tell either, because it was granted as much as that leader had. What the
/// leader left behind is lost then, so that later successors cannot tell either.
Checks::Participants Simulation::Unaware(Checks::Participants leading) const
{
    Checks::Participants unaware = 0;
    for (const auto& each : participants_.all)
    {
        const auto timeouts = ensemble_.Timeouts(each->Process());
        if ((leading >> each->Number() & 1) == 0 || !timeouts || timeouts->granted >= timeouts->known)
        {
            continue;
        }
        const bool others = std::all_of(participants_.all.begin(), participants_.all.end(), [&](const auto& other) {
            const auto its = ensemble_.Timeouts(other->Process());
            return other == each || (leading >> other->Number() & 1) == 0 || !its || its->known >= timeouts->known;
        });
        unaware |= others ? Checks::Participants{1} << each->Number() : 0;
    }
    return unaware;
}

void Simulation::Play()
{
    PlayFaults();
    if (!Failed())
    {
        AwaitStableLeader();
    }
    if (!Failed())
    {
        StopAll();
    }
    if (!Failed())
    {
        ExitAll();
    }
    if (!Failed())
    {
        DiscardKilled();
    }
}

RunResult Simulation::Result() const
{
    RunResult result{checks_.Found(), machine_.Fingerprint(), machine_.Now(), machine_.Threads() == 0};
    if (result.violation && result.violation->check == Check::Overlap)
    {
        result.violation->text += "; leases left:";
        for (const auto& each : participants_.all)
        {
            if ((checks_.LeadingNow() >> each->Number() & 1) != 0)
            {
                result.violation->text += " " + std::to_string(each->LeaseLeft().count()) + " ms";
            }
        }
    }
    return result;
}

void Simulation::PlayFaults()
{
    for (std::size_t slot = 0; slot < schedule_.processes; ++slot)
    {
        machine_.At(slot * kStartApart, [this, slot] { StartProcess(slot); });
    }
    Time end = std::chrono::seconds(1);
    for (const Fault& fault : schedule_.faults)
    {
        machine_.At(fault.at, [this, &fault] { injector_.Inject(fault); });
        end = std::max(end, fault.at + fault.duration);
    }
    machine_.Run(end + Time(1), [this] { return Failed(); });
    injector_.Heal();
}

template <typename Condition>
bool Simulation::Await(Time bound, Time interval, const Condition& condition)
{
    const Time end = machine_.Now() + bound;
    while (!Failed())
    {
        if (condition())
        {
            return true;
        }
        if (machine_.Now() >= end)
        {
            return false;
        }
        machine_.Run(machine_.Now() + interval, [this] { return Failed(); });
    }
    return true;
}

bool Simulation::Settled() const
{
    std::size_t leaders = 0;
    std::size_t next = 0;
    std::size_t followers = 0;
    for (const Participant* const each : participants_.slots)
    {
        if (each != nullptr)
        {
            leaders += each->Leads() && each->LastRole() == Role::Leader ? 1U : 0U;
            next += each->LastRole() == Role::NextLeader ? 1U : 0U;
            followers += each->LastRole() == Role::Follower ? 1U : 0U;
        }
    }
    return leaders == 1 && leaders + next + followers == schedule_.processes && (next == 1 || schedule_.processes == 1);
}

void Simulation::AwaitStableLeader()
{
    constexpr int kLooks = 5;
    int looks = 0;
    Checks::Participants leading = 0;
    const bool stable = Await(bound_, maxTimeout_ / 8, [&] {
        looks = Settled() && leading == checks_.LeadingNow() ? looks + 1 : 0;
        leading = checks_.LeadingNow();
        return looks == kLooks;
    });
    if (!stable)
    {
        checks_.Report(Check::Leader, machine_.Now(),
                       "no stable leader, next leader and followers though everything has been healed for " +
                           std::to_string(bound_ / milliseconds(1)) + " ms");
    }
}

bool Simulation::AllIdle() const
{
    const auto idle = [](const auto& each) { return each->Killed() || each->Idle(); };
    return std::all_of(participants_.all.begin(), participants_.all.end(), idle);
}

void Simulation::AwaitCommands(const std::string& what)
{
    const auto outcome = machine_.Run(machine_.Now() + bound_, [this] { return AllIdle() || Failed(); });
    if (outcome != VirtualMachine::Outcome::Done && !AllIdle())
    {
        checks_.Report(Check::Hang, machine_.Now(), what + " did not return");
    }
}

void Simulation::StopAll()
{
    for (Participant* const each : participants_.slots)
    {
        each->Stop();
    }
    AwaitCommands("Stop");
    const bool gone = Await(bound_, maxTimeout_ / 4, [this] {
        return ensemble_.Children(kElectionPath).empty() && ensemble_.Children(kIdentitiesPath).empty();
    });
    if (!gone)
    {
        std::string text = "nodes stay behind:";
        for (const std::string& parent : {kElectionPath, kIdentitiesPath})
        {
            for (const std::string& node : ensemble_.Children(parent))
            {
                text.append(" ").append(parent).append("/").append(node);
            }
        }
        checks_.Report(Check::Leftovers, machine_.Now(), text);
    }
}

void Simulation::ExitAll()
{
    for (Participant* const each : participants_.slots)
    {
        each->Exit();
    }
    AwaitCommands("a destructor or Close");
    if (!Await(bound_, maxTimeout_ / 4, [this] { return ensemble_.Sessions() == 0; }))
    {
        checks_.Report(Check::Leftovers, machine_.Now(),
                       std::to_string(ensemble_.Sessions()) + " sessions stay behind");
    }
}

void Simulation::DiscardKilled()
{
    for (const auto& each : participants_.all)
    {
        if (each->Killed())
        {
            machine_.Continue(each->Process());
            each->Discard();
        }
    }
    machine_.Run(machine_.Now() + bound_, [this] { return machine_.Threads() == 0; });
    if (machine_.Threads() != 0)
    {
        checks_.Report(Check::Leftovers, machine_.Now(), std::to_string(machine_.Threads()) + " threads stay behind");
    }
}

}  // namespace

RunResult Run(const Schedule& schedule, const RunOptions& options)
{
    const TraceScope trace(options.trace);
    auto simulation = std::make_unique<Simulation>(schedule, options);
    simulation->Play();
    const RunResult result = simulation->Result();
    if (!result.reusable)
    {
        static_cast<void>(simulation.release());
    }
    return result;
}

}  // namespace kx::velmor::simulation
