#pragma once

#include "source/candidate_impl.h"
#include "tests/support/journal.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_connection.h"
#include "tests/support/scripted_service.h"

#include <kx/velmor/error.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor {

/// The candidate's own mutex: that it is held, and what happens when it cannot be, shows nowhere else without waiting.
std::mutex& MutexOf(CandidateImpl& candidate);

namespace testing_support {

/// The path of the n-th node of the election "/e".
std::string Node(int n);

/// The code of the `ZooError` that `act` throws; checks its text, too. Empty when nothing is thrown.
template <typename Act>
std::optional<int> ThrownCode(Act act)
{
    try
    {
        act();
    }
    catch (const ZooError& error)
    {
        EXPECT_STREQ(zerror(error.Code()), error.what());
        return error.Code();
    }
    return std::nullopt;
}

/// One election, "/e", on a service in memory. Calls, statements and role callbacks are all in `journal`.
class CandidateTest : public ::testing::Test
{
protected:
    CandidateTest();

    /// A candidate on `connection`; its callbacks note "leader" and "next leader".
    std::shared_ptr<CandidateImpl> MakeCandidate();
    std::shared_ptr<CandidateImpl> MakeCandidate(const std::shared_ptr<ScriptedConnection>& session);

    /// Other processes' candidates: the first `count` nodes of the election.
    void AddOthers(int count);

    /// A started candidate behind `count` others. Forgets the journal.
    std::shared_ptr<CandidateImpl> StartBehind(int count);

    /// What has happened since the last time.
    std::vector<std::string> Happened() { return journal.Take(); }

    Journal journal;
    LogCapture log;
    ScriptedService service;
    std::shared_ptr<ScriptedConnection> connection;
    /// The session of the others.
    std::shared_ptr<ScriptedConnection> others;
};

}  // namespace testing_support
}  // namespace kx::velmor
