#include "cli/queue_json.h"

#include "cli/queue_table.h"
#include "cli/texts.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace kx::velmor::cli {

namespace {

/// Keeps the order in which keys are written.
using Json = nlohmann::ordered_json;

Json OrNull(const std::string& text)
{
    return text.empty() ? Json() : Json(text);
}

Json NumberOrNull(std::int64_t number)
{
    return number == 0 ? Json() : Json(number);
}

Json SessionOrNull(std::int64_t session)
{
    return session == 0 ? Json() : Json(SessionNumber(session));
}

Json PositionOf(const std::optional<std::size_t>& index)
{
    return index ? Json(*index + 1) : Json();
}

Json LeaderOf(const ElectionView& view)
{
    if (!view.leader)
    {
        return Json();
    }
    const Leader& leader = *view.leader;
    return {{"position", PositionOf(leader.position)},
            {"identity", OrNull(leader.identity)},
            {"node", OrNull(leader.node)},
            {"session", SessionOrNull(leader.session)},
            {"epoch", NumberOrNull(leader.epoch)}};
}

std::string Line(const Json& json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

std::string StatusJson(const std::string& election, const ElectionView& view)
{
    Json queue = Json::array();
    for (std::size_t index = 0; index < view.queue.size(); ++index)
    {
        const Participant& participant = view.queue[index];
        queue.push_back({{"position", PositionOf(index)},
                         {"role", RoleInView(view, index)},
                         {"identity", OrNull(participant.identity)},
                         {"node", participant.node},
                         {"session", SessionOrNull(participant.session)},
                         {"epoch", participant.epoch},
                         {"joined", IsoTime(participant.joined)},
                         {"age_ms", participant.age.count()}});
    }
    return Line({{"election", election}, {"leader", LeaderOf(view)}, {"queue", std::move(queue)}});
}

std::string ChangeJson(const std::string& election, const ElectionChange& change,
                       std::chrono::system_clock::time_point time)
{
    Json json{{"time", IsoTime(time)}, {"event", ToString(change.kind)}, {"election", election}};
    switch (change.kind)
    {
        case ElectionChange::Kind::Disconnected:
        case ElectionChange::Kind::Connected:
        case ElectionChange::Kind::NoLeader:
            break;
        default:
            json["identity"] = OrNull(change.identity);
            json["node"] = OrNull(change.node);
            json["session"] = SessionOrNull(change.session);
            json["epoch"] = NumberOrNull(change.epoch);
            break;
    }
    return Line(json);
}

}  // namespace kx::velmor::cli
