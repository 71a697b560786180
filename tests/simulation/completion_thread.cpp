#include "tests/simulation/completion_thread.h"

#include <utility>

namespace kx::velmor::simulation {

CompletionThread::CompletionThread() : thread_([this] { Run(); }) {}

void CompletionThread::Post(Task task)
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    posted_.notify_one();
}

void CompletionThread::Interrupt()
{
    const std::lock_guard<std::mutex> lock(mutex_);
}

void CompletionThread::Await(const std::function<bool()>& done)
{
    std::unique_lock<std::mutex> lock(mutex_);
    woken_.wait(lock, done);
}

void CompletionThread::Wake()
{
    // Whoever waits looks again under the lock.
    Interrupt();
    woken_.notify_all();
}

void CompletionThread::Join()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ending_ = true;
    }
    posted_.notify_one();
    thread_.join();
}

void CompletionThread::Run()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;)
    {
        posted_.wait(lock, [this] { return ending_ || !tasks_.empty(); });
        if (tasks_.empty())
        {
            return;
        }
        const Task task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        task();
        lock.lock();
    }
}

}  // namespace kx::velmor::simulation
