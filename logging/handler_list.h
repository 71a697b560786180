#pragma once

#include "annotated_mutex.h"

#include <kx/logging/default_library.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <utility>

namespace kx::logging::details {

/// The handlers, in the order in which they were added, and who is in them.
///
/// The lock is a leaf: it is never held while a handler runs or while something that a handler captured is destroyed.
class HandlerList
{
public:
    /// With the standard error handler alone.
    HandlerList();

    HandlerId Add(Handler handler) KX_EXCLUDES(mutex_);
    void AddStderr() KX_EXCLUDES(mutex_);

    /// See `RemoveHandler`.
    void Remove(HandlerId id) KX_EXCLUDES(mutex_);

    /// Runs the handlers one after another on the calling thread.
    void Deliver(const Record& record) noexcept KX_EXCLUDES(mutex_);

private:
    struct Entry
    {
        Entry(Handler aHandler, bool aBuiltIn) : builtIn(aBuiltIn), handler(std::move(aHandler)) {}

        const bool builtIn;
        std::atomic<bool> failureReported{false};

        // Guarded by the list's mutex.

        /// Runs under way. The entry stays in the map, and `handler` as it is, while there are any.
        int running = 0;
        /// No further run starts; the end of the last one retires the entry.
        bool removed = false;
        Handler handler;
    };

    HandlerId AddEntry(Handler handler, bool builtIn) KX_REQUIRES(mutex_);

    /// The entry that an id means, removed or not; the end when it is gone.
    std::map<HandlerId, Entry>::iterator Find(HandlerId id) KX_REQUIRES(mutex_);

    /// Whether `handler` can only end after `other`, because it is the same or waits for it.
    bool EndsAfter(HandlerId handler, HandlerId other) const KX_REQUIRES(mutex_);

    /// One run, without the lock. What the handler throws ends here.
    static void Run(HandlerId id, Entry& entry, const Record& record) noexcept;

    /// Destroys what the handler captured, with the lock released meanwhile, and then the entry. The caller's run must
    /// be the last.
    void Retire(HandlerId id) KX_REQUIRES(mutex_);

    AnnotatedMutex mutex_;
    /// Signalled when an entry is gone.
    std::condition_variable_any gone_;
    std::map<HandlerId, Entry> entries_ KX_GUARDED_BY(mutex_);
    std::uint64_t nextId_ KX_GUARDED_BY(mutex_) = 1;
    /// From a handler that is in `Remove` to the one that it removes. Without cycles: nobody begins a wait that would
    /// close one.
    std::multimap<HandlerId, HandlerId> waits_ KX_GUARDED_BY(mutex_);
};

/// The process's handlers, made on first use.
HandlerList& Handlers();

}  // namespace kx::logging::details
