// A process that has a logging library of its own: it links the front end alone and defines what that asks for.

#include <kx/logging/logger.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using kx::logging::GetThreadLocalStream;
using kx::logging::LogLevel;
using kx::logging::Source;
using testing::AllOf;
using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::HasSubstr;
using testing::KilledBySignal;
using testing::Not;

/// What this library attaches to its sources: where their lines go.
struct Channel
{
    std::vector<std::string> lines;
};

std::function<void()> g_beforeForceLockHandlers;
std::function<void()> g_beforeLogMessage;
bool g_printsToStderr = false;

}  // namespace

namespace kx::logging {

std::atomic<std::int32_t> g_minLogLevel{static_cast<std::int32_t>(LogLevel::Warning)};

void ForceLockHandlers()
{
    if (g_beforeForceLockHandlers)
    {
        g_beforeForceLockHandlers();
    }
}

void LogMessage(LogLevel level, unsigned int /*code*/, DecodeType /*decodeType*/,
                const std::shared_ptr<const Source>& source, const char* /*file*/, int /*line*/,
                const std::string& text, const std::string& extra)
{
    if (g_beforeLogMessage)
    {
        g_beforeLogMessage();
    }
    const std::string line = std::to_string(static_cast<std::int32_t>(level)) + " " + text + extra;
    if (g_printsToStderr)
    {
        std::fprintf(stderr, "%s\n", line.c_str());
        return;
    }
    const auto channel = std::const_pointer_cast<Channel>(std::static_pointer_cast<const Channel>(source->Attached()));
    channel->lines.push_back(line);
}

}  // namespace kx::logging

namespace {

class LoggingOwnLibraryTest : public testing::Test
{
protected:
    LoggingOwnLibraryTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    ~LoggingOwnLibraryTest() override
    {
        g_beforeForceLockHandlers = nullptr;
        g_beforeLogMessage = nullptr;
    }

    std::shared_ptr<Channel> channel_ = std::make_shared<Channel>();
    std::shared_ptr<const Source> source_ = std::make_shared<const Source>("own.source", channel_);
};

using LoggingOwnLibraryDeathTest = LoggingOwnLibraryTest;

TEST_F(LoggingOwnLibraryTest, StatementsFollowTheLibrarysThresholdToWhatItAttached)
{
    KX_LOG(LogLevel::Info, source_) << "below this library's threshold";
    KX_LOG(LogLevel::Warning, source_) << "at it";
    KX_LOG(LogLevel::Error, source_) << "above it";
    EXPECT_THAT(channel_->lines, ElementsAre("20 at it", "30 above it"));
}

TEST_F(LoggingOwnLibraryTest, AttachedObjectLivesAsLongAsTheSource)
{
    const std::weak_ptr<Channel> watched = channel_;
    channel_.reset();
    EXPECT_FALSE(watched.expired());
    source_.reset();
    EXPECT_TRUE(watched.expired());
}

TEST_F(LoggingOwnLibraryTest, StatementOfTheLibraryItselfFindsTheTextBeingHandedOver)
{
    g_beforeLogMessage = [this] {
        g_beforeLogMessage = nullptr;
        KX_LOG(LogLevel::Error, source_) << ", inner";
    };
    KX_LOG(LogLevel::Error, source_) << "outer";
    EXPECT_THAT(channel_->lines, ElementsAre("30 outer, inner", "30 outer"));
    EXPECT_EQ(GetThreadLocalStream().str(), "");
}

TEST_F(LoggingOwnLibraryDeathTest, ExceptionOfLogMessageEndsTheProcess)
{
    g_beforeLogMessage = [] { throw std::runtime_error("the library is broken"); };
    EXPECT_EXIT(
        {
            try
            {
                KX_LOG(LogLevel::Error, source_) << "text";
            }
            catch (const std::exception&)
            {}
            std::exit(0);
        },
        KilledBySignal(SIGABRT), "the library is broken");
}

TEST_F(LoggingOwnLibraryDeathTest, ExceptionOfForceLockHandlersEndsTheProcess)
{
    g_beforeForceLockHandlers = [] { throw std::runtime_error("no handlers"); };
    EXPECT_EXIT(
        {
            try
            {
                KX_LOG(LogLevel::Error, source_) << "text";
            }
            catch (const std::exception&)
            {}
            std::exit(0);
        },
        KilledBySignal(SIGABRT), "no handlers");
}

TEST_F(LoggingOwnLibraryDeathTest, ExceptionWhileAnotherPassesThroughTheStatementEndsTheProcess)
{
    g_beforeLogMessage = [] { throw std::runtime_error("the library is broken"); };
    const auto fail = []() -> int { throw std::logic_error("no value"); };
    EXPECT_EXIT(
        {
            try
            {
                KX_LOG(LogLevel::Error, source_) << fail();
            }
            catch (const std::exception&)
            {}
            std::exit(0);
        },
        KilledBySignal(SIGABRT), "the library is broken");
}

/// Makes statements when static objects are destroyed, which on the main thread is after its thread-local ones are.
struct LogsAtExit
{
    std::shared_ptr<const Source> source = std::make_shared<const Source>("at.exit");
    const std::stringstream* streamDuringMain = nullptr;

    ~LogsAtExit()
    {
        KX_LOG(LogLevel::Error, source) << "a statement at exit whose text is too long to be kept in place";
        KX_LOG(LogLevel::Error, source) << "another at exit, into "
                                        << (&GetThreadLocalStream() == streamDuringMain ? "the dead stream"
                                                                                        : "a living stream");
    }
};

TEST_F(LoggingOwnLibraryDeathTest, StatementsAtStaticDestructionAreWritten)
{
    EXPECT_EXIT(
        {
            g_printsToStderr = true;
            static LogsAtExit atExit;
            atExit.streamDuringMain = &GetThreadLocalStream();
            KX_LOG(LogLevel::Error, source_) << "a statement in time whose text is too long to be kept in place";
            std::exit(0);
        },
        ExitedWithCode(0),
        AllOf(HasSubstr("30 a statement in time whose text is too long to be kept in place\n"),
              HasSubstr("30 a statement at exit whose text is too long to be kept in place\n"),
              HasSubstr("30 another at exit, into a living stream\n"), Not(HasSubstr("dead"))));
}

}  // namespace
