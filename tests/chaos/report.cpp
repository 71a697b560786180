// What a report looks like, to people and to programs.

#include "tests/chaos/checker.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace kx::velmor::chaos {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::chrono::milliseconds kAround{300};
constexpr std::size_t kMostLines = 12;

double Milliseconds(Instant time)
{
    return static_cast<double>(time.count()) / 1000;
}

std::string Text(Instant time)
{
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f ms", Milliseconds(time));
    return text;
}

std::string InWords(const Leaderless& leaderless)
{
    return "leaderless " + Text(leaderless.total) + ", explained " + Text(leaderless.explained) + ", unexplained " +
           Text(leaderless.Unexplained()) + ", longest " + Text(leaderless.longestUnexplained);
}

std::string InWords(const char* name, const ViewReport& view)
{
    std::ostringstream text;
    text << name << ": " << view.overlaps.count << " overlaps, " << Text(view.overlaps.total) << " (by an operator "
         << Text(view.overlaps.byOperator) << "); " << InWords(view.leaderless);
    return text.str();
}

std::string InWords(const CandidateReport& candidates)
{
    std::ostringstream text;
    text << candidates.Successions() << " successions; leaderships ended with:";
    const char* separator = " ";
    for (const auto& [reason, count] : candidates.losses)
    {
        text << separator << count << ' ' << reason;
        separator = ", ";
    }
    text << "; " << candidates.stays << " stays in second place; " << candidates.forkedChildren << " forked children\n"
         << "by IsLeader: " << candidates.overlaps.count << " overlaps, " << candidates.overlaps.total.count()
         << " us; " << InWords(candidates.leaderless);
    return text.str();
}

Json ToJson(const CandidateReport& candidates)
{
    return {{"successions", candidates.Successions()},
            {"losses", candidates.losses},
            {"stays_in_second_place", candidates.stays},
            {"forked_children", candidates.forkedChildren},
            {"overlaps", candidates.overlaps.count},
            {"overlap_us", candidates.overlaps.total.count()},
            {"leaderless_ms", Milliseconds(candidates.leaderless.total)},
            {"leaderless_explained_ms", Milliseconds(candidates.leaderless.explained)},
            {"leaderless_unexplained_ms", Milliseconds(candidates.leaderless.Unexplained())},
            {"leaderless_longest_unexplained_ms", Milliseconds(candidates.leaderless.longestUnexplained)}};
}

Json ToJson(const ViewReport& view)
{
    return {{"overlaps", view.overlaps.count},
            {"overlap_ms", Milliseconds(view.overlaps.total)},
            {"overlap_by_operator_ms", Milliseconds(view.overlaps.byOperator)},
            {"leaderless_ms", Milliseconds(view.leaderless.total)},
            {"leaderless_explained_ms", Milliseconds(view.leaderless.explained)},
            {"leaderless_unexplained_ms", Milliseconds(view.leaderless.Unexplained())},
            {"leaderless_longest_unexplained_ms", Milliseconds(view.leaderless.longestUnexplained)}};
}

}  // namespace

std::string Around(const History& history, Instant at)
{
    std::vector<std::pair<Instant, std::string>> lines;
    for (const Member& member : history.members)
    {
        for (const Line& line : member.lines)
        {
            const Instant distance = line.at > at ? line.at - at : at - line.at;
            if (distance <= kAround)
            {
                lines.emplace_back(line.at, member.name + " " + line.text);
            }
        }
    }
    for (const Fault& fault : history.faults)
    {
        if (fault.when.begin <= at + kAround && fault.when.end >= at - kAround)
        {
            lines.emplace_back(fault.when.begin, "fault " + ToJson(fault));
        }
    }
    // The nearest, in their order.
    const auto distance = [&](Instant time) { return time > at ? time - at : at - time; };
    std::stable_sort(lines.begin(), lines.end(),
                     [&](const auto& left, const auto& right) { return distance(left.first) < distance(right.first); });
    lines.resize(std::min(lines.size(), kMostLines));
    std::stable_sort(lines.begin(), lines.end(),
                     [](const auto& left, const auto& right) { return left.first < right.first; });
    std::string text;
    for (const auto& [time, line] : lines)
    {
        text += "    " + line + "\n";
    }
    return text;
}

std::string Summary(const History& history, const Report& report)
{
    std::ostringstream text;
    text << Length(history.whole).count() / 1'000'000 << " s, " << history.members.size() << " members, "
         << history.faults.size() << " faults, " << report.leaderships << " leaderships\n";
    if (report.candidates)
    {
        text << InWords(*report.candidates) << '\n';
    }
    else
    {
        text << InWords("by flags", report.byFlag) << '\n'
             << InWords("by the session's view", report.bySession) << '\n';
    }
    text << report.orphans << " orphans, " << report.hangs << " hangs, " << report.growths << " growths, "
         << report.violations.size() << " violations";
    if (history.ending)
    {
        text << "; at rest " << history.ending->watches << " watches on the servers\n";
    }
    else
    {
        text << "; interrupted before the end\n";
    }
    return text.str();
}

std::string ToJson(const History& history, const Report& report)
{
    Json violations = Json::array();
    for (const Violation& violation : report.violations)
    {
        violations.push_back({{"rule", violation.rule}, {"text", violation.text}, {"at", violation.at.count()}});
    }
    Json json{{"with", Name(history.subject)},
              {"duration_ms", Milliseconds(Length(history.whole))},
              {"members", history.members.size()},
              {"faults", history.faults.size()},
              {"leaderships", report.leaderships},
              {"complete", history.ending.has_value()},
              {"watches_at_rest", history.ending ? Json(history.ending->watches) : Json()},
              {"orphans", report.orphans},
              {"hangs", report.hangs},
              {"growths", report.growths},
              {"violations", violations}};
    if (report.candidates)
    {
        json["candidates"] = ToJson(*report.candidates);
    }
    else
    {
        json["by_flag"] = ToJson(report.byFlag);
        json["by_session"] = ToJson(report.bySession);
    }
    return json.dump(2, ' ', false, Json::error_handler_t::replace);
}

}  // namespace kx::velmor::chaos
