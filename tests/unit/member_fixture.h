#pragma once

#include "tests/support/await.h"
#include "tests/support/journal.h"
#include "tests/support/log_capture.h"

#include <kx/velmor/candidate.h>
#include <kx/velmor/testing/memory_service.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kx::velmor::testing_support {

constexpr std::chrono::milliseconds kMemberTimeout{9'000};

/// A candidate with a session of its own, whose callbacks are noted as "name: what".
class Member
{
public:
    using Change = std::function<void(CandidateOptions&)>;

    Member(testing::MemoryService& service, std::string name, const Change& change = {},
           std::chrono::milliseconds sessionTimeout = kMemberTimeout);

    testing::MemorySession& Session() { return *session_; }
    std::shared_ptr<testing::MemorySession> SharedSession() { return session_; }
    Candidate& operator*() { return *candidate_; }
    Candidate* operator->() { return candidate_.get(); }
    void Destroy() { candidate_ = nullptr; }

    std::vector<std::string> Lines() const { return journal_->Lines(); }
    std::vector<std::string> Take() { return journal_->Take(); }
    void Await(const std::string& line, std::size_t count = 1) const { journal_->Await(line, count); }

    /// Starts, and waits for the role.
    void Become(Role role);
    /// Of the last gain.
    Leadership LastLeadership() const;

private:
    /// Callbacks may run on after this object has gone.
    struct Shared;

    const std::shared_ptr<Journal> journal_;
    const std::shared_ptr<Shared> shared_;
    std::shared_ptr<testing::MemorySession> session_;
    std::unique_ptr<Candidate> candidate_;
};

/// An election in memory.
class MemberTest : public ::testing::Test
{
protected:
    static constexpr std::chrono::milliseconds kTimeout = kMemberTimeout;
    static constexpr std::chrono::milliseconds kLease{6'000};

    /// Starts them one after the other: a leader, the next one, followers.
    static void QueueUp(const std::vector<Member*>& members);
    /// What the queue holds, in its order, and what stands beside it.
    std::vector<std::string> Queue() const;
    std::vector<std::string> Identities() const;
    /// What a leader records until it gives the lead back; empty while there is nothing.
    std::string LeftLease() const;
    /// No node is left of anybody.
    void ExpectNobody() const;
    /// One leader, whose claim stands, and as many nodes and identities as members.
    void ExpectWhole(const std::vector<Member*>& members);
    bool Logged(const std::string& part) const;
    /// Moves the clock on, step by step, until it holds.
    void AdvanceUntil(const std::string& what, const std::function<bool()>& condition);

    Journal logJournal_;
    LogCapture log_{logJournal_};
    testing::MemoryService service_;
};

}  // namespace kx::velmor::testing_support
