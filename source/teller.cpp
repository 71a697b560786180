#include "source/teller.h"

#include "source/candidate_log.h"
#include "source/exit_gate.h"

#include <exception>
#include <utility>

namespace kx::velmor {

namespace {

using logging::LogLevel;

void RunTask(const Teller::Task& task)
{
    const ExitGate::Pass pass;
    if (!pass)
    {
        return;
    }
    try
    {
        task();
    }
    catch (const std::exception& error)
    {
        KX_LOG(LogLevel::Error, ElectionLog()) << "A candidate's callback threw: " << error.what();
    }
    catch (...)
    {
        KX_LOG(LogLevel::Error, ElectionLog()) << "A candidate's callback threw something that is no std::exception";
    }
}

}  // namespace

void Teller::Start(std::function<void()> main)
{
    ExitGate::Guard();
    // Held until the thread's id is known, because the first task may ask for it.
    const MutexLock lock(mutex_);
    thread_ = std::thread(std::move(main));
    threadId_ = thread_.get_id();
}

void Teller::Run(const Watchman& watchman)
{
    for (;;)
    {
        const Clock::time_point end = Clock::now() + watchman();
        Task task;
        {
            const MutexLock lock(mutex_);
            while (tasks_.empty() && !awake_ && !finishing_ && changed_.WaitUntil(mutex_, end))
            {}
            awake_ = false;
            if (tasks_.empty())
            {
                if (finishing_)
                {
                    ended_ = true;
                    return;
                }
                continue;
            }
            task = std::move(tasks_.front());
            tasks_.pop_front();
            running_ = true;
        }
        RunTask(task);
        // What it holds may go here, and call back.
        task = nullptr;
        const MutexLock lock(mutex_);
        running_ = false;
        changed_.NotifyAll();
    }
}

void Teller::Tell(Task task)
{
    const MutexLock lock(mutex_);
    if (ended_)
    {
        return;
    }
    tasks_.push_back(std::move(task));
    changed_.NotifyAll();
}

void Teller::Wake()
{
    const MutexLock lock(mutex_);
    awake_ = true;
    changed_.NotifyAll();
}

bool Teller::Silent() const
{
    const MutexLock lock(mutex_);
    return tasks_.empty() && !running_;
}

void Teller::AwaitSilence()
{
    const MutexLock lock(mutex_);
    while (!tasks_.empty() || running_)
    {
        changed_.Wait(mutex_);
    }
}

void Teller::Finish()
{
    const MutexLock lock(mutex_);
    finishing_ = true;
    changed_.NotifyAll();
}

void Teller::Join()
{
    std::thread thread;
    {
        const MutexLock lock(mutex_);
        thread = std::move(thread_);
    }
    if (!thread.joinable())
    {
        return;
    }
    if (thread.get_id() == std::this_thread::get_id())
    {
        // A thread cannot wait for itself. What it still touches, its main function owns.
        thread.detach();
        return;
    }
    thread.join();
}

bool Teller::OnThread() const
{
    const MutexLock lock(mutex_);
    return threadId_ == std::this_thread::get_id();
}

}  // namespace kx::velmor
