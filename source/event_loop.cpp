#include "source/event_loop.h"

#include "source/exit_gate.h"

#include <optional>
#include <utility>

namespace kx::velmor {

EventLoop::~EventLoop()
{
    Finish();
    Join();
}

void EventLoop::Start(std::function<void()> main)
{
    ExitGate::Guard();
    // Held until the thread's id is known, because the first task may ask whether it is on the event thread.
    const MutexLock lock(mutex_);
    thread_ = std::thread([this, main = std::move(main)] {
        main();
        const MutexLock endLock(mutex_);
        ended_ = true;
        changed_.NotifyAll();
    });
    threadId_ = thread_.get_id();
}

void EventLoop::Run(const Idle& idle)
{
    for (;;)
    {
        const Clock::time_point wake = idle ? idle() : Clock::time_point::max();
        std::pair<Task, AtExit> task;
        {
            const MutexLock lock(mutex_);
            bool inTime = true;
            while (tasks_.empty() && !finishing_ && inTime)
            {
                if (wake == Clock::time_point::max())
                {
                    changed_.Wait(mutex_);
                }
                else
                {
                    inTime = changed_.WaitUntil(mutex_, wake);
                }
            }
            if (tasks_.empty())
            {
                if (finishing_)
                {
                    return;
                }
                continue;
            }
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        std::optional<ExitGate::Pass> pass;
        if (task.second == AtExit::Drop)
        {
            pass.emplace();
        }
        if (!pass || *pass)
        {
            task.first();
        }
    }
}

void EventLoop::Post(Task task, AtExit atExit)
{
    Enqueue(std::move(task), atExit);
    Wake();
}

void EventLoop::Enqueue(Task task, AtExit atExit)
{
    const MutexLock lock(mutex_);
    if (!finishing_)
    {
        tasks_.emplace_back(std::move(task), atExit);
    }
}

void EventLoop::Wake()
{
    changed_.NotifyAll();
}

void EventLoop::Finish()
{
    const MutexLock lock(mutex_);
    finishing_ = true;
    changed_.NotifyAll();
}

void EventLoop::Join()
{
    std::thread thread;
    bool onEventThread = false;
    {
        const MutexLock lock(mutex_);
        const bool started = threadId_ != std::thread::id();
        onEventThread = threadId_ == std::this_thread::get_id();
        while (started && !onEventThread && !ended_)
        {
            changed_.Wait(mutex_);
        }
        thread = std::move(thread_);
    }
    if (!thread.joinable())
    {
        return;
    }
    if (onEventThread)
    {
        // A thread cannot wait for itself. What it still touches, its main function owns.
        thread.detach();
        return;
    }
    thread.join();
}

bool EventLoop::OnEventThread() const
{
    const MutexLock lock(mutex_);
    return threadId_ == std::this_thread::get_id();
}

}  // namespace kx::velmor
