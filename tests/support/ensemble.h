#pragma once

#include "tests/support/zookeeper_server.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace kx::velmor::testing_support {

/// Throwaway servers that form one ensemble, or one server alone. Faults are verbs of the single servers.
///
/// Threads: as `ZooKeeperServer`.
class Ensemble
{
public:
    /// Starts nothing.
    explicit Ensemble(std::size_t size = 3, ServerOptions options = {});

    /// Starts all servers and waits until all of them serve.
    void Start();

    std::size_t Size() const { return servers_.size(); }
    ZooKeeperServer& Server(std::size_t index) { return *servers_.at(index); }

    /// "127.0.0.1:<port>,127.0.0.1:<port>,...". Final after `Start`.
    std::string Addresses() const;

    /// The server that leads the ensemble at the moment; waits for one while the servers elect.
    std::size_t LeaderIndex(std::chrono::milliseconds deadline = kPatience) const;

private:
    void Introduce();
    /// False when a port was taken.
    bool TryStart();

    std::vector<std::unique_ptr<ZooKeeperServer>> servers_;
};

}  // namespace kx::velmor::testing_support
