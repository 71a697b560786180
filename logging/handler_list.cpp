#include "handler_list.h"

#include "stderr_writer.h"

#include <exception>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>

namespace kx::logging::details {

namespace {

/// The handler that the thread is in; null outside of handlers.
thread_local const HandlerId* t_runningHandler = nullptr;

/// Marks the thread as being in a handler.
class InHandler
{
public:
    explicit InHandler(HandlerId id) : id_(id), before_(std::exchange(t_runningHandler, &id_)) {}
    ~InHandler() { t_runningHandler = before_; }

    InHandler(const InHandler&) = delete;
    InHandler& operator=(const InHandler&) = delete;

private:
    const HandlerId id_;
    const HandlerId* const before_;
};

/// Without the sanitizer, under which g++ 12 takes the way to the streams' virtual base for an overflow.
__attribute__((no_sanitize("undefined"))) void Swap(std::stringstream& one, std::stringstream& other)
{
    one.swap(other);
}

/// Lets a handler make statements of its own: the thread's stream still holds the text and the format of the statement
/// that is being delivered, and gets them back afterwards.
class ThreadStreamSetAside
{
public:
    ThreadStreamSetAside() : stream_(GetThreadLocalStream()) { Swap(stream_, aside_); }
    ~ThreadStreamSetAside() { Swap(stream_, aside_); }

    ThreadStreamSetAside(const ThreadStreamSetAside&) = delete;
    ThreadStreamSetAside& operator=(const ThreadStreamSetAside&) = delete;

private:
    std::stringstream& stream_;
    std::stringstream aside_;
};

void ReportFailure(const char* what) noexcept
{
    try
    {
        WriteOwnMessageToStderr(LogLevel::Error,
                                std::string("A log handler has thrown, which is reported once: ") + what);
    }
    catch (...)
    {
        // No memory for the text of the report. The handler's next failure is not reported either.
    }
}

}  // namespace

HandlerList& Handlers()
{
    // Never destroyed: destructors of static objects and threads that outlive `main` may still make statements.
    static HandlerList& list = *new HandlerList;
    return list;
}

HandlerList::HandlerList()
{
    AddStderr();
}

HandlerId HandlerList::AddEntry(Handler handler, bool builtIn)
{
    const HandlerId id{nextId_++};
    entries_.emplace(std::piecewise_construct, std::forward_as_tuple(id),
                     std::forward_as_tuple(std::move(handler), builtIn));
    return id;
}

HandlerId HandlerList::Add(Handler handler)
{
    const AnnotatedLock lock(mutex_);
    return AddEntry(std::move(handler), false);
}

void HandlerList::AddStderr()
{
    const AnnotatedLock lock(mutex_);
    const auto found = Find(kStderrHandler);
    if (found == entries_.end() || found->second.removed)
    {
        AddEntry(WriteToStderr, true);
    }
}

std::map<HandlerId, HandlerList::Entry>::iterator HandlerList::Find(HandlerId id)
{
    if (id != kStderrHandler)
    {
        return entries_.find(id);
    }
    // The latest: earlier ones have been removed and are on their way out.
    auto latest = entries_.end();
    for (auto entry = entries_.begin(); entry != entries_.end(); ++entry)
    {
        if (entry->second.builtIn)
        {
            latest = entry;
        }
    }
    return latest;
}

bool HandlerList::EndsAfter(HandlerId handler, HandlerId other) const
{
    if (handler == other)
    {
        return true;
    }
    const auto [begin, end] = waits_.equal_range(handler);
    for (auto wait = begin; wait != end; ++wait)
    {
        if (EndsAfter(wait->second, other))
        {
            return true;
        }
    }
    return false;
}

void HandlerList::Remove(HandlerId id)
{
    const AnnotatedLock lock(mutex_);
    const auto found = Find(id);
    if (found == entries_.end())
    {
        return;
    }
    const HandlerId removed = found->first;

    const HandlerId* const caller = t_runningHandler;
    if (caller != nullptr && EndsAfter(removed, *caller))
    {
        found->second.removed = true;
        return;
    }
    const auto wait = caller != nullptr ? waits_.emplace(*caller, removed) : waits_.end();
    found->second.removed = true;
    if (found->second.running == 0)
    {
        ++found->second.running;
        Retire(removed);
    }
    while (entries_.count(removed) != 0)
    {
        gone_.wait(mutex_);
    }
    if (caller != nullptr)
    {
        waits_.erase(wait);
    }
}

void HandlerList::Retire(HandlerId id)
{
    const auto entry = entries_.find(id);
    Handler handler = std::exchange(entry->second.handler, nullptr);
    mutex_.unlock();
    {
        const InHandler inHandler(id);
        handler = nullptr;
    }
    mutex_.lock();
    entries_.erase(entry);
    gone_.notify_all();
}

void HandlerList::Run(HandlerId id, Entry& entry, const Record& record) noexcept
{
    const InHandler inHandler(id);
    try
    {
        if (entry.builtIn)
        {
            entry.handler(record);
            return;
        }
        const ThreadStreamSetAside streamSetAside;
        entry.handler(record);
    }
    catch (const std::exception& failure)
    {
        if (!entry.failureReported.exchange(true))
        {
            ReportFailure(failure.what());
        }
    }
    catch (...)
    {
        if (!entry.failureReported.exchange(true))
        {
            ReportFailure("not a std::exception");
        }
    }
}

void HandlerList::Deliver(const Record& record) noexcept
{
    const bool fromHandler = t_runningHandler != nullptr;
    const AnnotatedLock lock(mutex_);
    const HandlerId end{nextId_};
    for (auto it = entries_.begin(); it != entries_.end() && it->first < end;)
    {
        const HandlerId id = it->first;
        Entry& entry = it->second;
        if (!entry.removed && (entry.builtIn || !fromHandler))
        {
            ++entry.running;
            mutex_.unlock();
            Run(id, entry, record);
            mutex_.lock();
            if (entry.removed && entry.running == 1)
            {
                Retire(id);
            }
            else
            {
                --entry.running;
            }
        }
        it = entries_.upper_bound(id);
    }
}

}  // namespace kx::logging::details
