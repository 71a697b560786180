#include <kx/logging/logger.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iomanip>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using kx::logging::DecodeType;
using kx::logging::GetThreadLocalStream;
using kx::logging::Logger;
using kx::logging::LogLevel;
using kx::logging::Source;
using testing::ElementsAre;
using testing::IsEmpty;

static_assert(std::is_same_v<std::underlying_type_t<LogLevel>, std::int32_t>);
static_assert(sizeof(DecodeType) == 4);
static_assert(static_cast<int>(LogLevel::Debug) == 0 && static_cast<int>(LogLevel::Info) == 10 &&
              static_cast<int>(LogLevel::Error) == 30);
static_assert(static_cast<int>(DecodeType::PlainText) == 1);
static_assert(std::has_virtual_destructor_v<Logger> && std::is_nothrow_destructible_v<Logger>);
static_assert(!std::is_copy_constructible_v<Logger>);

/// One call of the logging library.
struct Call
{
    LogLevel level;
    unsigned int code;
    DecodeType decodeType;
    std::shared_ptr<const Source> source;
    std::string file;
    int line;
    std::string text;
    std::string extra;
    std::thread::id thread;
};

/// What this process has for a logging library: it notes the calls, and runs what a test put in their way.
struct Library
{
    std::mutex mutex;
    std::vector<Call> calls;
    std::vector<std::string> entryPoints;
    std::function<void()> onForceLockHandlers;
    std::function<void()> onLogMessage;
};

Library& TheLibrary()
{
    static Library library;
    return library;
}

}  // namespace

namespace kx::logging {

std::atomic<std::int32_t> g_minLogLevel{0};

void ForceLockHandlers()
{
    Library& library = TheLibrary();
    {
        const std::lock_guard<std::mutex> lock(library.mutex);
        library.entryPoints.push_back("ForceLockHandlers");
    }
    if (library.onForceLockHandlers)
    {
        library.onForceLockHandlers();
    }
}

void LogMessage(LogLevel level, unsigned int code, DecodeType decodeType, const std::shared_ptr<const Source>& source,
                const char* file, int line, const std::string& text, const std::string& extra)
{
    Library& library = TheLibrary();
    {
        const std::lock_guard<std::mutex> lock(library.mutex);
        library.entryPoints.push_back("LogMessage");
        library.calls.push_back(
            Call{level, code, decodeType, source, file, line, text, extra, std::this_thread::get_id()});
    }
    if (library.onLogMessage)
    {
        library.onLogMessage();
    }
}

}  // namespace kx::logging

namespace {

using kx::logging::g_minLogLevel;

class LoggerTest : public testing::Test
{
protected:
    ~LoggerTest() override
    {
        library_.onForceLockHandlers = nullptr;
        library_.onLogMessage = nullptr;
        library_.calls.clear();
        library_.entryPoints.clear();
        g_minLogLevel = 0;
        GetThreadLocalStream().copyfmt(std::stringstream());
        GetThreadLocalStream().clear();
    }

    std::vector<std::string> Texts() const
    {
        std::vector<std::string> texts;
        for (const Call& call : library_.calls)
        {
            texts.push_back(call.text);
        }
        return texts;
    }

    std::vector<int> Levels() const
    {
        std::vector<int> levels;
        for (const Call& call : library_.calls)
        {
            levels.push_back(static_cast<int>(call.level));
        }
        return levels;
    }

    void StatementsAtAllLevels()
    {
        KX_LOG(LogLevel::Debug, source_) << "debug";
        KX_LOG(LogLevel::Info, source_) << "info";
        KX_LOG(LogLevel::Error, source_) << "error";
    }

