#include "cli/queue_table.h"

#include "cli/texts.h"

#include <algorithm>
#include <array>

namespace kx::velmor::cli {

namespace {

using Row = std::array<std::string, 6>;

std::string OrDash(const std::string& text)
{
    return text.empty() ? "-" : Printable(text);
}

std::string SessionOrDash(std::int64_t session)
{
    return session == 0 ? "-" : SessionNumber(session);
}

}  // namespace

const char* RoleInView(const ElectionView& view, std::size_t index)
{
    if (view.leader && view.leader->position == index)
    {
        return "leader";
    }
    return index == 0 ? "elected" : (index == 1 ? "next" : "follower");
}

std::vector<std::string> TableOf(const ElectionView& view)
{
    std::vector<Row> rows{{"POSITION", "ROLE", "IDENTITY", "NODE", "SESSION", "AGE"}};
    if (view.leader && !view.leader->position)
    {
        const Leader& leader = *view.leader;
        rows.push_back(
            {"-", "leader", OrDash(leader.identity), OrDash(leader.node), SessionOrDash(leader.session), "-"});
    }
    for (std::size_t index = 0; index < view.queue.size(); ++index)
    {
        const Participant& participant = view.queue[index];
        rows.push_back({std::to_string(index + 1), RoleInView(view, index), OrDash(participant.identity),
                        OrDash(participant.node), SessionOrDash(participant.session), ShortDuration(participant.age)});
    }

    std::array<std::size_t, std::tuple_size_v<Row>> widths{};
    for (const Row& row : rows)
    {
        for (std::size_t column = 0; column < row.size(); ++column)
        {
            widths[column] = std::max(widths[column], Width(row[column]));
        }
    }
    std::vector<std::string> lines;
    for (const Row& row : rows)
    {
        std::string line;
        for (std::size_t column = 0; column + 1 < row.size(); ++column)
        {
            constexpr std::size_t kGap = 2;
            line += row[column] + std::string(widths[column] - Width(row[column]) + kGap, ' ');
        }
        lines.push_back(line + row.back());
    }
    return lines;
}

}  // namespace kx::velmor::cli
