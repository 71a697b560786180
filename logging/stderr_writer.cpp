#include "stderr_writer.h"

#include <signal.h>
#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

namespace kx::logging::details {

namespace {

/// While it lives, writing to a pipe without a reader fails instead of ending the process. Keeps the caller's `errno`.
class SigpipeHeldBack
{
public:
    SigpipeHeldBack() noexcept : errnoBefore_(std::exchange(errno, 0))
    {
        sigemptyset(&sigpipe_);
        sigaddset(&sigpipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &sigpipe_, &before_);
        // A thread that did not block it has none.
        sigset_t pending;
        wasPending_ =
            sigismember(&before_, SIGPIPE) == 1 && sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    }

    ~SigpipeHeldBack()
    {
        // Whatever is said to have failed last: there is nothing to ask for when nothing has.
        if (errno != 0 && !wasPending_)
        {
            // Ours goes, one that was there before stays. A write raises it on the writing thread, hence at once.
            const timespec noWait{};
            while (sigtimedwait(&sigpipe_, nullptr, &noWait) == -1 && errno == EINTR)
            {}
        }
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
        errno = errnoBefore_;
    }

    SigpipeHeldBack(const SigpipeHeldBack&) = delete;
    SigpipeHeldBack& operator=(const SigpipeHeldBack&) = delete;

private:
    const int errnoBefore_;
    sigset_t sigpipe_;
    sigset_t before_;
    bool wasPending_;
};

/// Never destroyed: destructors of static objects and threads that outlive `main` may still log. Without the
/// registry and the loggers of spdlog for the same reason: they go with the static objects.
spdlog::sinks::sink& StderrSink()
{
    static spdlog::sinks::sink& sink = *[] {
        auto* const created = new spdlog::sinks::stderr_sink_mt;
        created->set_pattern("%Y-%m-%d %H:%M:%S.%e%z %-7l %n [%t] [%@] %v");
        return created;
    }();
    return sink;
}

spdlog::level::level_enum ToSpdlogLevel(LogLevel level)
{
    if (level >= LogLevel::Error)
    {
        return spdlog::level::err;
    }
    if (level >= LogLevel::Warning)
    {
        return spdlog::level::warn;
    }
    return level >= LogLevel::Info ? spdlog::level::info : spdlog::level::debug;
}

}  // namespace

void WriteToStderr(const Record& record) noexcept
{
    try
    {
        std::string text(record.text);
        if (!record.extra.empty())
        {
            text.append(" ").append(record.extra);
        }

        const char* const lastSeparator = std::strrchr(record.file, '/');
        const char* const fileName = lastSeparator != nullptr ? lastSeparator + 1 : record.file;
        spdlog::details::log_msg line(record.time, spdlog::source_loc{fileName, record.line, ""},
                                      spdlog::string_view_t(record.source.data(), record.source.size()),
                                      ToSpdlogLevel(record.level), text);
        line.thread_id = record.threadId;

        const SigpipeHeldBack sigpipeHeldBack;
        StderrSink().log(line);
    }
    catch (...)
    {
        // The line is lost: this is the last resort, and there is nobody left to tell.
    }
}

void WriteOwnMessageToStderr(LogLevel level, const std::string& text) noexcept
{
    WriteToStderr(Record{level, 0, "kx.logging", "", 0, static_cast<std::size_t>(gettid()),
                         std::chrono::system_clock::now(), text, std::string_view()});
}

}  // namespace kx::logging::details
