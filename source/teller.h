#pragma once

#include "source/sync.h"

#include <chrono>
#include <deque>
#include <functional>
#include <thread>

namespace kx::velmor {

/// The thread that runs a candidate's callbacks, one at a time, in the order of `Tell`, and in between looks after what
/// becomes due by the clock alone.
///
/// Threads: any, as far as nothing else is said.
class Teller
{
public:
    using Task = std::function<void()>;
    /// Does what is due and returns after how long, at most, to look again.
    using Watchman = std::function<std::chrono::milliseconds()>;

    Teller() = default;
    ~Teller() = default;
    Teller(const Teller&) = delete;
    Teller& operator=(const Teller&) = delete;

    /// Starts the thread, which runs `main` and ends with it; `main` calls `Run` and owns this object. Once.
    /// Throws `std::system_error` when there is no thread to be had.
    void Start(std::function<void()> main);

    /// Runs tasks, and `watchman` before each wait, until `Finish` has been called and no task is left. What tasks
    /// throw is logged. For the thread of `Start`.
    void Run(const Watchman& watchman);

    /// Does not block, beyond the queue's own lock. What is told after `Run` has ended is dropped.
    void Tell(Task task);

    /// The watchman has to look now. Does not block, beyond the queue's own lock.
    void Wake();

    /// Whether all tasks have run.
    bool Silent() const;

    /// Waits for that. Not for the thread of `Start`.
    void AwaitSilence();

    void Finish();

    /// Waits until `main` is through; on its thread it waits for nothing and leaves the thread to end alone. After
    /// `Finish`. Does nothing when it was not started.
    void Join();

    bool OnThread() const;

private:
    mutable Mutex mutex_;
    CondVar changed_;
    std::deque<Task> tasks_ KX_GUARDED_BY(mutex_);
    bool running_ KX_GUARDED_BY(mutex_) = false;
    bool awake_ KX_GUARDED_BY(mutex_) = false;
    bool finishing_ KX_GUARDED_BY(mutex_) = false;
    bool ended_ KX_GUARDED_BY(mutex_) = false;
    std::thread::id threadId_ KX_GUARDED_BY(mutex_);
    std::thread thread_ KX_GUARDED_BY(mutex_);
};

}  // namespace kx::velmor
