#include "tests/simulation/leader_role.h"

#include <algorithm>

namespace kx::velmor::simulation {

namespace {

/// In ticks: how long a new leader waits for a quorum to have its data.
constexpr int kInitLimit = 10;

ServerMessage Message(ServerMessage::Kind kind)
{
    ServerMessage message;
    message.kind = kind;
    return message;
}

}  // namespace

LeaderRole::LeaderRole(ServerWorld& world, std::size_t server, Disk& disk, ClientService& clients, std::int64_t epoch,
                       std::function<void()> onLost)
    : world_(world),
      server_(server),
      disk_(disk),
      clients_(clients),
      epoch_(epoch),
      onLost_(std::move(onLost)),
      tickTime_(world.Options().limits.tick)
{}

LeaderRole::~LeaderRole()
{
    Retire();
}

void LeaderRole::Start()
{
    disk_.acceptedEpoch = disk_.currentEpoch = epoch_;
    for (; !disk_.logged.empty(); disk_.logged.pop_front())
    {
        disk_.replica.Apply(*disk_.logged.front());
    }
    ScheduleTick();
    EstablishIfPossible();
}

void LeaderRole::AddFollower(const ServerLinkPtr& link)
{
    ServerMessage snapshot = Message(ServerMessage::Kind::Snapshot);
    snapshot.epoch = epoch_;
    snapshot.snapshot = std::make_shared<const Replica>(disk_.replica);
    snapshot.proposals.assign(disk_.logged.begin(), disk_.logged.end());
    link->SendDown(std::move(snapshot));
    followers_[link->Other()] = Follower{link, {}, tick_ + kInitLimit, world_.Machine().Now()};
}

void LeaderRole::OnMessage(ServerLink& link, ServerMessage message)
{
    const auto found = followers_.find(link.Other());
    if (found == followers_.end() || found->second.link.get() != &link)
    {
        return;
    }
    Follower& follower = found->second;
    follower.deadline = tick_ + world_.Options().syncLimit;
    follower.heard = world_.Machine().Now();
    switch (message.kind)
    {
        case ServerMessage::Kind::Acknowledge:
            if (!std::exchange(follower.acknowledged, message.number) && Established())
            {
                link.SendDown(Message(ServerMessage::Kind::UpToDate));
            }
            EstablishIfPossible();
            CommitWhatIsAgreed();
            break;
        case ServerMessage::Kind::PingReply:
            for (const auto& [session, timeout] : message.touches)
            {
                Touch(session, timeout);
            }
            break;
        case ServerMessage::Kind::Submit:
            SubmitFrom(link.Other(), message.session, message.request);
            break;
        case ServerMessage::Kind::CreateSession:
            CreateSessionFrom(link.Other(), message.session, message.timeout);
            break;
        case ServerMessage::Kind::Revalidate: {
            ServerMessage answer = Message(ServerMessage::Kind::Revalidated);
            answer.session = message.session;
            answer.valid = RevalidateFrom(link.Other(), message.session, message.timeout);
            if (answer.valid)
            {
                // Other followers do not learn that a session has left them.
                clients_.OnMoved(message.session);
            }
            link.SendDown(std::move(answer));
            break;
        }
        case ServerMessage::Kind::Sync:
            SyncFrom(PendingSync{link.Other(), message.session, message.request});
            break;
        default:
            link.CloseUpper();
            followers_.erase(found);
            break;
    }
}

void LeaderRole::EstablishIfPossible()
{
    if (Established() || !Quorum([](const Follower& follower) { return follower.acknowledged.has_value(); }))
    {
        return;
    }
    tracker_ = std::make_unique<SessionTracker>(world_.Machine(), tickTime_, [this](SessionId session) {
        Propose(Prepare(Proposal::Kind::CloseSession, session, server_));
    });
    // A new leader knows nothing but when sessions were made, and with which timeout.
    for (const auto& [session, timeout] : disk_.replica.Sessions())
    {
        tracker_->Track(session, timeout);
    }
    for (const auto& [server, follower] : followers_)
    {
        if (follower.acknowledged)
        {
            follower.link->SendDown(Message(ServerMessage::Kind::UpToDate));
        }
    }
    clients_.Start(*this);
    world_.OnEstablished(server_);
}

Proposal LeaderRole::Prepare(Proposal::Kind kind, SessionId session, std::size_t origin) const
{
    Proposal proposal;
    proposal.kind = kind;
    proposal.time = world_.WallClock();
    proposal.session = session;
    proposal.origin = origin;
    return proposal;
}

void LeaderRole::Propose(Proposal proposal)
{
    proposal.number = disk_.LastLogged() + 1;
    ServerMessage message = Message(ServerMessage::Kind::Propose);
    message.proposals.push_back(std::make_shared<const Proposal>(std::move(proposal)));
    disk_.logged.push_back(message.proposals.front());
    outstanding_.push_back(Outstanding{message.proposals.front()});
    Broadcast(message);
    CommitWhatIsAgreed();
}

void LeaderRole::CommitWhatIsAgreed()
{
    while (Established() && !outstanding_.empty() && Quorum([&](const Follower& follower) {
               return follower.acknowledged && *follower.acknowledged >= outstanding_.front().proposal->number;
           }))
    {
        Commit();
    }
}

void LeaderRole::Commit()
{
    const Outstanding agreed = std::move(outstanding_.front());
    outstanding_.pop_front();
    disk_.logged.pop_front();
    const Proposal& proposal = *agreed.proposal;
    ServerMessage message = Message(ServerMessage::Kind::Commit);
    message.number = proposal.number;
    Broadcast(message);
    const Replica::Effect effect = disk_.replica.Apply(proposal);
    if (proposal.kind == Proposal::Kind::CloseSession)
    {
        tracker_->Forget(proposal.session);
    }
    clients_.OnApplied(proposal, effect);
    for (const PendingSync& sync : agreed.syncs)
    {
        Answer(sync);
    }
}

bool LeaderRole::Touch(SessionId session, std::chrono::milliseconds timeout)
{
    return tracker_ != nullptr && tracker_->Touch(session, timeout);
}

void LeaderRole::CreateSession(SessionId session, std::chrono::milliseconds timeout)
{
    CreateSessionFrom(server_, session, timeout);
}

void LeaderRole::CreateSessionFrom(std::size_t origin, SessionId session, std::chrono::milliseconds timeout)
{
    tracker_->Track(session, timeout);
    tracker_->SetOwner(session, origin);
    Proposal proposal = Prepare(Proposal::Kind::CreateSession, session, origin);
    proposal.timeout = timeout;
    Propose(std::move(proposal));
}

void LeaderRole::Revalidate(SessionId session, std::chrono::milliseconds timeout)
{
    clients_.OnRevalidated(session, RevalidateFrom(server_, session, timeout));
}

bool LeaderRole::RevalidateFrom(std::size_t origin, SessionId session, std::chrono::milliseconds timeout)
{
    const bool valid = tracker_->Touch(session, timeout);
    if (valid)
    {
        tracker_->SetOwner(session, origin);
    }
    return valid;
}

void LeaderRole::Submit(SessionId session, const ClientRequestPtr& request)
{
    SubmitFrom(server_, session, request);
}

void LeaderRole::SubmitFrom(std::size_t origin, SessionId session, const ClientRequestPtr& request)
{
    const bool closes = request->kind == ClientRequest::Kind::CloseSession;
    const int rc = closes ? static_cast<int>(ZOK) : tracker_->CheckWrite(session, origin);
    if (closes)
    {
        tracker_->SetClosing(session);
    }
    // The outcome of a refused write is agreed on like any other.
    Proposal proposal = Prepare(rc != ZOK ? Proposal::Kind::Refusal
                                : closes  ? Proposal::Kind::CloseSession
                                          : Proposal::Kind::Write,
                                session, origin);
    proposal.rc = rc;
    proposal.request = request;
    Propose(std::move(proposal));
}

void LeaderRole::Sync(SessionId session, const ClientRequestPtr& request)
{
    SyncFrom(PendingSync{server_, session, request});
}

void LeaderRole::SyncFrom(PendingSync sync)
{
    if (outstanding_.empty())
    {
        // Nobody else is asked.
        Answer(sync);
    }
    else
    {
        outstanding_.back().syncs.push_back(std::move(sync));
    }
}

void LeaderRole::Answer(const PendingSync& sync)
{
    if (sync.server == server_)
    {
        clients_.OnSynced(sync.session, sync.request->number);
        return;
    }
    const auto follower = followers_.find(sync.server);
    if (follower != followers_.end())
    {
        ServerMessage message = Message(ServerMessage::Kind::Synced);
        message.session = sync.session;
        message.request = sync.request;
        follower->second.link->SendDown(std::move(message));
    }
}

void LeaderRole::DeleteTree(const std::string& path)
{
    auto request = std::make_shared<ClientRequest>();
    request->kind = ClientRequest::Kind::Write;
    request->steps.push_back(Step{Step::Kind::DeleteTree, path});
    Proposal proposal = Prepare(Proposal::Kind::Write, 0, server_);
    proposal.request = std::move(request);
    Propose(std::move(proposal));
}

void LeaderRole::ScheduleTick()
{
    tickEvent_ = world_.Machine().At(world_.Machine().Now() + tickTime_ / 2, [this] { OnTick(); });
}

void LeaderRole::OnTick()
{
    tickEvent_.reset();
    if (frozen_)
    {
        return;
    }
    fullTick_ = !fullTick_;
    if (fullTick_)
    {
        ++tick_;
        const bool inTime = Quorum([this](const Follower& follower) { return tick_ <= follower.deadline; });
        if (!inTime || (!Established() && tick_ > kInitLimit))
        {
            onLost_();
            return;
        }
    }
    DropSilentFollowers();
    Broadcast(Message(ServerMessage::Kind::Ping));
    ScheduleTick();
}

void LeaderRole::DropSilentFollowers()
{
    const Time now = world_.Machine().Now();
    for (auto it = followers_.begin(); it != followers_.end();)
    {
        const int limit = it->second.acknowledged ? world_.Options().syncLimit : kInitLimit;
        if (now - it->second.heard > limit * tickTime_)
        {
            it->second.link->CloseUpper();
            it = followers_.erase(it);
        }
        else
        {
            ++it;
        }
    }
}

bool LeaderRole::Quorum(const std::function<bool(const Follower&)>& counts) const
{
    const auto followers = std::count_if(followers_.begin(), followers_.end(),
                                         [&](const auto& follower) { return counts(follower.second); });
    return 2 * (static_cast<std::size_t>(followers) + 1) > world_.Options().servers;
}

void LeaderRole::Broadcast(const ServerMessage& message)
{
    for (const auto& [server, follower] : followers_)
    {
        follower.link->SendDown(message);
    }
}

void LeaderRole::Freeze()
{
    frozen_ = true;
    if (tracker_)
    {
        tracker_->Suspend();
    }
}

void LeaderRole::Thaw()
{
    frozen_ = false;
    if (tracker_)
    {
        tracker_->Resume();
    }
    if (!tickEvent_)
    {
        tickEvent_ =
            world_.Machine().At(world_.Machine().Now() + RandomLatency(world_.Machine()), [this] { OnTick(); });
    }
    for (const auto& [server, follower] : followers_)
    {
        follower.link->Resume();
    }
}

void LeaderRole::Retire()
{
    if (tickEvent_)
    {
        world_.Machine().Cancel(*tickEvent_);
        tickEvent_.reset();
    }
    tracker_.reset();
    for (const auto& [server, follower] : followers_)
    {
        follower.link->CloseUpper();
    }
    followers_.clear();
}

}  // namespace kx::velmor::simulation
