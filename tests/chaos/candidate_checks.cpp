#include "tests/chaos/candidate_checks.h"

#include "tests/chaos/intervals.h"

#include <algorithm>
#include <map>
#include <set>
#include <string>

namespace kx::velmor::chaos {

namespace {

struct Claim
{
    const Member* member;
    Tenure tenure;
};

std::vector<Claim> Claims(const History& history)
{
    std::vector<Claim> claims;
    for (const Member& member : history.members)
    {
        for (const Tenure& tenure : member.tenures)
        {
            claims.push_back({&member, tenure});
        }
    }
    std::sort(claims.begin(), claims.end(),
              [](const Claim& left, const Claim& right) { return left.tenure.until < right.tenure.until; });
    return claims;
}

std::string Describe(const Claim& claim)
{
    return claim.member->name + (claim.tenure.epoch == 0 ? "" : " (epoch " + std::to_string(claim.tenure.epoch) + ")");
}

/// Whether the one had begun before the other had ended, for certain.
bool BeganBeforeEndOf(const Claim& one, const Claim& other)
{
    return one.tenure.from < other.tenure.until;
}

/// Two that each had begun before the other had ended led at one instant.
Overlaps CheckOverlaps(const History& history, const std::vector<Claim>& claims, std::vector<Violation>& violations)
{
    std::vector<Interval> overlaps;
    Overlaps result;
    for (auto first = claims.begin(); first != claims.end(); ++first)
    {
        for (auto second = first + 1; second != claims.end(); ++second)
        {
            if (first->member == second->member || !BeganBeforeEndOf(*first, *second) ||
                !BeganBeforeEndOf(*second, *first))
            {
                continue;
            }
            const Interval both{std::max(first->tenure.from, second->tenure.from),
                                std::min(first->tenure.until, second->tenure.until)};
            const Instant least = std::max(Length(both), Instant{0});
            overlaps.push_back({both.begin, both.begin + least});
            ++result.count;
            violations.push_back({"overlap",
                                  Describe(*first) + " and " + Describe(*second) + " both lead, for " +
                                      std::to_string(least.count()) + " us at least",
                                  both.begin});
        }
    }
    result.total = Covered(history.whole, overlaps);
    return result;
}

void CheckEpochs(const std::vector<Claim>& claims, std::vector<Violation>& violations)
{
    for (auto first = claims.begin(); first != claims.end(); ++first)
    {
        for (auto second = claims.begin(); second != claims.end(); ++second)
        {
            // What overlaps is neither earlier nor later, and a violation anyway.
            const bool earlier = BeganBeforeEndOf(*first, *second) && !BeganBeforeEndOf(*second, *first);
            const bool known = first->tenure.epoch != 0 && second->tenure.epoch != 0;
            if (first != second && earlier && known && second->tenure.epoch <= first->tenure.epoch)
            {
                violations.push_back(
                    {"epoch", Describe(*second) + " leads after " + Describe(*first), second->tenure.until});
            }
        }
    }
}

/// Follows what the callbacks of one process tell.
class NoticeCheck
{
public:
    NoticeCheck(const Member& member, CandidateReport& report, std::vector<Violation>& violations)
        : member_(member), report_(report), violations_(violations)
    {}

    void Take(const Notice& notice)
    {
        switch (notice.kind)
        {
            case Notice::Kind::Gained:
                Expect(!leads_, "gains the lead twice", notice.at);
                Expect(!next_, "gains the lead while it is still next", notice.at);
                Expect(notice.epoch > epoch_, "gains the lead with an epoch that is not greater", notice.at);
                leads_ = true;
                epoch_ = notice.epoch;
                break;
            case Notice::Kind::Lost:
                Expect(leads_, "loses a lead that it has not gained", notice.at);
                leads_ = false;
                ++report_.losses[notice.reason];
                break;
            case Notice::Kind::Next:
                Expect(!next_, "is next twice", notice.at);
                Expect(!leads_, "is next while it leads", notice.at);
                next_ = true;
                ++report_.stays;
                break;
            case Notice::Kind::NextLost:
                Expect(next_, "is no longer next without having been", notice.at);
                next_ = false;
                break;
        }
    }

    /// The process ended, without having been asked to when it was `killed`.
    void End(bool killed, Instant at)
    {
        if (killed && leads_)
        {
            ++report_.losses["killed"];
        }
        Expect(killed || !leads_, "has left without a word that it does not lead any more", at);
        Expect(killed || !next_, "has left without a word that it is not next any more", at);
        leads_ = false;
        next_ = false;
    }

private:
    void Expect(bool condition, const std::string& otherwise, Instant at)
    {
        if (!condition)
        {
            violations_.push_back({"notice", member_.name + " " + otherwise, at});
        }
    }

