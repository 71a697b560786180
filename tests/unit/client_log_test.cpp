#include "source/client_log.h"

#include "tests/support/journal.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_client_library.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

/// How far the process's clock is ahead.
std::atomic<long> g_secondsAhead{0};

}  // namespace

// The clock that lines are rationed by, in place of the C library's.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    const long rc = syscall(SYS_clock_gettime, clock, now);
    now->tv_sec += clock == CLOCK_MONOTONIC ? g_secondsAhead.load() : 0;
    return static_cast<int>(rc);
}

namespace kx::velmor {
namespace {

using logging::LogLevel;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing_support::Journal;
using testing_support::LogCapture;
using testing_support::LogRecord;
using testing_support::ScriptedClientLibrary;

constexpr int kMostPerWindow = 20;
constexpr int kMostWaiting = 256;

std::string Line(const std::string& level, const std::string& text)
{
    return "2026-01-02 03:04:05,678:910(0x7fab):ZOO_" + level + "@handle_socket_error_msg@2440: " + text + "\n";
}

/// A session's event thread.
class Reader
{
public:
    Reader()
    {
        loop_.Start([this] { loop_.Run(); });
        ClientLog::Attach(loop_);
    }

    ~Reader()
    {
        ClientLog::Detach(loop_);
        loop_.Finish();
        loop_.Join();
    }

    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    /// Returns when all that was posted before has run.
    void Settle()
    {
        std::promise<void> reached;
        loop_.Post([&] { reached.set_value(); });
        reached.get_future().wait();
    }

    /// Keeps the thread busy until `release` is set.
    void Occupy(std::shared_future<void> release)
    {
        std::promise<void> begun;
        loop_.Post([&begun, release = std::move(release)] {
            begun.set_value();
            release.wait();
        });
        begun.get_future().wait();
    }

private:
    EventLoop loop_;
};

class ClientLogTest : public ::testing::Test
{
protected:
    ClientLogTest()
    {
        // Whatever an earlier test left.
        NextWindow();
        ClientLog::OnLine(Line("ERROR", "first").c_str());
        Reader().Settle();
        NextWindow();
        journal.Take();
    }

    static void NextWindow() { g_secondsAhead += 10; }

    static void Write(int count, const std::string& level = "WARN")
    {
        for (int i = 0; i < count; ++i)
        {
            ClientLog::OnLine(Line(level, "line " + std::to_string(i)).c_str());
        }
    }

    Journal journal;
    LogCapture log{journal};
};

TEST_F(ClientLogTest, LinesGoOnWithLevelAndTextUnderASourceOfTheirOwn)
{
    Reader reader;
    for (const char* level : {"ERROR", "WARN", "INFO", "DEBUG"})
    {
        ClientLog::OnLine(Line(level, std::string("said at ") + level).c_str());
    }
    reader.Settle();
    EXPECT_THAT(journal.Lines(),
                ElementsAre("[30] said at ERROR", "[20] said at WARN", "[0] said at INFO", "[0] said at DEBUG"));
    EXPECT_EQ(log.Records().back().source->Name(), "velmor.zookeeper");
}

TEST_F(ClientLogTest, LinesOfAnotherFormGoOnAsTheyAre)
{
    Reader reader;
    for (const char* line : {"something else", "", "ZOO_ERROR@f", "x: ZOO_ERROR@f@1: a: b \r\n\n"})
    {
        ClientLog::OnLine(line);
    }
    reader.Settle();
    EXPECT_THAT(journal.Lines(), ElementsAre("[20] something else", "[20] ", "[30] f", "[30] a: b"));
}

TEST_F(ClientLogTest, LinesThatNobodyWantsAreNotKept)
{
    Reader reader;
    logging::g_minLogLevel = static_cast<std::int32_t>(LogLevel::Warning);
    Write(kMostWaiting * 2, "INFO");
    ClientLog::OnLine(Line("WARN", "wanted").c_str());
    reader.Settle();
    EXPECT_THAT(journal.Lines(), ElementsAre("[20] wanted")) << "they used up nobody's share";
}

TEST_F(ClientLogTest, LibraryIsToldItsLevel)
{
    Reader reader;
    EXPECT_EQ(ScriptedClientLibrary::LogLevel(), ZOO_LOG_LEVEL_INFO);
}

TEST_F(ClientLogTest, SurplusOfAFloodIsLeftOutAndCounted)
{
    Reader reader;
    Write(kMostPerWindow + 30);
    reader.Settle();
    std::vector<std::string> lines = journal.Take();
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(kMostPerWindow));
    EXPECT_EQ(lines.front(), "[20] line 0");
    EXPECT_EQ(lines.back(), "[20] line 19");

