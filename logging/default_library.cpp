#include "handler_list.h"
#include "stderr_writer.h"

#include <kx/logging/default_library.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

// The entry points stay together in one unit: every statement refers to the threshold, which brings in the others from
// the archive although only the front end, later on the linker's line, asks for them.

namespace kx::logging {

// Constant-initialised, and so in force for statements that static objects make before the environment is read.
std::atomic<std::int32_t> g_minLogLevel{static_cast<std::int32_t>(LogLevel::Info)};

namespace {

bool ApplyEnvironment()
{
    const char* const value = std::getenv(kLogLevelVariable);
    if (value == nullptr || *value == '\0')
    {
        return false;
    }
    const std::optional<LogLevel> level = ParseLogLevel(value);
    if (!level)
    {
        details::WriteOwnMessageToStderr(
            LogLevel::Warning,
            std::string(kLogLevelVariable) + "=\"" + value +
                "\" is no log level, using info: it can be debug, info, warning, error, off or a number");
        return false;
    }
    SetMinLogLevel(*level);
    return true;
}

[[maybe_unused]] const bool g_levelIsFromEnvironment = ApplyEnvironment();

}  // namespace

void SetMinLogLevel(LogLevel level) noexcept
{
    g_minLogLevel.store(static_cast<std::int32_t>(level), std::memory_order_relaxed);
}

std::optional<LogLevel> ParseLogLevel(std::string_view text)
{
    static constexpr std::array<std::pair<std::string_view, LogLevel>, 5> names{{{"debug", LogLevel::Debug},
                                                                                 {"info", LogLevel::Info},
                                                                                 {"warning", LogLevel::Warning},
                                                                                 {"error", LogLevel::Error},
                                                                                 {"off", kLogLevelOff}}};
    const auto sameLetter = [](char expected, char given) {
        return expected == std::tolower(static_cast<unsigned char>(given));
    };
    for (const auto& [name, level] : names)
    {
        if (std::equal(name.begin(), name.end(), text.begin(), text.end(), sameLetter))
        {
            return level;
        }
    }

    std::int32_t number = 0;
    const char* const end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end)
    {
        return std::nullopt;
    }
    return static_cast<LogLevel>(number);
}

HandlerId AddHandler(Handler handler)
{
    if (!handler)
    {
        throw std::invalid_argument("a log handler must not be empty");
    }
    return details::Handlers().Add(std::move(handler));
}

void RemoveHandler(HandlerId id)
{
    details::Handlers().Remove(id);
}

void AddStderrHandler()
{
    details::Handlers().AddStderr();
}

/// Makes sure that there are handlers before a statement's text is taken. Takes no lock that outlasts the call.
void ForceLockHandlers()
{
    static_cast<void>(details::Handlers());
}

void LogMessage(LogLevel level, unsigned int code, DecodeType /*decodeType*/,
                const std::shared_ptr<const Source>& source, const char* file, int line, const std::string& text,
                const std::string& extra)
{
    Record record{};
    record.level = level;
    record.code = code;
    // Static objects may make statements before the source of their unit is there.
    record.source = source ? std::string_view(source->Name()) : std::string_view();
    record.file = file != nullptr ? file : "";
    record.line = line;
    record.threadId = static_cast<std::size_t>(gettid());
    record.time = std::chrono::system_clock::now();
    record.text = text;
    record.extra = extra;
    details::Handlers().Deliver(record);
}

}  // namespace kx::logging
