#pragma once

#include "source/candidate_impl.h"
#include "tests/chaos/leadership_track.h"
#include "tests/chaos/member_log.h"
#include "tests/chaos/meter.h"
#include "tests/chaos/role_book.h"

#include <kx/velmor/registration.h>
#include <kx/velmor/session.h>

#include <atomic>
#include <memory>
#include <thread>

namespace kx::velmor::chaos {

/// Looks every two milliseconds whether a candidate leads, by its flag and by the session's view, and every second at
/// what the process uses, on a thread of its own. Keeps the session's view fresh while the flag says that it leads.
class Watcher
{
public:
    /// `book` and `log` must outlive the watcher.
    Watcher(std::shared_ptr<const CandidateImpl> candidate, std::shared_ptr<Session> session, const RoleBook& book,
            MemberLog& log);
    /// The last looks are in the log afterwards.
    ~Watcher();

    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;

private:
    void Run();
    void Look();

    const std::shared_ptr<const CandidateImpl> candidate_;
    const std::shared_ptr<Session> session_;
    const RoleBook& book_;
    Meter meter_;
    LeadershipTrack byFlag_;
    LeadershipTrack bySession_;
    bool freshKept_ = false;
    Registration keepFresh_;
    std::atomic<bool> ends_{false};
    std::thread thread_;
};

}  // namespace kx::velmor::chaos
