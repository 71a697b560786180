#pragma once

#include "source/sync.h"

#include <kx/velmor/election_session.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace kx::velmor {

/// The listeners for the end of a session's lease.
///
/// Listeners are told often and come and go rarely, so that the list is copied whenever it changes and never when it is
/// read.
///
/// Threads: any.
class HeardListeners
{
public:
    class Listener
    {
    public:
        explicit Listener(ElectionSession::HeardListener callback);

        /// Nothing is told once it is cancelled.
        void Tell(std::int64_t sessionId, BootClock::time_point leaseEnd) const;

        /// No call begins any more; one that runs goes on. Destroys the callback, or leaves that to the call that runs.
        void Cancel();

    private:
        mutable Mutex mutex_;
        /// Empty once cancelled.
        std::shared_ptr<const ElectionSession::HeardListener> callback_ KX_GUARDED_BY(mutex_);
    };
    using Shared = std::shared_ptr<Listener>;
    using List = std::shared_ptr<const std::vector<Shared>>;

    Shared Add(ElectionSession::HeardListener callback);
    void Remove(const Shared& listener);
    /// Cancels all. This object may go with the last of them.
    void RemoveAll();

    /// As of now. Never null.
    List All() const;

private:
    mutable Mutex mutex_;
    List list_ KX_GUARDED_BY(mutex_) = std::make_shared<const std::vector<Shared>>();
};

}  // namespace kx::velmor
