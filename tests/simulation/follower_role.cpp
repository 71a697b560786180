#include "tests/simulation/follower_role.h"

#include <algorithm>
#include <utility>

namespace kx::velmor::simulation {

namespace {

/// In ticks: how long a follower waits for the data of a new leader.
constexpr int kInitLimit = 10;

}  // namespace

FollowerRole::FollowerRole(ServerWorld& world, Disk& disk, ClientService& clients, std::function<void()> onLost)
    : world_(world), disk_(disk), clients_(clients), onLost_(std::move(onLost))
{}

FollowerRole::~FollowerRole()
{
    Retire();
}

void FollowerRole::Start(const ServerLinkPtr& link)
{
    link_ = link;
    heard_ = world_.Machine().Now();
    patience_ = kInitLimit * Time(world_.Options().limits.tick);
    ListenUntil(heard_ + patience_);
}

void FollowerRole::OnMessage(ServerLink& link, ServerMessage message)
{
    if (&link != link_.get())
    {
        return;
    }
    heard_ = world_.Machine().Now();
    switch (message.kind)
    {
        case ServerMessage::Kind::Snapshot:
            TakeOver(message);
            break;
        case ServerMessage::Kind::UpToDate:
            serving_ = true;
            clients_.Start(*this);
            break;
        case ServerMessage::Kind::Propose: {
            disk_.logged.push_back(message.proposals.front());
            ServerMessage acknowledgement;
            acknowledgement.kind = ServerMessage::Kind::Acknowledge;
            acknowledgement.number = disk_.LastLogged();
            link_->SendUp(std::move(acknowledgement));
            break;
        }
        case ServerMessage::Kind::Commit:
            Commit(message.number);
            break;
        case ServerMessage::Kind::Ping:
            AnswerPing();
            break;
        case ServerMessage::Kind::Revalidated:
            clients_.OnRevalidated(message.session, message.valid);
            break;
        case ServerMessage::Kind::Synced:
            clients_.OnSynced(message.session, message.request->number);
            break;
        default:
            onLost_();
            break;
    }
}

void FollowerRole::TakeOver(const ServerMessage& snapshot)
{
    // Proposals that the leader does not know were never agreed on, and are lost here.
    disk_.replica = *snapshot.snapshot;
    disk_.logged.assign(snapshot.proposals.begin(), snapshot.proposals.end());
    disk_.currentEpoch = snapshot.epoch;
    patience_ = world_.Options().syncLimit * Time(world_.Options().limits.tick);
    ServerMessage acknowledgement;
    acknowledgement.kind = ServerMessage::Kind::Acknowledge;
    acknowledgement.number = disk_.LastLogged();
    link_->SendUp(std::move(acknowledgement));
}

void FollowerRole::Commit(TransactionNumber number)
{
    if (disk_.logged.empty() || disk_.logged.front()->number != number)
    {
        // Part of the snapshot.
        return;
    }
    const ProposalPtr proposal = std::move(disk_.logged.front());
    disk_.logged.pop_front();
    clients_.OnApplied(*proposal, disk_.replica.Apply(*proposal));
}

void FollowerRole::AnswerPing()
{
    ServerMessage reply;
    reply.kind = ServerMessage::Kind::PingReply;
    reply.touches = std::exchange(touches_, {});
    link_->SendUp(std::move(reply));
}

bool FollowerRole::Touch(SessionId session, std::chrono::milliseconds timeout)
{
    touches_[session] = timeout;
    return true;
}

void FollowerRole::CreateSession(SessionId session, std::chrono::milliseconds timeout)
{
    SendUp(ServerMessage::Kind::CreateSession, session, nullptr, timeout);
}

void FollowerRole::Revalidate(SessionId session, std::chrono::milliseconds timeout)
{
    SendUp(ServerMessage::Kind::Revalidate, session, nullptr, timeout);
}

void FollowerRole::Submit(SessionId session, const ClientRequestPtr& request)
{
    SendUp(ServerMessage::Kind::Submit, session, request, {});
}

void FollowerRole::Sync(SessionId session, const ClientRequestPtr& request)
{
    SendUp(ServerMessage::Kind::Sync, session, request, {});
}

void FollowerRole::SendUp(ServerMessage::Kind kind, SessionId session, const ClientRequestPtr& request,
                          std::chrono::milliseconds timeout)
{
    ServerMessage message;
    message.kind = kind;
    message.session = session;
    message.request = request;
    message.timeout = timeout;
    link_->SendUp(std::move(message));
}

void FollowerRole::ListenUntil(Time when)
{
    silence_ = world_.Machine().At(when, [this] {
        silence_.reset();
        const Time end = heard_ + patience_;
        if (frozen_)
        {
            return;
        }
        if (world_.Machine().Now() < end)
        {
            ListenUntil(end);
            return;
        }
        onLost_();
    });
}

void FollowerRole::Freeze()
{
    frozen_ = true;
}

void FollowerRole::Thaw()
{
    frozen_ = false;
    link_->Resume();
    if (!silence_)
    {
        // What has arrived meanwhile is read first.
        constexpr std::chrono::milliseconds kReading{2};
        ListenUntil(std::max(heard_ + patience_, world_.Machine().Now() + kReading));
    }
}

void FollowerRole::Retire()
{
    if (silence_)
    {
        world_.Machine().Cancel(*silence_);
        silence_.reset();
    }
    if (link_)
    {
        link_->CloseLower();
        link_.reset();
    }
}

}  // namespace kx::velmor::simulation
