#include "benchmarks/drivers/event_rate.h"

#include "benchmarks/drivers/raw_handle.h"

#include <kx/velmor/session.h>

#include <condition_variable>
#include <mutex>
#include <stdexcept>

namespace kx::velmor::benchmarks {

namespace {

class Countdown
{
public:
    explicit Countdown(std::size_t count) : left_(count) {}

    void Count()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (--left_ == 0)
        {
            end_ = Clock::now();
            done_.notify_all();
        }
    }

    Clock::time_point AwaitEnd()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!done_.wait_for(lock, kPatience, [this] { return left_ == 0; }))
        {
            throw std::runtime_error("events are missing: " + std::to_string(left_));
        }
        return end_;
    }

private:
    std::mutex mutex_;
    std::condition_variable done_;
    std::size_t left_;
    Clock::time_point end_;
};

/// The nodes that are watched, and who makes and deletes them.
class Scene
{
public:
    Scene(const Election& election, std::size_t events) : maker_(election.servers, election.sessionTimeout)
    {
        for (std::size_t i = 0; i < events; ++i)
        {
            paths_.push_back(election.path + "/watched-" + std::to_string(i));
        }
        maker_.CreateAll(paths_, ZOO_EPHEMERAL);
    }

    const std::vector<std::string>& Paths() const { return paths_; }

    double Rate(Countdown& events) const
    {
        const Clock::time_point begin = Clock::now();
        maker_.DeleteAll(paths_);
        const std::chrono::duration<double> took = events.AwaitEnd() - begin;
        return static_cast<double>(paths_.size()) / took.count();
    }

private:
    const RawHandle maker_;
    std::vector<std::string> paths_;
};

void OnEvent(zhandle_t*, int type, int, const char*, void* context)
{
    if (type == ZOO_DELETED_EVENT)
    {
        static_cast<Countdown*>(context)->Count();
    }
}

}  // namespace

double SessionEventsPerSecond(const Election& election, std::size_t events)
{
    const Scene scene(election, events);
    Countdown countdown(events);
    const std::shared_ptr<Session> session = Session::Open({election.servers, {}, election.sessionTimeout});
    std::vector<Connection::WatchHandle> watches;
    for (const std::string& path : scene.Paths())
    {
        auto [rc, watch] = session->Exists(
            path,
            [&](int type, int, const std::string&) {
                if (type == ZOO_DELETED_EVENT)
                {
                    countdown.Count();
                }
            },
            nullptr);
        Insist(rc, "watch " + path);
        watches.push_back(std::move(watch));
    }
    const double rate = scene.Rate(countdown);
    session->Close();
    return rate;
}

double FloorEventsPerSecond(const Election& election, std::size_t events)
{
    const Scene scene(election, events);
    Countdown countdown(events);
    const RawHandle watcher(election.servers, election.sessionTimeout);
    for (const std::string& path : scene.Paths())
    {
        Insist(zoo_wexists(watcher.Get(), path.c_str(), &OnEvent, &countdown, nullptr), "watch " + path);
    }
    return scene.Rate(countdown);
}

}  // namespace kx::velmor::benchmarks
