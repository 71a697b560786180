#pragma once

#include <string>

namespace kx::velmor::simulation {

/// While it exists and is `on`, log statements go to stderr, each with the virtual time and the process. Otherwise
/// nothing is logged. This unit defines the entry points of the logging library.
class TraceScope
{
public:
    explicit TraceScope(bool on);
    ~TraceScope();
    TraceScope(const TraceScope&) = delete;
    TraceScope& operator=(const TraceScope&) = delete;
};

/// A line on stderr with the virtual time.
void Trace(const std::string& text);

}  // namespace kx::velmor::simulation