    Library& library_ = TheLibrary();
    std::shared_ptr<const Source> source_ = std::make_shared<const Source>("test.source");
};

TEST_F(LoggerTest, ThresholdTenWritesTenAndThirtyOnceEach)
{
    g_minLogLevel = 10;
    StatementsAtAllLevels();
    EXPECT_THAT(Levels(), ElementsAre(10, 30));
}

TEST_F(LoggerTest, ThresholdZeroWritesEverything)
{
    g_minLogLevel = 0;
    StatementsAtAllLevels();
    EXPECT_THAT(Levels(), ElementsAre(0, 10, 30));
}

TEST_F(LoggerTest, ThresholdAboveErrorWritesNothing)
{
    g_minLogLevel = 31;
    StatementsAtAllLevels();
    EXPECT_THAT(library_.entryPoints, IsEmpty());
}

TEST_F(LoggerTest, LevelsCompareAsSignedNumbers)
{
    g_minLogLevel = -10;
    KX_LOG(static_cast<LogLevel>(-11), source_) << "below";
    KX_LOG(static_cast<LogLevel>(-10), source_) << "at";
    KX_LOG(LogLevel::Debug, source_) << "above";
    EXPECT_THAT(Levels(), ElementsAre(-10, 0));
}

TEST_F(LoggerTest, BelowTheThresholdNoArgumentIsEvaluated)
{
    g_minLogLevel = 10;
    int evaluated = 0;
    const auto source = [&] {
        ++evaluated;
        return source_;
    };
    const auto value = [&] {
        ++evaluated;
        return "value";
    };

    KX_LOG(LogLevel::Debug, source()) << value();
    EXPECT_EQ(evaluated, 0);

    KX_LOG(LogLevel::Info, source()) << value();
    EXPECT_EQ(evaluated, 2);
}

TEST_F(LoggerTest, LibraryReceivesEveryFieldOfAStatement)
{
    // clang-format off
    const int line = __LINE__; KX_LOG(LogLevel::Error, source_) << "Failed: " << 42 << ' ' << true;
    // clang-format on

    ASSERT_EQ(library_.calls.size(), 1U);
    const Call& call = library_.calls.front();
    EXPECT_EQ(call.level, LogLevel::Error);
    EXPECT_EQ(call.code, 0U);
    EXPECT_EQ(call.decodeType, DecodeType::PlainText);
    EXPECT_EQ(call.source, source_);
    EXPECT_EQ(call.file, __FILE__);
    EXPECT_EQ(call.line, line);
    EXPECT_EQ(call.text, "Failed: 42 1");
    EXPECT_EQ(call.extra, "");
}

TEST_F(LoggerTest, LibraryReceivesWhatALoggerWasMadeWith)
{
    Logger(LogLevel::Warning, 77U, static_cast<DecodeType>(5), source_, "some.cpp", 12, "the extra").Stream()
        << "the text";

    ASSERT_EQ(library_.calls.size(), 1U);
    const Call& call = library_.calls.front();
    EXPECT_EQ(call.level, LogLevel::Warning);
    EXPECT_EQ(call.code, 77U);
    EXPECT_EQ(call.decodeType, static_cast<DecodeType>(5));
    EXPECT_EQ(call.file, "some.cpp");
    EXPECT_EQ(call.line, 12);
    EXPECT_EQ(call.text, "the text");
    EXPECT_EQ(call.extra, "the extra");
}

TEST_F(LoggerTest, StatementIsASingleExpression)
{
    for (const bool condition : {true, false})
    {
        if (condition)
            KX_LOG(LogLevel::Info, source_) << "then";
        else
            KX_LOG(LogLevel::Info, source_) << "else";
    }
    static_assert(std::is_void_v<decltype(KX_LOG(LogLevel::Info, source_) << 1)>);
    EXPECT_THAT(Texts(), ElementsAre("then", "else"));
}

namespace elsewhere::kx::logging {
// Hides the real namespaces from unqualified lookup.
struct Logger
{};
namespace std {}

void Statement(const ::std::shared_ptr<const ::kx::logging::Source>& source)
{
    KX_LOG(::kx::logging::LogLevel::Info, source) << "from elsewhere";
}

}  // namespace elsewhere::kx::logging

TEST_F(LoggerTest, StatementWorksWhereOtherNamespacesHaveTheSameNames)
{
    elsewhere::kx::logging::Statement(source_);
    EXPECT_THAT(Texts(), ElementsAre("from elsewhere"));
}

TEST_F(LoggerTest, StatementWithoutInsertionIsEmittedEmpty)
{
    KX_LOG(LogLevel::Info, source_);
    EXPECT_THAT(Texts(), ElementsAre(""));
}

TEST_F(LoggerTest, SecondStatementDoesNotRepeatTheFirst)
{
    KX_LOG(LogLevel::Info, source_) << "a first statement that is rather long";
    KX_LOG(LogLevel::Info, source_) << "second";
    EXPECT_THAT(Texts(), ElementsAre("a first statement that is rather long", "second"));
}

TEST_F(LoggerTest, ConstructionNeitherWritesNorEmptiesTheStream)
{
    GetThreadLocalStream() << "there before, ";
    KX_LOG(LogLevel::Info, source_) << "inserted";
    EXPECT_THAT(Texts(), ElementsAre("there before, inserted"));
}

TEST_F(LoggerTest, HandlersAreForcedBeforeTheTextIsTaken)
{
    library_.onForceLockHandlers = [] { GetThreadLocalStream() << ", and a late word"; };
    KX_LOG(LogLevel::Info, source_) << "text";
    EXPECT_THAT(library_.entryPoints, ElementsAre("ForceLockHandlers", "LogMessage"));
    EXPECT_THAT(Texts(), ElementsAre("text, and a late word"));
}

TEST_F(LoggerTest, StreamIsEmptiedAfterTheLibraryHasTheText)
{
    std::string duringTheCall;
    library_.onLogMessage = [&] {
        duringTheCall = GetThreadLocalStream().str();
        GetThreadLocalStream() << " that nobody sees";
    };
    KX_LOG(LogLevel::Info, source_) << "text";
    EXPECT_EQ(duringTheCall, "text");
    EXPECT_EQ(GetThreadLocalStream().str(), "");

    library_.onLogMessage = nullptr;
    KX_LOG(LogLevel::Info, source_) << "next";
    EXPECT_THAT(Texts(), ElementsAre("text", "next"));
}

TEST_F(LoggerTest, FormatIsRestoredAfterTheStreamIsEmptiedAndBeforeTheSourceGoes)
{
    std::ios_base::fmtflags flagsDuringCall{};
    std::vector<std::string> seen;
    auto source = std::make_shared<const Source>(
        "short-lived", std::shared_ptr<int>(new int(0), [&](int* attached) {
            delete attached;
            seen.push_back(GetThreadLocalStream().str());
            const bool isRestored = (GetThreadLocalStream().flags() & std::ios_base::basefield) == std::ios_base::dec;
            seen.push_back(isRestored ? "restored" : "not restored");
        }));
    library_.onLogMessage = [&] {
        flagsDuringCall = GetThreadLocalStream().flags();
        // From here on the statement alone holds the source.
        library_.calls.clear();
        source.reset();
        EXPECT_THAT(seen, IsEmpty());
    };

    KX_LOG(LogLevel::Info, source) << std::hex << 255;
    EXPECT_EQ(flagsDuringCall & std::ios_base::basefield, std::ios_base::hex);
    EXPECT_THAT(seen, ElementsAre("", "restored"));
}

TEST_F(LoggerTest, StatementHoldsItsSource)
{
    auto source = std::make_shared<const Source>("gone from its owner");
    const auto dropSource = [&] {
        source.reset();
        return "dropped";
    };
    KX_LOG(LogLevel::Info, source) << dropSource();
    ASSERT_EQ(library_.calls.size(), 1U);
    ASSERT_NE(library_.calls.front().source, nullptr);
    EXPECT_EQ(library_.calls.front().source->Name(), "gone from its owner");
}

TEST_F(LoggerTest, NextStatementHasThePreviousFormat)
{
    KX_LOG(LogLevel::Info, source_) << std::hex << std::showbase << 255 << ' ' << std::setprecision(2) << 3.14159
                                    << std::setw(20);
    KX_LOG(LogLevel::Info, source_) << 255 << ' ' << 3.14159;
    EXPECT_THAT(Texts(), ElementsAre("0xff 3.1", "255 3.14159"));
}

TEST_F(LoggerTest, FormatSetOutsideStatementsStays)
{
    GetThreadLocalStream() << std::hex << std::setprecision(3);
    KX_LOG(LogLevel::Info, source_) << 255 << ' ' << std::dec << 255 << ' ' << std::setprecision(6) << 3.14159;
    KX_LOG(LogLevel::Info, source_) << 255 << ' ' << 3.14159;
    EXPECT_THAT(Texts(), ElementsAre("ff 255 3.14159", "ff 3.14"));
}

TEST_F(LoggerTest, WidthSetBeforeAStatementIsThereForTheNext)
{
    GetThreadLocalStream().width(4);
    KX_LOG(LogLevel::Info, source_) << 1 << 2;
    KX_LOG(LogLevel::Info, source_) << 3 << 4;
    EXPECT_THAT(Texts(), ElementsAre("   12", "   34"));
}

TEST_F(LoggerTest, FillCharacterStays)
{
    KX_LOG(LogLevel::Info, source_) << std::setfill('*') << std::setw(3) << 1;
    KX_LOG(LogLevel::Info, source_) << std::setw(3) << 2;
    EXPECT_THAT(Texts(), ElementsAre("**1", "**2"));
}

TEST_F(LoggerTest, NullCharacterPointerIsSkippedAndTheBadStateStays)
{
    const volatile bool hasText = false;
    const char* const none = hasText ? "text" : nullptr;
    KX_LOG(LogLevel::Error, source_) << "Failed: " << none << " never inserted";
    KX_LOG(LogLevel::Error, source_) << "into a bad stream";
    EXPECT_TRUE(GetThreadLocalStream().bad());

    GetThreadLocalStream().clear();
    KX_LOG(LogLevel::Error, source_) << "good again";
    EXPECT_THAT(Texts(), ElementsAre("Failed: ", "", "good again"));
}

TEST_F(LoggerTest, ExceptionWhileInsertingEmitsWhatWasInsertedAndPasses)
{
    const auto fail = []() -> int { throw std::runtime_error("no value"); };
    EXPECT_THROW(KX_LOG(LogLevel::Info, source_) << "before " << fail() << " after", std::runtime_error);
    EXPECT_THAT(Texts(), ElementsAre("before "));
    EXPECT_EQ(GetThreadLocalStream().str(), "");
}

TEST_F(LoggerTest, StatementInsideAStatementTakesTheTextWrittenSoFar)
{
    const auto inner = [&] {
        KX_LOG(LogLevel::Error, source_) << "inner";
        return "after";
    };
    KX_LOG(LogLevel::Info, source_) << "outer before, " << inner();
    EXPECT_THAT(Texts(), ElementsAre("outer before, inner", "after"));
    EXPECT_THAT(Levels(), ElementsAre(30, 10));
}

TEST_F(LoggerTest, StatementInsideAStatementGivesBackTheOuterFormat)
{
    const auto inner = [&] {
        KX_LOG(LogLevel::Info, source_) << std::dec << 16;
        return 255;
    };
    KX_LOG(LogLevel::Info, source_) << std::hex << inner();
    EXPECT_THAT(Texts(), ElementsAre("16", "ff"));
}

/// Lets two threads through in pairs. Fails the test when one is left alone for too long.
class Rendezvous
{
public:
    void Meet()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        const int pair = arrived_++ / 2;
        changed_.notify_all();
        EXPECT_TRUE(changed_.wait_for(lock, std::chrono::seconds(20), [&] { return arrived_ >= 2 * (pair + 1); }));
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int arrived_ = 0;
};

TEST_F(LoggerTest, ThreadsNeverShareText)
{
    constexpr int kStatements = 100;
    Rendezvous rendezvous;
    const auto log = [&](const std::string& mark) {
        const auto whenBothAreWriting = [&](int i) {
            rendezvous.Meet();
            return i;
        };
        for (int i = 0; i < kStatements; ++i)
        {
            KX_LOG(LogLevel::Info, source_) << mark << whenBothAreWriting(i) << mark;
        }
    };
    std::thread a(log, "a");
    std::thread b(log, "b");
    const std::vector<std::pair<std::string, std::thread::id>> writers{{"a", a.get_id()}, {"b", b.get_id()}};
    a.join();
    b.join();

    ASSERT_EQ(library_.calls.size(), 2U * kStatements);
    for (const auto& [mark, thread] : writers)
    {
        int next = 0;
        for (const Call& call : library_.calls)
        {
            if (call.thread == thread)
            {
                ASSERT_EQ(call.text, mark + std::to_string(next) + mark);
                ++next;
            }
        }
        EXPECT_EQ(next, kStatements);
    }
}

TEST_F(LoggerTest, StreamIsOpenForReadingAndWriting)
{
    int read = 0;
    KX_LOG(LogLevel::Info, source_) << 42 << ' ' << (GetThreadLocalStream() >> read, read);
    EXPECT_THAT(Texts(), ElementsAre("42 42"));
}

TEST_F(LoggerTest, EachThreadHasOneStreamUntilItExits)
{
    int destroyed = 0;
    const auto countEnd = [](std::ios_base::event event, std::ios_base& stream, int index) {
        if (event == std::ios_base::erase_event)
        {
            ++*static_cast<int*>(stream.pword(index));
        }
    };
    std::thread([&] {
        std::stringstream& stream = GetThreadLocalStream();
        EXPECT_EQ(&GetThreadLocalStream(), &stream);
        const int index = std::ios_base::xalloc();
        stream.pword(index) = &destroyed;
        stream.register_callback(countEnd, index);
        KX_LOG(LogLevel::Info, source_) << "text";
        KX_LOG(LogLevel::Info, source_) << "text";
        EXPECT_EQ(&GetThreadLocalStream(), &stream);
        EXPECT_EQ(destroyed, 0);
    }).join();
    EXPECT_EQ(destroyed, 1);
}

/// Makes a statement when the thread's objects are destroyed.
struct LogsAtThreadExit
{
    std::shared_ptr<const Source> source;

