#include <kx/logging/default_library.h>
#include <kx/logging/logger.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <iomanip>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

using kx::logging::AddHandler;
using kx::logging::AddStderrHandler;
using kx::logging::DecodeType;
using kx::logging::HandlerId;
using kx::logging::kLogLevelOff;
using kx::logging::kLogLevelVariable;
using kx::logging::kStderrHandler;
using kx::logging::LogLevel;
using kx::logging::ParseLogLevel;
using kx::logging::Record;
using kx::logging::RemoveHandler;
using kx::logging::SetMinLogLevel;
using kx::logging::Source;
using testing::AllOf;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// How long things may take that take milliseconds.
constexpr std::chrono::seconds kPatience{20};

/// For how long something is watched that must not happen.
constexpr std::chrono::milliseconds kGrace{100};

int CountOf(std::string_view part, std::string_view text)
{
    int count = 0;
    for (auto at = text.find(part); at != std::string_view::npos; at = text.find(part, at + part.size()))
    {
        ++count;
    }
    return count;
}

MATCHER_P(HasOnce, part, std::string(negation ? "does not hold" : "holds") + " exactly once: " + part)
{
    return CountOf(part, arg) == 1;
}

/// Keeps the texts that its handler is given.
class Collector
{
public:
    std::function<void(const Record&)> Handler()
    {
        return [this](const Record& record) {
            const std::lock_guard<std::mutex> lock(mutex_);
            texts_.emplace_back(record.text);
        };
    }

    std::vector<std::string> Texts() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return texts_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> texts_;
};

/// A point that one thread waits for another to reach. Fails the test when that takes too long.
class Milestone
{
public:
    void Reach() { promise_.set_value(); }
    void Await() const { EXPECT_TRUE(IsReachedWithin(kPatience)); }

    template <typename Duration>
    bool IsReachedWithin(Duration duration) const
    {
        return future_.wait_for(duration) == std::future_status::ready;
    }

private:
    std::promise<void> promise_;
    std::shared_future<void> future_ = promise_.get_future().share();
};

class LoggingDefaultTest : public testing::Test
{
protected:
    LoggingDefaultTest()
    {
        SetMinLogLevel(LogLevel::Info);
        // So that the statements do not drown the test's report.
        RemoveHandler(kStderrHandler);
    }

    ~LoggingDefaultTest() override
    {
        for (const HandlerId id : added_)
        {
            RemoveHandler(id);
        }
        AddStderrHandler();
        SetMinLogLevel(LogLevel::Info);
    }

    HandlerId Add(std::function<void(const Record&)> handler)
    {
        added_.push_back(AddHandler(std::move(handler)));
        return added_.back();
    }

    void Statement(const std::string& text) const { KX_LOG(LogLevel::Info, source_) << text; }

    const std::shared_ptr<const Source> source_ = std::make_shared<const Source>("test.source");

private:
    std::vector<HandlerId> added_;
};

/// What these tests do happens in a child process, started afresh with this one's environment; this one looks at its
/// standard error and at how it ends.
class LoggingDefaultDeathTest : public testing::Test
{
protected:
    LoggingDefaultDeathTest()
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        unsetenv(kLogLevelVariable);
        // ctest ends a test that hangs, but not the test's child.
        alarm(100);
    }

    ~LoggingDefaultDeathTest() override
    {
        alarm(0);
        unsetenv(kLogLevelVariable);
    }

    const std::shared_ptr<const Source> source_ = std::make_shared<const Source>("test.source");
};

void StatementsAtAllLevels(const std::shared_ptr<const Source>& source)
{
    KX_LOG(LogLevel::Debug, source) << "a debug line";
    KX_LOG(LogLevel::Info, source) << "an info line";
    KX_LOG(LogLevel::Warning, source) << "a warning line";
    KX_LOG(LogLevel::Error, source) << "an error line";
}

// The threshold

