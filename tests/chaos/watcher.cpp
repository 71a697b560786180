#include "tests/chaos/watcher.h"

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace kx::velmor::chaos {

namespace {

constexpr std::chrono::milliseconds kLookEvery{2};
constexpr std::chrono::seconds kMeasureEvery{1};

std::int64_t Entries(const char* directory)
{
    const std::filesystem::directory_iterator entries(directory);
    return std::distance(begin(entries), end(entries));
}

Resources Measure(Instant at)
{
    std::int64_t size = 0;
    std::int64_t resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    const std::int64_t pageKilobytes = ::sysconf(_SC_PAGESIZE) / 1024;
    // The descriptor with which they are counted does not count.
    return {at, resident * pageKilobytes, Entries("/proc/self/task"), Entries("/proc/self/fd") - 1};
}

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
      log_(log),
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
    Instant measured{};
    while (!ends_)
    {
        Look();
        const Instant now = Now();
        if (now - measured >= kMeasureEvery)
        {
            measured = now;
            log_.Consumption(Measure(now));
        }
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
                         status.lastHeard && now < *status.lastHeard + status.negotiatedTimeout;
    byFlag_.Look(flag, stay.number, ToInstant(now));
    bySession_.Look(certain, stay.number, ToInstant(now));
    if (flag != freshKept_)
    {
        freshKept_ = flag;
        keepFresh_ = flag ? session_->KeepFresh() : Registration();
    }
}

}  // namespace kx::velmor::chaos
