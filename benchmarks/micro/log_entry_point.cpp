#include "benchmarks/micro/log_entry_point.h"

#include <kx/logging/logger.h>

#include <memory>
#include <string>

namespace kx::velmor::benchmarks {

namespace {

using logging::DecodeType;
using logging::LogLevel;
using logging::Source;

bool g_nowhere = false;

}  // namespace

// Named as the linker is told to: it calls the first wherever `LogMessage` is asked for, which is the second.

void OnLogMessage(LogLevel level, unsigned int code, DecodeType decodeType, const std::shared_ptr<const Source>& source,
                  const char* file, int line, const std::string& text,
                  const std::string& extra) __asm__("__wrap_" VELMOR_LOG_MESSAGE);

void LibrarysLogMessage(LogLevel level, unsigned int code, DecodeType decodeType,
                        const std::shared_ptr<const Source>& source, const char* file, int line,
                        const std::string& text, const std::string& extra) __asm__("__real_" VELMOR_LOG_MESSAGE);

void OnLogMessage(LogLevel level, unsigned int code, DecodeType decodeType, const std::shared_ptr<const Source>& source,
                  const char* file, int line, const std::string& text, const std::string& extra)
{
    if (!g_nowhere)
    {
        LibrarysLogMessage(level, code, decodeType, source, file, line, text, extra);
    }
}

StatementsGoNowhere::StatementsGoNowhere()
{
    g_nowhere = true;
}

StatementsGoNowhere::~StatementsGoNowhere()
{
    g_nowhere = false;
}

}  // namespace kx::velmor::benchmarks
