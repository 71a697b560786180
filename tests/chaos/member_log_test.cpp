#include "tests/chaos/member_log.h"

#include "tests/chaos/forked_observer.h"
#include "tests/chaos/leadership_track.h"
#include "tests/chaos/member_reader.h"
#include "tests/chaos/role_book.h"
#include "tests/chaos/tenure_track.h"
#include "tests/support/temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>
#include <tuple>

namespace kx::velmor::chaos {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using namespace std::chrono_literals;

class ChaosMemberLog : public ::testing::Test
{
protected:
    std::vector<std::string> Roles()
    {
        std::vector<std::string> roles;
        for (const RoleChange& change : reader_.Update().roles)
        {
            roles.push_back(change.role);
        }
        return roles;
    }

    const testing_support::TemporaryDirectory directory_;
    const std::filesystem::path file_ = directory_.Path() / "m1.jsonl";
    MemberReader reader_{"m1", file_};
};

TEST_F(ChaosMemberLog, IsReadAsItWasWritten)
{
    EXPECT_THAT(reader_.Update().lives, IsEmpty());
    MemberLog log(file_);
    log.Started();
    clientid_t id{};
    id.client_id = 77;
    id.passwd[15] = '\x1f';
    SessionStatus status;
    status.state = SessionState::Connected;
    status.sessionId = 77;
    status.negotiatedTimeout = 1500ms;
    log.Session(status, &id);
    log.Joining(1, 77);
    log.Role(1, "leader");
    log.Node(1, "c-0000000003", 1234);
    log.Queued(1, 5s);
    log.Leads(View::Flag, 1, 6s, 6s);
    log.Leads(View::Session, 1, 6s, 6s);
    log.Leads(View::Flag, 1, 6s, 9s);
    log.Consumption({7s, 1000, 6, 20});
    log.Trouble("not UTF-8: \xff");

    const Member& member = reader_.Update();
    EXPECT_EQ(member.name, "m1");
    EXPECT_EQ(member.session.id, 77);
    EXPECT_EQ(member.sessionTimeout, 1500ms);
    EXPECT_EQ(member.session.password, "0000000000000000000000000000001f");
    ASSERT_THAT(member.stays, SizeIs(1));
    EXPECT_EQ(member.stays[0].node, "c-0000000003");
    EXPECT_EQ(member.stays[0].session, 77);
    EXPECT_EQ(member.stays[0].created, 1234);
    EXPECT_EQ(member.stays[0].lastQueued, 5s);
    ASSERT_THAT(member.byFlag, SizeIs(1));
    EXPECT_EQ(member.byFlag[0].when.begin, 6s);
    EXPECT_EQ(member.byFlag[0].when.end, 9s);
    ASSERT_THAT(member.bySession, SizeIs(1));
    EXPECT_EQ(member.bySession[0].when.end, 6s);
    ASSERT_THAT(member.lives, SizeIs(1));
    ASSERT_THAT(member.lives[0].resources, SizeIs(1));
    EXPECT_EQ(member.lives[0].resources[0].descriptors, 20);
    EXPECT_THAT(member.lives[0].ownerSigns, SizeIs(3));
    EXPECT_THAT(member.lines, SizeIs(11));
}

TEST_F(ChaosMemberLog, GoesOnWhereAnEarlierProcessStopped)
{
    for (const Instant begin : {6s, 8s})
    {
        MemberLog log(file_);
        log.Started();
        log.Joining(1, 77);
        log.Leads(View::Session, 1, begin, begin);
    }
    const Member& member = reader_.Update();
    EXPECT_THAT(member.lives, SizeIs(2));
    EXPECT_THAT(member.stays, SizeIs(2));
    ASSERT_THAT(member.bySession, SizeIs(2));
    EXPECT_EQ(member.bySession[0].stay, 0U);
    EXPECT_EQ(member.bySession[1].stay, 1U);
}

TEST_F(ChaosMemberLog, LeavesALineWithoutAnEndForLater)
{
    MemberLog log(file_);
    log.Started();
    std::ofstream more(file_, std::ios::app);
    more << R"({"t":5,"is":"role","st)" << std::flush;
    EXPECT_THAT(Roles(), IsEmpty());
    more << R"(ay":1,"role":"next"})" << std::endl;
    EXPECT_THAT(Roles(), ElementsAre("next"));
}

