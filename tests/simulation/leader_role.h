#pragma once

#include "tests/simulation/client_service.h"
#include "tests/simulation/server_role.h"
#include "tests/simulation/session_tracker.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::simulation {

/// A server that leads the ensemble, or is about to.
///
/// It shows its followers all that it has, and is established once a quorum has that on disk. Then it numbers writes,
/// sends them out in order, and applies each as soon as a quorum has it. It counts the time of sessions. Every half
/// tick it pings its followers, and at every full tick it looks whether it has heard from a quorum lately.
class LeaderRole final : public ServerRole
{
public:
    /// `onLost` is called when it cannot lead any more, as the last thing.
    LeaderRole(ServerWorld& world, std::size_t server, Disk& disk, ClientService& clients, std::int64_t epoch,
               std::function<void()> onLost);
    ~LeaderRole() override;

    /// Applies what is on disk, and begins.
    void Start();
    bool Established() const { return tracker_ != nullptr; }

    void AddFollower(const ServerLinkPtr& link);
    void OnMessage(ServerLink& link, ServerMessage message);
    /// Deletes a node with all its children.
    void DeleteTree(const std::string& path);

    bool Touch(SessionId session, std::chrono::milliseconds timeout) override;
    void CreateSession(SessionId session, std::chrono::milliseconds timeout) override;
    void Revalidate(SessionId session, std::chrono::milliseconds timeout) override;
    void Submit(SessionId session, const ClientRequestPtr& request) override;
    void Sync(SessionId session, const ClientRequestPtr& request) override;
    void Freeze() override;
    void Thaw() override;
    void Retire() override;

private:
    struct Follower
    {
        ServerLinkPtr link;
        /// The newest proposal that is on its disk; nothing until it has what the leader had.
        std::optional<TransactionNumber> acknowledged{};
        /// The tick until which what it said last counts.
        int deadline = 0;
        Time heard{0};
    };
    /// Who waits until all that was proposed before is applied.
    struct PendingSync
    {
        std::size_t server;
        SessionId session;
        ClientRequestPtr request;
    };
    struct Outstanding
    {
        ProposalPtr proposal;
        std::vector<PendingSync> syncs{};
    };

    Proposal Prepare(Proposal::Kind kind, SessionId session, std::size_t origin) const;
    void Propose(Proposal proposal);
    void SubmitFrom(std::size_t origin, SessionId session, const ClientRequestPtr& request);
    void CreateSessionFrom(std::size_t origin, SessionId session, std::chrono::milliseconds timeout);
    bool RevalidateFrom(std::size_t origin, SessionId session, std::chrono::milliseconds timeout);
    void SyncFrom(PendingSync sync);
    void Answer(const PendingSync& sync);
    void EstablishIfPossible();
    void CommitWhatIsAgreed();
    void Commit();
    void OnTick();
    void ScheduleTick();
    void DropSilentFollowers();
    bool Quorum(const std::function<bool(const Follower&)>& counts) const;
    void Broadcast(const ServerMessage& message);

    ServerWorld& world_;
    const std::size_t server_;
    Disk& disk_;
    ClientService& clients_;
    const std::int64_t epoch_;
    const std::function<void()> onLost_;
    const Time tickTime_;
    std::map<std::size_t, Follower> followers_;
    std::deque<Outstanding> outstanding_;
    /// From the moment at which it is established.
    std::unique_ptr<SessionTracker> tracker_;
    int tick_ = 0;
    bool fullTick_ = false;
    bool frozen_ = false;
    std::optional<EventId> tickEvent_;
};

}  // namespace kx::velmor::simulation
