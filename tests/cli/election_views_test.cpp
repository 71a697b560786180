// What views of an election look like: as a table, as JSON, as a list of changes, on a screen.

#include "cli/election_changes.h"
#include "cli/live_view.h"
#include "cli/output.h"
#include "cli/queue_json.h"
#include "cli/queue_table.h"
#include "cli/texts.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace kx::velmor::cli {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::system_clock;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr system_clock::time_point kJoined{milliseconds(1'777'642'620'123)};

Participant Somebody(int number, std::string identity)
{
    Participant participant;
    participant.node = "c-000000000" + std::to_string(number);
    participant.identity = std::move(identity);
    participant.session = 0x100 + number;
    participant.epoch = 40 + number;
    participant.joined = kJoined;
    participant.age = seconds(62);
    return participant;
}

ElectionView View(std::vector<Participant> queue, bool led = true)
{
    ElectionView view;
    view.connected = true;
    view.known = true;
    view.queue = std::move(queue);
    if (led && !view.queue.empty())
    {
        const Participant& first = view.queue.front();
        view.leader = Leader{first.node, first.identity, first.session, first.epoch, 0};
    }
    return view;
}

/// As it is when somebody has deleted the leader's node.
ElectionView Displaced(std::vector<Participant> queue)
{
    ElectionView view = View(std::move(queue), false);
    view.leader = Leader{"c-0000000009", "old", 0x109, 39, {}};
    return view;
}

std::vector<std::string> Told(const ElectionView& before, const ElectionView& now)
{
    std::vector<std::string> lines;
    for (const ElectionChange& change : Changes(before, now))
    {
        lines.push_back(ToString(change.kind) + (change.identity.empty() ? "" : " " + change.identity));
    }
    return lines;
}

// Texts

TEST(Printable, LeavesLettersOfAllLanguagesAsTheyAre)
{
    EXPECT_EQ(Printable("alpha-1 \u00e4\u0416\u8a9e"), "alpha-1 \u00e4\u0416\u8a9e");
}

