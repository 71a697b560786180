#include "tests/simulation/ensemble_server.h"

#include <algorithm>
#include <utility>

namespace kx::velmor::simulation {

EnsembleServer::EnsembleServer(ServerWorld& world, std::size_t index, ServerLimits limits)
    : world_(world), index_(index), clients_(world, index, disk_, limits)
{}

EnsembleServer::~EnsembleServer()
{
    Resign(State::Down);
}

void EnsembleServer::Kill()
{
    frozen_ = false;
    Resign(State::Down);
}

void EnsembleServer::Start()
{
    if (state_ == State::Down)
    {
        Look();
    }
}

void EnsembleServer::Freeze()
{
    if (state_ == State::Down || std::exchange(frozen_, true))
    {
        return;
    }
    if (leader_)
    {
        leader_->Freeze();
    }
    if (follower_)
    {
        follower_->Freeze();
    }
}

void EnsembleServer::Thaw()
{
    if (!std::exchange(frozen_, false))
    {
        return;
    }
    if (leader_)
    {
        leader_->Thaw();
    }
    if (follower_)
    {
        follower_->Thaw();
    }
    clients_.Resume();
    if (state_ == State::Looking)
    {
        world_.OnLooking(index_);
    }
}

void EnsembleServer::Resign(State next)
{
    state_ = next;
    if (leader_)
    {
        leader_->Retire();
        retired_ = std::move(leader_);
    }
    if (follower_)
    {
        follower_->Retire();
        retired_ = std::move(follower_);
    }
    clients_.Stop();
}

void EnsembleServer::Look()
{
    Resign(State::Looking);
    world_.OnLooking(index_);
}

void EnsembleServer::Lead(std::int64_t epoch)
{
    state_ = State::Leading;
    leader_ = std::make_unique<LeaderRole>(world_, index_, disk_, clients_, epoch, [this] { Look(); });
    leader_->Start();
}

void EnsembleServer::Follow(EnsembleServer& leader, std::uint64_t linkNumber, bool parted)
{
    state_ = State::Following;
    disk_.acceptedEpoch = leader.AcceptedEpoch();
    ServerLink::Upper& upper = leader;
    ServerLink::Lower& lower = *this;
    const auto link = std::make_shared<ServerLink>(world_.Machine(), linkNumber, leader.index_, upper, index_, lower);
    link->Hold(parted, parted);
    link_ = link;
    follower_ = std::make_unique<FollowerRole>(world_, disk_, clients_, [this] { Look(); });
    follower_->Start(link);
    leader.leader_->AddFollower(link);
}

std::optional<std::size_t> EnsembleServer::Follows() const
{
    const auto link = link_.lock();
    return link && follower_ && follower_->Synchronised() ? std::optional<std::size_t>(link->Server()) : std::nullopt;
}

void EnsembleServer::HoldLinkTo(std::size_t other, bool parted)
{
    const auto link = link_.lock();
    if (link && link->Server() == other)
    {
        link->Hold(parted, parted);
    }
}

ClientConnectionPtr EnsembleServer::Connect(std::uint64_t number, ProcessId process, ClientConnection::Lower& client)
{
    ClientConnection::Upper& upper = *this;
    auto connection =
        std::make_shared<ClientConnection>(world_.Machine(), number, index_, upper, process, client, process);
    if (state_ == State::Down)
    {
        connection->CloseUpper();
    }
    else
    {
        clients_.Accept(connection);
    }
    return connection;
}

void EnsembleServer::OnUp(ServerLink& link, ServerMessage message)
{
    if (leader_)
    {
        leader_->OnMessage(link, std::move(message));
    }
}

void EnsembleServer::OnDown(ServerLink& link, ServerMessage message)
{
    if (follower_)
    {
        follower_->OnMessage(link, std::move(message));
    }
}

void EnsembleServer::OnUp(ClientConnection& connection, ToServer message)
{
    clients_.OnMessage(connection, message);
}

}  // namespace kx::velmor::simulation
