#include "tests/simulation/trace.h"

#include "tests/simulation/virtual_machine.h"

#include <kx/logging/logger.h>

#include <cstdint>
#include <cstdio>
#include <limits>

namespace kx::logging {

namespace {

constexpr std::int32_t kOff = std::numeric_limits<std::int32_t>::max();

}  // namespace

std::atomic<std::int32_t> g_minLogLevel{kOff};

void ForceLockHandlers() {}

void LogMessage(LogLevel level, unsigned int /*code*/, DecodeType /*decodeType*/,
                const std::shared_ptr<const Source>& source, const char* /*file*/, int /*line*/,
                const std::string& text, const std::string& /*extra*/)
{
    const velmor::simulation::VirtualMachine* const machine = velmor::simulation::VirtualMachine::Current();
    const std::string process = machine == nullptr ? "-" : std::to_string(machine->CurrentProcess());
    velmor::simulation::Trace("process " + process + " " + source->Name() + " " +
                              std::to_string(static_cast<std::int32_t>(level)) + ": " + text);
}

}  // namespace kx::logging

namespace kx::velmor::simulation {

TraceScope::TraceScope(bool on)
{
    logging::g_minLogLevel = on ? static_cast<std::int32_t>(logging::LogLevel::Debug) : logging::kOff;
}

TraceScope::~TraceScope()
{
    logging::g_minLogLevel = logging::kOff;
}

void Trace(const std::string& text)
{
    const VirtualMachine* const machine = VirtualMachine::Current();
    const Time now = machine == nullptr ? Time() : machine->Now();
    std::fprintf(stderr, "%10lld.%06lld ms  %s\n", static_cast<long long>(now.count() / 1'000'000),
                 static_cast<long long>(now.count() % 1'000'000), text.c_str());
}

}  // namespace kx::velmor::simulation
