#include "tests/support/ensemble.h"

#include "tests/support/network.h"

#include <stdexcept>

namespace kx::velmor::testing_support {

namespace {

constexpr int kPortAttempts = 5;

}  // namespace

Ensemble::Ensemble(std::size_t size, ServerOptions options)
{
    for (std::size_t i = 0; i < size; ++i)
    {
        servers_.push_back(std::make_unique<ZooKeeperServer>(options));
    }
    Introduce();
}

void Ensemble::Start()
{
    for (int attempt = 1; !TryStart(); ++attempt)
    {
        if (attempt == kPortAttempts)
        {
            throw std::runtime_error("others take the ensemble's ports again and again");
        }
        for (const auto& server : servers_)
        {
            server->Kill();
            server->ChoosePorts();
        }
        Introduce();
    }
}

std::string Ensemble::Addresses() const
{
    std::string addresses;
    for (const auto& server : servers_)
    {
        addresses += (addresses.empty() ? "" : ",") + server->Address();
    }
    return addresses;
}

std::size_t Ensemble::LeaderIndex(std::chrono::milliseconds deadline) const
{
    std::size_t leader = 0;
    Await(
        "a leader of the ensemble",
        [&] {
            for (leader = 0; leader < servers_.size(); ++leader)
            {
                // A paused server would keep us waiting for its answer, which is what the deadline is for.
                if (servers_[leader]->Running() && servers_[leader]->Mode() == "leader")
                {
                    return true;
                }
            }
            return false;
        },
        deadline);
    return leader;
}

void Ensemble::Introduce()
{
    // A single server runs alone: it has no peers, and does not listen for them.
    if (servers_.size() == 1)
    {
        return;
    }
    std::vector<ZooKeeperServer::Peer> peers;
    for (std::size_t i = 0; i < servers_.size(); ++i)
    {
        peers.push_back({ChooseFreePort(), ChooseFreePort()});
    }
    for (std::size_t i = 0; i < servers_.size(); ++i)
    {
        servers_[i]->JoinEnsemble(i, peers);
    }
}

bool Ensemble::TryStart()
{
    for (const auto& server : servers_)
    {
        server->Launch();
    }
    for (const auto& server : servers_)
    {
        const ZooKeeperServer::Outcome outcome = server->AwaitOutcome(kPatience);
        if (outcome == ZooKeeperServer::Outcome::PortTaken)
        {
            return false;
        }
        if (outcome != ZooKeeperServer::Outcome::Serving)
        {
            server->Fail("does not join its ensemble");
        }
    }
    return true;
}

}  // namespace kx::velmor::testing_support
