#include "tests/chaos/watcher.h"

#include <chrono>

namespace kx::velmor::chaos {

namespace {

constexpr std::chrono::milliseconds kLookEvery{2};

LeadershipTrack::Tell TellTo(MemberLog& log, View view)
{
    return [&log, view](int stay, Instant begin, Instant seen) { log.Leads(view, stay, begin, seen); };
}

}  // namespace

Watcher::Watcher(std::shared_ptr<const CandidateImpl> candidate, std::shared_ptr<Session> session, const RoleBook& book,
                 MemberLog& log)
    : candidate_(std::move(candidate)),
      session_(std::move(session)),
      book_(book),
      meter_(log),
      byFlag_(TellTo(log, View::Flag)),
      bySession_(TellTo(log, View::Session)),
      thread_([this] { Run(); })
{}

Watcher::~Watcher()
{
    ends_ = true;
    thread_.join();
}

void Watcher::Run()
{
    while (!ends_)
    {
        Look();
        meter_.MeasureWhenDue();
        std::this_thread::sleep_for(kLookEvery);
    }
    byFlag_.Finish();
    bySession_.Finish();
}

void Watcher::Look()
{
    const RoleBook::Stay stay = book_.Present();
    const bool flag = candidate_->IsLeader();
    // After the flag: a status taken before it would say nothing of the moment in which the flag was read.
    const SessionStatus status = session_->Status();
    const BootClock::time_point now = BootClock::now();
    if (book_.Present().number != stay.number)
    {
        // Of which stay the flag spoke cannot be told.
        return;
    }
    // The flag outlives the session in which it was set; the next session may be connected before the owner has
    // started the candidate again.
    const bool certain = flag && status.state == SessionState::Connected && status.sessionId == stay.session &&
                         status.leaseEnd && now < *status.leaseEnd;
    byFlag_.Look(flag, stay.number, ToInstant(now));
    bySession_.Look(certain, stay.number, ToInstant(now));
    if (flag != freshKept_)
    {
        freshKept_ = flag;
        keepFresh_ = flag ? session_->KeepFresh() : Registration();
    }
}

}  // namespace kx::velmor::chaos
