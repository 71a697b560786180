#pragma once

#include "source/sync.h"

#include <kx/velmor/election_session.h>

#include <memory>
#include <vector>

namespace kx::velmor {

/// Who is told where a session stands.
///
/// Threads: any, except `Tell`, for the event thread.
class StateListeners
{
public:
    class Listener
    {
    public:
        explicit Listener(ElectionSession::StateListener callback);

        /// Nothing is told once it is cancelled, or once it was told that the session is closed. What the callback
        /// throws is logged.
        void Tell(const SessionStatus& status);

        /// No call begins any more; one that runs goes on. Destroys the callback, or leaves that to the call that runs.
        void Cancel();

    private:
        Mutex mutex_;
        /// Empty once nothing more is told.
        std::shared_ptr<const ElectionSession::StateListener> callback_ KX_GUARDED_BY(mutex_);
    };
    using Shared = std::shared_ptr<Listener>;

    Shared Add(ElectionSession::StateListener callback);
    void Remove(const Shared& listener);

    /// As of now.
    std::vector<Shared> All() const;

private:
    mutable Mutex mutex_;
    std::vector<Shared> listeners_ KX_GUARDED_BY(mutex_);
};

}  // namespace kx::velmor
