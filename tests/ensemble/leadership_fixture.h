#pragma once

#include "process/child_process.h"
#include "tests/ensemble/lead_record.h"
#include "tests/support/await.h"

#include <kx/velmor/candidate.h>
#include <kx/velmor/session.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace kx::velmor::testing_support {

/// A candidate that joins once, and a thread that asks it whether it leads, every hundred microseconds.
class WatchedMember
{
public:
    /// Opens the session and joins.
    WatchedMember(const std::string& servers, const std::string& electionPath,
                  std::chrono::milliseconds sessionTimeout);
    ~WatchedMember();

    WatchedMember(const WatchedMember&) = delete;
    WatchedMember& operator=(const WatchedMember&) = delete;

    Session& GetSession() { return *session_; }
    bool IsLeader() const { return candidate_.IsLeader(); }
    Role CurrentRole() const { return candidate_.CurrentRole(); }
    bool WaitForRole(Role role) const { return candidate_.WaitForRole(role, kPatience); }
    /// Waits until the servers have granted the session this timeout, or the candidate has stopped leading.
    void AwaitTimeout(std::chrono::milliseconds timeout) const;
    /// Waits until the lease ends later than a moment ago; false when it ends instead.
    bool AwaitExtension() const;

    LeadRecord Record() const;
    /// Waits until an answer from after `time` is in the record.
    void AwaitAskedAfter(BootClock::time_point time) const;

private:
    void Watch();

    const std::shared_ptr<Session> session_;
    Candidate candidate_;
    mutable std::mutex mutex_;
    LeadRecord record_;
    std::atomic<bool> ends_{false};
    std::thread thread_;
};

/// The program `leadership_process`, which has one candidate.
class LeadershipProcess
{
public:
    /// `childDoes` is "ask" or "destroy".
    LeadershipProcess(const std::string& childDoes, const std::string& servers, const std::string& electionPath,
                      std::chrono::milliseconds sessionTimeout);
    /// Kills it, and the child that it has forked.
    ~LeadershipProcess();

    LeadershipProcess(const LeadershipProcess&) = delete;
    LeadershipProcess& operator=(const LeadershipProcess&) = delete;

    /// What a process has told of its answers.
    struct Answers
    {
        /// When it was last asked.
        BootClock::time_point asked{};
        /// Empty when it was never told that it leads.
        std::optional<Lead> lead{};
    };
    Answers OfParent() const { return Of("parent"); }
    Answers OfChild() const { return Of("child"); }
    /// Whether its newest answer was yes.
    bool ParentLeads() const;

    /// When the lease was last extended; the clock's beginning when it never was.
    BootClock::time_point Extended() const;

    /// Forks, and waits until the child has asked for the first time.
    void Fork();
    bool ChildEnded() const;

    process::ChildProcess& Process() { return *process_; }

private:
    void Take(const std::string& line);
    Answers Of(const std::string& name) const;

    mutable std::mutex mutex_;
    std::map<std::string, Answers> answers_;
    BootClock::time_point extended_{};
    int child_ = 0;
    bool childEnded_ = false;
    std::optional<process::ChildProcess> process_;
};

/// Expects that the two are known and do not overlap.
void ExpectApart(const std::optional<Lead>& first, const std::optional<Lead>& second);

/// Repeats `attempt`, with an election path for each, until it returns true: the machine was fast enough to bring about
/// what is tested. Fails when it never was.
void Produce(const std::function<bool(const std::string& electionPath)>& attempt);

}  // namespace kx::velmor::testing_support
