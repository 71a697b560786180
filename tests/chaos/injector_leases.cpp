// Faults of what a lease assumes about its session and its process.

#include "tests/chaos/injector.h"
#include "tests/support/zookeeper_server.h"

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <thread>
#include <vector>

namespace kx::velmor::chaos {

namespace {

using testing_support::Proxy;
using testing_support::ServerOptions;

/// Members try another server many times within this time.
constexpr std::chrono::seconds kReconnection{2};

/// Servers end a session up to this many ticks after its timeout.
constexpr int kExpiryTicks = 2;

}  // namespace

void Injector::StrikeLease(const PlannedFault& planned, std::size_t member)
{
    switch (planned.kind)
    {
        case FaultKind::LowerTimeout:
            LowerTimeout(planned);
            break;
        case FaultKind::LoseServerAfterPause:
            LoseServerAfterPause(planned, member);
            break;
        default:
            stage_.Process(member).Signal(SIGUSR2);
            break;
    }
}

void Injector::LowerTimeout(const PlannedFault& planned)
{
    const std::size_t server = *planned.target.server;
    RestartServer(server, planned.grants);
    MoveMembersTo(server);
    // Another member may have taken the lead meanwhile.
    const std::vector<Proxy*> links = stage_.Links(stage_.Leader(), std::nullopt);
    if (planned.silences)
    {
        for (Proxy* const link : links)
        {
            link->BlackHole();
        }
    }
    undo_ = [this, server, links, ends = planned.renews ? planned.grants : std::chrono::milliseconds(0)] {
        for (Proxy* const link : links)
        {
            link->Heal();
        }
        RestartServer(server, ServerOptions().maxSessionTimeout);
        if (ends.count() > 0)
        {
            SilenceMembers(ends + kExpiryTicks * ServerOptions().tickTime);
        }
    };
}

void Injector::LoseServerAfterPause(const PlannedFault& planned, std::size_t member)
{
    const std::optional<std::size_t> server = stage_.ServerOf(member);
    stage_.Process(member).Pause();
    std::this_thread::sleep_for(stage_.HistoryOf(member).sessionTimeout * planned.pausedPercent / 100);
    stage_.Process(member).Continue();
    if (!server)
    {
        return;
    }
    std::this_thread::sleep_for(planned.runs);
    if (planned.kills)
    {
        KillServers({*server});
    }
    else
    {
        PauseServers({*server});
    }
}

void Injector::RestartServer(std::size_t server, std::chrono::milliseconds maxSessionTimeout)
{
    stage_.Servers().Server(server).Kill();
    stage_.Servers().Server(server).SetMaxSessionTimeout(maxSessionTimeout);
    stage_.RestartServers({server});
}

void Injector::SilenceMembers(std::chrono::milliseconds time)
{
    const std::vector<Proxy*> links = stage_.Links(std::nullopt, std::nullopt);
    for (Proxy* const link : links)
    {
        link->BlackHole();
    }
    std::this_thread::sleep_for(time);
    for (Proxy* const link : links)
    {
        link->Heal();
    }
}

void Injector::MoveMembersTo(std::size_t server)
{
    std::vector<Proxy*> others;
    for (std::size_t other = 0; other < stage_.Servers().Size(); ++other)
    {
        if (other != server)
        {
            const std::vector<Proxy*> links = stage_.Links(std::nullopt, other);
            others.insert(others.end(), links.begin(), links.end());
        }
    }
    for (Proxy* const link : others)
    {
        link->Refuse();
        link->Cut();
    }
    const std::vector<Proxy*> links = stage_.Links(std::nullopt, server);
    const auto end = std::chrono::steady_clock::now() + kReconnection;
    while (std::any_of(links.begin(), links.end(), [](const Proxy* link) { return link->Connections() == 0; }) &&
           std::chrono::steady_clock::now() < end)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    for (Proxy* const link : others)
    {
        link->Accept();
    }
}

}  // namespace kx::velmor::chaos
