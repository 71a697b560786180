#pragma once

#include "tests/simulation/duplex.h"
#include "tests/simulation/ensemble_model.h"
#include "tests/simulation/protocol.h"
#include "tests/simulation/replica.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>

namespace kx::velmor::simulation {

using ServerLink = Duplex<ServerMessage, ServerMessage>;
using ServerLinkPtr = std::shared_ptr<ServerLink>;
using ClientConnection = Duplex<ToServer, ToClient>;
using ClientConnectionPtr = std::shared_ptr<ClientConnection>;

/// What survives when a server is killed.
struct Disk
{
    Replica replica{};
    /// Proposals behind what is applied, in order.
    std::deque<ProposalPtr> logged{};
    /// The newest epoch that the server has promised to take part in, and the one that its data is from.
    std::int64_t acceptedEpoch = 0;
    std::int64_t currentEpoch = 0;

    TransactionNumber LastLogged() const { return logged.empty() ? replica.LastTransaction() : logged.back()->number; }
};

/// How a server that serves clients gets things agreed on. Outcomes go to `ClientService`.
class ServerRole
{
public:
    virtual ~ServerRole() = default;

    /// False when the session is known to be over: the request is dropped then.
    virtual bool Touch(SessionId session, std::chrono::milliseconds timeout) = 0;
    virtual void CreateSession(SessionId session, std::chrono::milliseconds timeout) = 0;
    virtual void Revalidate(SessionId session, std::chrono::milliseconds timeout) = 0;
    /// A write, or the end of the session.
    virtual void Submit(SessionId session, const ClientRequestPtr& request) = 0;
    virtual void Sync(SessionId session, const ClientRequestPtr& request) = 0;

    /// Nothing happens to a frozen server; what it missed happens soon after.
    virtual void Freeze() = 0;
    virtual void Thaw() = 0;
    /// Closes links and stops timers. The role does nothing any more.
    virtual void Retire() = 0;
};

/// What surrounds a server.
class ServerWorld
{
public:
    virtual VirtualMachine& Machine() = 0;
    virtual const EnsembleOptions& Options() const = 0;
    virtual std::int64_t WallClock() const = 0;
    virtual SessionId NewSession(std::size_t server) = 0;
    /// Whether the next answer to this process is to be lost.
    virtual bool LosesAnswer(ProcessId process, bool handshake) = 0;
    virtual void OnLooking(std::size_t server) = 0;
    virtual void OnEstablished(std::size_t server) = 0;
    virtual void OnClientConnected(const ClientConnection& connection) = 0;
    /// From now on the servers may count with this timeout, whether or not the process hears of it.
    virtual void OnTimeoutGranted(SessionId session, std::chrono::milliseconds timeout) = 0;

protected:
    ~ServerWorld() = default;
};

}  // namespace kx::velmor::simulation