TEST(Printable, ShowsTheCodesOfWhatATerminalWouldObey)
{
    EXPECT_EQ(Printable("a\x1b[2Jb\r\n\t\x7f"), "a\\x1b[2Jb\\x0d\\x0a\\x09\\x7f");
    EXPECT_EQ(Printable(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(Printable("\u009b31m"), "\\x9b31m");
    EXPECT_EQ(Printable("a\u202eb\u2066\u2028"), "a\\u202eb\\u2066\\u2028");
}

TEST(Printable, ShowsTheCodesOfBytesThatAreNoUtf8)
{
    EXPECT_EQ(Printable("a\xff\xc3"), "a\\xff\\xc3");
    EXPECT_EQ(Printable("\xc0\xaf"), "\\xc0\\xaf");
}

TEST(Width, CountsColumns)
{
    EXPECT_EQ(Width("abc"), 3U);
    EXPECT_EQ(Width("\u00e4\u8a9e"), 3U);
    EXPECT_EQ(Width("e\u0301"), 1U);
}

TEST(Cut, KeepsWholeCharactersAndSaysThatThereIsMore)
{
    EXPECT_EQ(Cut("abc", 3), "abc");
    EXPECT_EQ(Cut("abcd", 3), "ab\u2026");
    EXPECT_EQ(Cut("\u8a9e\u8a9e\u8a9e", 4), "\u8a9e\u2026");
    EXPECT_EQ(Cut("abc", 0), "");
}

TEST(Texts, TimesDurationsAndSessions)
{
    EXPECT_EQ(IsoTime(kJoined), "2026-05-01T13:37:00.123Z");
    EXPECT_EQ(ShortDuration(milliseconds(999)), "0s");
    EXPECT_EQ(ShortDuration(seconds(59)), "59s");
    EXPECT_EQ(ShortDuration(seconds(725)), "12m 05s");
    EXPECT_EQ(ShortDuration(seconds(3 * 3'600 + 7 * 60)), "3h 07m");
    EXPECT_EQ(ShortDuration(seconds(9 * 86'400 + 14 * 3'600)), "9d 14h");
    EXPECT_EQ(SessionNumber(0x100003e8f2a0001), "0x100003e8f2a0001");
    EXPECT_EQ(SessionNumber(-1), "0xffffffffffffffff");
}

// The table

TEST(Table, HasALineForEachParticipant)
{
    EXPECT_THAT(TableOf(View({Somebody(1, "alpha"), Somebody(2, "b"), Somebody(3, "")})),
                ElementsAre("POSITION  ROLE      IDENTITY  NODE          SESSION  AGE",
                            "1         leader    alpha     c-0000000001  0x101    1m 02s",
                            "2         next      b         c-0000000002  0x102    1m 02s",
                            "3         follower  -         c-0000000003  0x103    1m 02s"));
}

TEST(Table, FirstIsElectedUntilItHasClaimedTheLead)
{
    EXPECT_THAT(TableOf(View({Somebody(1, "alpha")}, false))[1], HasSubstr("1         elected  alpha"));
}

TEST(Table, LeaderWithoutAPlaceStandsAboveTheQueue)
{
    const std::vector<std::string> lines = TableOf(Displaced({Somebody(1, "alpha")}));
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[1], "-         leader   old       c-0000000009  0x109    -");
    EXPECT_THAT(lines[2], HasSubstr("1         elected  alpha"));
}

TEST(Table, WideAndHostileIdentitiesLeaveColumnsAligned)
{
    const std::vector<std::string> lines =
        TableOf(View({Somebody(1, "\u8a9e\u8a9e"), Somebody(2, "e\u0301"), Somebody(3, "\x1b[2J")}));
    const std::size_t column = lines[0].find("NODE");
    for (std::size_t i = 1; i < lines.size(); ++i)
    {
        EXPECT_EQ(Width(lines[i].substr(0, lines[i].find("c-0"))), column) << lines[i];
    }
    EXPECT_THAT(lines[3], Not(HasSubstr("\x1b")));
}

TEST(Table, OfNobodyIsItsHeadings)
{
    EXPECT_EQ(TableOf(View({})).size(), 1U);
}

// JSON

TEST(Json, TellsAllOfAnElection)
{
    const auto json = nlohmann::json::parse(StatusJson("/e", View({Somebody(1, "alpha"), Somebody(2, "")})));
    EXPECT_EQ(json, nlohmann::json::parse(R"({"election": "/e",
        "leader": {"position": 1, "identity": "alpha", "node": "c-0000000001", "session": "0x101", "epoch": 41},
        "queue": [{"position": 1, "role": "leader", "identity": "alpha", "node": "c-0000000001", "session": "0x101",
                   "epoch": 41, "joined": "2026-05-01T13:37:00.123Z", "age_ms": 62000},
                  {"position": 2, "role": "next", "identity": null, "node": "c-0000000002", "session": "0x102",
                   "epoch": 42, "joined": "2026-05-01T13:37:00.123Z", "age_ms": 62000}]})"));
}

TEST(Json, SaysNullForALeaderThatIsNotThereAndForAPlaceThatIsLost)
{
    EXPECT_EQ(nlohmann::json::parse(StatusJson("/e", View({}))),
              nlohmann::json::parse(R"({"election": "/e", "leader": null, "queue": []})"));
    const auto json = nlohmann::json::parse(StatusJson("/e", Displaced({Somebody(1, "alpha")})));
    EXPECT_TRUE(json["leader"]["position"].is_null());
    EXPECT_EQ(json["leader"]["identity"], "old");
    EXPECT_EQ(json["queue"][0]["role"], "elected");
}

TEST(Json, IsInOneLineAndValidWhateverAnIdentityHolds)
{
    const std::string text = StatusJson("/e", View({Somebody(1, "a\xff\n\x1b\u8a9e")}));
    EXPECT_THAT(text, Not(HasSubstr("\n")));
    EXPECT_EQ(nlohmann::json::parse(text)["leader"]["identity"], "a\ufffd\n\x1b\u8a9e");
}

TEST(Json, OfAChangeHasItsTimeAndWhom)
{
    const std::vector<ElectionChange> changes = Changes(ElectionView(), View({Somebody(1, "alpha")}));
    EXPECT_EQ(nlohmann::json::parse(ChangeJson("/e", changes.at(1), kJoined)),
              nlohmann::json::parse(R"({"time": "2026-05-01T13:37:00.123Z", "event": "leader", "election": "/e",
                  "identity": "alpha", "node": "c-0000000001", "session": "0x101", "epoch": 41})"));
    EXPECT_EQ(nlohmann::json::parse(ChangeJson("/e", {ElectionChange::Kind::NoLeader}, kJoined)),
              nlohmann::json::parse(R"({"time": "2026-05-01T13:37:00.123Z", "event": "no leader", "election": "/e"})"));
}

// Changes

TEST(Changes, BeginWithWhatIsThere)
{
    EXPECT_THAT(Told({}, View({Somebody(1, "a"), Somebody(2, "b"), Somebody(3, "c")})),
                ElementsAre("joined a", "joined b", "joined c", "leader a", "next b"));
    EXPECT_THAT(Told({}, View({})), ElementsAre("no leader"));
}

TEST(Changes, ThereAreNoneBeforeAnythingIsKnownOrWhenNothingHasChanged)
{
    EXPECT_THAT(Told({}, {}), IsEmpty());
    const ElectionView view = View({Somebody(1, "a"), Somebody(2, "b")});
    EXPECT_THAT(Told(view, view), IsEmpty());
}

TEST(Changes, TellOfATakeOver)
{
    const ElectionView before = View({Somebody(1, "a"), Somebody(2, "b"), Somebody(3, "c")});
    const ElectionView between = View({Somebody(2, "b"), Somebody(3, "c")}, false);
    const ElectionView now = View({Somebody(2, "b"), Somebody(3, "c")});
    EXPECT_THAT(Told(before, now), ElementsAre("left a", "leader b", "next c"));
    EXPECT_THAT(Told(before, between), ElementsAre("left a", "no leader", "next c"));
    EXPECT_THAT(Told(between, now), ElementsAre("leader b"));
}

TEST(Changes, TellOfWhoComesAndGoesFurtherBack)
{
    const ElectionView before = View({Somebody(1, "a"), Somebody(2, "b"), Somebody(3, "c")});
    const ElectionView now = View({Somebody(1, "a"), Somebody(2, "b"), Somebody(4, "d")});
    EXPECT_THAT(Told(before, now), ElementsAre("left c", "joined d"));
    EXPECT_THAT(Told(before, View({Somebody(1, "a")})), ElementsAre("left b", "left c"));
}

TEST(Changes, TellANameThatComesLater)
{
    EXPECT_THAT(Told(View({Somebody(1, "a"), Somebody(2, "")}), View({Somebody(1, "a"), Somebody(2, "b")})),
                ElementsAre("named b"));
}

TEST(Changes, PlaceOfTheSameNameWithAnotherEpochIsAnother)
{
    Participant again = Somebody(1, "a");
    again.epoch = 99;
    EXPECT_THAT(Told(View({Somebody(1, "a")}), View({again})), ElementsAre("left a", "joined a", "leader a"));
}

TEST(Changes, OutageIsToldAndWhatItHidThereafter)
{
    const ElectionView before = View({Somebody(1, "a"), Somebody(2, "b")});
    ElectionView cut = before;
    cut.connected = false;
    EXPECT_THAT(Told(before, cut), ElementsAre("disconnected"));
    EXPECT_THAT(Told(cut, before), ElementsAre("connected"));
    EXPECT_THAT(Told(cut, View({Somebody(2, "b")})), ElementsAre("connected", "left a", "leader b"));
}

TEST(Changes, AreReadByPeople)
{
    const std::vector<ElectionChange> changes =
        Changes(ElectionView(), View({Somebody(1, "al\nice"), Somebody(2, "")}));
    EXPECT_EQ(ChangeText(changes.at(2), kJoined), "2026-05-01T13:37:00.123Z leader al\\x0aice c-0000000001 epoch 41");
    EXPECT_EQ(ChangeText(changes.at(3), kJoined), "2026-05-01T13:37:00.123Z next - c-0000000002 epoch 42");
    EXPECT_EQ(ChangeText({ElectionChange::Kind::NoLeader}, kJoined), "2026-05-01T13:37:00.123Z no leader");
}

// The screen

TEST(Frame, ShowsWhoLeadsAndTheQueueWithAgesOfNow)
{
    const std::string frame = Frame("/e", View({Somebody(1, "alpha")}), {24, 80}, kJoined + seconds(5));
    EXPECT_THAT(frame, HasSubstr("alpha leads, epoch 41\x1b[K"));
    EXPECT_THAT(frame, HasSubstr("0x101    5s\x1b[K\x1b[J"));
    EXPECT_EQ(frame.rfind("\x1b[H/e", 0), 0U);
}

TEST(Frame, SaysWhenItIsNotOfNow)
{
    ElectionView view = View({Somebody(1, "alpha")});
    view.connected = false;
    EXPECT_THAT(Frame("/e", view, {24, 80}, kJoined), HasSubstr("No server answers; before that: alpha leads"));
    EXPECT_THAT(Frame("/e", ElectionView(), {24, 80}, kJoined), HasSubstr("Waiting for a server"));
    EXPECT_THAT(Frame("/e", View({}), {24, 80}, kJoined), HasSubstr("nobody leads"));
}

TEST(Frame, FitsTheScreen)
{
    std::vector<Participant> queue;
    for (int i = 0; i < 9; ++i)
    {
        queue.push_back(Somebody(i, "somebody"));
    }
    const std::string frame = Frame("/e", View(queue), {8, 20}, kJoined);
    std::size_t lines = 1;
    for (std::size_t end = frame.find("\r\n"); end != std::string::npos; end = frame.find("\r\n", end + 2))
    {
        ++lines;
    }
    EXPECT_EQ(lines, 8U);
    EXPECT_THAT(frame, HasSubstr("6 more"));
    EXPECT_THAT(frame, HasSubstr("1         leader   \u2026\x1b[K"));
    EXPECT_THAT(frame, Not(HasSubstr("c-0")));
}

// Output

class OutputTest : public ::testing::Test
{
protected:
    OutputTest()
    {
        ::signal(SIGPIPE, SIG_IGN);
        EXPECT_EQ(pipe(data_), 0);
        EXPECT_EQ(pipe(interrupt_), 0);
    }
    ~OutputTest() override
    {
        for (const int descriptor : {data_[0], data_[1], interrupt_[0], interrupt_[1]})
        {
            close(descriptor);
        }
    }

    int data_[2]{-1, -1};
    int interrupt_[2]{-1, -1};
};

TEST_F(OutputTest, WritesEverythingToASlowReader)
{
    const std::string text(300'000, 'x');
    std::string got;
    std::thread reader([&] {
        std::vector<char> buffer(1'000);
        for (ssize_t bytes = 1; bytes > 0 && got.size() < text.size();)
        {
            bytes = read(data_[0], buffer.data(), buffer.size());
            got.append(buffer.data(), static_cast<std::size_t>(bytes));
        }
    });
    EXPECT_EQ(Write(data_[1], text, interrupt_[0]), Written::All);
    reader.join();
    EXPECT_EQ(got, text);
}

TEST_F(OutputTest, StopsForAnInterruptionWhenTheReaderTakesNothing)
{
    ASSERT_EQ(write(interrupt_[1], "i", 1), 1);
    EXPECT_EQ(Write(data_[1], std::string(300'000, 'x'), interrupt_[0]), Written::Interrupted);
}

TEST_F(OutputTest, SaysThatTheReaderHasGone)
{
    close(data_[0]);
    data_[0] = -1;
    EXPECT_EQ(Write(data_[1], "text"), Written::ReaderGone);
}

TEST_F(OutputTest, ThrowsWhatElseIsWrong)
{
    const int full = open("/dev/full", 1);
    EXPECT_THROW(Write(full, "text"), std::system_error);
    close(full);
}

}  // namespace
}  // namespace kx::velmor::cli
