#pragma once

#include "tests/simulation/client_service.h"
#include "tests/simulation/follower_role.h"
#include "tests/simulation/leader_role.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <tuple>

namespace kx::velmor::simulation {

/// One server: its disk, its clients, and the part it has in the ensemble at present.
class EnsembleServer final : private ServerLink::Upper, private ServerLink::Lower, private ClientConnection::Upper
{
public:
    enum class State
    {
        Down,
        /// Looks for a leader. Serves no clients.
        Looking,
        Following,
        Leading,
    };
    /// What servers compare when they elect: the greatest is the one with the newest data.
    using Vote = std::tuple<std::int64_t, TransactionNumber, std::size_t>;

    EnsembleServer(ServerWorld& world, std::size_t index, ServerLimits limits);
    ~EnsembleServer();
    EnsembleServer(const EnsembleServer&) = delete;
    EnsembleServer& operator=(const EnsembleServer&) = delete;

    State Now() const { return state_; }
    bool Frozen() const { return frozen_; }
    /// Whether it leads, with a quorum as far as it knows.
    bool Established() const { return leader_ && leader_->Established(); }
    /// The server whose data it has, and follows.
    std::optional<std::size_t> Follows() const;
    Vote OwnVote() const { return {disk_.currentEpoch, disk_.LastLogged(), index_}; }
    std::int64_t AcceptedEpoch() const { return disk_.acceptedEpoch; }
    const Replica& Data() const { return disk_.replica; }

    void Kill();
    void Start();
    void Freeze();
    void Thaw();
    void SetLimits(ServerLimits limits) { clients_.SetLimits(limits); }

    void Lead(std::int64_t epoch);
    /// Connects with a server that leads.
    void Follow(EnsembleServer& leader, std::uint64_t linkNumber, bool parted);
    /// What the links to another server carry; nothing while `parted`.
    void HoldLinkTo(std::size_t other, bool parted);
    void DeleteTree(const std::string& path) { leader_->DeleteTree(path); }

    /// A client connects. Also a server that does not run answers, by closing the connection.
    ClientConnectionPtr Connect(std::uint64_t number, ProcessId process, ClientConnection::Lower& client);

private:
    bool Reads() const override { return !frozen_; }
    void OnUp(ServerLink& link, ServerMessage message) override;
    void OnDown(ServerLink& link, ServerMessage message) override;
    void OnUp(ClientConnection& connection, ToServer message) override;

    /// Ends what part it has.
    void Resign(State next);
    void Look();

    ServerWorld& world_;
    const std::size_t index_;
    State state_ = State::Down;
    bool frozen_ = false;
    Disk disk_;
    ClientService clients_;
    std::unique_ptr<LeaderRole> leader_;
    std::unique_ptr<FollowerRole> follower_;
    /// A role ends inside one of its own functions, and is destroyed later.
    std::unique_ptr<ServerRole> retired_;
    std::weak_ptr<ServerLink> link_;
};

}  // namespace kx::velmor::simulation
