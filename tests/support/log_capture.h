#pragma once

#include "tests/support/journal.h"

#include <kx/logging/logger.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kx::velmor::testing_support {

/// One call of the logging library.
struct LogRecord
{
    logging::LogLevel level;
    unsigned int code;
    logging::DecodeType decodeType;
    std::shared_ptr<const logging::Source> source;
    std::string file;
    int line;
    std::string text;
    std::string extra;
};

/// Receives the process's log statements while it lives, in place of a logging library: linking it defines the entry
/// points. Without one alive, statements are lost.
///
/// One at a time. Threads: statements may come from any; `Watch` before they do.
class LogCapture
{
public:
    /// Each statement is noted as "[level] text".
    explicit LogCapture(Journal& journal, std::int32_t minLevel = 0);
    /// Waits for statements that are being received.
    ~LogCapture();

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Runs `look` on the thread of the statement, before it is noted.
    void Watch(std::function<void(const LogRecord&)> look);

    std::vector<LogRecord> Records() const;

    /// What the entry points hand statements to.
    class Sink;

private:
    const std::shared_ptr<Sink> sink_;
    const std::int32_t previousMinLevel_;
};

}  // namespace kx::velmor::testing_support
