#include "cli/log_setup.h"

#include "tests/support/temporary_directory.h"

#include <kx/logging/logger.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace kx::velmor::cli {
namespace {

using logging::LogLevel;

logging::Record RecordOf(std::string_view text, std::string_view extra = {})
{
    logging::Record record{};
    record.level = LogLevel::Warning;
    record.source = "velmor.session";
    record.file = "/build/source/session.cpp";
    record.line = 58;
    record.threadId = 4711;
    record.time = std::chrono::system_clock::time_point(std::chrono::milliseconds(1'777'642'620'007));
    record.text = text;
    record.extra = extra;
    return record;
}

nlohmann::json Parsed(const logging::Record& record)
{
    return nlohmann::json::parse(ToJson(record));
}

TEST(LogLineTest, HoldsWhatTheRecordHoldsInThisOrder)
{
    EXPECT_EQ(ToJson(RecordOf("Opened")),
              R"({"time":"2026-05-01T13:37:00.007Z","level":"warning","source":"velmor.session","thread":4711,)"
              R"("file":"session.cpp","line":58,"text":"Opened"})");
}

TEST(LogLineTest, IsOneLineWhateverTheTextIs)
{
    const std::string text =
        "a \"quoted\" \\ word,\nanother line\r\n\tand\x01 a \x7f\xC3\xA4" + std::string(1, '\0') + "end";
    const std::string line = ToJson(RecordOf(text));
    EXPECT_EQ(line.find('\n'), std::string::npos);
    EXPECT_EQ(nlohmann::json::parse(line).at("text"), text);
}

TEST(LogLineTest, ReplacesWhatIsNoUtf8)
{
    EXPECT_EQ(Parsed(RecordOf("a\xFF\xC3(b")).at("text"), "a\xEF\xBF\xBD\xEF\xBF\xBD(b");
}

TEST(LogLineTest, HoldsWhatFollowsTheText)
{
    EXPECT_EQ(Parsed(RecordOf("text", "extra")).at("text"), "text extra");
}

TEST(LogLineTest, NamesLevelsAndThoseBetweenThem)
{
    logging::Record record = RecordOf("");
    for (const auto& [level, name] :
         std::map<std::int32_t, std::string>{{static_cast<std::int32_t>(LogLevel::Debug) - 1, "debug"},
                                             {static_cast<std::int32_t>(LogLevel::Debug), "debug"},
                                             {static_cast<std::int32_t>(LogLevel::Info), "info"},
                                             {static_cast<std::int32_t>(LogLevel::Warning), "warning"},
                                             {static_cast<std::int32_t>(LogLevel::Error), "error"},
                                             {static_cast<std::int32_t>(LogLevel::Error) + 1, "error"}})
    {
        record.level = static_cast<LogLevel>(level);
        EXPECT_EQ(Parsed(record).at("level"), name) << level;
    }
}

TEST(LogLineTest, HasTimesBeforeTheEpochToo)
{
    logging::Record record = RecordOf("");
    record.time = std::chrono::system_clock::time_point(std::chrono::milliseconds(-1));
    EXPECT_EQ(Parsed(record).at("time"), "1969-12-31T23:59:59.999Z");
}

/// A pipe, and everything that came out of it.
class Pipe
{
public:
    explicit Pipe(int flags = 0) { EXPECT_EQ(pipe2(ends_.data(), O_CLOEXEC | flags), 0); }
    ~Pipe()
    {
        Close(0);
        Close(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int In() const { return ends_[1]; }
    void Close(std::size_t end)
    {
        if (ends_[end] >= 0)
        {
            close(ends_[end]);
            ends_[end] = -1;
        }
    }
    /// Until nobody holds the other end.
    std::string ReadAll()
    {
        std::string text;
        std::array<char, 65536> buffer{};
        pollfd readable{ends_[0], POLLIN, 0};
        for (;;)
        {
            EXPECT_GE(poll(&readable, 1, 20'000), 1);
            const ssize_t got = read(ends_[0], buffer.data(), buffer.size());
            if (got <= 0)
            {
                return text;
            }
            text.append(buffer.data(), static_cast<std::size_t>(got));
        }
    }

private:
    std::array<int, 2> ends_{-1, -1};
};

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

void ManyThreadsWriteWholeLines(int flags)
{
    constexpr int kThreads = 8;
    constexpr int kLines = 50;
    Pipe pipe(flags);
    std::vector<std::thread> threads;
    for (int thread = 0; thread != kThreads; ++thread)
    {
        // Longer than what pipes take in one piece, and together more than they hold.
        threads.emplace_back([&pipe, thread] {
            for (int line = 0; line != kLines; ++line)
            {
                WriteLine(pipe.In(), std::string(9'999, static_cast<char>('a' + thread)) + "\n");
            }
        });
    }
    std::thread closer([&] {
        for (std::thread& thread : threads)
        {
            thread.join();
        }
        pipe.Close(1);
    });
    const std::vector<std::string> lines = Lines(pipe.ReadAll());
    closer.join();
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLines));
    for (const std::string& line : lines)
    {
        EXPECT_EQ(line, std::string(9'999, line.at(0)));
    }
}

TEST(WriteLineTest, WritesWholeLinesOfManyThreads)
{
    ManyThreadsWriteWholeLines(0);
}

TEST(WriteLineTest, WaitsWhileADescriptorThatDoesNotBlockIsFull)
{
    ManyThreadsWriteWholeLines(O_NONBLOCK);
}

TEST(WriteLineTest, LosesTheLineWithoutHarmWhenNobodyReads)
{
    Pipe pipe;
    pipe.Close(0);
    WriteLine(pipe.In(), "lost\n");
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    WriteLine(-1, "lost\n");
}

TEST(WriteLineTest, LeavesASignalAloneThatWasThereBefore)
{
    sigset_t sigpipe;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
    raise(SIGPIPE);
    Pipe pipe;
    pipe.Close(0);
    WriteLine(pipe.In(), "lost\n");
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 1);
    const timespec noWait{};
    sigtimedwait(&sigpipe, nullptr, &noWait);
    pthread_sigmask(SIG_UNBLOCK, &sigpipe, nullptr);
}

class SetUpLogTest : public testing::Test
{
protected:
    void SetUp() override
    {
        unsetenv("KX_LOG_LEVEL");
        logging::SetMinLogLevel(LogLevel::Info);
    }

    static std::int32_t Threshold() { return logging::g_minLogLevel.load(); }
    static std::int32_t Number(LogLevel level) { return static_cast<std::int32_t>(level); }
};

TEST_F(SetUpLogTest, TheLevelThatIsAskedForHolds)
{
    setenv("KX_LOG_LEVEL", "debug", 1);
    SetUpLog(LogLevel::Error, LogLevel::Warning, LogFormat::Text);
    EXPECT_EQ(Threshold(), Number(LogLevel::Error));
}

TEST_F(SetUpLogTest, WithoutOneTheOtherHolds)
{
    SetUpLog(std::nullopt, LogLevel::Warning, LogFormat::Text);
    EXPECT_EQ(Threshold(), Number(LogLevel::Warning));
}

TEST_F(SetUpLogTest, WithoutOneWhatTheLoggingLibraryTookFromTheEnvironmentStays)
{
    setenv("KX_LOG_LEVEL", "debug", 1);
    logging::SetMinLogLevel(LogLevel::Debug);
    SetUpLog(std::nullopt, LogLevel::Warning, LogFormat::Text);
    EXPECT_EQ(Threshold(), Number(LogLevel::Debug));
}

TEST_F(SetUpLogTest, WhatTheLoggingLibraryCouldNotReadDoesNotCount)
{
    for (const char* const value : {"", "nonsense"})
    {
        setenv("KX_LOG_LEVEL", value, 1);
        SetUpLog(std::nullopt, LogLevel::Warning, LogFormat::Text);
        EXPECT_EQ(Threshold(), Number(LogLevel::Warning)) << value;
    }
}

TEST_F(SetUpLogTest, EachStatementOfManyThreadsIsOneObjectInALine)
{
    const testing_support::TemporaryDirectory directory;
    const std::filesystem::path file = directory.Path() / "log";
    const int kept = dup(STDERR_FILENO);
    const int log = open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ASSERT_EQ(dup2(log, STDERR_FILENO), STDERR_FILENO);

    SetUpLog(LogLevel::Info, LogLevel::Info, LogFormat::Json);
    const auto source = std::make_shared<const logging::Source>("test.threads");
    constexpr int kThreads = 8;
    constexpr int kStatements = 100;
    std::vector<std::thread> threads;
    for (int thread = 0; thread != kThreads; ++thread)
    {
        threads.emplace_back([&source, thread] {
            for (int statement = 0; statement != kStatements; ++statement)
            {
                KX_LOG(LogLevel::Info, source) << "\"line\"\n" << thread << "/" << statement;
                KX_LOG(LogLevel::Debug, source) << "below the threshold";
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    dup2(kept, STDERR_FILENO);
    close(kept);
    close(log);

    std::ifstream stream(file);
    std::set<std::string> texts;
    for (std::string line; std::getline(stream, line);)
    {
        const nlohmann::json object = nlohmann::json::parse(line);
        EXPECT_EQ(object.at("source"), "test.threads");
        EXPECT_EQ(object.at("level"), "info");
        EXPECT_EQ(object.at("file"), "log_setup_test.cpp");
        EXPECT_TRUE(texts.insert(object.at("text")).second);
    }
    EXPECT_EQ(texts.size(), static_cast<std::size_t>(kThreads * kStatements));
    EXPECT_EQ(texts.count("\"line\"\n7/99"), 1U);
}

}  // namespace
}  // namespace kx::velmor::cli
