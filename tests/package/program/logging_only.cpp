// A program that logs, and has nothing to do with elections.

#include <kx/logging/logger.h>

int main()
{
    const auto source = std::make_shared<const kx::logging::Source>("program");
    KX_LOG(kx::logging::LogLevel::Info, source) << "said " << 1;
}
