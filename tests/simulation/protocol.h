#pragma once

#include <zookeeper/zookeeper.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

// What clients and servers of the modelled ensemble tell each other.

namespace kx::velmor::simulation {

/// Numbers the agreed writes of the ensemble.
using TransactionNumber = std::int64_t;
using SessionId = std::int64_t;

/// One write to one node.
struct Step
{
    enum class Kind
    {
        Create,
        Delete,
        Set,
        Check,
        /// With all children: of operators, not of clients.
        DeleteTree,
    };

    Kind kind = Kind::Check;
    std::string path{};
    std::string data{};
    std::int32_t version = -1;
    bool ephemeral = false;
    bool sequential = false;
};

/// What one step came to.
struct StepOutcome
{
    int rc = ZOK;
    std::string createdPath{};
    Stat stat{};
};

/// What a client asks a server.
struct ClientRequest
{
    enum class Kind
    {
        Ping,
        Exists,
        GetData,
        GetChildren,
        /// Shows watches again on a new connection. Has no answer.
        SetWatches,
        Sync,
        /// One step, or a transaction.
        Write,
        CloseSession,
    };

    Kind kind = Kind::Ping;
    /// Given back in the answer. Unique in the whole simulation.
    std::uint64_t number = 0;
    std::string path{};
    bool watch = false;
    /// All or nothing, with an outcome for each step.
    bool transaction = false;
    std::vector<Step> steps{};
    /// Of `SetWatches`: the newest transaction that the client has seen, and the watched nodes that existed or not.
    TransactionNumber seen = 0;
    std::vector<std::string> watchedNodes{};
    std::vector<std::string> watchedAbsences{};
};
using ClientRequestPtr = std::shared_ptr<const ClientRequest>;

struct Answer
{
    std::uint64_t number = 0;
    int rc = ZOK;
    TransactionNumber transaction = 0;
    std::string path{};
    std::string data{};
    Stat stat{};
    std::vector<std::string> children{};
    std::vector<StepOutcome> outcomes{};
};

struct Handshake
{
    /// 0 for a new session.
    SessionId session = 0;
    std::uint64_t password = 0;
    std::chrono::milliseconds timeout{0};
    TransactionNumber seen = 0;
};

struct ToServer
{
    enum class Kind
    {
        Handshake,
        Request,
        Closed,
    };

    Kind kind = Kind::Closed;
    Handshake handshake{};
    ClientRequestPtr request{};
};

struct ToClient
{
    enum class Kind
    {
        /// With session 0: the session is over.
        Handshake,
        Pong,
        Event,
        Answer,
        Closed,
    };

    Kind kind = Kind::Closed;
    Handshake handshake{};
    TransactionNumber transaction = 0;
    int eventType = 0;
    std::string path{};
    std::shared_ptr<const Answer> answer{};
};

/// An agreed write.
struct Proposal
{
    enum class Kind
    {
        CreateSession,
        CloseSession,
        Write,
        /// A request that the ensemble's leader refused with `rc`.
        Refusal,
    };

    Kind kind = Kind::Write;
    TransactionNumber number = 0;
    /// Milliseconds since 1970.
    std::int64_t time = 0;
    SessionId session = 0;
    /// Of `CreateSession`.
    std::chrono::milliseconds timeout{0};
    int rc = ZOK;
    /// The server whose client asked, and what it asked; nothing for what the ensemble does by itself.
    std::size_t origin = 0;
    ClientRequestPtr request{};
};
using ProposalPtr = std::shared_ptr<const Proposal>;

class Replica;

/// Between the ensemble's leader and one follower.
struct ServerMessage
{
    enum class Kind
    {
        // From the leader.
        /// All that the leader has applied, and `proposals` that are not agreed on yet.
        Snapshot,
        /// The follower may serve clients.
        UpToDate,
        Propose,
        Commit,
        Ping,
        Revalidated,
        Synced,
        // From the follower.
        Acknowledge,
        PingReply,
        Submit,
        CreateSession,
        Revalidate,
        Sync,
        // From either.
        Closed,
    };

    Kind kind = Kind::Closed;
    std::int64_t epoch = 0;
    TransactionNumber number = 0;
    std::shared_ptr<const Replica> snapshot{};
    std::vector<ProposalPtr> proposals{};
    ClientRequestPtr request{};
    SessionId session = 0;
    std::chrono::milliseconds timeout{0};
    bool valid = false;
    /// Of `PingReply`: the sessions that were touched, with their timeouts.
    std::map<SessionId, std::chrono::milliseconds> touches{};
};

}  // namespace kx::velmor::simulation
