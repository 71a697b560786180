#pragma once

#include "source/candidate_impl.h"
#include "tests/chaos/member_log.h"
#include "tests/chaos/member_session.h"
#include "tests/chaos/role_book.h"

#include <kx/velmor/session.h>

#include <chrono>
#include <memory>

namespace kx::velmor::chaos {

/// A member with the bare recipe: the owner of a candidate that joins again whenever that has fallen out of the queue.
class RecipeMember
{
public:
    /// `log` must outlive the member.
    RecipeMember(MemberOptions options, std::shared_ptr<Session> session, MemberLog& log);

    /// Until it is asked to leave. Closes the session.
    void Run();

private:
    void TakePart();
    bool TryToJoin();
    void TryToLeave();
    /// Whether the session in which it joined is over, or its node gone: the candidate does not join again by itself.
    bool FellOut();
    bool AskedOut(const RoleBook::Stay& stay, Instant now);

    const MemberOptions options_;
    const std::shared_ptr<Session> session_;
    MemberLog& log_;
    RoleBook book_;
    const std::shared_ptr<CandidateImpl> candidate_;
    bool known_ = false;
    Instant nextQuestion_{0};
};

}  // namespace kx::velmor::chaos