    NextWindow();
    ClientLog::OnLine(Line("ERROR", "afterwards").c_str());
    reader.Settle();
    EXPECT_THAT(journal.Take(), ElementsAre("[20] Lines left out: 30", "[30] afterwards"));

    NextWindow();
    ClientLog::OnLine(Line("ERROR", "later").c_str());
    reader.Settle();
    EXPECT_THAT(journal.Take(), ElementsAre("[30] later")) << "counted once";
}

TEST_F(ClientLogTest, CountUsesUpAShareOfItsWindow)
{
    Reader reader;
    Write(kMostPerWindow + 1);
    reader.Settle();
    journal.Take();
    NextWindow();
    Write(kMostPerWindow + 5);
    reader.Settle();
    EXPECT_EQ(journal.Take().size(), static_cast<std::size_t>(kMostPerWindow));
    NextWindow();
    Write(1);
    reader.Settle();
    EXPECT_THAT(journal.Take(), ElementsAre("[20] Lines left out: 6", "[20] line 0"));
}

TEST_F(ClientLogTest, LinesThatWaitForABusyThreadAreBounded)
{
    Reader reader;
    std::promise<void> release;
    reader.Occupy(release.get_future().share());
    Write(kMostWaiting + 1'000);
    release.set_value();
    reader.Settle();
    const std::vector<std::string> lines = journal.Take();
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(kMostPerWindow));
    EXPECT_EQ(lines.front(), "[20] Lines left out: 1000");
    EXPECT_EQ(lines.back(), "[20] line 18");
    NextWindow();
    Write(1);
    reader.Settle();
    EXPECT_THAT(journal.Take(),
                ElementsAre("[20] Lines left out: " + std::to_string(kMostWaiting - 19), "[20] line 0"));
}

TEST_F(ClientLogTest, OneBusyThreadDoesNotHoldUpTheLinesWhileAnotherIsFree)
{
    Reader busy;
    Reader free;
    std::promise<void> release;
    busy.Occupy(release.get_future().share());
    Write(4);
    free.Settle();
    EXPECT_THAT(journal.Lines(), ElementsAre("[20] line 0", "[20] line 1", "[20] line 2", "[20] line 3"));
    Write(2);
    free.Settle();
    EXPECT_EQ(journal.Lines().size(), 6U) << "also after the busy one was asked before";
    release.set_value();
    busy.Settle();
    EXPECT_EQ(journal.Lines().size(), 6U);
}

TEST_F(ClientLogTest, LastReaderHandsOnWhatIsLeftWhenItGoes)
{
    EventLoop neverRuns;
    ClientLog::Attach(neverRuns);
    Write(3);
    {
        const Reader idle;
    }
    EXPECT_THAT(journal.Lines(), IsEmpty()) << "somebody is still there to read";
    ClientLog::Detach(neverRuns);
    EXPECT_THAT(journal.Lines(), ElementsAre("[20] line 0", "[20] line 1", "[20] line 2"));
}

TEST_F(ClientLogTest, LinesWithoutAReaderWaitForTheNext)
{
    Write(2);
    EXPECT_THAT(journal.Lines(), IsEmpty());
    Reader reader;
    Write(1);
    reader.Settle();
    EXPECT_THAT(journal.Lines(), ElementsAre("[20] line 0", "[20] line 1", "[20] line 0"));
}

TEST_F(ClientLogTest, WriterIsNotHeldUpByASlowLogHandler)
{
    std::promise<void> handling;
    std::promise<void> release;
    std::atomic<bool> first{true};
    log.Watch([&](const LogRecord&) {
        if (first.exchange(false))
        {
            handling.set_value();
            release.get_future().wait();
        }
    });
    Reader reader;
    Write(1);
    handling.get_future().wait();
    Write(5);
    EXPECT_THAT(journal.Lines(), IsEmpty());
    release.set_value();
    reader.Settle();
    EXPECT_EQ(journal.Lines().size(), 6U);
}

TEST_F(ClientLogTest, ReadersMayComeAndGoWhileLinesAreWritten)
{
    std::atomic<bool> done{false};
    std::vector<std::thread> writers;
    for (int i = 0; i < 2; ++i)
    {
        writers.emplace_back([&] {
            while (!done)
            {
                Write(10);
                std::this_thread::yield();
            }
        });
    }
    for (int round = 0; round < 50; ++round)
    {
        Reader one;
        Reader other;
        NextWindow();
    }
    done = true;
    for (std::thread& writer : writers)
    {
        writer.join();
    }
    EXPECT_THAT(journal.Lines(), ::testing::SizeIs(::testing::Gt(20U)));
    Reader().Settle();
}

}  // namespace
}  // namespace kx::velmor