TEST_F(ChaosMemberLog, IsNotReadWhenItMakesNoSense)
{
    std::ofstream(file_) << "{}" << std::endl;
    EXPECT_THROW(reader_.Update(), std::runtime_error);
}

TEST_F(ChaosMemberLog, TellsARoleOnceAndNoneAfterTheNodeIsLost)
{
    MemberLog log(file_);
    log.Started();
    RoleBook book(log);
    book.Join(77);
    book.Elected("next");
    book.Elected("next");
    book.Joined();
    book.Elected("leader");
    book.Lost();
    book.Elected("leader");
    book.Join(78);
    book.Joined();
    EXPECT_THAT(Roles(), ElementsAre("joining", "next", "leader", "lost", "joining", "follower"));
    EXPECT_EQ(book.Present().number, 2);
    EXPECT_EQ(book.Present().session, 78);
}

TEST_F(ChaosMemberLog, KeepsTheLatestOfATenureThatGrows)
{
    MemberLog log(file_);
    log.Started();
    log.Tenure({10, 5s, 6s});
    log.Tenure({10, 5s, 7s});
    log.Tenure({0, 9s, 8s});
    log.Tenure({11, 9s, 10s});
    log.Tenure({0, 12s, 11s});
    const Member& member = reader_.Update();
    ASSERT_THAT(member.tenures, SizeIs(4));
    EXPECT_EQ(member.tenures[0].epoch, 10);
    EXPECT_EQ(member.tenures[0].from, 5s);
    EXPECT_EQ(member.tenures[0].until, 7s);
    EXPECT_EQ(member.tenures[1].until, 8s);
    EXPECT_EQ(member.tenures[2].epoch, 11);
    EXPECT_THAT(member.lines, SizeIs(5));
    ASSERT_TRUE(LastLead(member));
    EXPECT_EQ(LastLead(member)->begin, 9s);
    EXPECT_EQ(LastLead(member)->end, 10s);
}

TEST_F(ChaosMemberLog, KeepsWhatForkedChildrenWereAnswered)
{
    MemberLog log(file_);
    log.Started();
    log.Turn();
    // The child keeps the value that its parent had when it forked.
    bool leads = true;
    const pid_t leader = ForkObserver([&] { return leads; }, file_, 50ms);
    leads = false;
    const pid_t follower = ForkObserver([&] { return leads; }, file_, 50ms);
    AwaitObservers();
    const Member& member = reader_.Update();
    ASSERT_THAT(member.children, SizeIs(2));
    for (const ForkedChild& child : member.children)
    {
        EXPECT_GE(child.begin, member.lives.at(0).end);
        ASSERT_EQ(child.led.has_value(), child.pid == leader);
        EXPECT_TRUE(child.pid == leader || child.pid == follower);
        if (child.led)
        {
            EXPECT_EQ(child.led->begin, child.begin);
            EXPECT_GT(child.led->end, child.led->begin);
        }
    }
    ASSERT_THAT(member.lives, SizeIs(1));
    EXPECT_EQ(member.lives[0].end, member.lives[0].ownerSigns.back());
}

TEST_F(ChaosMemberLog, KeepsWhatCallbacksToldAndInWhichProcess)
{
    for (int process = 0; process < 2; ++process)
    {
        MemberLog log(file_);
        log.Started();
        log.Next();
        log.NextLost();
        log.Gained(42);
        log.LostLead("lease ran out");
    }
    const std::vector<Notice>& notices = reader_.Update().notices;
    ASSERT_THAT(notices, SizeIs(8));
    EXPECT_EQ(notices[0].kind, Notice::Kind::Next);
    EXPECT_EQ(notices[1].kind, Notice::Kind::NextLost);
    EXPECT_EQ(notices[2].kind, Notice::Kind::Gained);
    EXPECT_EQ(notices[2].epoch, 42);
    EXPECT_EQ(notices[3].kind, Notice::Kind::Lost);
    EXPECT_EQ(notices[3].reason, "lease ran out");
    EXPECT_EQ(notices[3].life, 0U);
    EXPECT_EQ(notices[4].life, 1U);
}

