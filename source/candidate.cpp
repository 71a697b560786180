// What programs call. In a forked child it answers by itself and leaves the core alone: see `CandidateCore::Inherited`.

#include "source/candidate_core.h"

#include <kx/velmor/candidate.h>

#include <algorithm>
#include <utility>

namespace kx::velmor {

namespace {

constexpr const char* kInheritedError =
    "This process was forked from the one that made the candidate: it takes a session and a candidate of its own";

}  // namespace

const char* ToString(Role role) noexcept
{
    switch (role)
    {
        case Role::Stopped:
            return "stopped";
        case Role::Joining:
            return "joining";
        case Role::Follower:
            return "follower";
        case Role::NextLeader:
            return "next leader";
        case Role::Leader:
            return "leader";
    }
    return "?";
}

const char* ToString(LossReason reason) noexcept
{
    switch (reason)
    {
        case LossReason::Left:
            return "left";
        case LossReason::SessionExpired:
            return "session expired";
        case LossReason::NodeDeleted:
            return "node deleted";
        case LossReason::LeaseRanOut:
            return "lease ran out";
        case LossReason::Displaced:
            return "displaced";
        case LossReason::CallbackFailed:
            return "callback failed";
    }
    return "?";
}

Leadership::Leadership(std::weak_ptr<CandidateCore> core, std::shared_ptr<Lease> lease, std::uint64_t stay,
                       std::int64_t epoch)
    : core_(std::move(core)), lease_(std::move(lease)), stay_(stay), epoch_(epoch)
{}

bool Leadership::Stands() const noexcept
{
    return lease_->Holds(stay_);
}

GuardedWrite Leadership::Write(const std::vector<Operation>& operations) const
{
    const std::shared_ptr<CandidateCore> core = core_.lock();
    return core && !core->Inherited() ? core->Write(stay_, operations)
                                      : GuardedWrite{GuardedWrite::Outcome::NotLeading};
}

Candidate::Candidate(std::shared_ptr<ElectionSession> session, CandidateOptions options)
    : core_(std::make_shared<CandidateCore>(std::move(session), std::move(options)))
{}

Candidate::~Candidate()
{
    if (core_->Inherited())
    {
        Abandon(core_);
        return;
    }
    core_->ShutDown();
}

void Candidate::Start()
{
    // In a forked child `Error` tells why not.
    if (!core_->Inherited())
    {
        core_->Start();
    }
}

void Candidate::Stop()
{
    if (!core_->Inherited())
    {
        core_->Stop();
    }
}

bool Candidate::IsLeader() const noexcept
{
    return core_->IsLeader();
}

std::chrono::milliseconds Candidate::LeaseLeft() const noexcept
{
    return std::chrono::floor<std::chrono::milliseconds>(std::max(core_->LeaseLeft(), BootClock::duration::zero()));
}

std::optional<Leadership> Candidate::CurrentLeadership() const
{
    return core_->Inherited() ? std::nullopt : core_->CurrentLeadership();
}

Role Candidate::CurrentRole() const
{
    return core_->Inherited() ? Role::Stopped : core_->CurrentRole();
}

bool Candidate::WaitForRole(Role role, std::chrono::milliseconds timeout) const
{
    return core_->Inherited() ? role == Role::Stopped : core_->WaitForRole(role, timeout);
}

Role Candidate::WaitForChange(Role from, std::chrono::milliseconds timeout) const
{
    return core_->Inherited() ? Role::Stopped : core_->WaitForChange(from, timeout);
}

std::string Candidate::NodeName() const
{
    return core_->Inherited() ? std::string() : core_->NodeName();
}

const std::string& Candidate::Identity() const noexcept
{
    return core_->Identity();
}

std::string Candidate::Error() const
{
    return core_->Inherited() ? kInheritedError : core_->Error();
}

}  // namespace kx::velmor
