#include "tests/simulation/client_network.h"

#include <algorithm>

namespace kx::velmor::simulation {

ClientConnectionPtr ClientNetwork::Connect(ProcessId process, std::size_t server, ClientConnection::Lower& client)
{
    Process& state = processes_[process];
    if (state.gone)
    {
        return nullptr;
    }
    ClientConnectionPtr connection = servers_[server]->Connect(++connections_, process, client);
    auto& all = state.connections;
    all.erase(std::remove_if(all.begin(), all.end(), [](const auto& each) { return each.expired(); }), all.end());
    all.push_back(connection);
    const Path& path = state.paths[server];
    connection->SetDelays(path.upDelay, path.downDelay);
    connection->Hold(path.silentUp, path.silentDown);
    if (path.refused)
    {
        connection->Break(true, true);
    }
    return connection;
}

bool ClientNetwork::LosesRequest(ProcessId process)
{
    return std::exchange(processes_[process].losesRequest, false);
}

bool ClientNetwork::LosesAnswer(ProcessId process, bool handshake)
{
    Process& state = processes_[process];
    return std::exchange(handshake ? state.losesHandshake : state.losesAnswer, false);
}

void ClientNetwork::OnConnected(const ClientConnection& connection)
{
    Process& state = processes_[connection.Other()];
    for (const auto& each : state.connections)
    {
        if (each.lock().get() == &connection)
        {
            state.newest = each;
        }
    }
}

std::optional<std::size_t> ClientNetwork::ConnectedServer(ProcessId process) const
{
    const auto found = processes_.find(process);
    const auto newest = found == processes_.end() ? nullptr : found->second.newest.lock();
    return newest && newest->Open() ? std::optional<std::size_t>(newest->Server()) : std::nullopt;
}

void ClientNetwork::OnTimeoutGranted(SessionId session, std::chrono::milliseconds timeout)
{
    const auto granted = granted_.emplace(session, timeout).first;
    granted->second = std::min(granted->second, timeout);
}

void ClientNetwork::OnTimeoutKnown(ProcessId process, SessionId session, std::chrono::milliseconds timeout)
{
    Process& state = processes_[process];
    state.timeout = session == state.session ? std::min(state.timeout, timeout) : timeout;
    state.session = session;
}

std::optional<EnsembleModel::SessionTimeouts> ClientNetwork::Timeouts(ProcessId process) const
{
    const auto found = processes_.find(process);
    if (found == processes_.end() || found->second.session == 0)
    {
        return std::nullopt;
    }
    return EnsembleModel::SessionTimeouts{found->second.timeout, granted_.at(found->second.session)};
}

void ClientNetwork::Cut(ProcessId process, std::optional<std::size_t> server)
{
    ForEach(process, server, [&](ClientConnection& connection) {
        const bool loseUp = TossCoin();
        connection.Break(loseUp, TossCoin());
    });
}

void ClientNetwork::Silence(ProcessId process, std::optional<std::size_t> server, EnsembleModel::Direction direction)
{
    Change(process, server, [&](Path& path) {
        path.silentUp = path.silentUp || direction != EnsembleModel::Direction::ToClient;
        path.silentDown = path.silentDown || direction != EnsembleModel::Direction::ToServer;
    });
}

void ClientNetwork::Refuse(ProcessId process, std::optional<std::size_t> server)
{
    Change(process, server, [](Path& path) { path.refused = true; });
    Cut(process, server);
}

void ClientNetwork::Heal(ProcessId process, std::optional<std::size_t> server)
{
    Change(process, server, [](Path& path) { path.silentUp = path.silentDown = path.refused = false; });
}

void ClientNetwork::Delay(ProcessId process, std::optional<std::size_t> server, EnsembleModel::Direction direction,
                          Time delay)
{
    Change(process, server, [&](Path& path) {
        path.upDelay = direction != EnsembleModel::Direction::ToClient ? delay : path.upDelay;
        path.downDelay = direction != EnsembleModel::Direction::ToServer ? delay : path.downDelay;
    });
}

void ClientNetwork::LoseNextAnswer(ProcessId process, bool handshake)
{
    Process& state = processes_[process];
    (handshake ? state.losesHandshake : state.losesAnswer) = true;
}

void ClientNetwork::LoseNextRequest(ProcessId process)
{
    processes_[process].losesRequest = true;
}

void ClientNetwork::Disconnect(ProcessId process)
{
    processes_[process].gone = true;
    ForEach(process, std::nullopt, [](ClientConnection& connection) { connection.CloseLower(); });
}

void ClientNetwork::Change(ProcessId process, std::optional<std::size_t> server,
                           const std::function<void(Path&)>& change)
{
    Process& state = processes_[process];
    for (std::size_t each = 0; each < servers_.size(); ++each)
    {
        if (!server || *server == each)
        {
            change(state.paths[each]);
        }
    }
    ForEach(process, server, [&](ClientConnection& connection) {
        const Path& path = state.paths[connection.Server()];
        connection.SetDelays(path.upDelay, path.downDelay);
        connection.Hold(path.silentUp, path.silentDown);
    });
}

void ClientNetwork::ForEach(ProcessId process, std::optional<std::size_t> server,
                            const std::function<void(ClientConnection&)>& action)
{
    for (const auto& each : processes_[process].connections)
    {
        const auto connection = each.lock();
        if (connection && (!server || *server == connection->Server()))
        {
            action(*connection);
        }
    }
}

}  // namespace kx::velmor::simulation