TEST_F(LoggingDefaultTest, ThresholdIsSetFromCode)
{
    Collector collector;
    Add(collector.Handler());
    SetMinLogLevel(LogLevel::Warning);
    StatementsAtAllLevels(source_);
    SetMinLogLevel(kLogLevelOff);
    StatementsAtAllLevels(source_);
    EXPECT_THAT(collector.Texts(), ElementsAre("a warning line", "an error line"));
}

TEST(ParseLogLevelTest, KnowsNamesInAnyCaseAndNumbers)
{
    EXPECT_EQ(ParseLogLevel("debug"), LogLevel::Debug);
    EXPECT_EQ(ParseLogLevel("info"), LogLevel::Info);
    EXPECT_EQ(ParseLogLevel("Warning"), LogLevel::Warning);
    EXPECT_EQ(ParseLogLevel("ERROR"), LogLevel::Error);
    EXPECT_EQ(ParseLogLevel("off"), kLogLevelOff);
    EXPECT_EQ(ParseLogLevel("0"), LogLevel::Debug);
    EXPECT_EQ(ParseLogLevel("31"), static_cast<LogLevel>(31));
    EXPECT_EQ(ParseLogLevel("-5"), static_cast<LogLevel>(-5));
}

TEST(ParseLogLevelTest, RefusesEverythingElse)
{
    for (const std::string_view text : {"", " ", "inf", "infos", "10x", "x10", " 10", "+10", "1.5", "99999999999"})
    {
        EXPECT_EQ(ParseLogLevel(text), std::nullopt) << '"' << text << '"';
    }
}

[[noreturn]] void LogAtAllLevelsAndExit(const std::shared_ptr<const Source>& source)
{
    StatementsAtAllLevels(source);
    std::exit(0);
}

TEST_F(LoggingDefaultDeathTest, ThresholdIsInfoUnlessSomethingElseIsAskedFor)
{
    EXPECT_EXIT(LogAtAllLevelsAndExit(source_), ExitedWithCode(0),
                AllOf(Not(HasSubstr("a debug line")), HasSubstr("an info line"), HasSubstr("an error line"),
                      Not(HasSubstr(kLogLevelVariable))));
}

TEST_F(LoggingDefaultDeathTest, EmptyEnvironmentVariableAsksForNothing)
{
    setenv(kLogLevelVariable, "", 1);
    EXPECT_EXIT(LogAtAllLevelsAndExit(source_), ExitedWithCode(0),
                AllOf(Not(HasSubstr("a debug line")), HasSubstr("an info line"), Not(HasSubstr(kLogLevelVariable))));
}

TEST_F(LoggingDefaultDeathTest, ThresholdIsTakenFromANameInTheEnvironment)
{
    setenv(kLogLevelVariable, "debug", 1);
    EXPECT_EXIT(LogAtAllLevelsAndExit(source_), ExitedWithCode(0),
                AllOf(HasSubstr("a debug line"), HasSubstr("an info line"), HasSubstr("an error line")));
    setenv(kLogLevelVariable, "Error", 1);
    EXPECT_EXIT(LogAtAllLevelsAndExit(source_), ExitedWithCode(0),
                AllOf(Not(HasSubstr("a warning line")), HasSubstr("an error line")));
    setenv(kLogLevelVariable, "off", 1);
    EXPECT_EXIT(LogAtAllLevelsAndExit(source_), ExitedWithCode(0), IsEmpty());
}

TEST_F(LoggingDefaultDeathTest, ThresholdIsTakenFromANumberInTheEnvironment)
{
    setenv(kLogLevelVariable, "11", 1);
    EXPECT_EXIT(LogAtAllLevelsAndExit(source_), ExitedWithCode(0),
                AllOf(Not(HasSubstr("an info line")), HasSubstr("a warning line")));
}

TEST_F(LoggingDefaultDeathTest, BadValueInTheEnvironmentIsToldOnceAndMeansInfo)
{
    setenv(kLogLevelVariable, "chatty", 1);
    EXPECT_EXIT(LogAtAllLevelsAndExit(source_), ExitedWithCode(0),
                AllOf(HasOnce("KX_LOG_LEVEL=\"chatty\" is no log level, using info: it can be debug, info, warning, "
                              "error, off or a number\n"),
                      Not(HasSubstr("a debug line")), HasSubstr("an info line")));
}

