#include "tests/simulation/election.h"

#include <algorithm>
#include <optional>

namespace kx::velmor::simulation {

namespace {

constexpr std::chrono::milliseconds kMinVoting{200};
constexpr std::chrono::milliseconds kMaxVoting{500};
constexpr std::chrono::milliseconds kRetry{100};

std::pair<std::size_t, std::size_t> Pair(std::size_t one, std::size_t other)
{
    return {std::min(one, other), std::max(one, other)};
}

}  // namespace

Election::~Election()
{
    for (const auto& [server, event] : scheduled_)
    {
        machine_.Cancel(event);
    }
}

void Election::Begin()
{
    const std::size_t leader = machine_.Random(servers_.size());
    servers_[leader]->Lead(1);
    for (std::size_t server = 0; server < servers_.size(); ++server)
    {
        if (server != leader)
        {
            Follow(server, leader);
        }
    }
}

void Election::Look(std::size_t server)
{
    const Time spread = kMaxVoting - kMinVoting;
    Schedule(server, kMinVoting + Time(machine_.Random(static_cast<std::uint64_t>(spread.count()))));
}

void Election::Schedule(std::size_t server, Time delay)
{
    const auto before = scheduled_.find(server);
    if (before != scheduled_.end())
    {
        machine_.Cancel(before->second);
    }
    scheduled_[server] = machine_.At(machine_.Now() + delay, [this, server] {
        scheduled_.erase(server);
        Ask(server);
    });
}

void Election::Ask(std::size_t server)
{
    const EnsembleServer& asking = *servers_[server];
    // A frozen one looks again when it goes on.
    if (asking.Now() == EnsembleServer::State::Looking && !asking.Frozen() && !JoinLeader(server) && !Elect(server))
    {
        Schedule(server, kRetry + RandomLatency(machine_));
    }
}

bool Election::JoinLeader(std::size_t server)
{
    std::optional<std::size_t> newest;
    for (std::size_t other = 0; other < servers_.size(); ++other)
    {
        const EnsembleServer& leader = *servers_[other];
        const bool suits = leader.Now() == EnsembleServer::State::Leading && CanTalk(server, other) &&
                           leader.AcceptedEpoch() >= servers_[server]->AcceptedEpoch();
        if (suits && (!newest || leader.AcceptedEpoch() > servers_[*newest]->AcceptedEpoch()))
        {
            newest = other;
        }
    }
    if (newest)
    {
        Follow(server, *newest);
    }
    return newest.has_value();
}

bool Election::Elect(std::size_t server)
{
    std::optional<std::size_t> best;
    for (std::size_t other = 0; other < servers_.size(); ++other)
    {
        const std::vector<std::size_t> supporters = Supporters(other);
        const bool elected = 2 * supporters.size() > servers_.size() &&
                             std::find(supporters.begin(), supporters.end(), server) != supporters.end();
        if (elected && (!best || servers_[other]->OwnVote() > servers_[*best]->OwnVote()))
        {
            best = other;
        }
    }
    if (!best)
    {
        return false;
    }
    const std::vector<std::size_t> supporters = Supporters(*best);
    std::int64_t epoch = 0;
    for (const std::size_t supporter : supporters)
    {
        epoch = std::max(epoch, servers_[supporter]->AcceptedEpoch() + 1);
    }
    servers_[*best]->Lead(epoch);
    for (const std::size_t supporter : supporters)
    {
        if (supporter != *best)
        {
            Follow(supporter, *best);
        }
    }
    return true;
}

std::vector<std::size_t> Election::Supporters(std::size_t candidate) const
{
    std::vector<std::size_t> supporters;
    for (std::size_t other = 0; other < servers_.size(); ++other)
    {
        if (servers_[other]->Now() == EnsembleServer::State::Looking &&
            servers_[candidate]->Now() == EnsembleServer::State::Looking && CanTalk(candidate, other) &&
            servers_[other]->OwnVote() <= servers_[candidate]->OwnVote())
        {
            supporters.push_back(other);
        }
    }
    return supporters;
}

void Election::Follow(std::size_t server, std::size_t leader)
{
    const auto scheduled = scheduled_.find(server);
    if (scheduled != scheduled_.end())
    {
        machine_.Cancel(scheduled->second);
        scheduled_.erase(scheduled);
    }
    servers_[server]->Follow(*servers_[leader], ++links_, Parted(server, leader));
}

bool Election::CanTalk(std::size_t one, std::size_t other) const
{
    return !servers_[one]->Frozen() && !servers_[other]->Frozen() && !Parted(one, other);
}

void Election::Part(std::size_t one, std::size_t other)
{
    parted_.insert(Pair(one, other));
    servers_[one]->HoldLinkTo(other, true);
    servers_[other]->HoldLinkTo(one, true);
}

void Election::Join(std::size_t one, std::size_t other)
{
    parted_.erase(Pair(one, other));
    servers_[one]->HoldLinkTo(other, false);
    servers_[other]->HoldLinkTo(one, false);
}

bool Election::Parted(std::size_t one, std::size_t other) const
{
    return parted_.count(Pair(one, other)) > 0;
}

}  // namespace kx::velmor::simulation
