#include "cli/election_changes.h"

#include "cli/texts.h"

#include <map>
#include <optional>
#include <utility>

namespace kx::velmor::cli {

namespace {

using Kind = ElectionChange::Kind;

ElectionChange Of(Kind kind, const Participant& participant)
{
    return {kind, participant.node, participant.identity, participant.session, participant.epoch};
}

/// No two of all times are the same.
std::pair<std::string, std::int64_t> Place(const Participant& participant)
{
    return {participant.node, participant.epoch};
}

using Places = std::map<std::pair<std::string, std::int64_t>, const Participant*>;

Places PlacesOf(const ElectionView& view)
{
    Places places;
    for (const Participant& participant : view.queue)
    {
        places.emplace(Place(participant), &participant);
    }
    return places;
}

const Participant* Next(const ElectionView& view)
{
    return view.queue.size() > 1 ? &view.queue[1] : nullptr;
}

bool SameLeader(const std::optional<Leader>& before, const std::optional<Leader>& now)
{
    return before && now ? before->session == now->session && before->epoch == now->epoch && before->node == now->node
                         : before.has_value() == now.has_value();
}

}  // namespace

const char* ToString(ElectionChange::Kind kind) noexcept
{
    switch (kind)
    {
        case Kind::Disconnected:
            return "disconnected";
        case Kind::Connected:
            return "connected";
        case Kind::Left:
            return "left";
        case Kind::Joined:
            return "joined";
        case Kind::Named:
            return "named";
        case Kind::Leader:
            return "leader";
        case Kind::NoLeader:
            return "no leader";
        case Kind::Next:
            return "next";
    }
    return "?";
}

std::string ChangeText(const ElectionChange& change, std::chrono::system_clock::time_point time)
{
    std::string text = IsoTime(time) + " " + ToString(change.kind);
    switch (change.kind)
    {
        case Kind::Disconnected:
        case Kind::Connected:
        case Kind::NoLeader:
            return text;
        default:
            break;
    }
    const auto orDash = [](const std::string& part) { return part.empty() ? std::string("-") : Printable(part); };
    return text + " " + orDash(change.identity) + " " + orDash(change.node) + " epoch " +
           (change.epoch == 0 ? "-" : std::to_string(change.epoch));
}

std::vector<ElectionChange> Changes(const ElectionView& before, const ElectionView& now)
{
    std::vector<ElectionChange> changes;
    if (before.known && before.connected != now.connected)
    {
        changes.push_back({now.connected ? Kind::Connected : Kind::Disconnected});
    }
    const Places were = PlacesOf(before);
    const Places are = PlacesOf(now);
    for (const Participant& participant : before.queue)
    {
        if (are.count(Place(participant)) == 0)
        {
            changes.push_back(Of(Kind::Left, participant));
        }
    }
    for (const Participant& participant : now.queue)
    {
        const auto was = were.find(Place(participant));
        if (was == were.end())
        {
            changes.push_back(Of(Kind::Joined, participant));
        }
        else if (was->second->identity != participant.identity)
        {
            changes.push_back(Of(Kind::Named, participant));
        }
    }
    if (now.known && (!before.known || !SameLeader(before.leader, now.leader)))
    {
        changes.push_back(now.leader ? ElectionChange{Kind::Leader, now.leader->node, now.leader->identity,
                                                      now.leader->session, now.leader->epoch}
                                     : ElectionChange{Kind::NoLeader});
    }
    const Participant* const next = Next(now);
    const Participant* const wasNext = Next(before);
    if (next != nullptr && (wasNext == nullptr || Place(*next) != Place(*wasNext)))
    {
        changes.push_back(Of(Kind::Next, *next));
    }
    return changes;
}

}  // namespace kx::velmor::cli
