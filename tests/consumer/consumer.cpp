// A program with a logging library of its own: it defines the three entry points and links no other.

#include <kx/logging/logger.h>
#include <kx/velmor/error.h>
#include <kx/velmor/path.h>
#include <kx/velmor/session.h>

#include <iostream>
#include <string>

namespace {

std::string g_lastText;

}  // namespace

namespace kx::logging {

std::atomic<std::int32_t> g_minLogLevel{0};

void ForceLockHandlers() {}

void LogMessage(LogLevel /*level*/, unsigned int /*code*/, DecodeType /*decodeType*/,
                const std::shared_ptr<const Source>& /*source*/, const char* /*file*/, int /*line*/,
                const std::string& text, const std::string& /*extra*/)
{
    g_lastText = text;
}

}  // namespace kx::logging

int main()
{
    try
    {
        kx::velmor::Session::Open(kx::velmor::SessionOptions{"nowhere"});
        std::cerr << "a server without a port was accepted" << std::endl;
        return 1;
    }
    catch (const kx::velmor::ZooError& error)
    {
        const bool named = g_lastText.find("servers") != std::string::npos;
        std::cout << error.what() << ": " << g_lastText << std::endl;
        return error.Code() == ZBADARGUMENTS && named && kx::velmor::NormalizePath("/a//b/") == "a/b" ? 0 : 1;
    }
}
