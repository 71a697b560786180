// The three entry points, as a process with a logging library of its own defines them.

#include <kx/logging/logger.h>

#include <iostream>

namespace kx::logging {

std::atomic<std::int32_t> g_minLogLevel{0};

void ForceLockHandlers() {}

void LogMessage(LogLevel /*level*/, unsigned int /*code*/, DecodeType /*decodeType*/,
                const std::shared_ptr<const Source>& source, const char* /*file*/, int /*line*/,
                const std::string& text, const std::string& /*extra*/)
{
    std::cerr << "own: " << source->Name() << ": " << text << std::endl;
}

}  // namespace kx::logging
