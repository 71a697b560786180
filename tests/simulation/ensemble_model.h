#pragma once

#include "tests/simulation/virtual_machine.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor::simulation {

class ClientNetwork;

/// What a server is configured with.
struct ServerLimits
{
    std::chrono::milliseconds tick;
    std::chrono::milliseconds minSessionTimeout;
    std::chrono::milliseconds maxSessionTimeout;
    /// A server that refuses some writes by itself, without asking the others, as with eager checks of access lists.
    bool answersAlone = false;
};

struct EnsembleOptions
{
    std::size_t servers = 3;
    ServerLimits limits;
    /// In ticks: how long a follower and the ensemble's leader go without a word from the other.
    int syncLimit = 5;
};

/// A model of a ZooKeeper ensemble: servers, the links between them, sessions, and connections of clients. Built on
/// what was measured on real servers (docs/simulation.md says what, and how).
///
/// The processes of a simulation reach it through the simulated client library (simulated_client_library.cpp), whose
/// functions replace the real ones at link time and find the ensemble through `Current`. A server's address is
/// "127.0.0.1:<port>", with the port from `Port`.
///
/// Faults are verbs. Everything takes place on the machine's clock.
class EnsembleModel
{
public:
    EnsembleModel(VirtualMachine& machine, EnsembleOptions options);
    ~EnsembleModel();
    EnsembleModel(const EnsembleModel&) = delete;
    EnsembleModel& operator=(const EnsembleModel&) = delete;

    /// The ensemble of the machine that runs.
    static EnsembleModel& Current();

    std::size_t Servers() const;
    static int Port(std::size_t server);
    /// "127.0.0.1:1,127.0.0.1:2": all servers.
    std::string Addresses() const;
    /// The server that leads the ensemble; empty while there is none with a quorum.
    std::optional<std::size_t> Leader() const;
    /// The server to which this process' newest connection goes; empty while there is none.
    std::optional<std::size_t> ConnectedServer(ProcessId process) const;

    /// The smallest timeouts of one session.
    struct SessionTimeouts
    {
        /// Of those that the process has heard of.
        std::chrono::milliseconds known;
        /// Of all that servers have granted: an answer to a handshake may be lost, late, or not dealt with yet.
        std::chrono::milliseconds granted;
    };
    /// Of the newest session that the process knows of; empty before the first.
    std::optional<SessionTimeouts> Timeouts(ProcessId process) const;

    // Faults of servers.
    void Kill(std::size_t server);
    /// Comes back with its data.
    void Start(std::size_t server);
    /// Stopped and continued: connections stay, nothing is read or written meanwhile.
    void Freeze(std::size_t server);
    void Thaw(std::size_t server);
    /// The links between two servers carry nothing, in both directions, until `Join`.
    void Part(std::size_t one, std::size_t other);
    void Join(std::size_t one, std::size_t other);
    /// The limits of one server, as after a restart with another configuration. For sessions that connect from now on.
    void SetLimits(std::size_t server, ServerLimits limits);

    // Faults of the network between a process and a server; without a server, all of them.
    enum class Direction
    {
        ToServer,
        ToClient,
        Both,
    };
    /// Connections break now; new ones can be made.
    void Cut(ProcessId process, std::optional<std::size_t> server);
    /// Nothing passes, connections stay, until `Heal`.
    void Silence(ProcessId process, std::optional<std::size_t> server, Direction direction);
    /// Connections break now, and new ones are refused, until `Heal`.
    void Refuse(ProcessId process, std::optional<std::size_t> server);
    void Heal(ProcessId process, std::optional<std::size_t> server);
    /// What passes takes so much longer, until 0.
    void Delay(ProcessId process, std::optional<std::size_t> server, Direction direction, Time delay);
    /// The next answer to a request of this process (not a heartbeat), or with `handshake` to the next handshake, is
    /// lost, and its connection breaks.
    void LoseNextAnswer(ProcessId process, bool handshake);
    /// The next request of this process is lost, and its connection breaks.
    void LoseNextRequest(ProcessId process);
    /// The process is gone: its connections break, it makes no new ones.
    void Disconnect(ProcessId process);

    // What an operator does.
    /// Deletes a node with all its children, as soon as there is a quorum.
    void Delete(const std::string& path);

    /// The agreed state, as the ensemble's leader has applied it; of the last one while there is none.
    bool Has(const std::string& path) const;
    std::vector<std::string> Children(const std::string& path) const;
    std::size_t Sessions() const;

    /// For the simulated client library.
    ClientNetwork& Network();

private:
    class Impl;
    const std::unique_ptr<Impl> impl_;
};

}  // namespace kx::velmor::simulation