TEST_F(LoggingDefaultDeathTest, ThresholdFromCodePrevailsOverTheEnvironment)
{
    setenv(kLogLevelVariable, "debug", 1);
    EXPECT_EXIT(
        {
            SetMinLogLevel(LogLevel::Error);
            LogAtAllLevelsAndExit(source_);
        },
        ExitedWithCode(0), AllOf(Not(HasSubstr("a warning line")), HasSubstr("an error line")));
}

// Lines on standard error

TEST_F(LoggingDefaultDeathTest, LineHasTimeLevelSourceThreadPlaceAndText)
{
    EXPECT_EXIT(
        {
            SetMinLogLevel(LogLevel::Debug);
            LogAtAllLevelsAndExit(source_);
        },
        ExitedWithCode(0),
        AllOf(ContainsRegex(
                  "(^|\n)20[0-9][0-9]-[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]\\.[0-9]{3}[+-]"
                  "[0-9]{2}:[0-9]{2} debug   test\\.source \\[[0-9]+\\] \\[logging_default_test\\.cpp:[0-9]+\\] "
                  "a debug line\n"),
              ContainsRegex(" info    test\\.source .* an info line\n"),
              ContainsRegex(" warning test\\.source .* a warning line\n"),
              ContainsRegex(" error   test\\.source .* an error line\n")));
}

TEST_F(LoggingDefaultDeathTest, LevelBetweenTheNamedOnesHasTheNameBelow)
{
    EXPECT_EXIT(
        {
            SetMinLogLevel(static_cast<LogLevel>(-100));
            KX_LOG(static_cast<LogLevel>(-100), source_) << "minus one hundred";
            KX_LOG(static_cast<LogLevel>(29), source_) << "twenty-nine";
            KX_LOG(static_cast<LogLevel>(1000), source_) << "one thousand";
            std::exit(0);
        },
        ExitedWithCode(0),
        AllOf(ContainsRegex(" debug   [^\n]* minus one hundred\n"), ContainsRegex(" warning [^\n]* twenty-nine\n"),
              ContainsRegex(" error   [^\n]* one thousand\n")));
}

TEST_F(LoggingDefaultDeathTest, ExtraTextFollowsTheText)
{
    EXPECT_EXIT(
        {
            LogMessage(LogLevel::Info, 0, DecodeType::PlainText, source_, "a/b/place.cpp", 12, "text", "extra");
            std::exit(0);
        },
        ExitedWithCode(0), HasSubstr(" [place.cpp:12] text extra\n"));
}

TEST_F(LoggingDefaultDeathTest, StatementOfUnknownOriginIsWritten)
{
    EXPECT_EXIT(
        {
            LogMessage(LogLevel::Info, 0, DecodeType::PlainText, nullptr, nullptr, 0, "from nowhere", "");
            std::exit(0);
        },
        ExitedWithCode(0), HasSubstr(" [] from nowhere\n"));
}

TEST_F(LoggingDefaultDeathTest, TextIsNotTakenForAFormat)
{
    EXPECT_EXIT(
        {
            KX_LOG(LogLevel::Info, source_) << "{} %s %v {0}";
            std::exit(0);
        },
        ExitedWithCode(0), HasSubstr("] {} %s %v {0}\n"));
}

TEST_F(LoggingDefaultDeathTest, StandardErrorIsRemovedAndAddedBackLikeAHandler)
{
    EXPECT_EXIT(
        {
            RemoveHandler(kStderrHandler);
            KX_LOG(LogLevel::Info, source_) << "while removed";
            RemoveHandler(kStderrHandler);
            AddStderrHandler();
            AddStderrHandler();
            KX_LOG(LogLevel::Info, source_) << "while added";
            RemoveHandler(kStderrHandler);
            KX_LOG(LogLevel::Info, source_) << "removed again";
            std::exit(0);
        },
        ExitedWithCode(0),
        AllOf(HasOnce("while added\n"), Not(HasSubstr("while removed")), Not(HasSubstr("removed again"))));
}

