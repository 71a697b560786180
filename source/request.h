#pragma once

#include "source/sync.h"

#include <zookeeper/zookeeper.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor {

/// One asynchronous call and its answer, shared by the thread that waits and the client library's threads.
///
/// Whoever finishes it first decides the code; what comes later is ignored. The results below the code are written
/// before the request is finished and belong to the waiting thread afterwards.
class Request
{
public:
    /// Called once, when the request is finished, on the finishing thread and with no lock held. Must not block.
    using Listener = std::function<void(int rc)>;

    Request() = default;
    explicit Request(Listener listener) : listener_(std::move(listener)) {}
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    /// Waits for the answer. `ZOPERATIONTIMEOUT` when there is none by the deadline; the request is abandoned then.
    int Await(Clock::time_point deadline);

    /// Finishes the request, with results that `store` writes, unless it is finished or abandoned already.
    /// Returns false when nobody waits for it any more. The caller must hold a reference, since who waits may let go of
    /// theirs before this returns.
    bool Finish(int rc, const std::function<void(Request&)>& store = {});

    /// Results, valid after `Await` returned `ZOK`.
    std::string createdPath;
    Stat stat{};
    std::vector<std::string> children;
    std::string data;
    /// One per operation of a transaction; empty for those that create nothing.
    std::vector<std::string> createdPaths;

    /// Of a transaction that was refused: for which operation. Valid after `Await` returned an answer's code.
    std::optional<std::size_t> refused;

private:
    enum class Phase
    {
        Pending,
        Finished,
        Abandoned,
    };

    Mutex mutex_;
    CondVar finished_;
    Phase phase_ KX_GUARDED_BY(mutex_) = Phase::Pending;
    int rc_ KX_GUARDED_BY(mutex_) = ZOK;
    const Listener listener_;
};

}  // namespace kx::velmor