    ~LogsAtThreadExit()
    {
        if (source)
        {
            KX_LOG(LogLevel::Info, source) << "a late statement whose text is too long to be kept in place";
            KX_LOG(LogLevel::Info, source) << "and another";
        }
    }
};

TEST_F(LoggerTest, StatementsAfterTheThreadsStreamIsGoneAreWritten)
{
    std::thread([&] {
        // Older than the stream, and so destroyed after it.
        thread_local LogsAtThreadExit older;
        older.source = source_;
        KX_LOG(LogLevel::Info, source_) << "an early statement whose text is too long to be kept in place";
    }).join();
    EXPECT_THAT(Texts(), ElementsAre("an early statement whose text is too long to be kept in place",
                                     "a late statement whose text is too long to be kept in place", "and another"));
}

/// Asks for the thread's stream when the thread's own has gone and the process has no key left for another.
void LookForAStreamWithoutKeys()
{
    struct LooksAtThreadExit
    {
        ~LooksAtThreadExit()
        {
            pthread_key_t key = 0;
            while (pthread_key_create(&key, nullptr) == 0)
            {}
            try
            {
                GetThreadLocalStream();
            }
            catch (const std::system_error& error)
            {
                std::_Exit(error.code().value() == EAGAIN ? 0 : 1);
            }
            std::_Exit(2);
        }
    };
    std::thread([] {
        thread_local const LooksAtThreadExit older;
        static_cast<void>(older);
        GetThreadLocalStream();
    }).join();
}

TEST_F(LoggerTest, LateStatementWithoutAnyRoomForItsStreamIsAnError)
{
    // A process of its own, in which no stream of that kind was made yet.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(LookForAStreamWithoutKeys(), ::testing::ExitedWithCode(0), "");
}

TEST_F(LoggerTest, LateStatementsUseAStreamThatExists)
{
    struct LooksAtThreadExit
    {
        const std::stringstream* early = nullptr;
        const std::stringstream** late = nullptr;

        ~LooksAtThreadExit()
        {
            if (late != nullptr)
            {
                *late = &GetThreadLocalStream();
            }
        }
    };
    const std::stringstream* early = nullptr;
    const std::stringstream* late = nullptr;
    std::thread([&] {
        thread_local LooksAtThreadExit older;
        older.late = &late;
        early = &GetThreadLocalStream();
    }).join();
    EXPECT_NE(late, nullptr);
    EXPECT_NE(late, early);
}

TEST_F(LoggerTest, SourceMadeFromANameHasNothingAttached)
{
    EXPECT_EQ(source_->Name(), "test.source");
    EXPECT_EQ(source_->Attached(), nullptr);
}

TEST_F(LoggerTest, AttachedReferenceIsReleasedBeforeTheNameGoes)
{
    const std::string name = "a source whose name is too long to be kept in place";
    const Source* raw = nullptr;
    std::string nameAtRelease;
    std::shared_ptr<int> attached(new int(7), [&](int* value) {
        delete value;
        nameAtRelease = raw->Name();
    });
    const int* const value = attached.get();
    auto source = std::make_shared<const Source>(name, std::move(attached));
    raw = source.get();
    EXPECT_EQ(source->Attached().get(), value);

    source.reset();
    EXPECT_EQ(nameAtRelease, name);
}

}  // namespace
