#include <kx/logging/logger.h>

#include <pthread.h>

#include <system_error>
#include <utility>

namespace kx::logging {

namespace {

/// The stream for statements that a thread makes after its thread-local objects are gone: from destructors of static
/// objects on the main thread, from thread-local objects older than the stream on others.
///
/// Thread-specific data of POSIX goes later than thread-local objects and may come back while it goes. The main
/// thread's is never released: nothing runs after the statements that may still need it.
std::stringstream& LateThreadStream()
{
    static const pthread_key_t key = [] {
        pthread_key_t created = 0;
        const int rc =
            pthread_key_create(&created, [](void* stream) { delete static_cast<std::stringstream*>(stream); });
        if (rc != 0)
        {
            throw std::system_error(rc, std::generic_category(), "pthread_key_create");
        }
        return created;
    }();

    if (void* const existing = pthread_getspecific(key))
    {
        return *static_cast<std::stringstream*>(existing);
    }
    auto fresh = std::make_unique<std::stringstream>();
    const int rc = pthread_setspecific(key, fresh.get());
    if (rc != 0)
    {
        throw std::system_error(rc, std::generic_category(), "pthread_setspecific");
    }
    return *fresh.release();
}

}  // namespace

Source::Source(std::string name) : name_(std::move(name)) {}

Source::Source(std::string name, std::shared_ptr<const void> attached)
    : name_(std::move(name)), attached_(std::move(attached))
{}

std::stringstream& GetThreadLocalStream()
{
    // Has no destructor, and so can be read after the stream is gone.
    thread_local bool streamIsGone = false;
    if (streamIsGone)
    {
        return LateThreadStream();
    }

    struct MarksEnd
    {
        ~MarksEnd() { streamIsGone = true; }
    };
    thread_local std::stringstream stream(std::ios_base::in | std::ios_base::out);
    thread_local const MarksEnd end;
    static_cast<void>(end);
    return stream;
}

StreamFormatGuard::StreamFormatGuard(std::ios_base& stream)
    : stream_(stream), flags_(stream.flags()), precision_(stream.precision()), width_(stream.width())
{}

StreamFormatGuard::~StreamFormatGuard()
{
    stream_.width(width_);
    stream_.precision(precision_);
    stream_.flags(flags_);
}

Logger::Logger(LogLevel level, unsigned int code, DecodeType decodeType, const std::shared_ptr<const Source>& source,
               const char* file, int line, const std::string& extra)
    : level_(level),
      code_(code),
      decodeType_(decodeType),
      file_(file),
      line_(line),
      source_(source),
      stream_(GetThreadLocalStream()),
      formatGuard_(stream_),
      extra_(extra)
{}

Logger::~Logger()
{
    ForceLockHandlers();
    LogMessage(level_, code_, decodeType_, source_, file_, line_, stream_.str(), extra_);
    stream_.str(std::string());
}

}  // namespace kx::logging
