#include "tests/simulation/client_service.h"

#include <algorithm>
#include <utility>

namespace kx::velmor::simulation {

namespace {

ToClient Event(int type, const std::string& path)
{
    ToClient message;
    message.kind = ToClient::Kind::Event;
    message.eventType = type;
    message.path = path;
    return message;
}

bool NeedsAgreement(const ClientRequest& request)
{
    return request.kind == ClientRequest::Kind::Sync || request.kind == ClientRequest::Kind::Write ||
           request.kind == ClientRequest::Kind::CloseSession;
}

}  // namespace

std::uint64_t PasswordOf(SessionId session)
{
    return static_cast<std::uint64_t>(session) * 0x9e37'79b9'7f4a'7c15U + 1;
}

ClientService::ClientService(ServerWorld& world, std::size_t server, Disk& disk, ServerLimits limits)
    : world_(world), server_(server), disk_(disk), limits_(limits)
{}

void ClientService::Stop()
{
    role_ = nullptr;
    while (!clients_.empty())
    {
        Close(clients_.begin()->first);
    }
    associating_.clear();
    waiting_.clear();
    watches_.clear();
}

void ClientService::Resume()
{
    for (const auto& [number, client] : clients_)
    {
        client.connection->Resume();
    }
}

void ClientService::Accept(const ClientConnectionPtr& connection)
{
    clients_[connection->Number()] = Client{connection, 0, {}};
}

void ClientService::OnMessage(ClientConnection& connection, const ToServer& message)
{
    Client* const client = Find(connection.Number());
    if (client == nullptr)
    {
        return;
    }
    switch (message.kind)
    {
        case ToServer::Kind::Closed:
            Close(connection.Number());
            break;
        case ToServer::Kind::Handshake:
            OnHandshake(*client, message.handshake);
            break;
        case ToServer::Kind::Request:
            if (client->session != 0)
            {
                OnRequest(*client, message.request);
            }
            break;
    }
}

void ClientService::OnHandshake(Client& client, const Handshake& handshake)
{
    const std::uint64_t connection = client.connection->Number();
    // A client must not be set back to an older state than it has seen.
    if (role_ == nullptr || handshake.seen > disk_.replica.LastTransaction())
    {
        Close(connection);
        return;
    }
    client.timeout = std::clamp(handshake.timeout, limits_.minSessionTimeout, limits_.maxSessionTimeout);
    if (handshake.session == 0)
    {
        const SessionId session = world_.NewSession(server_);
        associating_[session] = connection;
        world_.OnTimeoutGranted(session, client.timeout);
        role_->CreateSession(session, client.timeout);
        return;
    }
    OnMoved(handshake.session);
    if (handshake.password != PasswordOf(handshake.session))
    {
        FinishHandshake(connection, handshake.session, false);
        return;
    }
    associating_[handshake.session] = connection;
    world_.OnTimeoutGranted(handshake.session, client.timeout);
    role_->Revalidate(handshake.session, client.timeout);
}

void ClientService::FinishHandshake(std::uint64_t connection, SessionId session, bool success)
{
    Client* const client = Find(connection);
    if (client == nullptr)
    {
        return;
    }
    ToClient message;
    message.kind = ToClient::Kind::Handshake;
    if (success)
    {
        client->session = session;
        bySession_[session] = connection;
        message.handshake = Handshake{session, PasswordOf(session), client->timeout, 0};
    }
    if (Lost(*client, true))
    {
        return;
    }
    client->connection->SendDown(message);
    if (success)
    {
        world_.OnClientConnected(*client->connection);
    }
    else
    {
        Close(connection);
    }
}

void ClientService::OnRevalidated(SessionId session, bool valid)
{
    const auto found = associating_.find(session);
    if (found != associating_.end())
    {
        const std::uint64_t connection = found->second;
        associating_.erase(found);
        FinishHandshake(connection, session, valid);
    }
}

void ClientService::OnRequest(Client& client, const ClientRequestPtr& request)
{
    if (role_ == nullptr || !role_->Touch(client.session, client.timeout))
    {
        return;
    }
    const SessionId session = client.session;
    const std::uint64_t connection = client.connection->Number();
    if (NeedsAgreement(*request) && !RefusedAlone(*request))
    {
        waiting_[session].push_back(Waiting{connection, request, true});
        if (request->kind == ClientRequest::Kind::Sync)
        {
            role_->Sync(session, request);
        }
        else
        {
            role_->Submit(session, request);
        }
        return;
    }
    const auto queue = waiting_.find(session);
    if (queue == waiting_.end())
    {
        AnswerAlone(connection, *request);
    }
    else
    {
        queue->second.push_back(Waiting{connection, request, false});
    }
}

bool ClientService::RefusedAlone(const ClientRequest& request) const
{
    return limits_.answersAlone && request.kind == ClientRequest::Kind::Write && !request.transaction &&
           request.steps.front().path.rfind("/zookeeper/", 0) == 0;
}

void ClientService::OnApplied(const Proposal& proposal, const Replica::Effect& effect)
{
    for (const Replica::Change& change : effect.changes)
    {
        Fire(change);
    }
    const bool own = proposal.origin == server_ && proposal.request != nullptr;
    if (own)
    {
        Answer answer;
        answer.rc = effect.rc;
        answer.transaction = proposal.number;
        answer.outcomes = effect.outcomes;
        Complete(proposal.session, proposal.request->number, std::move(answer));
    }
    if (proposal.kind == Proposal::Kind::CreateSession)
    {
        OnRevalidated(proposal.session, true);
    }
    else if (proposal.kind == Proposal::Kind::CloseSession)
    {
        waiting_.erase(proposal.session);
        OnMoved(proposal.session);
    }
}

void ClientService::OnSynced(SessionId session, std::uint64_t request)
{
    Answer answer;
    answer.transaction = disk_.replica.LastTransaction();
    Complete(session, request, std::move(answer));
}

void ClientService::Complete(SessionId session, std::uint64_t request, Answer answer)
{
    const auto queue = waiting_.find(session);
    if (queue == waiting_.end() || queue->second.front().request->number != request)
    {
        return;
    }
    const Waiting done = queue->second.front();
    queue->second.pop_front();
    if (answer.rc == ZSESSIONMOVED)
    {
        // Not an answer: a connection that the session has left is closed. When the session has not left it, since an
        // attempt to connect elsewhere was only served late, the client comes back and owns the session again.
        Close(done.connection);
    }
    else if (Client* const client = Find(done.connection))
    {
        answer.number = request;
        answer.path = done.request->path;
        SendAnswer(*client, std::move(answer));
    }
    while (!queue->second.empty() && !queue->second.front().agreement)
    {
        const Waiting next = queue->second.front();
        queue->second.pop_front();
        AnswerAlone(next.connection, *next.request);
    }
    if (queue->second.empty())
    {
        waiting_.erase(queue);
    }
}

void ClientService::AnswerAlone(std::uint64_t connection, const ClientRequest& request)
{
    Client* const client = Find(connection);
    if (client == nullptr)
    {
        return;
    }
    if (request.kind == ClientRequest::Kind::Ping)
    {
        ToClient pong;
        pong.kind = ToClient::Kind::Pong;
        pong.transaction = disk_.replica.LastTransaction();
        client->connection->SendDown(pong);
    }
    else if (request.kind == ClientRequest::Kind::SetWatches)
    {
        SetWatches(*client, request);
    }
    else
    {
        Read(*client, request);
    }
}

void ClientService::Read(Client& client, const ClientRequest& request)
{
    Answer answer;
    answer.number = request.number;
    answer.transaction = disk_.replica.LastTransaction();
    answer.path = request.path;
    const NodeTree::Node* const node = disk_.replica.Tree().Find(request.path);
    answer.rc = node != nullptr ? ZOK : static_cast<int>(ZNONODE);
    if (request.kind == ClientRequest::Kind::Write)
    {
        answer.rc = ZNOAUTH;
    }
    else if (node != nullptr)
    {
        answer.stat = StatOf(*node);
        answer.data = node->data;
        if (request.kind == ClientRequest::Kind::GetChildren)
        {
            disk_.replica.Tree().Children(request.path, answer.children);
        }
    }
    if (request.watch)
    {
        watches_[request.path].insert(client.connection->Number());
    }
    SendAnswer(client, std::move(answer));
}

void ClientService::SetWatches(Client& client, const ClientRequest& request)
{
    const std::uint64_t connection = client.connection->Number();
    const auto arm = [&](const std::string& path, int missed) {
        if (missed != 0)
        {
            client.connection->SendDown(Event(missed, path));
        }
        else
        {
            watches_[path].insert(connection);
        }
    };
    for (const std::string& path : request.watchedNodes)
    {
        const NodeTree::Node* const node = disk_.replica.Tree().Find(path);
        arm(path, node == nullptr ? ZOO_DELETED_EVENT : node->changed > request.seen ? ZOO_CHANGED_EVENT : 0);
    }
    for (const std::string& path : request.watchedAbsences)
    {
        arm(path, disk_.replica.Tree().Find(path) != nullptr ? ZOO_CREATED_EVENT : 0);
    }
}

void ClientService::Fire(const Replica::Change& change)
{
    const auto found = watches_.find(change.path);
    if (found == watches_.end())
    {
        return;
    }
    for (const std::uint64_t connection : found->second)
    {
        if (const Client* const client = Find(connection))
        {
            client->connection->SendDown(Event(change.type, change.path));
        }
    }
    watches_.erase(found);
}

void ClientService::SendAnswer(Client& client, Answer answer)
{
    if (!Lost(client, false))
    {
        ToClient message;
        message.kind = ToClient::Kind::Answer;
        message.transaction = answer.transaction;
        message.answer = std::make_shared<const Answer>(std::move(answer));
        client.connection->SendDown(message);
    }
}

bool ClientService::Lost(Client& client, bool handshake)
{
    const bool lost = world_.LosesAnswer(client.connection->Other(), handshake);
    if (lost)
    {
        client.connection->Break(false, false);
    }
    return lost;
}

ClientService::Client* ClientService::Find(std::uint64_t connection)
{
    const auto found = clients_.find(connection);
    return found == clients_.end() ? nullptr : &found->second;
}

void ClientService::Close(std::uint64_t connection)
{
    const auto found = clients_.find(connection);
    if (found == clients_.end())
    {
        return;
    }
    const Client client = std::move(found->second);
    clients_.erase(found);
    const auto session = bySession_.find(client.session);
    if (session != bySession_.end() && session->second == connection)
    {
        bySession_.erase(session);
    }
    client.connection->CloseUpper();
}

void ClientService::OnMoved(SessionId session)
{
    const auto found = bySession_.find(session);
    if (found != bySession_.end())
    {
        Close(found->second);
    }
}

}  // namespace kx::velmor::simulation
