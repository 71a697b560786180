#pragma once

#include <atomic>
#include <cstdint>
#include <ios>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>

namespace kx::logging {

/// How severe a statement is; higher is more severe. Values between the named ones are fine.
enum class LogLevel : std::int32_t
{
    Debug = 0,
    Info = 10,
    Warning = 20,
    Error = 30,
};

/// How the logging library is to read a statement's texts. Further values are the library's own.
enum class DecodeType : std::int32_t
{
    /// As they are. What every statement passes.
    PlainText = 1,
};

/// The name under which statements are logged, as in "velmor.candidate".
///
/// Immutable, for any thread. Held by `std::shared_ptr<const Source>` and shared by every statement that names it.
class Source
{
public:
    explicit Source(std::string name);

    /// `attached` is for the logging library, which alone knows its type; it lives as long as the source.
    Source(std::string name, std::shared_ptr<const void> attached);

    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    const std::string& Name() const noexcept { return name_; }

    /// Empty for a source made from a name alone.
    const std::shared_ptr<const void>& Attached() const noexcept { return attached_; }

private:
    std::string name_;
    std::shared_ptr<const void> attached_;
};

// What the logging library defines, once per process: `velmor::logging_default` does, and so may the process itself.

/// Statements below this level are not written. Any thread may read and write it; there is no order between a change
/// and statements of other threads.
extern std::atomic<std::int32_t> g_minLogLevel;

/// Called by every emission before its text is taken. Must be safe on any thread and on every statement.
///
/// What it throws ends the process.
void ForceLockHandlers();

/// Receives one finished statement, on the thread that made it and with whatever locks that thread holds.
///
/// The texts and `source` must not be referred to after the call; `file` is static. The thread's stream still holds
/// `text` during the call. What it throws ends the process.
void LogMessage(LogLevel level, unsigned int code, DecodeType decodeType, const std::shared_ptr<const Source>& source,
                const char* file, int line, const std::string& text, const std::string& extra);

/// The stream into which every statement of the calling thread writes: empty between statements, its storage kept.
///
/// Made on first use and destroyed when the thread exits. Statements made later than that, by destructors that run
/// after the stream's, share a second stream of the thread in the same way.
std::stringstream& GetThreadLocalStream();

/// Puts a stream's field width, precision and format flags back to what they were when the guard was made.
///
/// Error state and fill character are left alone. The stream must outlive the guard.
class StreamFormatGuard
{
public:
    explicit StreamFormatGuard(std::ios_base& stream);
    ~StreamFormatGuard();

    StreamFormatGuard(const StreamFormatGuard&) = delete;
    StreamFormatGuard& operator=(const StreamFormatGuard&) = delete;

private:
    std::ios_base& stream_;
    std::ios_base::fmtflags flags_;
    std::streamsize precision_;
    std::streamsize width_;
};

/// One statement in flight: text is inserted into `Stream()`, and the destructor hands it to the logging library.
///
/// Belongs to the thread that made it, for one full expression; use it through `KX_LOG`. All statements of a thread
/// share one stream. One that is made while another is being written therefore carries what that one has inserted so
/// far, and leaves it with what follows.
///
/// The stream's error state and fill character outlast the statement: a null `const char*` inserted once makes the
/// stream bad, and the thread's later statements are emitted without text until someone clears it.
class Logger
{
public:
    /// Copies `source` and `extra`; `file` must be static. Writes nothing into the stream and does not empty it.
    Logger(LogLevel level, unsigned int code, DecodeType decodeType, const std::shared_ptr<const Source>& source,
           const char* file, int line, const std::string& extra);

    /// Emits the statement: calls `ForceLockHandlers`, takes the stream's text, calls `LogMessage` and empties the
    /// stream. Runs while an exception passes through the statement, too. An exception in here ends the process.
    virtual ~Logger();

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    std::ostream& Stream() noexcept { return stream_; }

private:
    // In the order in which they are made, and released backwards: the format is restored before the source goes.
    LogLevel level_;
    unsigned int code_;
    DecodeType decodeType_;
    const char* file_;
    int line_;
    std::shared_ptr<const Source> source_;
    std::stringstream& stream_;
    StreamFormatGuard formatGuard_;
    std::string extra_;
};

namespace details {

/// The test in front of every statement; reads the threshold once.
inline bool IsWritten(LogLevel level) noexcept
{
    return static_cast<std::int32_t>(level) >= g_minLogLevel.load(std::memory_order_relaxed);
}

/// Makes a statement an expression of type void. `&` binds less tightly than `<<` and more tightly than `?:`.
struct StatementEnd
{
    void operator&(const std::ostream&) const noexcept {}
};

}  // namespace details
}  // namespace kx::logging

// NOLINTBEGIN(bugprone-macro-parentheses): what is inserted follows the expansion and belongs to it.

/// One log statement: `KX_LOG(LogLevel::Info, g_log) << "text" << value;`
///
/// An expression of type void, so that it may stand wherever an expression statement may. Below the threshold nothing
/// but `level` is evaluated; `level` is evaluated twice above it and should be a constant.
#define KX_LOG(level, source)                                                                                        \
    !::kx::logging::details::IsWritten(level)                                                                        \
        ? static_cast<void>(0)                                                                                       \
        : ::kx::logging::details::StatementEnd() &                                                                   \
              ::kx::logging::Logger((level), 0U, ::kx::logging::DecodeType::PlainText, (source), __FILE__, __LINE__, \
                                    ::std::string())                                                                 \
                  .Stream()

// NOLINTEND(bugprone-macro-parentheses)