    const Member& member_;
    CandidateReport& report_;
    std::vector<Violation>& violations_;
    bool leads_ = false;
    bool next_ = false;
    /// Of the last gain; it outlives the process.
    std::int64_t epoch_ = 0;
};

void CheckNotices(const History& history, CandidateReport& report, std::vector<Violation>& violations)
{
    for (const Member& member : history.members)
    {
        NoticeCheck check(member, report, violations);
        auto notice = member.notices.begin();
        for (std::size_t life = 0; life < member.lives.size(); ++life)
        {
            for (; notice != member.notices.end() && notice->life == life; ++notice)
            {
                check.Take(*notice);
            }
            // Only the last process is ever asked to leave for good.
            check.End(life + 1 < member.lives.size(), member.lives[life].end);
        }
    }
}

/// Every leadership is told, once in all, unless its process was killed before it could tell.
void CheckTold(const History& history, const Bounds& bounds, CandidateReport& report,
               std::vector<Violation>& violations)
{
    std::map<std::int64_t, const Member*> leaders;
    for (const Member& member : history.members)
    {
        std::set<std::int64_t> told;
        for (const Notice& notice : member.notices)
        {
            if (notice.kind != Notice::Kind::Gained)
            {
                continue;
            }
            told.insert(notice.epoch);
            const auto [leader, first] = leaders.emplace(notice.epoch, &member);
            if (!first && leader->second != &member)
            {
                violations.push_back({"epoch",
                                      member.name + " gains the lead with the epoch " + std::to_string(notice.epoch) +
                                          " of " + leader->second->name,
                                      notice.at});
            }
        }
        for (const Tenure& tenure : member.tenures)
        {
            if (tenure.epoch == 0 || told.count(tenure.epoch) != 0)
            {
                continue;
            }
            leaders.emplace(tenure.epoch, &member);
            const bool killed = std::any_of(member.lives.begin(), member.lives.end() - 1, [&](const Life& life) {
                return tenure.until <= life.end && life.end - tenure.until < bounds.unseen;
            });
            if (!killed)
            {
                violations.push_back(
                    {"notice",
                     member.name + " leads with the epoch " + std::to_string(tenure.epoch) + " and does not tell",
                     tenure.until});
            }
        }
    }
    report.leaderships = leaders.size();
}

/// A forked child does not lead, also while its parent does.
void CheckForkedChildren(const History& history, CandidateReport& report, std::vector<Violation>& violations)
{
    for (const Member& member : history.members)
    {
        for (const ForkedChild& child : member.children)
        {
            ++report.forkedChildren;
            if (child.led)
            {
                violations.push_back({"fork",
                                      "a forked child of " + member.name + " leads, for " +
                                          std::to_string(Length(*child.led).count()) + " us at least",
                                      child.led->begin});
            }
        }
    }
}

Leaderless CheckLeaderless(const History& history, const Bounds& bounds, const std::vector<Claim>& claims,
                           std::vector<Violation>& violations)
{
    std::vector<Interval> windows;
    for (const Fault& fault : history.faults)
    {
        windows.push_back({fault.when.begin, fault.when.end + bounds.Aftermath(fault)});
    }
    std::vector<Interval> led{{history.whole.begin, history.whole.begin}};
    for (const Claim& claim : claims)
    {
        led.push_back({std::min(claim.tenure.from, claim.tenure.until), claim.tenure.until});
    }
    led.push_back({history.whole.end, history.whole.end});
    led = Union(led);

    Leaderless result;
    for (std::size_t i = 1; i < led.size(); ++i)
    {
        const Interval stretch{led[i - 1].end, led[i].begin};
        const Instant explained = Covered(stretch, windows);
        const Instant unexplained = Length(stretch) - explained;
        result.total += Length(stretch);
        result.explained += explained;
        result.longestUnexplained = std::max(result.longestUnexplained, unexplained);
        if (unexplained > bounds.leaderless)
        {
            violations.push_back({"leaderless",
                                  "nobody leads for " + std::to_string(Length(stretch).count() / 1000) +
                                      " ms, of which " + std::to_string(unexplained.count() / 1000) +
                                      " ms without a fault",
                                  stretch.begin});
        }
    }
    return result;
}

}  // namespace

CandidateReport CheckCandidates(const History& history, const Bounds& bounds, std::vector<Violation>& violations)
{
    CandidateReport report;
    const std::vector<Claim> claims = Claims(history);
    report.overlaps = CheckOverlaps(history, claims, violations);
    report.leaderless = CheckLeaderless(history, bounds, claims, violations);
    CheckEpochs(claims, violations);
    CheckNotices(history, report, violations);
    CheckTold(history, bounds, report, violations);
    CheckForkedChildren(history, report, violations);
    return report;
}

}  // namespace kx::velmor::chaos
