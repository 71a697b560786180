#include "process/spawner.h"

#include <signal.h>

#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <thread>
#include <utility>

namespace kx::velmor::process {

namespace {

class Spawner
{
public:
    static Spawner& Instance()
    {
        // Never destroyed: children live until the process ends, so does the thread.
        static Spawner* const spawner = new Spawner;
        return *spawner;
    }

    void Run(std::packaged_task<void()> task)
    {
        std::future<void> done = task.get_future();
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            tasks_.push_back(std::move(task));
        }
        arrived_.notify_one();
        done.get();
    }

private:
    Spawner()
    {
        // The program's signals are for its own threads.
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        std::thread([this] { Loop(); }).detach();
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    [[noreturn]] void Loop()
    {
        while (true)
        {
            std::packaged_task<void()> task;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                arrived_.wait(lock, [this] { return !tasks_.empty(); });
                task = std::move(tasks_.front());
                tasks_.pop_front();
            }
            task();
        }
    }

    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<std::packaged_task<void()>> tasks_;
};

}  // namespace

void RunOnSpawner(const std::function<void()>& task)
{
    Spawner::Instance().Run(std::packaged_task<void()>(task));
}

}  // namespace kx::velmor::process
