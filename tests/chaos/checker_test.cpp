#include "tests/chaos/checker.h"

#include "tests/chaos/intervals.h"
#include "tests/chaos/made_up_history.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace kx::velmor::chaos {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

using namespace std::chrono_literals;

std::vector<std::string> Rules(const Report& report)
{
    std::vector<std::string> rules;
    for (const Violation& violation : report.violations)
    {
        rules.push_back(violation.rule);
    }
    return rules;
}

Report Check(MadeUpHistory& history)
{
    return Check(history.Get(), Bounds(2s));
}

/// m1 leads for a minute, is killed, and m2 leads after its session has expired.
class ChaosChecker : public ::testing::Test
{
protected:
    ChaosChecker()
    {
        history_.AddStay(0, 10);
        history_.AddStay(1, 11);
        history_.AddStay(2, 12);
        history_.Lead(0, 0, 0s, 60s);
    }

    void KillFirst()
    {
        history_.AddFault("kill member", 60s, 61s, {"m1"}).silences = true;
        history_.Get().members[0].lives.clear();
        history_.AddLife(0, 0s, 60s);
        history_.AddLife(0, 61s, 100s);
    }

    void SucceedFirst() { history_.Lead(1, 0, 62s, 100s); }

    MadeUpHistory history_{100s};
};

TEST_F(ChaosChecker, FindsNothingWhereNothingIsWrong)
{
    KillFirst();
    SucceedFirst();
    const Report report = Check(history_);
    EXPECT_THAT(Rules(report), IsEmpty());
    EXPECT_EQ(report.leaderships, 2U);
    EXPECT_EQ(report.bySession.overlaps.count, 0U);
    EXPECT_EQ(report.bySession.leaderless.total, 2s);
    EXPECT_EQ(report.bySession.leaderless.explained, 2s);
    EXPECT_EQ(report.byFlag.leaderless.total, 2s);
}

