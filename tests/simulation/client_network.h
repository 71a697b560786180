#pragma once

#include "tests/simulation/election.h"
#include "tests/simulation/ensemble_model.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace kx::velmor::simulation {

/// The network between processes and servers, with its faults.
class ClientNetwork
{
public:
    ClientNetwork(VirtualMachine& machine, EnsembleServers& servers) : machine_(machine), servers_(servers) {}

    /// What the process sends from now on arrives in order. Null for a process that is gone: nothing becomes of it.
    ClientConnectionPtr Connect(ProcessId process, std::size_t server, ClientConnection::Lower& client);
    /// Whether the next request of this process is lost. The connection is the caller's to break.
    bool LosesRequest(ProcessId process);
    bool LosesAnswer(ProcessId process, bool handshake);
    void OnConnected(const ClientConnection& connection);
    std::optional<std::size_t> ConnectedServer(ProcessId process) const;
    void OnTimeoutGranted(SessionId session, std::chrono::milliseconds timeout);
    /// The process has dealt with the answer to its handshake.
    void OnTimeoutKnown(ProcessId process, SessionId session, std::chrono::milliseconds timeout);
    std::optional<EnsembleModel::SessionTimeouts> Timeouts(ProcessId process) const;

    // Faults: see `EnsembleModel`.
    void Cut(ProcessId process, std::optional<std::size_t> server);
    void Silence(ProcessId process, std::optional<std::size_t> server, EnsembleModel::Direction direction);
    void Refuse(ProcessId process, std::optional<std::size_t> server);
    void Heal(ProcessId process, std::optional<std::size_t> server);
    void Delay(ProcessId process, std::optional<std::size_t> server, EnsembleModel::Direction direction, Time delay);
    void LoseNextAnswer(ProcessId process, bool handshake);
    void LoseNextRequest(ProcessId process);
    void Disconnect(ProcessId process);

private:
    /// From one process to one server.
    struct Path
    {
        bool silentUp = false;
        bool silentDown = false;
        bool refused = false;
        Time upDelay{0};
        Time downDelay{0};
    };
    struct Process
    {
        std::map<std::size_t, Path> paths{};
        std::vector<std::weak_ptr<ClientConnection>> connections{};
        std::weak_ptr<ClientConnection> newest{};
        bool losesRequest = false;
        bool losesAnswer = false;
        bool losesHandshake = false;
        bool gone = false;
        /// The newest one.
        SessionId session = 0;
        std::chrono::milliseconds timeout{0};
    };

    void Change(ProcessId process, std::optional<std::size_t> server, const std::function<void(Path&)>& change);
    void ForEach(ProcessId process, std::optional<std::size_t> server,
                 const std::function<void(ClientConnection&)>& action);
    bool TossCoin() { return machine_.Random(2) == 0; }

    VirtualMachine& machine_;
    EnsembleServers& servers_;
    std::map<ProcessId, Process> processes_;
    /// The smallest of each session.
    std::map<SessionId, std::chrono::milliseconds> granted_;
    std::uint64_t connections_ = 0;
};

}  // namespace kx::velmor::simulation
