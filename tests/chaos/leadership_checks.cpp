#include "tests/chaos/leadership_checks.h"

#include "tests/chaos/intervals.h"

#include <algorithm>

namespace kx::velmor::chaos {

namespace {

std::string Milliseconds(Instant time)
{
    return std::to_string(time.count() / 1000) + " ms";
}

std::string Describe(const Reign& reign)
{
    return reign.member->name + (reign.stay->node.empty() ? "" : " (" + reign.stay->node + ")");
}

bool Hits(const Fault& fault, const Member& member)
{
    return fault.members.empty() ||
           std::find(fault.members.begin(), fault.members.end(), member.name) != fault.members.end();
}

/// Whether the member may have lost its node without knowing it yet.
bool MayBeUnawares(const History& history, const Bounds& bounds, const Member& member, Instant at)
{
    std::vector<Interval> cutOff;
    for (const Fault& fault : history.faults)
    {
        if (Hits(fault, member))
        {
            cutOff.push_back(fault.when);
        }
    }
    return std::any_of(history.faults.begin(), history.faults.end(), [&](const Fault& fault) {
        // Nobody learns anything while other faults keep the servers away.
        const Instant meanwhile = at > fault.when.end ? Covered({fault.when.end, at}, cutOff) : Instant{0};
        return fault.takesNodes && Hits(fault, member) &&
               Contains({fault.when.begin, fault.when.end + bounds.Unawares() + meanwhile}, at);
    });
}

/// Joins what belongs together but for moments in which nobody looked.
Reigns WithoutBlinks(const Reigns& reigns, const Bounds& bounds)
{
    Reigns joined;
    for (const Reign& reign : reigns)
    {
        const auto earlier =
            std::find_if(joined.rbegin(), joined.rend(), [&](const Reign& other) { return other.stay == reign.stay; });
        if (earlier != joined.rend() && reign.when.begin - earlier->when.end <= bounds.unseen)
        {
            earlier->when.end = std::max(earlier->when.end, reign.when.end);
        }
        else
        {
            joined.push_back(reign);
        }
    }
    return joined;
}

/// Nodes are the same or not; a stay whose node nobody saw is one of its own.
bool SameNode(const Stay& left, const Stay& right)
{
    return &left == &right || (left.created != 0 && left.created == right.created);
}

}  // namespace

Reigns CollectReigns(const History& history, std::vector<Leadership> Member::*view)
{
    Reigns reigns;
    for (const Member& member : history.members)
    {
        for (const Leadership& leadership : member.*view)
        {
            reigns.push_back({&member, &member.stays.at(leadership.stay), leadership.when});
        }
    }
    std::stable_sort(reigns.begin(), reigns.end(),
                     [](const Reign& left, const Reign& right) { return left.when.begin < right.when.begin; });
    return reigns;
}

Overlaps CheckOverlaps(const History& history, const Bounds& bounds, const Reigns& reigns,
                       std::vector<Violation>* violations)
{
    std::vector<Interval> overlaps;
    std::vector<Interval> byOperator;
    for (auto first = reigns.begin(); first != reigns.end(); ++first)
    {
        for (auto second = first + 1; second != reigns.end() && second->when.begin <= first->when.end; ++second)
        {
            if (first->member == second->member)
            {
                continue;
            }
            const Interval both{second->when.begin, std::min(first->when.end, second->when.end)};
            overlaps.push_back(both);
            const auto excused = [&](const Reign& reign) {
                return MayBeUnawares(history, bounds, *reign.member, both.begin) &&
                       MayBeUnawares(history, bounds, *reign.member, both.end);
            };
            if (excused(*first) || excused(*second))
            {
                byOperator.push_back(both);
            }
            else if (violations != nullptr)
            {
                violations->push_back(
                    {"overlap",
                     Describe(*first) + " and " + Describe(*second) + " both lead for " + Milliseconds(Length(both)),
                     both.begin});
            }
        }
    }
    Overlaps result;
    result.count = Union(overlaps).size();
    result.total = Covered(history.whole, overlaps);
    result.byOperator = Covered(history.whole, byOperator);
    return result;
}

Leaderless CheckLeaderless(const History& history, const Bounds& bounds, const Reigns& reigns, const std::string& view,
                           std::vector<Violation>& violations)
{
    Leaderless result;
    const Reign* last = nullptr;
    const auto count = [&](const Interval& stretch, const Reign* next) {
        std::vector<Interval> windows;
        for (const Fault& fault : history.faults)
        {
            if (fault.leaving || (last != nullptr && Hits(fault, *last->member)) ||
                (next != nullptr && Hits(fault, *next->member)))
            {
                windows.push_back({fault.when.begin, fault.when.end + bounds.Aftermath(fault)});
            }
        }
        const Instant explained = Covered(stretch, windows);
        const Instant unexplained = Length(stretch) - explained;
        result.total += Length(stretch);
        result.explained += explained;
        result.longestUnexplained = std::max(result.longestUnexplained, unexplained);
        if (unexplained > bounds.leaderless)
        {
            violations.push_back({"leaderless",
                                  "by " + view + " nobody leads for " + Milliseconds(Length(stretch)) + ", of which " +
                                      Milliseconds(unexplained) + " without a fault",
                                  stretch.begin});
        }
    };

    Instant covered = history.whole.begin;
    const Reigns joined = WithoutBlinks(reigns, bounds);
    for (const Reign& reign : joined)
    {
        if (reign.when.begin > covered)
        {
            count({covered, reign.when.begin}, &reign);
        }
        if (last == nullptr || reign.when.end >= covered)
        {
            last = &reign;
            covered = std::max(covered, reign.when.end);
        }
    }
    if (history.whole.end - covered > bounds.unseen)
    {
        count({covered, history.whole.end}, nullptr);
    }
    return result;
}

std::size_t CheckSuccession(const History& history, const Bounds& bounds, const Reigns& reigns,
                            std::vector<Violation>& violations)
{
    std::vector<const Reign*> led;
    std::int64_t newest = 0;
    for (const Reign& reign : reigns)
    {
        if (!led.empty() && SameNode(*led.back()->stay, *reign.stay))
        {
            continue;
        }
        const bool again =
            std::any_of(led.begin(), led.end(), [&](const Reign* past) { return SameNode(*past->stay, *reign.stay); });
        // It, or the one before it.
        const bool excused = MayBeUnawares(history, bounds, *reign.member, reign.when.begin) ||
                             (!led.empty() && MayBeUnawares(history, bounds, *led.back()->member, reign.when.begin));
        if (again && excused)
        {
            continue;
        }
        if (again)
        {
            violations.push_back(
                {"succession", Describe(reign) + " leads again, after " + Describe(*led.back()), reign.when.begin});
        }
        else if (reign.stay->created != 0 && reign.stay->created < newest && !excused)
        {
            violations.push_back({"succession",
                                  Describe(reign) + " leads after " + Describe(*led.back()) + ", whose node is newer",
                                  reign.when.begin});
        }
        newest = std::max(newest, reign.stay->created);
        for (const Member& member : history.members)
        {
            for (const Stay& stay : member.stays)
            {
                const bool ahead = stay.created != 0 && stay.created < reign.stay->created;
                if (ahead && stay.lastQueued > reign.when.begin + bounds.sessionTimeout && !excused)
                {
                    violations.push_back(
                        {"succession",
                         Describe(reign) + " leads although " + member.name + " (" + stay.node + ") is ahead of it",
                         reign.when.begin});
                }
            }
        }
        led.push_back(&reign);
    }
    return led.size();
}

}  // namespace kx::velmor::chaos
