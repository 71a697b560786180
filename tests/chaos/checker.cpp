#include "tests/chaos/checker.h"

#include "tests/chaos/candidate_checks.h"
#include "tests/chaos/intervals.h"
#include "tests/chaos/leadership_checks.h"

#include <algorithm>
#include <set>

namespace kx::velmor::chaos {

namespace {

/// When the member's processes stood still or were no more.
std::vector<Interval> Silences(const History& history, const Member& member)
{
    std::vector<Interval> silences;
    for (const Fault& fault : history.faults)
    {
        const bool hit = fault.members.empty() ||
                         std::find(fault.members.begin(), fault.members.end(), member.name) != fault.members.end();
        if (fault.silences && hit)
        {
            silences.push_back(fault.when);
        }
    }
    return silences;
}

/// Checks one thread of one process: its signs of life, and its end.
class SilenceCheck
{
public:
    SilenceCheck(const Member& member, const std::vector<Interval>& silences, Report& report)
        : member_(member), silences_(silences), report_(report)
    {}

    void Check(std::vector<Instant> signs, Instant end, std::chrono::milliseconds bound, const std::string& thread)
    {
        signs.push_back(std::max(end, signs.back()));
        for (std::size_t i = 1; i < signs.size(); ++i)
        {
            const Interval gap{signs[i - 1], signs[i]};
            const Instant silent = Length(gap) - Covered(gap, silences_);
            if (silent > bound)
            {
                ++report_.hangs;
                report_.violations.push_back({"hang",
                                              "no sign of life of " + member_.name + "'s " + thread + " thread for " +
                                                  std::to_string(silent.count() / 1000) + " ms",
                                              gap.begin});
            }
        }
    }

private:
    const Member& member_;
    const std::vector<Interval>& silences_;
    Report& report_;
};

/// When a process of the member was last supposed to run.
Instant EndOf(const History& history, const Member& member, std::size_t life, const std::vector<Interval>& silences)
{
    if (life + 1 == member.lives.size())
    {
        return history.whole.end;
    }
    // It was killed by what silenced it last.
    Instant end = member.lives[life].end;
    for (const Interval& silence : silences)
    {
        if (silence.begin <= member.lives[life + 1].begin)
        {
            end = std::max(end, silence.begin);
        }
    }
    return end;
}

void CheckHangs(const History& history, const Bounds& bounds, Report& report)
{
    for (const Member& member : history.members)
    {
        const std::vector<Interval> silences = Silences(history, member);
        SilenceCheck check(member, silences, report);
        for (std::size_t i = 0; i < member.lives.size(); ++i)
        {
            const Life& life = member.lives[i];
            const Instant end = EndOf(history, member, i, silences);
            std::vector<Instant> ownerSigns{life.begin};
            ownerSigns.insert(ownerSigns.end(), life.ownerSigns.begin(), life.ownerSigns.end());
            check.Check(ownerSigns, end, bounds.ownerSilence, "owner");
            // It starts with the first session.
            if (!life.watcherSigns.empty())
            {
                check.Check(life.watcherSigns, end, bounds.watcherSilence, "watcher");
            }
        }
    }
}

std::int64_t Median(std::vector<std::int64_t> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void CheckGrowth(const History& history, const Bounds& bounds, Report& report)
{
    struct Kind
    {
        const char* name;
        std::int64_t Resources::*value;
        std::int64_t allowance;
    };
    const Kind kinds[] = {{"kB of memory", &Resources::rssKilobytes, bounds.rssGrowthKilobytes},
                          {"threads", &Resources::threads, bounds.threadGrowth},
                          {"descriptors", &Resources::descriptors, bounds.descriptorGrowth}};
    for (const Member& member : history.members)
    {
        for (const Life& life : member.lives)
        {
            if (life.resources.size() < bounds.fewestMeasurements)
            {
                continue;
            }
            for (const Kind& kind : kinds)
            {
                std::vector<std::int64_t> values;
                for (const Resources& resources : life.resources)
                {
                    values.push_back(resources.*kind.value);
                }
                const auto half = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
                const std::int64_t before = Median({values.begin(), half});
                const std::int64_t after = Median({half, values.end()});
                if (after > before + kind.allowance)
                {
                    ++report.growths;
                    report.violations.push_back({"growth",
                                                 member.name + " needs " + std::to_string(after) + " " + kind.name +
                                                     " after " + std::to_string(before),
                                                 life.end});
                }
            }
        }
    }
}

void CheckEnding(const Ending& ending, Report& report)
{
    if (!ending.unrest.empty())
    {
        report.violations.push_back({"unrest", "the election does not come to rest: " + ending.unrest, ending.at});
    }
    const std::set<std::int64_t> living(ending.sessions.begin(), ending.sessions.end());
    std::vector<QueueNode> nodes = ending.queue;
    nodes.insert(nodes.end(), ending.besides.begin(), ending.besides.end());
    for (const QueueNode& node : nodes)
    {
        // What belongs to no session stays by design: the record of the lease.
        if (node.owner != 0 && living.count(node.owner) == 0)
        {
            ++report.orphans;
            report.violations.push_back({"orphan", node.name + " belongs to no member's session", ending.at});
        }
    }
}

void CheckRecipe(const History& history, const Bounds& bounds, Report& report)
{
    const Reigns byFlag = CollectReigns(history, &Member::byFlag);
    const Reigns bySession = CollectReigns(history, &Member::bySession);
    // A flag stays as it is while its owner is cut off; only the session's view promises that nobody else leads.
    report.byFlag.overlaps = CheckOverlaps(history, bounds, byFlag, nullptr);
    report.bySession.overlaps = CheckOverlaps(history, bounds, bySession, &report.violations);
    report.byFlag.leaderless = CheckLeaderless(history, bounds, byFlag, "flag", report.violations);
    report.bySession.leaderless = CheckLeaderless(history, bounds, bySession, "session", report.violations);
    report.leaderships = CheckSuccession(history, bounds, bySession, report.violations);
}

}  // namespace

Report Check(const History& history, const Bounds& bounds)
{
    Report report;
    if (history.subject == Subject::Candidate)
    {
        report.candidates = CheckCandidates(history, bounds, report.violations);
        report.leaderships = report.candidates->leaderships;
    }
    else
    {
        CheckRecipe(history, bounds, report);
    }
    CheckHangs(history, bounds, report);
    CheckGrowth(history, bounds, report);
    for (const std::string& casualty : history.casualties)
    {
        report.violations.push_back({"casualty", casualty, history.whole.end});
    }
    if (history.ending)
    {
        CheckEnding(*history.ending, report);
    }
    return report;
}

}  // namespace kx::velmor::chaos
