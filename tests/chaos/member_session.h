#pragma once

#include "tests/chaos/history.h"
#include "tests/chaos/member_log.h"

#include <kx/velmor/session.h>

#include <chrono>
#include <memory>
#include <string>

namespace kx::velmor::chaos {

struct MemberOptions
{
    std::string servers;
    std::string path;
    std::string history;
    std::chrono::milliseconds sessionTimeout{1'000};
    Subject subject = Subject::Candidate;
};

enum class Request
{
    None,
    Leave,
    LeaveAndJoinAgain,
    Fork,
};

/// From now on what a member is asked by signals waits for `AwaitRequest`: SIGTERM asks to leave, SIGUSR1 to leave and
/// join again, SIGUSR2 to fork. Before any thread starts, since threads take over what is blocked.
void HoldRequests();

/// What came within this time.
Request AwaitRequest(std::chrono::milliseconds time);

/// Null when it was asked to leave before there was a session.
std::shared_ptr<Session> OpenSession(const MemberOptions& options, MemberLog& log);

}  // namespace kx::velmor::chaos
