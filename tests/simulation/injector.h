#pragma once

#include "tests/simulation/ensemble_model.h"
#include "tests/simulation/participant.h"
#include "tests/simulation/schedule.h"
#include "tests/simulation/virtual_machine.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor::simulation {

/// The processes of a run. A slot holds one after the other.
struct Participants
{
    /// All that were ever started; the index is the participant's number.
    std::vector<std::unique_ptr<Participant>> all{};
    /// By slot; null while the slot's process is down.
    std::vector<Participant*> slots{};
    /// Starts a process in a slot.
    std::function<void(std::size_t slot)> start{};
};

/// Makes the faults of a schedule happen. Everything here runs in events of the machine.
class Injector
{
public:
    Injector(VirtualMachine& machine, EnsembleModel& ensemble, Checks& checks, Participants& participants,
             std::string electionPath, ServerLimits limits, bool trace);

    void Inject(const Fault& fault);

    /// The participant that leads, for faults that aim at the leader.
    void Leads(const Participant& leader);

    /// Undoes everything that can be undone.
    void Heal();

private:
    struct Server
    {
        bool down = false;
        bool frozen = false;
        Time downUntil{};
        Time frozenUntil{};
        Time partedUntil{};
    };

    void InjectIntoProcess(const Fault& fault, Participant& target);
    void InjectIntoLinks(const Fault& fault, Participant& target);
    void InjectIntoServer(const Fault& fault, std::size_t server);
    void ContinueAfter(Participant& target, Time duration);
    void StartLater(std::size_t slot, Time delay);
    void Fork();
    void TakeDown(std::size_t server, Time duration);
    void EndFreeze(std::size_t server);
    void EndPart(std::size_t server);

    Participant* Resolve(const ProcessTarget& target) const;
    std::vector<std::size_t> Resolve(const ServerTarget& target);
    std::size_t ServerOf(const Participant* target);
    Participant* InSlot(std::size_t slot) const { return participants_.slots[slot % participants_.slots.size()]; }

    VirtualMachine& machine_;
    EnsembleModel& ensemble_;
    Checks& checks_;
    Participants& participants_;
    const std::string electionPath_;
    const ServerLimits limits_;
    const bool trace_;

    std::optional<std::size_t> leaderSlot_;
    std::optional<std::size_t> lastSlot_;
    std::vector<std::size_t> lastServers_;
    /// By slot.
    std::vector<std::size_t> lastServerOfSlot_;
    std::vector<Server> servers_;
    /// By the number of the participant.
    std::vector<Time> pausedUntil_;
};

}  // namespace kx::velmor::simulation
