#include "tests/chaos/candidate_checks.h"

#include "tests/chaos/made_up_history.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace kx::velmor::chaos {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;

using namespace std::chrono_literals;

/// m1 leads for a minute and leaves; m2, which was next, leads after it until the end.
class ChaosCandidateChecks : public ::testing::Test
{
protected:
    ChaosCandidateChecks()
    {
        history_.Get().subject = Subject::Candidate;
        Lead(0, 10, 0us, 60s, "left");
        Tell(1, Notice::Kind::Next, 1s);
        Tell(1, Notice::Kind::NextLost, 60'001ms);
        Lead(1, 11, 60'001ms, 100s, "left");
    }

    void Prove(std::size_t member, std::int64_t epoch, Instant from, Instant until)
    {
        Of(member).tenures.push_back({epoch, from, until});
    }

    Notice& Tell(std::size_t member, Notice::Kind kind, Instant at)
    {
        Of(member).notices.push_back({at, kind, Of(member).lives.size() - 1});
        return Of(member).notices.back();
    }

    void Gain(std::size_t member, std::int64_t epoch, Instant at)
    {
        Tell(member, Notice::Kind::Gained, at).epoch = epoch;
    }

    void Lead(std::size_t member, std::int64_t epoch, Instant from, Instant until, const std::string& reason)
    {
        Prove(member, epoch, from, until);
        Gain(member, epoch, from);
        Tell(member, Notice::Kind::Lost, until).reason = reason;
    }

    /// What m2 has told and proven of its leadership is what a test says.
    void ForgetSecond()
    {
        Of(1).tenures.clear();
        Of(1).notices.clear();
    }

    std::vector<std::string> Rules()
    {
        report_ = Check(history_.Get(), Bounds(2s));
        std::vector<std::string> rules;
        for (const Violation& violation : report_.violations)
        {
            rules.push_back(violation.rule);
        }
        return rules;
    }

    const std::string& FirstText() { return report_.violations.at(0).text; }
    Member& Of(std::size_t member) { return history_.Get().members.at(member); }

    MadeUpHistory history_{100s};
    Report report_;
};

TEST_F(ChaosCandidateChecks, FindNothingWhereNothingIsWrong)
{
    EXPECT_THAT(Rules(), IsEmpty());
    ASSERT_TRUE(report_.candidates);
    EXPECT_EQ(report_.candidates->leaderships, 2U);
    EXPECT_EQ(report_.candidates->Successions(), 1U);
    EXPECT_THAT(report_.candidates->losses, ElementsAre(Pair("left", 2)));
    EXPECT_EQ(report_.candidates->stays, 1U);
    EXPECT_EQ(report_.candidates->overlaps.count, 0U);
    EXPECT_EQ(report_.candidates->leaderless.total, 1ms);
}

TEST_F(ChaosCandidateChecks, FindTwoLeadersAtOneMicrosecond)
{
    ForgetSecond();
    Lead(1, 11, 59'999'999us, 100s, "left");
    EXPECT_THAT(Rules(), ElementsAre("overlap"));
    EXPECT_EQ(report_.candidates->overlaps.count, 1U);
    EXPECT_EQ(report_.candidates->overlaps.total, 1us);
    EXPECT_EQ(report_.violations.at(0).at, 59'999'999us);
    EXPECT_THAT(FirstText(), HasSubstr("m1 (epoch 10) and m2 (epoch 11) both lead, for 1 us at least"));
}

TEST_F(ChaosCandidateChecks, LetLeadershipsTouch)
{
    ForgetSecond();
    Lead(1, 11, 60s, 100s, "left");
    EXPECT_THAT(Rules(), IsEmpty());
}

TEST_F(ChaosCandidateChecks, ExcuseNoOverlapForWhatAnOperatorDeletes)
{
    history_.AddFault("delete node", 59s, 59s, {"m1"}).takesNodes = true;
    ForgetSecond();
    Lead(1, 11, 59'500ms, 100s, "left");
    EXPECT_THAT(Rules(), ElementsAre("overlap"));
}

TEST_F(ChaosCandidateChecks, FindASingleCallDuringTheLeadershipOfAnother)
{
    // Somewhere between 70 s and 70.001 s.
    Prove(2, 0, 70'001ms, 70s);
    EXPECT_THAT(Rules(), ElementsAre("overlap"));
    EXPECT_THAT(FirstText(), HasSubstr("m3 and m2 (epoch 11) both lead, for 0 us at least"));
}

TEST_F(ChaosCandidateChecks, ClaimNothingOfACallThatMayHaveBeenBeforeTheNextLeader)
{
    // The process stood still in it.
    Prove(0, 0, 70s, 59'999ms);
    EXPECT_THAT(Rules(), IsEmpty());
}

TEST_F(ChaosCandidateChecks, FindAnOverlapOfThoseThatAreNotNeighbours)
{
    ForgetSecond();
    Lead(2, 11, 61s, 61'400ms, "left");
    Lead(2, 12, 61'500ms, 62s, "left");
    Lead(1, 13, 63s, 100s, "left");
    EXPECT_THAT(Rules(), IsEmpty());
    Prove(0, 10, 0us, 64s);
    EXPECT_THAT(Rules(), ElementsAre("overlap", "overlap", "overlap"));
}

TEST_F(ChaosCandidateChecks, FindAnEpochThatIsNotGreater)
{
    ForgetSecond();
    Lead(1, 9, 60'001ms, 100s, "left");
    EXPECT_THAT(Rules(), ElementsAre("epoch"));
    EXPECT_THAT(FirstText(), HasSubstr("m2 (epoch 9) leads after m1 (epoch 10)"));
}

TEST_F(ChaosCandidateChecks, FindAnEpochThatIsUsedAgainByAnother)
{
    ForgetSecond();
    Lead(1, 10, 60'001ms, 100s, "left");
    EXPECT_THAT(Rules(), ElementsAre("epoch", "epoch"));
}

TEST_F(ChaosCandidateChecks, FindAnEpochThatIsToldTwiceByOne)
{
    Gain(1, 11, 100s);
    Tell(1, Notice::Kind::Lost, 100s).reason = "left";
    EXPECT_THAT(Rules(), ElementsAre("notice"));
    EXPECT_THAT(FirstText(), HasSubstr("m2 gains the lead with an epoch that is not greater"));
}

TEST_F(ChaosCandidateChecks, FindALeadThatComesBack)
{
    Of(0).tenures.push_back({10, 60'000'400us, 60'000'600us});
    EXPECT_THAT(Rules(), ElementsAre("epoch"));
    EXPECT_THAT(FirstText(), HasSubstr("m1 (epoch 10) leads after m1 (epoch 10)"));
}

TEST_F(ChaosCandidateChecks, FindAGainWithoutALossOfTheOneBefore)
{
    Of(0).notices.pop_back();
    Gain(0, 12, 100s);
    Tell(0, Notice::Kind::Lost, 100s).reason = "left";
    EXPECT_THAT(Rules(), ElementsAre("notice"));
    EXPECT_THAT(FirstText(), HasSubstr("m1 gains the lead twice"));
}

TEST_F(ChaosCandidateChecks, FindALossWithoutAGain)
{
    Tell(2, Notice::Kind::Lost, 50s).reason = "lease ran out";
    EXPECT_THAT(Rules(), ElementsAre("notice"));
    EXPECT_THAT(FirstText(), HasSubstr("m3 loses a lead that it has not gained"));
}

TEST_F(ChaosCandidateChecks, FindALeaderThatLeavesWithoutALoss)
{
    Of(1).notices.pop_back();
    EXPECT_THAT(Rules(), ElementsAre("notice"));
    EXPECT_THAT(FirstText(), HasSubstr("m2 has left without a word that it does not lead any more"));
}

TEST_F(ChaosCandidateChecks, ExpectNoLossOfAProcessThatWasKilled)
{
    Of(0).notices.pop_back();
    Of(0).lives[0].end = 60s;
    history_.AddLife(0, 61s, 100s);
    history_.AddFault("kill member", 60s, 61s, {"m1"}).silences = true;
    EXPECT_THAT(Rules(), IsEmpty());
    EXPECT_THAT(report_.candidates->losses, ElementsAre(Pair("killed", 1), Pair("left", 1)));
    // What the next process tells is about itself alone.
    Tell(0, Notice::Kind::Lost, 62s).reason = "left";
    EXPECT_THAT(Rules(), ElementsAre("notice"));
}

TEST_F(ChaosCandidateChecks, FindNextLeaderNoticesThatAreNotInPairs)
{
    Tell(2, Notice::Kind::NextLost, 50s);
    EXPECT_THAT(Rules(), ElementsAre("notice"));
    EXPECT_THAT(FirstText(), HasSubstr("m3 is no longer next without having been"));

    Of(2).notices.clear();
    Tell(2, Notice::Kind::Next, 50s);
    Tell(2, Notice::Kind::Next, 51s);
    Tell(2, Notice::Kind::NextLost, 52s);
    EXPECT_THAT(Rules(), ElementsAre("notice"));
    EXPECT_THAT(FirstText(), HasSubstr("m3 is next twice"));

    Of(2).notices.pop_back();
    Of(2).notices.pop_back();
    EXPECT_THAT(Rules(), ElementsAre("notice"));
    EXPECT_THAT(FirstText(), HasSubstr("m3 has left without a word that it is not next any more"));
}

TEST_F(ChaosCandidateChecks, FindALeaderThatIsNextToo)
{
    ForgetSecond();
    Tell(1, Notice::Kind::Next, 1s);
    Prove(1, 11, 60'001ms, 100s);
    Gain(1, 11, 60'001ms);
    Tell(1, Notice::Kind::NextLost, 60'002ms);
    Tell(1, Notice::Kind::Lost, 100s).reason = "left";
    EXPECT_THAT(Rules(), ElementsAre("notice"));
    EXPECT_THAT(FirstText(), HasSubstr("m2 gains the lead while it is still next"));

    ForgetSecond();
    Prove(1, 11, 60'001ms, 100s);
    Gain(1, 11, 60'001ms);
    Tell(1, Notice::Kind::Next, 60'002ms);
    Tell(1, Notice::Kind::NextLost, 60'003ms);
    Tell(1, Notice::Kind::Lost, 100s).reason = "left";
    EXPECT_THAT(Rules(), ElementsAre("notice"));
    EXPECT_THAT(FirstText(), HasSubstr("m2 is next while it leads"));
}

TEST_F(ChaosCandidateChecks, FindALeadershipThatIsNotTold)
{
    ForgetSecond();
    Prove(1, 11, 60'001ms, 100s);
    EXPECT_THAT(Rules(), ElementsAre("notice"));
    EXPECT_THAT(FirstText(), HasSubstr("m2 leads with the epoch 11 and does not tell"));
    // It had no time to.
    Of(1).lives[0].end = 100s;
    history_.AddLife(1, 100s, 100s);
    EXPECT_THAT(Rules(), IsEmpty());
    EXPECT_EQ(report_.candidates->leaderships, 2U);
}

TEST_F(ChaosCandidateChecks, FindTimeWithoutALeaderThatNoFaultExplains)
{
    ForgetSecond();
    Lead(1, 11, 61'500ms, 100s, "left");
    EXPECT_THAT(Rules(), ElementsAre("leaderless"));
    history_.AddFault("cut", 60s, 60s, {"m3"});
    EXPECT_THAT(Rules(), IsEmpty());
    EXPECT_EQ(report_.candidates->leaderless.explained, 1'500ms);
}

TEST_F(ChaosCandidateChecks, FindAnElectionThatEndsWithoutALeader)
{
    ForgetSecond();
    Lead(1, 11, 60'001ms, 98s, "left");
    EXPECT_THAT(Rules(), ElementsAre("leaderless"));
}

TEST_F(ChaosCandidateChecks, FindAnIdentityThatBelongsToNobody)
{
    history_.Get().ending->sessions = {1, 2};
    history_.Get().ending->queue = {{"c-11", 1}, {"c-12", 2}};
    history_.Get().ending->besides = {{"c-11-1", 1}, {"c-12-2", 2}, {"leader", 3}};
    EXPECT_THAT(Rules(), ElementsAre("orphan"));
    EXPECT_THAT(FirstText(), HasSubstr("leader"));
}

TEST_F(ChaosCandidateChecks, FindAForkedChildThatLeads)
{
    Of(0).children.push_back({77, 10s});
    EXPECT_THAT(Rules(), IsEmpty());
    EXPECT_EQ(report_.candidates->forkedChildren, 1U);
    EXPECT_THAT(Summary(history_.Get(), report_), HasSubstr("1 forked children"));
    // Though its parent leads then.
    Of(0).children.push_back({78, 20s, Interval{20s, 20'300us}});
    EXPECT_THAT(Rules(), ElementsAre("fork"));
    EXPECT_EQ(report_.violations.at(0).at, 20s);
    EXPECT_THAT(FirstText(), HasSubstr("a forked child of m1 leads"));
    EXPECT_EQ(report_.candidates->forkedChildren, 2U);
}

TEST_F(ChaosCandidateChecks, TellTheirFiguresToPeopleAndPrograms)
{
    Rules();
    EXPECT_THAT(Summary(history_.Get(), report_), HasSubstr("1 successions; leaderships ended with: 2 left"));
    const auto json = nlohmann::json::parse(ToJson(history_.Get(), report_));
    EXPECT_EQ(json.at("with"), "candidate");
    EXPECT_EQ(json.at("candidates").at("successions"), 1);
    EXPECT_EQ(json.at("candidates").at("losses").at("left"), 2);
    EXPECT_EQ(json.at("candidates").at("forked_children"), 0);
    EXPECT_EQ(json.count("by_flag"), 0U);
}

}  // namespace
}  // namespace kx::velmor::chaos