TEST_F(ChaosChecker, FindsTwoLeadersAtOnceByTheSessionsView)
{
    history_.Lead(1, 0, 59'700ms, 100s);
    const Report report = Check(history_);
    ASSERT_THAT(Rules(report), ElementsAre("overlap"));
    EXPECT_EQ(report.bySession.overlaps.count, 1U);
    EXPECT_EQ(report.bySession.overlaps.total, 300ms);
    EXPECT_EQ(report.violations[0].at, 59'700ms);
    EXPECT_THAT(report.violations[0].text, HasSubstr("m1 (c-10) and m2 (c-11)"));
}

TEST_F(ChaosChecker, OnlyReportsTwoLeadersAtOnceByTheirFlags)
{
    history_.LeadByFlagOnly(0, 0, 60s, 64s);
    history_.Lead(1, 0, 60'500ms, 100s);
    const Report report = Check(history_);
    EXPECT_THAT(Rules(report), IsEmpty());
    EXPECT_EQ(report.byFlag.overlaps.total, 3'500ms);
    EXPECT_EQ(report.bySession.overlaps.total, 0ms);
}

TEST_F(ChaosChecker, CountsAnInstantOnceHoweverManyLeadAtIt)
{
    history_.Lead(1, 0, 50s, 100s);
    history_.Lead(2, 0, 55s, 58s);
    const Report report = Check(history_);
    EXPECT_EQ(report.bySession.overlaps.total, 10s);
    EXPECT_EQ(report.bySession.overlaps.count, 1U);
}

TEST_F(ChaosChecker, ForgivesALeaderWhoseNodeAnOperatorDeletedForAWhile)
{
    history_.AddFault("delete node", 59'900ms, 59'950ms, {"m1"}).takesNodes = true;
    history_.Lead(1, 0, 59'940ms, 100s);
    const Report report = Check(history_);
    EXPECT_THAT(Rules(report), IsEmpty());
    EXPECT_EQ(report.bySession.overlaps.total, 60ms);
    EXPECT_EQ(report.bySession.overlaps.byOperator, 60ms);
}

TEST_F(ChaosChecker, DoesNotForgiveALeaderForWhatWasDoneToAnother)
{
    history_.AddFault("delete node", 59'900ms, 59'950ms, {"m3"}).takesNodes = true;
    history_.Lead(1, 0, 59'940ms, 100s);
    EXPECT_THAT(Rules(Check(history_)), ElementsAre("overlap"));
}

TEST_F(ChaosChecker, ForgivesADeletedLeaderForAsLongAsOtherFaultsKeepItFromTheServers)
{
    history_.AddFault("delete node", 50s, 50s, {"m1"}).takesNodes = true;
    history_.Lead(1, 0, 59'900ms, 100s);
    EXPECT_THAT(Rules(Check(history_)), ElementsAre("overlap"));
    history_.AddFault("lose quorum", 50s, 59s);
    EXPECT_THAT(Rules(Check(history_)), IsEmpty());
}

TEST_F(ChaosChecker, DoesNotForgiveADeletedLeaderForLong)
{
    history_.AddFault("delete node", 50s, 50s, {"m1"}).takesNodes = true;
    history_.Lead(1, 0, 50'100ms, 100s);
    const Report report = Check(history_);
    ASSERT_THAT(Rules(report), ElementsAre("overlap"));
}

TEST_F(ChaosChecker, FindsTimeWithoutALeaderThatNoFaultExplains)
{
    history_.Lead(1, 0, 61'500ms, 100s);
    const Report report = Check(history_);
    ASSERT_THAT(Rules(report), ElementsAre("leaderless", "leaderless"));
    EXPECT_EQ(report.bySession.leaderless.Unexplained(), 1'500ms);
    EXPECT_EQ(report.bySession.leaderless.longestUnexplained, 1'500ms);
}

TEST_F(ChaosChecker, LetsAMomentWithoutALeaderPass)
{
    history_.Lead(1, 0, 60'900ms, 100s);
    const Report report = Check(history_);
    EXPECT_THAT(Rules(report), IsEmpty());
    EXPECT_EQ(report.bySession.leaderless.Unexplained(), 900ms);
}

TEST_F(ChaosChecker, DoesNotTakeAFaultOfSomebodyElseForAnExplanation)
{
    history_.AddFault("kill member", 60s, 61s, {"m3"}).silences = true;
    history_.Lead(1, 0, 63s, 100s);
    EXPECT_THAT(Rules(Check(history_)), ElementsAre("leaderless", "leaderless"));
}

TEST_F(ChaosChecker, TakesAFaultForAnExplanationOnlyForAWhile)
{
    KillFirst();
    history_.Lead(1, 0, 70s, 100s);
    const Report report = Check(history_);
    ASSERT_THAT(Rules(report), ElementsAre("leaderless", "leaderless"));
    EXPECT_EQ(report.bySession.leaderless.explained, 6s);
    EXPECT_EQ(report.bySession.leaderless.Unexplained(), 4s);
}

TEST_F(ChaosChecker, FindsAnElectionThatEndsWithoutALeader)
{
    EXPECT_THAT(Rules(Check(history_)), ElementsAre("leaderless", "leaderless"));
}

TEST_F(ChaosChecker, FindsANodeThatLeadsAgainAfterAnother)
{
    history_.Lead(1, 0, 60'010ms, 70s);
    history_.Lead(0, 0, 70'010ms, 100s);
    const Report report = Check(history_);
    ASSERT_THAT(Rules(report), ElementsAre("succession"));
    EXPECT_THAT(report.violations[0].text, HasSubstr("m1 (c-10) leads again"));
}

TEST_F(ChaosChecker, TakesBlinksOfOneLeaderForOneLeadership)
{
    history_.Lead(0, 0, 60'100ms, 100s);
    const Report report = Check(history_);
    EXPECT_THAT(Rules(report), IsEmpty());
    EXPECT_EQ(report.leaderships, 1U);
    EXPECT_EQ(report.bySession.leaderless.total, 0s);
}

TEST_F(ChaosChecker, FindsANodeThatLeadsAfterANewerOne)
{
    history_.Lead(2, 0, 60'010ms, 70s);
    history_.Lead(1, 0, 70'010ms, 100s);
    const Report report = Check(history_);
    ASSERT_THAT(Rules(report), ElementsAre("succession"));
    EXPECT_THAT(report.violations[0].text, HasSubstr("m2 (c-11) leads after m3 (c-12), whose node is newer"));
}

TEST_F(ChaosChecker, FindsANodeThatIsPassedOver)
{
    history_.Get().members[1].stays[0].lastQueued = 90s;
    history_.Lead(2, 0, 60'010ms, 100s);
    const Report report = Check(history_);
    ASSERT_THAT(Rules(report), ElementsAre("succession"));
    EXPECT_THAT(report.violations[0].text, HasSubstr("m3 (c-12) leads although m2 (c-11) is ahead"));
}

TEST_F(ChaosChecker, FindsAnOwnerThatHangs)
{
    SucceedFirst();
    KillFirst();
    std::vector<Instant>& signs = history_.Get().members[2].lives[0].ownerSigns;
    signs.erase(signs.begin() + 20, signs.begin() + 60);
    const Report report = Check(history_);
    ASSERT_THAT(Rules(report), ElementsAre("hang"));
    EXPECT_EQ(report.hangs, 1U);
    EXPECT_THAT(report.violations[0].text, HasSubstr("m3's owner"));
}

TEST_F(ChaosChecker, FindsAProcessThatFallsSilentBeforeTheEnd)
{
    SucceedFirst();
    KillFirst();
    history_.Get().members[2].lives[0].watcherSigns.resize(80);
    EXPECT_THAT(Rules(Check(history_)), ElementsAre("hang"));
}

TEST_F(ChaosChecker, ExpectsNoSignOfLifeOfAProcessThatIsPaused)
{
    SucceedFirst();
    KillFirst();
    std::vector<Instant>& signs = history_.Get().members[2].lives[0].watcherSigns;
    signs.erase(signs.begin() + 20, signs.begin() + 30);
    EXPECT_THAT(Rules(Check(history_)), ElementsAre("hang"));
    history_.AddFault("pause member", 20s, 29s, {"m3"}).silences = true;
    EXPECT_THAT(Rules(Check(history_)), IsEmpty());
}

TEST_F(ChaosChecker, FindsWhatGrows)
{
    SucceedFirst();
    KillFirst();
    std::vector<Resources>& resources = history_.Get().members[2].lives[0].resources;
    for (std::size_t i = 0; i < resources.size(); ++i)
    {
        const auto grown = static_cast<std::int64_t>(i);
        resources[i].rssKilobytes += 100 * grown;
        resources[i].threads += grown / 10;
        resources[i].descriptors += grown / 10;
    }
    const Report report = Check(history_);
    ASSERT_THAT(Rules(report), ElementsAre("growth", "growth", "growth"));
    EXPECT_EQ(report.growths, 3U);
    EXPECT_THAT(report.violations[1].text, HasSubstr("threads"));
}

TEST_F(ChaosChecker, LetsPeaksPass)
{
    SucceedFirst();
    KillFirst();
    history_.Get().members[2].lives[0].resources[90].threads += 20;
    EXPECT_THAT(Rules(Check(history_)), IsEmpty());
}

TEST_F(ChaosChecker, FindsANodeThatBelongsToNobody)
{
    SucceedFirst();
    KillFirst();
    history_.Get().ending->sessions = {1, 2};
    history_.Get().ending->queue = {{"c-11", 1}, {"c-12", 2}, {"c-13", 3}};
    const Report report = Check(history_);
    ASSERT_THAT(Rules(report), ElementsAre("orphan"));
    EXPECT_EQ(report.orphans, 1U);
    EXPECT_THAT(report.violations[0].text, HasSubstr("c-13"));
}

TEST_F(ChaosChecker, FindsAnElectionThatDoesNotComeToRest)
{
    SucceedFirst();
    KillFirst();
    history_.Get().ending->unrest = "2 leaders";
    EXPECT_THAT(Rules(Check(history_)), ElementsAre("unrest"));
}

TEST_F(ChaosChecker, FindsAMemberThatEndedByItself)
{
    SucceedFirst();
    KillFirst();
    history_.Get().casualties = {"m2 has ended by itself, with -6"};
    EXPECT_THAT(Rules(Check(history_)), ElementsAre("casualty"));
}

TEST_F(ChaosChecker, JudgesWhatThereIsOfARunThatWasInterrupted)
{
    history_.Lead(1, 0, 59s, 100s);
    history_.Get().ending.reset();
    const Report report = Check(history_);
    ASSERT_THAT(Rules(report), ElementsAre("overlap"));
    EXPECT_THAT(Summary(history_.Get(), report), HasSubstr("interrupted"));
}

TEST_F(ChaosChecker, TellsItsFiguresToProgramsToo)
{
    history_.Lead(1, 0, 59'700ms, 100s);
    history_.Get().ending->watches = 7;
    const Report report = Check(history_);
    const auto json = nlohmann::json::parse(ToJson(history_.Get(), report));
    EXPECT_EQ(json.at("by_session").at("overlaps"), 1);
    EXPECT_EQ(json.at("by_session").at("overlap_ms"), 300.0);
    EXPECT_EQ(json.at("violations").at(0).at("rule"), "overlap");
    EXPECT_EQ(json.at("complete"), true);
    EXPECT_EQ(json.at("watches_at_rest"), 7);
}

TEST_F(ChaosChecker, ShowsTheLinesAndFaultsAroundAnInstant)
{
    KillFirst();
    history_.Get().members[0].lines = {{10s, "long before"}, {60s, "just then"}};
    const std::string lines = Around(history_.Get(), 60'100ms);
    EXPECT_THAT(lines, HasSubstr("m1 just then"));
    EXPECT_THAT(lines, HasSubstr("kill member"));
    EXPECT_THAT(lines, Not(HasSubstr("long before")));
}

TEST(ChaosIntervals, UniteWhatOverlapsAndTouches)
{
    const std::vector<Interval> all = Union({{5s, 6s}, {1s, 2s}, {2s, 4s}, {3s, 3500ms}});
    ASSERT_THAT(all, SizeIs(2));
    EXPECT_EQ(all[0].begin, 1s);
    EXPECT_EQ(all[0].end, 4s);
    EXPECT_EQ(all[1].begin, 5s);
}

TEST(ChaosIntervals, CountWhatIsCoveredOnce)
{
    EXPECT_EQ(Covered({0s, 10s}, {{-5s, 1s}, {2s, 4s}, {3s, 5s}, {9s, 20s}}), 5s);
}

}  // namespace
}  // namespace kx::velmor::chaos