/// Stands in for standard error while it lives.
class StderrReplaced
{
public:
    explicit StderrReplaced(int replacement) : before_(dup(STDERR_FILENO)) { dup2(replacement, STDERR_FILENO); }
    ~StderrReplaced()
    {
        dup2(before_, STDERR_FILENO);
        close(before_);
    }

    StderrReplaced(const StderrReplaced&) = delete;
    StderrReplaced& operator=(const StderrReplaced&) = delete;

private:
    const int before_;
};

TEST_F(LoggingDefaultDeathTest, FullDiskLosesLinesAndDoesNoOtherHarm)
{
    EXPECT_EXIT(
        {
            {
                const StderrReplaced replaced(open("/dev/full", O_WRONLY | O_CLOEXEC));
                KX_LOG(LogLevel::Info, source_) << "onto a full disk";
            }
            KX_LOG(LogLevel::Info, source_) << "after a full disk";
            std::exit(0);
        },
        ExitedWithCode(0), AllOf(Not(HasSubstr("onto a full disk")), HasSubstr("after a full disk\n")));
}

TEST_F(LoggingDefaultDeathTest, ClosedStandardErrorLosesLinesAndDoesNoOtherHarm)
{
    EXPECT_EXIT(
        {
            {
                const StderrReplaced replaced(STDERR_FILENO);
                close(STDERR_FILENO);
                KX_LOG(LogLevel::Info, source_) << "into nothing";
            }
            KX_LOG(LogLevel::Info, source_) << "after nothing";
            std::exit(0);
        },
        ExitedWithCode(0), AllOf(Not(HasSubstr("into nothing")), HasSubstr("after nothing\n")));
}

TEST_F(LoggingDefaultDeathTest, PipeWithoutAReaderLosesLinesAndDoesNoOtherHarm)
{
    const auto logToNobody = [this] {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) != 0)
        {
            std::exit(1);
        }
        close(ends[0]);
        {
            const StderrReplaced replaced(ends[1]);
            KX_LOG(LogLevel::Info, source_) << "to nobody";
        }
        KX_LOG(LogLevel::Info, source_) << "to somebody";
        // What the process writes itself raises the signal as ever.
        static_cast<void>(!write(ends[1], "x", 1));
        std::exit(0);
    };
    EXPECT_EXIT(logToNobody(), testing::KilledBySignal(SIGPIPE),
                AllOf(Not(HasSubstr("to nobody")), HasSubstr("to somebody\n")));
}

TEST_F(LoggingDefaultDeathTest, SignalOfAPipeIsLeftAsItWas)
{
    const auto logToNobody = [this] {
        std::array<int, 2> ends{};
        sigset_t sigpipe;
        sigemptyset(&sigpipe);
        sigaddset(&sigpipe, SIGPIPE);
        if (pipe(ends.data()) != 0 || pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr) != 0)
        {
            std::exit(1);
        }
        close(ends[0]);
        const StderrReplaced replaced(ends[1]);
        const auto pending = [] {
            sigset_t signals;
            return sigpending(&signals) == 0 && sigismember(&signals, SIGPIPE) == 1;
        };
        errno = ENOENT;
        KX_LOG(LogLevel::Info, source_) << "to nobody";
        const bool left = !pending() && errno == ENOENT;
        raise(SIGPIPE);
        KX_LOG(LogLevel::Info, source_) << "to nobody";
        std::exit(left && pending() ? 0 : 2);
    };
    EXPECT_EXIT(logToNobody(), ExitedWithCode(0), "");
}

// Before and after main

/// In the environment of a child, asks for a statement before `main`.
constexpr const char* kLogAtStartVariable = "LOGGING_DEFAULT_TEST_LOG_AT_START";

/// Makes statements when static objects are made and destroyed.
struct LogsAtStartAndExit
{
    LogsAtStartAndExit()
    {
        if (std::getenv(kLogAtStartVariable) != nullptr)
        {
            KX_LOG(LogLevel::Info, source) << "a statement at start";
        }
    }

