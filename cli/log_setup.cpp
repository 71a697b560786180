#include "cli/log_setup.h"

#include <nlohmann/json.hpp>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>

namespace kx::velmor::cli {

namespace {

using logging::LogLevel;

/// While it lives, writing to a pipe without a reader fails instead of ending the process. To ignore the signal would
/// pass that on to every command that is started.
class SigpipeHeldBack
{
public:
    SigpipeHeldBack() noexcept
    {
        sigemptyset(&sigpipe_);
        sigaddset(&sigpipe_, SIGPIPE);
        sigset_t pending;
        wasPending_ = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &sigpipe_, &before_);
    }

    ~SigpipeHeldBack()
    {
        if (!wasPending_)
        {
            const timespec noWait{};
            while (sigtimedwait(&sigpipe_, nullptr, &noWait) == -1 && errno == EINTR)
            {}
        }
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }

    SigpipeHeldBack(const SigpipeHeldBack&) = delete;
    SigpipeHeldBack& operator=(const SigpipeHeldBack&) = delete;

private:
    sigset_t sigpipe_;
    sigset_t before_;
    bool wasPending_;
};

/// Needs no destruction, and so serves destructors of static objects, too.
std::mutex g_oneLineAtATime;

std::string LevelName(LogLevel level)
{
    if (level >= LogLevel::Error)
    {
        return "error";
    }
    if (level >= LogLevel::Warning)
    {
        return "warning";
    }
    return level >= LogLevel::Info ? "info" : "debug";
}

/// ISO 8601 in UTC with milliseconds.
std::string TimeText(std::chrono::system_clock::time_point time)
{
    const auto sinceEpoch = std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch());
    const auto seconds = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    const std::time_t whole = static_cast<std::time_t>(seconds.count());
    std::tm parts{};
    gmtime_r(&whole, &parts);
    char date[32];
    char text[48];
    std::strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text, sizeof(text), "%s.%03dZ", date, static_cast<int>((sinceEpoch - seconds).count()));
    return text;
}

bool EnvironmentSetsLevel()
{
    const char* const value = std::getenv(logging::kLogLevelVariable);
    return value != nullptr && *value != '\0' && logging::ParseLogLevel(value);
}

}  // namespace

void WriteLine(int descriptor, const std::string& line) noexcept
{
    const SigpipeHeldBack sigpipeHeldBack;
    const std::lock_guard<std::mutex> lock(g_oneLineAtATime);
    const char* rest = line.data();
    std::size_t left = line.size();
    while (left > 0)
    {
        const ssize_t written = write(descriptor, rest, left);
        if (written >= 0)
        {
            rest += written;
            left -= static_cast<std::size_t>(written);
        }
        else if (errno == EAGAIN)
        {
            // Whoever shares the descriptor has made it so.
            pollfd writable{descriptor, POLLOUT, 0};
            static_cast<void>(poll(&writable, 1, -1));
        }
        else if (errno != EINTR)
        {
            return;
        }
    }
}

std::string ToJson(const logging::Record& record)
{
    std::string text(record.text);
    if (!record.extra.empty())
    {
        text.append(" ").append(record.extra);
    }
    const std::string file = record.file;
    const nlohmann::ordered_json object{{"time", TimeText(record.time)},
                                        {"level", LevelName(record.level)},
                                        {"source", std::string(record.source)},
                                        {"thread", record.threadId},
                                        {"file", file.substr(file.rfind('/') + 1)},
                                        {"line", record.line},
                                        {"text", std::move(text)}};
    return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

void SetUpLog(std::optional<LogLevel> level, LogLevel otherwise, LogFormat format)
{
    if (level || !EnvironmentSetsLevel())
    {
        logging::SetMinLogLevel(level.value_or(otherwise));
    }
    if (format == LogFormat::Json)
    {
        logging::AddHandler([](const logging::Record& record) { WriteLine(STDERR_FILENO, ToJson(record) + "\n"); });
        logging::RemoveHandler(logging::kStderrHandler);
    }
}

}  // namespace kx::velmor::cli
