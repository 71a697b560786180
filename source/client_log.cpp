#include "source/client_log.h"

#include "source/fork_mark.h"

#include <kx/logging/logger.h>

#include <zookeeper/zookeeper.h>

#include <algorithm>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kx::velmor {

namespace {

using logging::LogLevel;

/// Lines that wait for an event thread; more are counted and left out.
constexpr std::size_t kMostWaiting = 256;
/// Lines handed on within a window of time; more are counted and left out.
constexpr int kMostPerWindow = 20;
constexpr std::chrono::seconds kWindow{10};
/// Event threads that are told of a line: several, since one may be busy with a callback for a long time, and not all,
/// since there may be a thousand.
constexpr int kMostTold = 3;

struct Line
{
    LogLevel level;
    std::string text;
};

/// The library's informational lines are chatter about each connection, of use when debugging only.
struct LevelName
{
    std::string_view tag;
    LogLevel level;
};
constexpr LevelName kLevelNames[] = {{"ZOO_ERROR@", LogLevel::Error},
                                     {"ZOO_WARN@", LogLevel::Warning},
                                     {"ZOO_INFO@", LogLevel::Debug},
                                     {"ZOO_DEBUG@", LogLevel::Debug}};

/// "<time>:<process>(<thread>):ZOO_WARN@<function>@<line>: <text>\n" as its level and text.
Line Parse(std::string_view line)
{
    LogLevel level = LogLevel::Warning;
    for (const LevelName& name : kLevelNames)
    {
        const std::size_t tag = line.find(name.tag);
        if (tag == std::string_view::npos)
        {
            continue;
        }
        level = name.level;
        line.remove_prefix(tag + name.tag.size());
        const std::size_t text = line.find(": ");
        line.remove_prefix(text == std::string_view::npos ? 0 : text + 2);
        break;
    }
    const std::size_t last = line.find_last_not_of(" \r\n");
    return Line{level, std::string(line.substr(0, last + 1))};
}

class Relay
{
public:
    Relay() { zoo_set_debug_level(ZOO_LOG_LEVEL_INFO); }

    void Put(Line line)
    {
        const MutexLock lock(mutex_);
        const bool windowFull = inWindow_ >= kMostPerWindow && Clock::now() - windowBegin_ < kWindow;
        if (windowFull || lines_.size() >= kMostWaiting)
        {
            ++leftOut_;
            return;
        }
        lines_.push_back(std::move(line));
        TellReaders();
    }

    void Attach(EventLoop& loop)
    {
        const MutexLock lock(mutex_);
        readers_.push_back(Reader{&loop, false});
    }

    void Detach(EventLoop& loop)
    {
        bool last = false;
        {
            const MutexLock lock(mutex_);
            readers_.erase(std::remove_if(readers_.begin(), readers_.end(),
                                          [&](const Reader& reader) { return reader.loop == &loop; }),
                           readers_.end());
            last = readers_.empty();
        }
        if (last)
        {
            HandOn(nullptr);
        }
    }

private:
    struct Reader
    {
        EventLoop* loop;
        /// Whether a task that has not begun yet will look at the queue.
        bool told;
    };

    void TellReaders() KX_REQUIRES(mutex_)
    {
        auto told = std::count_if(readers_.begin(), readers_.end(), [](const Reader& reader) { return reader.told; });
        for (std::size_t looked = 0; looked < readers_.size() && told < kMostTold; ++looked)
        {
            next_ = (next_ + 1) % readers_.size();
            Reader& reader = readers_[next_];
            if (!reader.told)
            {
                reader.told = true;
                ++told;
                reader.loop->Post([this, loop = reader.loop] { HandOn(loop); });
            }
        }
    }

    void HandOn(const EventLoop* loop)
    {
        {
            const MutexLock lock(mutex_);
            for (Reader& reader : readers_)
            {
                reader.told = reader.told && reader.loop != loop;
            }
        }
        while (std::optional<Line> line = Take())
        {
            KX_LOG(line->level, source_) << line->text;
        }
    }

    std::optional<Line> Take()
    {
        const MutexLock lock(mutex_);
        const Clock::time_point now = Clock::now();
        if (now - windowBegin_ >= kWindow)
        {
            windowBegin_ = now;
            inWindow_ = 0;
            if (leftOut_ > 0)
            {
                ++inWindow_;
                return Line{LogLevel::Warning, "Lines left out: " + std::to_string(std::exchange(leftOut_, 0U))};
            }
        }
        if (lines_.empty())
        {
            return std::nullopt;
        }
        if (inWindow_ >= kMostPerWindow)
        {
            leftOut_ += lines_.size();
            lines_.clear();
            return std::nullopt;
        }
        ++inWindow_;
        Line line = std::move(lines_.front());
        lines_.pop_front();
        return line;
    }

    const std::shared_ptr<const logging::Source> source_ = std::make_shared<const logging::Source>("velmor.zookeeper");

    Mutex mutex_;
    std::deque<Line> lines_ KX_GUARDED_BY(mutex_);
    std::size_t leftOut_ KX_GUARDED_BY(mutex_) = 0;
    std::vector<Reader> readers_ KX_GUARDED_BY(mutex_);
    std::size_t next_ KX_GUARDED_BY(mutex_) = 0;
    Clock::time_point windowBegin_ KX_GUARDED_BY(mutex_);
    int inWindow_ KX_GUARDED_BY(mutex_) = 0;
};

/// Never destroyed: handles that are open at the end of the process keep writing while static objects go.
Relay& TheRelay()
{
    return OfThisProcess<Relay>();
}

}  // namespace

void ClientLog::OnLine(const char* line) noexcept
{
    Line parsed = Parse(line);
    if (static_cast<std::int32_t>(parsed.level) >= logging::g_minLogLevel.load(std::memory_order_relaxed))
    {
        TheRelay().Put(std::move(parsed));
    }
}

void ClientLog::Attach(EventLoop& loop)
{
    TheRelay().Attach(loop);
}

void ClientLog::Detach(EventLoop& loop)
{
    TheRelay().Detach(loop);
}

}  // namespace kx::velmor