TEST(ChaosSuccessions, AreOneLessThanTheTimesThatSomebodyCameToLead)
{
    Member first;
    Member second;
    EXPECT_EQ(Successions({&first, &second}), 0U);
    first.roles = {{1s, "next"}, {2s, "leader"}, {3s, "joining"}, {5s, "leader"}};
    second.roles = {{4s, "leader"}};
    EXPECT_EQ(Successions({&first, &second}), 2U);
}

/// A call with these readings of the clock, in nanoseconds.
Call MadeBetween(int before, int after)
{
    return {BootClock::time_point(std::chrono::nanoseconds(before)),
            BootClock::time_point(std::chrono::nanoseconds(after))};
}

class ChaosTenureTrack : public ::testing::Test
{
protected:
    std::vector<std::tuple<std::int64_t, Instant, Instant>> told_;
    TenureTrack track_{[this](const Tenure& tenure) { told_.emplace_back(tenure.epoch, tenure.from, tenure.until); }};
};

TEST_F(ChaosTenureTrack, ClaimsWhatLiesBetweenTheFirstReturnAndTheLastCall)
{
    track_.Stood(7, MadeBetween(10'100, 20'100));
    // Stopped in between, and it still stood afterwards.
    track_.Stood(7, MadeBetween(5'000'900, 9'000'000));
    track_.End();
    track_.End();
    EXPECT_THAT(told_, ElementsAre(std::make_tuple(7, 21us, 10us), std::make_tuple(7, 21us, 5'000us)));
}

TEST_F(ChaosTenureTrack, TellsEpochsApart)
{
    track_.Stood(7, MadeBetween(1'000, 2'000));
    track_.Stood(8, MadeBetween(3'000, 4'000));
    track_.SomeStood(MadeBetween(5'000, 6'000));
    EXPECT_THAT(told_, ElementsAre(std::make_tuple(7, 2us, 1us), std::make_tuple(7, 2us, 1us),
                                   std::make_tuple(8, 4us, 3us), std::make_tuple(0, 6us, 5us)));
}

TEST_F(ChaosTenureTrack, TellsOfATenureWhileItGrows)
{
    for (int at = 0; at <= 25'000'000; at += 5'000'000)
    {
        track_.Stood(7, MadeBetween(at, at));
    }
    EXPECT_THAT(told_, ElementsAre(std::make_tuple(7, 0us, 0us), std::make_tuple(7, 0us, 10'000us),
                                   std::make_tuple(7, 0us, 20'000us)));
}

TEST(ChaosLeadershipTrack, ClaimsNoTimeInWhichNobodyLooked)
{
    std::vector<std::tuple<int, Instant, Instant>> told;
    LeadershipTrack track([&](int stay, Instant begin, Instant seen) { told.emplace_back(stay, begin, seen); });
    track.Look(true, 1, 100ms);
    track.Look(true, 1, 102ms);
    // Paused.
    track.Look(true, 1, 1'000ms);
    track.Look(true, 1, 1'010ms);
    track.Look(true, 2, 1'012ms);
    track.Look(false, 2, 1'014ms);
    track.Look(false, 2, 1'016ms);
    track.Finish();
    EXPECT_THAT(told, ElementsAre(std::make_tuple(1, 100ms, 100ms), std::make_tuple(1, 100ms, 102ms),
                                  std::make_tuple(1, 1'000ms, 1'000ms), std::make_tuple(1, 1'000ms, 1'010ms),
                                  std::make_tuple(2, 1'012ms, 1'012ms), std::make_tuple(2, 1'012ms, 1'012ms)));
}

TEST(ChaosLeadershipTrack, TellsOfAStretchWhileItGrows)
{
    std::vector<Instant> told;
    LeadershipTrack track([&](int /*stay*/, Instant /*begin*/, Instant seen) { told.push_back(seen); });
    for (Instant at = 0ms; at <= 120ms; at += 10ms)
    {
        track.Look(true, 1, at);
    }
    EXPECT_THAT(told, ElementsAre(0ms, 50ms, 100ms));
    track.Finish();
    EXPECT_EQ(told.back(), 120ms);
}

}  // namespace
}  // namespace kx::velmor::chaos