    ~LogsAtStartAndExit()
    {
        if (writesAtExit)
        {
            KX_LOG(LogLevel::Info, source) << "a statement at exit whose text is too long to be kept in place";
        }
    }

    std::shared_ptr<const Source> source = std::make_shared<const Source>("start.and.exit");
    bool writesAtExit = false;
};

LogsAtStartAndExit g_logsAtStartAndExit;

TEST_F(LoggingDefaultDeathTest, StatementsBeforeMainAreWritten)
{
    setenv(kLogAtStartVariable, "1", 1);
    EXPECT_EXIT(std::exit(0), ExitedWithCode(0), HasOnce("] a statement at start\n"));
    unsetenv(kLogAtStartVariable);
}

TEST_F(LoggingDefaultDeathTest, StatementsAtStaticDestructionAreWritten)
{
    EXPECT_EXIT(
        {
            // One made before the library's first statement and one made after it.
            KX_LOG(LogLevel::Info, source_) << "a statement in time whose text is too long to be kept in place";
            static LogsAtStartAndExit local;
            g_logsAtStartAndExit.writesAtExit = true;
            local.writesAtExit = true;
            std::exit(0);
        },
        ExitedWithCode(0),
        testing::ResultOf(
            [](const std::string& text) {
                return CountOf("a statement at exit whose text is too long to be kept in place\n", text);
            },
            2));
}

TEST_F(LoggingDefaultDeathTest, ThreadsThatOutliveMainGoOnLogging)
{
    EXPECT_EXIT(
        {
            std::atomic<int>& statements = *new std::atomic<int>(0);
            // Detached, so that they run on while the process ends.
            for (int i = 0; i < 3; ++i)
            {
                std::thread([&statements, source = source_] {
                    for (;;)
                    {
                        KX_LOG(LogLevel::Info, source) << "from a thread without end";
                        ++statements;
                    }
                }).detach();
            }
            while (statements < 100)
            {
                std::this_thread::yield();
            }
            std::exit(0);
        },
        ExitedWithCode(0), HasSubstr("from a thread without end\n"));
}

// Handlers

TEST_F(LoggingDefaultTest, HandlerReceivesTheWholeRecord)
{
    std::optional<Record> record;
    std::string text;
    std::string source;
    Add([&](const Record& received) {
        record = received;
        source = received.source;
        text = received.text;
    });

    const auto before = std::chrono::system_clock::now();
    // clang-format off
    const int line = __LINE__; KX_LOG(LogLevel::Error, source_) << "Failed: " << 42;
    // clang-format on
    const auto after = std::chrono::system_clock::now();

    ASSERT_TRUE(record.has_value());
    EXPECT_EQ(record->level, LogLevel::Error);
    EXPECT_EQ(record->code, 0U);
    EXPECT_EQ(source, "test.source");
    EXPECT_STREQ(record->file, __FILE__);
    EXPECT_EQ(record->line, line);
    EXPECT_EQ(record->threadId, static_cast<std::size_t>(gettid()));
    EXPECT_GE(record->time, before);
    EXPECT_LE(record->time, after);
    EXPECT_EQ(text, "Failed: 42");
    EXPECT_TRUE(record->extra.empty());
}

TEST_F(LoggingDefaultTest, HandlerReceivesCodeAndExtra)
{
    std::vector<std::string> received;
    Add([&](const Record& record) {
        received.push_back(std::to_string(record.code) + "/" + std::string(record.text) + "/" +
                           std::string(record.extra));
    });
    LogMessage(LogLevel::Info, 77, DecodeType::PlainText, source_, "place.cpp", 1, "text", "extra");
    EXPECT_THAT(received, ElementsAre("77/text/extra"));
}

TEST_F(LoggingDefaultTest, HandlersRunInTheOrderInWhichTheyWereAdded)
{
    std::vector<int> order;
    Add([&](const Record&) { order.push_back(1); });
    const HandlerId second = Add([&](const Record&) { order.push_back(2); });
    Add([&](const Record&) { order.push_back(3); });
    Statement("to all");
    RemoveHandler(second);
    Statement("to the others");
    EXPECT_THAT(order, ElementsAre(1, 2, 3, 1, 3));
}

