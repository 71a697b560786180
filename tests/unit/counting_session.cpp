#include "tests/unit/counting_session.h"

#include <algorithm>

namespace kx::velmor::testing_support {

int CountingSession::Reads() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(reads_.size());
}

int CountingSession::Count(const std::string& read) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(std::count(reads_.begin(), reads_.end(), read));
}

std::vector<std::string> CountingSession::Take()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(reads_, {});
}

void CountingSession::Before(const std::string& read, std::function<void()> task)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    tasks_[read] = {std::move(task), true};
}

void CountingSession::BeforeEach(const std::string& read, std::function<void()> task)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    tasks_[read] = {std::move(task), false};
}

void CountingSession::Note(const std::string& read) const
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        reads_.push_back(read);
    }
    RunTask(read);
}

void CountingSession::RunTask(const std::string& before) const
{
    std::function<void()> task;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto found = tasks_.find(before);
        if (found != tasks_.end())
        {
            task = found->second.run;
            if (found->second.once)
            {
                tasks_.erase(found);
            }
        }
    }
    if (task)
    {
        task();
    }
}

int CountingSession::GetChildren(std::string path, std::vector<std::string>& children) const
{
    Note("children " + path);
    return session_->GetChildren(std::move(path), children);
}

int CountingSession::Exists(std::string path, Stat* stat) const
{
    Note("exists " + path);
    return session_->Exists(std::move(path), stat);
}

std::pair<int, Connection::WatchHandle> CountingSession::Exists(std::string path, WatchCallback callback,
                                                                Stat* stat) const
{
    Note("watch " + path);
    return session_->Exists(std::move(path), std::move(callback), stat);
}

int CountingSession::GetData(std::string path, std::string& data, Stat* stat) const
{
    Note("data " + path);
    return session_->GetData(std::move(path), data, stat);
}

}  // namespace kx::velmor::testing_support
