// The checks notice what is wrong, and nothing else. What they look at is made up here.

#include "tests/simulation/checks.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <stdexcept>

namespace kx::velmor::simulation {
namespace {

using std::chrono::milliseconds;

class ChecksTest : public ::testing::Test
{
protected:
    std::optional<Check> Found() const
    {
        return checks_.Found() ? std::optional<Check>(checks_.Found()->check) : std::nullopt;
    }

    void Call(Checks::Participant participant, Callback callback, std::int64_t epoch = 0, bool leads = false)
    {
        checks_.Begin(milliseconds(++now_), participant, callback, epoch, leads);
        checks_.End(milliseconds(now_), participant, callback);
    }
    /// Takes the lead, and tells of it.
    void Lead(Checks::Participant participant, std::int64_t epoch)
    {
        SeeLeading(Checks::Participants{1} << participant);
        Call(participant, Callback::Leader, epoch, true);
    }
    /// Loses the lead, and tells of it.
    void Lose(Checks::Participant participant)
    {
        SeeLeading(0);
        Call(participant, Callback::LeaderLost);
    }
    void SeeLeading(Checks::Participants participants) { checks_.Leading(milliseconds(++now_), participants); }

    std::int64_t now_ = 0;
    Checks checks_{{}};
};

TEST_F(ChecksTest, LeadershipsInTurnAreRight)
{
    Call(0, Callback::RoleChange);
    Lead(0, 5);
    Call(1, Callback::NextLeader);
    Lose(0);
    Call(1, Callback::NextLeaderLost);
    Lead(1, 7);
    Lose(1);
    Lead(0, 9);
    Lose(0);
    checks_.Destroyed(milliseconds(100), 0);
    checks_.Destroyed(milliseconds(100), 1);

    EXPECT_EQ(Found(), std::nullopt);
}

TEST_F(ChecksTest, LeaderThatCannotKnowBetterMayLeadBesideAnotherOne)
{
    checks_.Leading(milliseconds(1), 0b011, 0b001);
    EXPECT_FALSE(Found());
    checks_.Leading(milliseconds(2), 0b111, 0b001);
    EXPECT_EQ(Found(), Check::Overlap);
}

TEST_F(ChecksTest, TwoLeadersOverlap)
{
    SeeLeading(0b00100);
    EXPECT_EQ(Found(), std::nullopt);

    SeeLeading(0b10100);

    ASSERT_EQ(Found(), Check::Overlap);
    EXPECT_EQ(checks_.Found()->at, milliseconds(2));
    EXPECT_EQ(checks_.Found()->text, "more than one leads: participant 2 participant 4");
}

TEST_F(ChecksTest, TheFirstViolationIsKept)
{
    SeeLeading(0b11);

    checks_.Report(Check::Leader, milliseconds(9), "later");

    EXPECT_EQ(Found(), Check::Overlap);
}

TEST_F(ChecksTest, WhatIsLeftOutIsNotReported)
{
    Checks checks({Check::Overlap});

    checks.Leading(milliseconds(1), 0b11);
    EXPECT_FALSE(checks.Found());

    checks.Report(Check::Leader, milliseconds(2), "another check");
    ASSERT_TRUE(checks.Found());
    EXPECT_EQ(checks.Found()->check, Check::Leader);
}

TEST_F(ChecksTest, AnEpochMustNotComeTwice)
{
    Lead(0, 5);
    Lose(0);

    Lead(0, 5);

    EXPECT_EQ(Found(), Check::Epochs);
}

TEST_F(ChecksTest, AnEpochMustNotComeTwiceWithoutBeingSeen)
{
    Call(0, Callback::Leader, 5);
    Call(0, Callback::LeaderLost);

    Call(1, Callback::Leader, 5);

    EXPECT_EQ(Found(), Check::Epochs);
}

TEST_F(ChecksTest, AnEpochMustNotBeSmallerThanTheOneBefore)
{
    Lead(0, 5);
    Lose(0);

    Lead(1, 4);

    EXPECT_EQ(Found(), Check::Epochs);
}

TEST_F(ChecksTest, AnEpochThatIsToldLateHasItsPlaceInTheOrder)
{
    SeeLeading(0b01);
    SeeLeading(0b00);
    Lead(1, 7);

    Call(0, Callback::Leader, 5);

    EXPECT_EQ(Found(), std::nullopt);
}

TEST_F(ChecksTest, AnEpochThatIsToldLateMustNotBeGreaterThanTheNextOne)
{
    SeeLeading(0b01);
    SeeLeading(0b00);
    Lead(1, 7);

    Call(0, Callback::Leader, 8);

    EXPECT_EQ(Found(), Check::Epochs);
}

TEST_F(ChecksTest, OnLeaderTwiceIsNoPair)
{
    Call(0, Callback::Leader, 5);

    Call(0, Callback::Leader, 6);

    EXPECT_EQ(Found(), Check::Callbacks);
}

TEST_F(ChecksTest, OnLeaderLostNeedsOnLeader)
{
    Call(0, Callback::LeaderLost);

    EXPECT_EQ(Found(), Check::Callbacks);
}

TEST_F(ChecksTest, OnLeaderLostMustNotComeWhileTheLeadershipStands)
{
    Lead(0, 5);

    Call(0, Callback::LeaderLost, 0, true);

    EXPECT_EQ(Found(), Check::Callbacks);
}

TEST_F(ChecksTest, OnNextLeaderTwiceIsNoPair)
{
    Call(0, Callback::NextLeader);

    Call(0, Callback::NextLeader);

    EXPECT_EQ(Found(), Check::Callbacks);
}

TEST_F(ChecksTest, OnNextLeaderLostNeedsOnNextLeader)
{
    Call(0, Callback::NextLeaderLost);

    EXPECT_EQ(Found(), Check::Callbacks);
}

TEST_F(ChecksTest, OnLeaderComesAfterOnNextLeaderLost)
{
    Call(0, Callback::NextLeader);

    Call(0, Callback::Leader, 5);

    EXPECT_EQ(Found(), Check::Callbacks);
}

TEST_F(ChecksTest, OnNextLeaderComesAfterOnLeaderLost)
{
    Lead(0, 5);

    Call(0, Callback::NextLeader);

    EXPECT_EQ(Found(), Check::Callbacks);
}

TEST_F(ChecksTest, CallbacksMustNotRunAtTheSameTime)
{
    checks_.Begin(milliseconds(1), 0, Callback::RoleChange, 0, false);

    checks_.Begin(milliseconds(2), 0, Callback::NextLeader, 0, false);

    EXPECT_EQ(Found(), Check::Callbacks);
}

TEST_F(ChecksTest, ALeadershipThatWasSeenMustBeTold)
{
    Checks checks({Check::Flicker});
    checks.Begin(milliseconds(1), 0, Callback::Leader, 5, true);
    checks.End(milliseconds(1), 0, Callback::Leader);
    checks.Leading(milliseconds(2), 0b1);
    checks.Leading(milliseconds(3), 0b0);
    checks.Begin(milliseconds(4), 0, Callback::LeaderLost, 0, false);

    checks.End(milliseconds(5), 0, Callback::LeaderLost);

    ASSERT_TRUE(checks.Found());
    EXPECT_EQ(checks.Found()->check, Check::Callbacks);
}

TEST_F(ChecksTest, ACallbackMustNotFollowTheDestructor)
{
    checks_.Destroyed(milliseconds(1), 0);

    Call(0, Callback::RoleChange);

    EXPECT_EQ(Found(), Check::Callbacks);
}

TEST_F(ChecksTest, TheDestructorMustNotReturnBeforeOnLeaderLost)
{
    Lead(0, 5);
    SeeLeading(0);

    checks_.Destroyed(milliseconds(9), 0);

    EXPECT_EQ(Found(), Check::Callbacks);
}

TEST_F(ChecksTest, LeadingAgainWithinOneLeadershipIsNoticed)
{
    Lead(0, 5);
    SeeLeading(0);

    SeeLeading(0b1);

    EXPECT_EQ(Found(), Check::Flicker);
}

TEST_F(ChecksTest, LeadingAgainBeforeOnLeaderLostHasReturnedIsNoticed)
{
    Lead(0, 5);
    SeeLeading(0);
    checks_.Begin(milliseconds(8), 0, Callback::LeaderLost, 0, false);

    SeeLeading(0b1);

    EXPECT_EQ(Found(), Check::Flicker);
}

TEST_F(ChecksTest, AKilledParticipantOwesNothing)
{
    Lead(0, 5);
    checks_.Killed(0);

    Call(0, Callback::Leader, 5);
    checks_.Destroyed(milliseconds(9), 0);

    EXPECT_EQ(Found(), std::nullopt);
}

TEST_F(ChecksTest, EveryCheckHasAName)
{
    EXPECT_EQ(CheckNamed("overlap"), Check::Overlap);
    EXPECT_EQ(CheckNamed(Name(Check::Leftovers)), Check::Leftovers);
    EXPECT_THROW(CheckNamed("nothing"), std::invalid_argument);
}

}  // namespace
}  // namespace kx::velmor::simulation
