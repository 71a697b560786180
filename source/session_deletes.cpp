// Deletions that go on until their outcome is known.

#include "source/session_core.h"
#include "source/session_log.h"

#include <algorithm>
#include <utility>

namespace kx::velmor {

namespace {

using logging::LogLevel;

/// A delete has no answer yet that tells whether the node is gone.
bool OutcomeUnknown(int rc)
{
    return rc == ZCONNECTIONLOSS || rc == ZOPERATIONTIMEOUT || rc == ZINVALIDSTATE || rc == ZSESSIONEXPIRED ||
           rc == ZCLOSING;
}

constexpr std::chrono::milliseconds kFirstDelay{50};
constexpr std::chrono::milliseconds kMostDelay{2'000};
constexpr int kMostDoublings = 6;

std::chrono::milliseconds Delay(int attempts)
{
    return std::min(kFirstDelay * (1 << std::min(attempts, kMostDoublings)), kMostDelay);
}

}  // namespace

int SessionCore::GuaranteedDelete(const std::string& path, Clock::time_point deadline)
{
    const auto deletion = std::make_shared<PendingDelete>(path);
    {
        const MutexLock lock(mutex_);
        if (phase_ == SessionState::Closed)
        {
            return ZCLOSING;
        }
        pendingDeletes_.push_back(deletion);
    }
    SubmitDeletes(false);
    // While the request is on its way.
    DropReleasedWatches();

    const MutexLock lock(mutex_);
    bool inTime = true;
    while (!deletion->done && inTime)
    {
        inTime = changed_.WaitUntil(mutex_, deadline);
    }
    deletion->abandoned = !deletion->done;
    return deletion->rc;
}

void SessionCore::SubmitDeletes(bool dueOnly)
{
    {
        const MutexLock lock(mutex_);
        if (pendingDeletes_.empty())
        {
            return;
        }
    }
    const MutexLock order(submittingDeletes_);
    std::shared_ptr<ClientHandle> handle;
    PendingDeletes ready;
    {
        const MutexLock lock(mutex_);
        if (phase_ != SessionState::Connected || !handle_)
        {
            return;
        }
        handle = handle_;
        const Clock::time_point now = Clock::now();
        for (const std::shared_ptr<PendingDelete>& deletion : pendingDeletes_)
        {
            if (!deletion->inFlight && (!dueOnly || deletion->retryAt <= now))
            {
                deletion->inFlight = true;
                ready.push_back(deletion);
            }
        }
    }
    for (const std::shared_ptr<PendingDelete>& deletion : ready)
    {
        const auto request = std::make_shared<Request>([weak = weak_from_this(), deletion](int rc) {
            if (const auto self = weak.lock())
            {
                self->OnDeleted(deletion, rc);
            }
        });
        const int rc = handle->Delete(request, deletion->path);
        if (rc != ZOK)
        {
            OnDeleted(deletion, rc);
        }
    }
}

void SessionCore::OnDeleted(const std::shared_ptr<PendingDelete>& deletion, int rc)
{
    {
        const MutexLock lock(mutex_);
        if (deletion->done)
        {
            return;
        }
        deletion->inFlight = false;
        deletion->rc = rc;
        ++deletion->attempts;
        if (OutcomeUnknown(rc))
        {
            deletion->retryAt = Clock::now() + Delay(deletion->attempts);
            EnsureKeeper();
        }
        else
        {
            FinishDelete(*deletion, rc);
            pendingDeletes_.erase(std::remove(pendingDeletes_.begin(), pendingDeletes_.end(), deletion),
                                  pendingDeletes_.end());
        }
    }
    changed_.NotifyAll();
}

void SessionCore::FinishDelete(PendingDelete& deletion, int rc)
{
    deletion.done = true;
    deletion.rc = rc;
    if (!deletion.abandoned)
    {
        return;
    }
    // Nobody waits for the code any more.
    const LogLevel level = rc == ZOK || rc == ZNONODE ? LogLevel::Info : LogLevel::Warning;
    events_.Post([level, rc, path = deletion.path, attempts = deletion.attempts] {
        KX_LOG(level, SessionLog()) << "Pending deletion ended: " << zerror(rc) << ", attempts " << attempts
                                    << ", node " << path;
    });
}

Clock::time_point SessionCore::NextDelete() const
{
    // Those under way end by themselves and notify.
    Clock::time_point next = Clock::now() + kMostDelay;
    for (const std::shared_ptr<PendingDelete>& deletion : pendingDeletes_)
    {
        if (!deletion->inFlight)
        {
            next = std::min(next, deletion->retryAt);
        }
    }
    return next;
}

void SessionCore::FinishDeletes(int rc)
{
    for (const std::shared_ptr<PendingDelete>& deletion : pendingDeletes_)
    {
        FinishDelete(*deletion, rc);
    }
    pendingDeletes_.clear();
    changed_.NotifyAll();
}

}  // namespace kx::velmor
