// Faults of servers, and the end of all faults.

#include "tests/simulation/injector.h"

#include <algorithm>

namespace kx::velmor::simulation {

namespace {

constexpr Time kRestartTakes = std::chrono::milliseconds(200);

}  // namespace

void Injector::InjectIntoServer(const Fault& fault, std::size_t server)
{
    const Time until = machine_.Now() + fault.duration;
    switch (fault.kind)
    {
        case FaultKind::KillServer:
            TakeDown(server, fault.duration);
            return;
        case FaultKind::FreezeServer:
            if (!servers_[server].down)
            {
                ensemble_.Freeze(server);
                servers_[server].frozen = true;
                servers_[server].frozenUntil = std::max(servers_[server].frozenUntil, until);
                machine_.At(until, [this, server] { EndFreeze(server); });
            }
            return;
        case FaultKind::PartServer:
            servers_[server].partedUntil = std::max(servers_[server].partedUntil, until);
            for (std::size_t other = 0; other < servers_.size(); ++other)
            {
                if (other != server)
                {
                    ensemble_.Part(server, other);
                }
            }
            machine_.At(until, [this, server] { EndPart(server); });
            return;
        case FaultKind::Limits: {
            ServerLimits limits = limits_;
            limits.minSessionTimeout = fault.minSessionTimeout;
            limits.maxSessionTimeout = fault.maxSessionTimeout;
            if (fault.number != 0)
            {
                TakeDown(server, kRestartTakes);
            }
            ensemble_.SetLimits(server, limits);
            return;
        }
        default:
            return;
    }
}

void Injector::TakeDown(std::size_t server, Time duration)
{
    Server& state = servers_[server];
    if (state.frozen)
    {
        // A stopped process is killed all the same.
        state.frozen = false;
        ensemble_.Thaw(server);
    }
    if (!state.down)
    {
        state.down = true;
        ensemble_.Kill(server);
    }
    state.downUntil = std::max(state.downUntil, machine_.Now() + duration);
    machine_.At(machine_.Now() + duration, [this, server] {
        if (servers_[server].down && machine_.Now() >= servers_[server].downUntil)
        {
            servers_[server].down = false;
            ensemble_.Start(server);
        }
    });
}

void Injector::EndFreeze(std::size_t server)
{
    if (servers_[server].frozen && machine_.Now() >= servers_[server].frozenUntil)
    {
        servers_[server].frozen = false;
        ensemble_.Thaw(server);
    }
}

void Injector::EndPart(std::size_t server)
{
    const auto parted = [this](std::size_t each) { return machine_.Now() < servers_[each].partedUntil; };
    for (std::size_t other = 0; other < servers_.size(); ++other)
    {
        if (other != server && !parted(server) && !parted(other))
        {
            ensemble_.Join(server, other);
        }
    }
}

void Injector::Heal()
{
    const Time now = machine_.Now();
    for (std::size_t server = 0; server < servers_.size(); ++server)
    {
        servers_[server].frozenUntil = servers_[server].downUntil = servers_[server].partedUntil = now;
    }
    for (std::size_t server = 0; server < servers_.size(); ++server)
    {
        EndFreeze(server);
        EndPart(server);
        if (servers_[server].down)
        {
            servers_[server].down = false;
            ensemble_.Start(server);
        }
    }
    for (const auto& each : participants_.all)
    {
        if (!each->Killed())
        {
            pausedUntil_[each->Number()] = now;
            ensemble_.Heal(each->Process(), std::nullopt);
            ensemble_.Delay(each->Process(), std::nullopt, EnsembleModel::Direction::Both, Time());
            machine_.Continue(each->Process());
        }
    }
    for (std::size_t slot = 0; slot < participants_.slots.size(); ++slot)
    {
        if (participants_.slots[slot] == nullptr)
        {
            participants_.start(slot);
        }
    }
}

}  // namespace kx::velmor::simulation
