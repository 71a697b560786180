#include "tests/chaos/candidate_member.h"

#include "tests/chaos/forked_observer.h"
#include "tests/chaos/sampler.h"

#include <chrono>
#include <stdexcept>
#include <utility>

namespace kx::velmor::chaos {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLook{20};
constexpr milliseconds kSignEvery{200};
/// Rejoining is what most faults end with: the sooner, the more there is to see.
constexpr milliseconds kFirstRejoin{20};
constexpr milliseconds kMostRejoin{1'000};

/// As the recipe's roles are written down.
std::string InHistory(Role role)
{
    switch (role)
    {
        case Role::Stopped:
            return "left";
        case Role::NextLeader:
            return "next";
        default:
            return ToString(role);
    }
}

}  // namespace

CandidateMember::CandidateMember(const MemberOptions& options, std::shared_ptr<Session> session, MemberLog& log)
    : options_(options), session_(std::move(session)), log_(log), candidate_(session_, Options(options))
{}

CandidateOptions CandidateMember::Options(const MemberOptions& options)
{
    CandidateOptions made;
    made.electionPath = options.path;
    made.onLeader = [this](const velmor::Leadership& leadership) { log_.Gained(leadership.Epoch()); };
    made.onLeaderLost = [this](LossReason reason) { log_.LostLead(ToString(reason)); };
    made.onNextLeader = [this] { log_.Next(); };
    made.onNextLeaderLost = [this] { log_.NextLost(); };
    made.onRoleChange = [this](Role role) { NoteRole(role); };
    made.firstRejoinDelay = kFirstRejoin;
    made.mostRejoinDelay = kMostRejoin;
    return made;
}

void CandidateMember::NoteRole(Role role)
{
    // Callbacks come late: it may be out of the queue again, or in it once more.
    const std::string node = candidate_.NodeName();
    if (!node.empty() && node != node_)
    {
        node_ = node;
        ++stay_;
        log_.Joining(stay_, session_->Status().sessionId);
        log_.Node(stay_, node, 0);
    }
    log_.Role(stay_, InHistory(role));
}

void CandidateMember::Run()
{
    {
        const Sampler sampler(candidate_, log_);
        TakePart();
    }
    session_->Close();
    AwaitObservers();
}

void CandidateMember::TakePart()
{
    candidate_.Start();
    Instant nextSign{};
    for (;;)
    {
        const Request request = AwaitRequest(kLook);
        switch (request)
        {
            case Request::None:
                break;
            case Request::Leave:
                candidate_.Stop();
                return;
            case Request::LeaveAndJoinAgain:
                candidate_.Stop();
                candidate_.Start();
                break;
            case Request::Fork:
                Fork();
                break;
        }
        if (const std::string error = candidate_.Error(); !error.empty())
        {
            throw std::runtime_error("the candidate has given up: " + error);
        }
        if (Now() >= nextSign)
        {
            nextSign = Now() + kSignEvery;
            log_.Turn();
        }
    }
}

void CandidateMember::Fork()
{
    // A session of the parent that ends now ends before the child does.
    constexpr int kTimeouts = 3;
    ForkObserver([this] { return candidate_.IsLeader(); }, options_.history, kTimeouts * options_.sessionTimeout);
}

}  // namespace kx::velmor::chaos
