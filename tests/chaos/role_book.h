#pragma once

#include "tests/chaos/member_log.h"

#include <cstdint>
#include <mutex>
#include <string>

namespace kx::velmor::chaos {

/// Which stay in the queue a member is in, and in what role. Changes go into its log; being told the same again does
/// not.
///
/// Threads: any. Takes no lock but its own and the log's, so that role callbacks, which hold the candidate's, may call.
class RoleBook
{
public:
    struct Stay
    {
        /// From 1; 0 before the first.
        int number = 0;
        std::int64_t session = 0;
    };

    explicit RoleBook(MemberLog& log) : log_(log) {}

    /// Another stay begins, in this session.
    void Join(std::int64_t session)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ++stay_.number;
        stay_.session = session;
        log_.Joining(stay_.number, session);
        Change("joining");
    }

    /// What a role callback has to tell.
    void Elected(const char* role)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        // A check that was under way when the node went may speak of the past.
        if (role_ != "lost" && role_ != "left")
        {
            Change(role);
        }
    }

    /// Nobody calls back a candidate that is third or later: what has joined and heard nothing follows.
    void Joined()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (role_ == "joining")
        {
            Change("follower");
        }
    }

    void Lost()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        Change("lost");
    }

    void Left()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        Change("left");
    }

    Stay Present() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return stay_;
    }

private:
    void Change(const std::string& role)
    {
        if (role_ != role)
        {
            role_ = role;
            log_.Role(stay_.number, role);
        }
    }

    MemberLog& log_;
    mutable std::mutex mutex_;
    Stay stay_;
    std::string role_;
};

}  // namespace kx::velmor::chaos
