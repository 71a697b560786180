#pragma once

#include "tests/simulation/ensemble_server.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <set>
#include <utility>
#include <vector>

namespace kx::velmor::simulation {

using EnsembleServers = std::vector<std::unique_ptr<EnsembleServer>>;

/// How servers without a leader find one.
///
/// A server that looks for a leader waits for a moment, and then joins one that leads and is not of an older epoch than
/// the server has taken part in. If there is none, it asks those that look for a leader, too, and that it reaches: one
/// that has at least the data of a quorum of them leads from now on.
class Election
{
public:
    Election(VirtualMachine& machine, EnsembleServers& servers) : machine_(machine), servers_(servers) {}
    ~Election();
    Election(const Election&) = delete;
    Election& operator=(const Election&) = delete;

    /// One of the servers leads at once, the others follow it: how a simulation begins.
    void Begin();
    /// The server looks for a leader.
    void Look(std::size_t server);

    void Part(std::size_t one, std::size_t other);
    void Join(std::size_t one, std::size_t other);
    bool Parted(std::size_t one, std::size_t other) const;

private:
    void Ask(std::size_t server);
    bool JoinLeader(std::size_t server);
    bool Elect(std::size_t server);
    void Follow(std::size_t server, std::size_t leader);
    /// Who would follow this server, itself included.
    std::vector<std::size_t> Supporters(std::size_t candidate) const;
    bool CanTalk(std::size_t one, std::size_t other) const;
    void Schedule(std::size_t server, Time delay);

    VirtualMachine& machine_;
    EnsembleServers& servers_;
    std::set<std::pair<std::size_t, std::size_t>> parted_;
    std::map<std::size_t, EventId> scheduled_;
    std::uint64_t links_ = 0;
};

}  // namespace kx::velmor::simulation
