#include "tests/support/log_capture.h"

#include <mutex>
#include <stdexcept>
#include <utility>

namespace kx::velmor::testing_support {

class LogCapture::Sink
{
public:
    explicit Sink(Journal& journal) : journal_(journal) {}

    void Watch(std::function<void(const LogRecord&)> look)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        look_ = std::move(look);
    }

    void Receive(const LogRecord& record)
    {
        std::function<void(const LogRecord&)> look;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            records_.push_back(record);
            look = look_;
        }
        if (look)
        {
            look(record);
        }
        journal_.Note("[" + std::to_string(static_cast<std::int32_t>(record.level)) + "] " + record.text);
    }

    std::vector<LogRecord> Records() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return records_;
    }

private:
    Journal& journal_;
    mutable std::mutex mutex_;
    std::function<void(const LogRecord&)> look_;
    std::vector<LogRecord> records_;
};

namespace {

// The entry points are free functions: whoever is alive is found through here.
std::mutex g_currentMutex;
std::shared_ptr<LogCapture::Sink> g_current;

std::shared_ptr<LogCapture::Sink> Current()
{
    const std::lock_guard<std::mutex> lock(g_currentMutex);
    return g_current;
}

}  // namespace

LogCapture::LogCapture(Journal& journal, std::int32_t minLevel)
    : sink_(std::make_shared<Sink>(journal)), previousMinLevel_(logging::g_minLogLevel)
{
    const std::lock_guard<std::mutex> lock(g_currentMutex);
    if (g_current)
    {
        throw std::logic_error("There is a LogCapture already");
    }
    g_current = sink_;
    logging::g_minLogLevel = minLevel;
}

LogCapture::~LogCapture()
{
    const std::lock_guard<std::mutex> lock(g_currentMutex);
    g_current = nullptr;
    logging::g_minLogLevel = previousMinLevel_;
}

void LogCapture::Watch(std::function<void(const LogRecord&)> look)
{
    sink_->Watch(std::move(look));
}

std::vector<LogRecord> LogCapture::Records() const
{
    return sink_->Records();
}

}  // namespace kx::velmor::testing_support

namespace kx::logging {

std::atomic<std::int32_t> g_minLogLevel{0};

void ForceLockHandlers() {}

void LogMessage(LogLevel level, unsigned int code, DecodeType decodeType, const std::shared_ptr<const Source>& source,
                const char* file, int line, const std::string& text, const std::string& extra)
{
    if (const auto sink = velmor::testing_support::Current())
    {
        sink->Receive({level, code, decodeType, source, file, line, text, extra});
    }
}

}  // namespace kx::logging
