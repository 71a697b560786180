#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace kx::velmor::simulation {

/// The thread that runs the callbacks of one handle, in order.
class CompletionThread
{
public:
    using Task = std::function<void()>;

    CompletionThread();
    /// `Join` comes first.
    ~CompletionThread() = default;
    CompletionThread(const CompletionThread&) = delete;
    CompletionThread& operator=(const CompletionThread&) = delete;

    /// Also from events of the machine.
    void Post(Task task);
    /// A caller may be interrupted here, as by the client library's locks.
    void Interrupt();
    /// Waits until `done`. `Wake` has it looked at again.
    void Await(const std::function<bool()>& done);
    void Wake();
    /// Runs what was posted, and ends the thread.
    void Join();

private:
    void Run();

    std::mutex mutex_;
    std::condition_variable posted_;
    std::condition_variable woken_;
    std::deque<Task> tasks_;
    bool ending_ = false;
    std::thread thread_;
};

}  // namespace kx::velmor::simulation
