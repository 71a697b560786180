#pragma once

#include "benchmarks/drivers/contender.h"
#include "benchmarks/drivers/raw_handle.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor::benchmarks {

/// A queue of contenders in this process, and what can be asked of it. Threads: one for all verbs, which throw
/// `std::exception`.
class Driver
{
public:
    /// Opens as many sessions, and makes `fillers` nodes that stand in the queue and do nothing.
    Driver(MakeContender make, Election election, std::size_t contenders, std::size_t fillers);
    /// Takes everybody back.
    ~Driver();

    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;

    /// Everybody joins, one after the other; waits until the first leads.
    void JoinAll();
    /// The first one joins, and each time it leads that is printed.
    void StandBy();

    /// The first leaves: from just before that to the next one's callback.
    std::chrono::nanoseconds Leave();
    /// Who left joins again, at the back.
    void JoinAgain();
    /// How long the first one, who is in no queue yet, takes to join behind the fillers. It leaves again.
    std::chrono::nanoseconds Join();

    /// How long it takes to ask the servers for each node of the queue, one after the other, with the client library
    /// alone.
    std::chrono::nanoseconds LookAtAll() const;

private:
    struct Member
    {
        std::unique_ptr<Contender> contender;
        bool queued = false;
    };

    void OnGained(std::size_t member);
    Clock::time_point AwaitGain(std::size_t member);
    void Enqueue(std::size_t member);

    const Election election_;
    const RawHandle handle_;

    std::mutex mutex_;
    std::condition_variable gained_;
    /// Who led last, and since when. A recipe that checks again may say so more than once.
    std::optional<std::size_t> leader_;
    Clock::time_point since_;
    bool reporting_ = false;

    std::deque<std::size_t> queue_;
    std::optional<std::size_t> outside_;
    std::vector<Member> members_;
};

}  // namespace kx::velmor::benchmarks
