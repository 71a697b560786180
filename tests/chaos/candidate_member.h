#pragma once

#include "tests/chaos/member_log.h"
#include "tests/chaos/member_session.h"

#include <kx/velmor/candidate.h>
#include <kx/velmor/session.h>

#include <atomic>
#include <memory>
#include <string>

namespace kx::velmor::chaos {

/// A member with a `Candidate`, which joins again by itself.
class CandidateMember
{
public:
    /// `log` must outlive the member.
    CandidateMember(const MemberOptions& options, std::shared_ptr<Session> session, MemberLog& log);

    /// Until it is asked to leave. Closes the session.
    void Run();

private:
    CandidateOptions Options(const MemberOptions& options);
    void TakePart();
    void Fork();
    void NoteRole(Role role);

    const MemberOptions options_;
    const std::shared_ptr<Session> session_;
    MemberLog& log_;

    // Of the candidate's callbacks.

    int stay_ = 0;
    std::string node_;

    Candidate candidate_;
};

}  // namespace kx::velmor::chaos
