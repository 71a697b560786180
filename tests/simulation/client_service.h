#pragma once

#include "tests/simulation/server_role.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>

namespace kx::velmor::simulation {

/// The part of a server that its clients talk to: connections, the order of answers, reads and watches.
///
/// Answers of one session come in the order of its requests. Reads and heartbeats are answered from what this server
/// has applied, without the others; they wait for the session's writes before them.
class ClientService final
{
public:
    ClientService(ServerWorld& world, std::size_t server, Disk& disk, ServerLimits limits);

    void SetLimits(ServerLimits limits) { limits_ = limits; }
    /// Clients are served from now on, until `Stop`, which closes all connections.
    void Start(ServerRole& role) { role_ = &role; }
    void Stop();
    /// Messages that waited for a frozen server are read.
    void Resume();

    void Accept(const ClientConnectionPtr& connection);
    void OnMessage(ClientConnection& connection, const ToServer& message);

    void OnApplied(const Proposal& proposal, const Replica::Effect& effect);
    void OnRevalidated(SessionId session, bool valid);
    void OnSynced(SessionId session, std::uint64_t request);
    /// The session has connected to another server, and this one knows.
    void OnMoved(SessionId session);

private:
    struct Client
    {
        ClientConnectionPtr connection;
        /// 0 until the handshake is through.
        SessionId session = 0;
        std::chrono::milliseconds timeout{0};
    };
    /// A request that waits for its turn.
    struct Waiting
    {
        std::uint64_t connection;
        ClientRequestPtr request;
        /// Whether it waits for the other servers.
        bool agreement;
    };

    void OnHandshake(Client& client, const Handshake& handshake);
    void OnRequest(Client& client, const ClientRequestPtr& request);
    bool RefusedAlone(const ClientRequest& request) const;
    /// Answers the handshake of the connection; without success the session is over.
    void FinishHandshake(std::uint64_t connection, SessionId session, bool success);
    void Complete(SessionId session, std::uint64_t request, Answer answer);
    void AnswerAlone(std::uint64_t connection, const ClientRequest& request);
    void Read(Client& client, const ClientRequest& request);
    void SetWatches(Client& client, const ClientRequest& request);
    void Fire(const Replica::Change& change);
    void SendAnswer(Client& client, Answer answer);
    /// True when the answer and the connection are lost on the way.
    bool Lost(Client& client, bool handshake);
    Client* Find(std::uint64_t connection);
    void Close(std::uint64_t connection);

    ServerWorld& world_;
    const std::size_t server_;
    Disk& disk_;
    ServerLimits limits_;
    ServerRole* role_ = nullptr;
    std::map<std::uint64_t, Client> clients_;
    std::map<SessionId, std::uint64_t> bySession_;
    /// Connections whose handshake waits for the ensemble.
    std::map<SessionId, std::uint64_t> associating_;
    std::map<SessionId, std::deque<Waiting>> waiting_;
    std::map<std::string, std::set<std::uint64_t>> watches_;
};

/// What a client has to show to come back to its session.
std::uint64_t PasswordOf(SessionId session);

}  // namespace kx::velmor::simulation