TEST_F(LoggingDefaultTest, EmptyHandlerIsRefused)
{
    EXPECT_THROW(AddHandler({}), std::invalid_argument);
    EXPECT_THROW(AddHandler(static_cast<void (*)(const Record&)>(nullptr)), std::invalid_argument);
}

TEST_F(LoggingDefaultTest, RemovingWhatIsNotThereIsFine)
{
    Collector collector;
    const HandlerId id = Add([](const Record&) {});
    Add(collector.Handler());
    RemoveHandler(id);
    RemoveHandler(id);
    RemoveHandler(HandlerId{987654321});
    Statement("still delivered");
    EXPECT_THAT(collector.Texts(), ElementsAre("still delivered"));
}

TEST_F(LoggingDefaultTest, HandlerAddedDuringADeliveryGetsTheNextStatement)
{
    Collector collector;
    bool added = false;
    Add([&](const Record&) {
        if (!std::exchange(added, true))
        {
            Add(collector.Handler());
        }
    });
    Statement("first");
    Statement("second");
    EXPECT_THAT(collector.Texts(), ElementsAre("second"));
}

TEST_F(LoggingDefaultTest, RemovalDestroysWhatTheHandlerCaptured)
{
    auto captured = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = captured;
    const HandlerId id = Add([captured](const Record&) {});
    captured.reset();
    Statement("text");
    EXPECT_FALSE(watched.expired());
    RemoveHandler(id);
    EXPECT_TRUE(watched.expired());
}

TEST_F(LoggingDefaultTest, RemovalWaitsForARunUnderWay)
{
    Milestone running;
    Milestone removing;
    Milestone removed;
    std::atomic<bool> ended{false};
    const HandlerId id = Add([&](const Record&) {
        running.Reach();
        removing.Await();
        EXPECT_FALSE(removed.IsReachedWithin(kGrace));
        ended = true;
    });
    std::thread writer([&] { Statement("text"); });
    running.Await();
    std::array<std::thread, 2> removers;
    std::atomic<int> removals{0};
    for (std::thread& remover : removers)
    {
        // Both wait, although only one finds the handler still there.
        remover = std::thread([&] {
            if (++removals == 2)
            {
                removing.Reach();
            }
            RemoveHandler(id);
            EXPECT_TRUE(ended);
            if (--removals == 1)
            {
                removed.Reach();
            }
        });
    }
    for (std::thread& remover : removers)
    {
        remover.join();
    }
    writer.join();
}

TEST_F(LoggingDefaultTest, SelfRemovingHandlerIsNotCalledAgain)
{
    auto captured = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = captured;
    int calls = 0;
    HandlerId id{};
    id = Add([&calls, &id, &watched, captured](const Record&) {
        ++calls;
        RemoveHandler(id);
        EXPECT_FALSE(watched.expired());
    });
    captured.reset();
    Statement("first");
    EXPECT_TRUE(watched.expired());
    Statement("second");
    EXPECT_EQ(calls, 1);
}

TEST_F(LoggingDefaultTest, HandlerRunningOnTwoThreadsRemovesItselfOnBoth)
{
    std::array<Milestone, 2> inside;
    std::atomic<std::size_t> calls{0};
    HandlerId id{};
    id = Add([&](const Record&) {
        const std::size_t own = calls++;
        inside.at(own).Reach();
        inside.at(1 - own).Await();
        RemoveHandler(id);
    });
    std::thread a([&] { Statement("a"); });
    std::thread b([&] { Statement("b"); });
    a.join();
    b.join();
    Statement("after");
    EXPECT_EQ(calls, 2U);
}

