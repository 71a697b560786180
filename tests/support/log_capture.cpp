#include "tests/support/log_capture.h"

#include <condition_variable>
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
LogCapture::Sink* g_current = nullptr;
/// Statements that are being received.
int g_receiving = 0;
/// Never destroyed: threads that outlive what they did for a test may still make statements when the process ends.
std::condition_variable& g_received = *new std::condition_variable;

/// One statement's hold on whoever is alive, if anybody is.
class Current
{
public:
    Current()
    {
        const std::lock_guard<std::mutex> lock(g_currentMutex);
        sink_ = g_current;
        g_receiving += sink_ != nullptr ? 1 : 0;
    }
    ~Current()
    {
        const std::lock_guard<std::mutex> lock(g_currentMutex);
        g_receiving -= sink_ != nullptr ? 1 : 0;
        g_received.notify_all();
    }

    Current(const Current&) = delete;
    Current& operator=(const Current&) = delete;

    LogCapture::Sink* Sink() const { return sink_; }

private:
    LogCapture::Sink* sink_ = nullptr;
};

}  // namespace

LogCapture::LogCapture(Journal& journal, std::int32_t minLevel)
    : sink_(std::make_shared<Sink>(journal)), previousMinLevel_(logging::g_minLogLevel)
{
    const std::lock_guard<std::mutex> lock(g_currentMutex);
    if (g_current)
    {
        throw std::logic_error("There is a LogCapture already");
    }
    g_current = sink_.get();
    logging::g_minLogLevel = minLevel;
}

LogCapture::~LogCapture()
{
    std::unique_lock<std::mutex> lock(g_currentMutex);
    g_current = nullptr;
    logging::g_minLogLevel = previousMinLevel_;
    // What a statement is noted in may go right after this: there are threads that outlive what they did for a test.
    g_received.wait(lock, [] { return g_receiving == 0; });
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
    const velmor::testing_support::Current current;
    if (current.Sink() != nullptr)
    {
        current.Sink()->Receive({level, code, decodeType, source, file, line, text, extra});
    }
}

}  // namespace kx::logging
