#pragma once

#include "source/sync.h"

#include <deque>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

namespace kx::velmor {

/// The session's event thread and the queue in front of it: tasks run one at a time, in the order of `Post`.
///
/// Threads: any, as far as nothing else is said.
class EventLoop
{
public:
    using Task = std::function<void()>;

    /// What becomes of a task while the process exits (see `ExitGate`).
    enum class AtExit
    {
        Drop,
        Run,
    };

    EventLoop() = default;
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    /// Starts the thread, which runs `main` and ends with it; `main` calls `Run` and owns this object. Once.
    /// Throws `std::system_error` when there is no thread to be had.
    void Start(std::function<void()> main);

    /// Does what is due and returns when to call it again.
    using Idle = std::function<Clock::time_point()>;

    /// Runs tasks until `Finish` has been called and the queue is empty. Calls `idle` before each task and each wait.
    /// For the event thread.
    void Run(const Idle& idle = {});

    /// Does not block, beyond the queue's own lock. Tasks posted after `Finish` are dropped.
    void Post(Task task, AtExit atExit = AtExit::Drop);

    /// `Post` in two steps, for who holds a lock that the task takes: woken under it, the event thread would only wait
    /// for it, and be woken a second time. The object must outlive `Wake`.
    void Enqueue(Task task, AtExit atExit = AtExit::Drop);
    void Wake();

    /// Lets the thread end when it has run what is queued.
    void Finish();

    /// Waits until `main` is through, also when another thread waits already; on the event thread it waits for nothing
    /// and leaves the thread to end alone. After `Finish`.
    void Join();

    bool OnEventThread() const;

private:
    mutable Mutex mutex_;
    CondVar changed_;
    std::deque<std::pair<Task, AtExit>> tasks_ KX_GUARDED_BY(mutex_);
    bool finishing_ KX_GUARDED_BY(mutex_) = false;
    bool ended_ KX_GUARDED_BY(mutex_) = false;
    std::thread::id threadId_ KX_GUARDED_BY(mutex_);
    /// Empty once somebody joins or has detached it.
    std::thread thread_ KX_GUARDED_BY(mutex_);
};

}  // namespace kx::velmor