TEST_F(LoggingDefaultTest, HandlersThatRemoveEachOtherAtOnceBothGo)
{
    Milestone insideFirst;
    Milestone insideSecond;
    std::atomic<int> calls{0};
    HandlerId first{};
    HandlerId second{};
    first = Add([&](const Record& record) {
        if (record.text == "for the first")
        {
            ++calls;
            insideFirst.Reach();
            insideSecond.Await();
            RemoveHandler(second);
        }
    });
    second = Add([&](const Record& record) {
        if (record.text == "for the second")
        {
            ++calls;
            insideSecond.Reach();
            insideFirst.Await();
            RemoveHandler(first);
        }
    });
    std::thread a([&] { Statement("for the first"); });
    std::thread b([&] { Statement("for the second"); });
    a.join();
    b.join();
    Statement("for the first");
    Statement("for the second");
    EXPECT_EQ(calls, 2);
}

TEST_F(LoggingDefaultTest, HandlerThatRemovesAnotherWaitsForIt)
{
    Milestone insideOther;
    Milestone removing;
    Milestone removed;
    std::atomic<bool> otherEnded{false};
    HandlerId other{};
    Add([&](const Record& record) {
        if (record.text == "for the remover")
        {
            insideOther.Await();
            removing.Reach();
            RemoveHandler(other);
            EXPECT_TRUE(otherEnded);
            removed.Reach();
        }
    });
    other = Add([&](const Record& record) {
        if (record.text == "for the other")
        {
            insideOther.Reach();
            removing.Await();
            EXPECT_FALSE(removed.IsReachedWithin(kGrace));
            otherEnded = true;
        }
    });
    std::thread a([&] { Statement("for the other"); });
    std::thread b([&] { Statement("for the remover"); });
    a.join();
    b.join();
    EXPECT_TRUE(removed.IsReachedWithin(std::chrono::seconds(0)));
}

/// Takes its handler with it, also when it is the handler that owns it.
struct Registration
{
    HandlerId id{};
    ~Registration() { RemoveHandler(id); }
};

TEST_F(LoggingDefaultTest, HandlerMayOwnItsRegistration)
{
    auto registration = std::make_shared<Registration>();
    const std::weak_ptr<Registration> watched = registration;
    const HandlerId id = Add([registration](const Record&) {});
    registration->id = id;
    registration.reset();
    Statement("text");
    RemoveHandler(id);
    EXPECT_TRUE(watched.expired());
}

TEST_F(LoggingDefaultTest, SlowHandlerDoesNotHoldUpStatementsOfOtherThreads)
{
    Milestone running;
    Milestone release;
    std::atomic<int> delivered{0};
    Add([&](const Record& record) {
        if (record.text == "slow")
        {
            running.Reach();
            release.Await();
        }
    });
    Add([&](const Record&) { ++delivered; });
    std::thread slow([&] { Statement("slow"); });
    running.Await();
    Statement("quick");
    EXPECT_EQ(delivered, 1);
    // Nor does it hold up those who add and remove others.
    RemoveHandler(Add([](const Record&) {}));
    release.Reach();
    slow.join();
    EXPECT_EQ(delivered, 2);
}

TEST_F(LoggingDefaultTest, HandlersComeAndGoWhileOthersLog)
{
    constexpr int kRounds = 150;
    struct Life
    {
        // Not atomic on purpose: whoever removes a handler may rely on being alone afterwards.
        bool ended = false;
        std::atomic<int> calls{0};
    };
    std::atomic<bool> stop{false};
    std::atomic<int> calledAfterRemoval{0};
    std::array<std::thread, 2> writers;
    for (std::thread& writer : writers)
    {
        writer = std::thread([&] {
            while (!stop)
            {
                Statement("text");
            }
        });
    }
    std::array<std::thread, 2> changers;
    for (std::thread& changer : changers)
    {
        changer = std::thread([&] {
            for (int round = 0; round < kRounds; ++round)
            {
                const auto life = std::make_unique<Life>();
                const HandlerId id = AddHandler([&calledAfterRemoval, raw = life.get()](const Record&) {
                    calledAfterRemoval += raw->ended ? 1 : 0;
                    ++raw->calls;
                });
                const auto deadline = std::chrono::steady_clock::now() + kPatience;
                while (life->calls == 0 && std::chrono::steady_clock::now() < deadline)
                {
                    std::this_thread::yield();
                }
                RemoveHandler(id);
                life->ended = true;
                EXPECT_GT(life->calls, 0);
            }
        });
    }
    for (std::thread& changer : changers)
    {
        changer.join();
    }
    stop = true;
    for (std::thread& writer : writers)
    {
        writer.join();
    }
    EXPECT_EQ(calledAfterRemoval, 0);
}

