#include "benchmarks/drivers/driver.h"

#include <exception>
#include <iostream>
#include <stdexcept>
#include <utility>

namespace kx::velmor::benchmarks {

Driver::Driver(MakeContender make, Election election, std::size_t contenders, std::size_t fillers)
    : election_(std::move(election)), handle_(election_.servers, election_.sessionTimeout)
{
    handle_.EnsurePath(election_.path);
    if (fillers > 0)
    {
        handle_.CreateAll(std::vector<std::string>(fillers, election_.path + "/c-"), ZOO_EPHEMERAL | ZOO_SEQUENCE);
    }
    for (std::size_t i = 0; i < contenders; ++i)
    {
        members_.push_back({make(election_, [this, i] { OnGained(i); })});
    }
}

Driver::~Driver()
{
    // From the back, so that nobody comes to lead on the way.
    for (; !queue_.empty(); queue_.pop_back())
    {
        try
        {
            members_[queue_.back()].contender->Leave();
        }
        catch (const std::exception& error)
        {
            std::cerr << "velmor_bench_driver: " << error.what() << '\n';
        }
    }
}

void Driver::OnGained(std::size_t member)
{
    const Clock::time_point now = Clock::now();
    const std::lock_guard<std::mutex> lock(mutex_);
    if (leader_ == member)
    {
        return;
    }
    leader_ = member;
    since_ = now;
    if (reporting_)
    {
        std::cout << "leading " << std::chrono::nanoseconds(now.time_since_epoch()).count() << std::endl;
    }
    gained_.notify_all();
}

Clock::time_point Driver::AwaitGain(std::size_t member)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!gained_.wait_for(lock, kPatience, [&] { return leader_ == member; }))
    {
        throw std::runtime_error("nobody came to lead");
    }
    return since_;
}

void Driver::Enqueue(std::size_t member)
{
    members_[member].contender->Join();
    queue_.push_back(member);
}

void Driver::JoinAll()
{
    for (std::size_t i = 0; i < members_.size(); ++i)
    {
        Enqueue(i);
    }
    if (!queue_.empty())
    {
        AwaitGain(queue_.front());
    }
}

void Driver::StandBy()
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        reporting_ = true;
    }
    Enqueue(0);
}

std::chrono::nanoseconds Driver::Leave()
{
    if (queue_.size() < 2)
    {
        throw std::runtime_error("there is nobody to take over");
    }
    const std::size_t leaving = queue_.front();
    const std::size_t next = queue_[1];
    {
        // Whatever was said before is not about this.
        const std::lock_guard<std::mutex> lock(mutex_);
        leader_.reset();
    }
    const Clock::time_point begin = Clock::now();
    members_[leaving].contender->Leave();
    const Clock::time_point end = AwaitGain(next);
    queue_.pop_front();
    outside_ = leaving;
    return end - begin;
}

void Driver::JoinAgain()
{
    if (!outside_)
    {
        throw std::runtime_error("nobody has left");
    }
    Enqueue(*std::exchange(outside_, std::nullopt));
}

std::chrono::nanoseconds Driver::Join()
{
    if (members_.empty() || !queue_.empty())
    {
        throw std::runtime_error("there is nobody who is not in the queue");
    }
    const Clock::time_point begin = Clock::now();
    members_.front().contender->Join();
    const Clock::time_point end = Clock::now();
    members_.front().contender->Leave();
    {
        // It may lead again.
        const std::lock_guard<std::mutex> lock(mutex_);
        leader_.reset();
    }
    return end - begin;
}

std::chrono::nanoseconds Driver::LookAtAll() const
{
    const std::vector<std::string> queue = handle_.Children(election_.path);
    const Clock::time_point begin = Clock::now();
    for (const std::string& node : queue)
    {
        const std::string path = election_.path + "/" + node;
        Insist(zoo_exists(handle_.Get(), path.c_str(), 0, nullptr), "look at " + path);
    }
    return Clock::now() - begin;
}

}  // namespace kx::velmor::benchmarks