// Handlers that throw or log

TEST_F(LoggingDefaultTest, ThrowingHandlerHurtsNeitherTheCallerNorTheNextHandler)
{
    Collector collector;
    Add([](const Record&) { throw std::runtime_error("cannot handle this"); });
    Add([](const Record&) { throw 42; });
    Add(collector.Handler());
    EXPECT_NO_THROW(Statement("text"));
    EXPECT_NO_THROW(Statement("again"));
    EXPECT_THAT(collector.Texts(), ElementsAre("text", "again"));
}

TEST_F(LoggingDefaultDeathTest, ThrowingHandlerIsToldOnceOnStandardError)
{
    EXPECT_EXIT(
        {
            AddHandler([](const Record&) { throw std::runtime_error("cannot handle this"); });
            AddHandler([](const Record&) { throw 42; });
            RemoveHandler(kStderrHandler);
            for (int i = 0; i < 3; ++i)
            {
                KX_LOG(LogLevel::Info, source_) << "text";
            }
            std::exit(0);
        },
        ExitedWithCode(0),
        AllOf(HasOnce("A log handler has thrown, which is reported once: cannot handle this\n"),
              HasOnce("A log handler has thrown, which is reported once: not a std::exception\n")));
}

TEST_F(LoggingDefaultTest, SelfRemovingHandlerMayThrow)
{
    int calls = 0;
    HandlerId id{};
    id = Add([&](const Record&) {
        ++calls;
        RemoveHandler(id);
        throw std::runtime_error("and gone");
    });
    Statement("first");
    Statement("second");
    EXPECT_EQ(calls, 1);
}

TEST_F(LoggingDefaultDeathTest, StatementsOfHandlersGoToStandardErrorOnly)
{
    EXPECT_EXIT(
        {
            for (int i = 0; i < 3; ++i)
            {
                AddHandler([this](const Record& record) {
                    KX_LOG(LogLevel::Info, source_) << "seen: " << record.text;
                    KX_LOG(LogLevel::Info, source_) << "and counted: " << 255;
                });
            }
            KX_LOG(LogLevel::Info, source_) << "outer " << std::hex << 255;
            KX_LOG(LogLevel::Info, source_) << "next " << 255;
            std::exit(0);
        },
        ExitedWithCode(0),
        AllOf(HasOnce("] outer ff\n"), HasOnce("] next 255\n"),
              testing::ResultOf([](const std::string& text) { return CountOf("] seen: outer ff\n", text); }, 3),
              testing::ResultOf([](const std::string& text) { return CountOf("] and counted: 255\n", text); }, 6),
              Not(HasSubstr("seen: seen"))));
}

TEST_F(LoggingDefaultTest, HandlerThatLogsLeavesTheStreamAsTheStatementLeftIt)
{
    Collector collector;
    Add([this](const Record&) {
        const volatile bool hasText = false;
        KX_LOG(LogLevel::Info, source_) << std::setfill('#') << (hasText ? "text" : static_cast<const char*>(nullptr));
    });
    Add(collector.Handler());
    KX_LOG(LogLevel::Info, source_) << std::setfill('*') << std::setw(3) << 1;
    KX_LOG(LogLevel::Info, source_) << std::setw(3) << 2;
    kx::logging::GetThreadLocalStream().fill(' ');
    EXPECT_THAT(collector.Texts(), ElementsAre("**1", "**2"));
}

TEST_F(LoggingDefaultTest, ForcingTheHandlersIsSafeInsideAHandler)
{
    int calls = 0;
    Add([&](const Record&) {
        kx::logging::ForceLockHandlers();
        ++calls;
    });
    Statement("text");
    EXPECT_EQ(calls, 1);
}

}  // namespace
