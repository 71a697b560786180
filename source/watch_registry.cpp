#include "source/watch_registry.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace kx::velmor {

namespace {

/// Less than servers take, since a watch may still be in the client library when its state is gone.
constexpr std::size_t kMostBytes = 1'000'000;

std::size_t BytesOf(const std::string& path)
{
    constexpr std::size_t kLength = 4;
    return kLength + path.size();
}

}  // namespace

/// What was let go of and not taken yet: the latest, and through `next_` all others. No lock, since handles let go
/// under their owners' locks.
struct WatchRegistry::Watch::Released
{
    ~Released() { Take(); }

    /// In the order in which they were let go of.
    States Take()
    {
        States taken;
        for (Watch* watch = latest.exchange(nullptr); watch != nullptr;)
        {
            Watch* const next = watch->next_;
            taken.splice(taken.begin(), watch->place_);
            watch = next;
        }
        return taken;
    }

    std::atomic<Watch*> latest{nullptr};
};

WatchRegistry::Watch::Watch(Connection::WatchCallback function)
{
    active = true;
    hasCallback = true;
    callback = std::move(function);
}

std::shared_ptr<Connection::WatchState> WatchRegistry::Watch::ForHandle(const State& watch)
{
    return {watch.get(), [share = watch](Connection::WatchState* /*state*/) mutable { LetGo(std::move(share)); }};
}

void WatchRegistry::Watch::LetGo(State watch) noexcept
{
    watch->held_ = false;
    // What is in no registry, such as after its event, ends with its handle.
    const std::shared_ptr<Released> released = watch->path_ != nullptr ? watch->released_.lock() : nullptr;
    if (!released)
    {
        return;
    }
    Watch* const self = watch.get();
    // It keeps itself alive until it is taken.
    self->place_.front() = std::move(watch);
    self->next_ = released->latest;
    while (!released->latest.compare_exchange_weak(self->next_, self))
    {}
}

WatchRegistry::WatchRegistry() : released_(std::make_shared<Watch::Released>()) {}

WatchRegistry::Position WatchRegistry::Now() const
{
    const MutexLock lock(mutex_);
    return ++now_;
}

bool WatchRegistry::Add(const std::string& path, const State& state)
{
    States one;
    one.push_back(state);
    state->place_.resize(1);
    const MutexLock lock(mutex_);
    auto found = entries_.find(path);
    if (found == entries_.end())
    {
        if (bytes_ + BytesOf(path) > kMostBytes)
        {
            return false;
        }
        found = entries_.emplace(path, States()).first;
        bytes_ += BytesOf(path);
    }
    state->released_ = released_;
    state->path_ = &found->first;
    state->where_ = one.begin();
    state->added_ = ++now_;
    found->second.splice(found->second.end(), one);
    return true;
}

template <typename Condition>
void WatchRegistry::Move(States& from, States& to, const Condition& condition)
{
    for (auto state = from.begin(); state != from.end();)
    {
        const auto next = std::next(state);
        if (condition(**state))
        {
            (*state)->path_ = nullptr;
            to.splice(to.end(), from, state);
        }
        state = next;
    }
}

void WatchRegistry::Erase(Entries::iterator path)
{
    bytes_ -= BytesOf(path->first);
    entries_.erase(path);
}

void WatchRegistry::Remove(const std::string& path, const State& state)
{
    States removed;
    const MutexLock lock(mutex_);
    const auto found = entries_.find(path);
    if (found == entries_.end())
    {
        return;
    }
    Move(found->second, removed, [&](const Watch& watch) { return &watch == state.get(); });
    if (found->second.empty())
    {
        Erase(found);
    }
}

WatchRegistry::States WatchRegistry::Consume(const std::string& path, Position position)
{
    States consumed;
    const MutexLock lock(mutex_);
    const auto found = entries_.find(path);
    if (found == entries_.end())
    {
        return consumed;
    }
    Move(found->second, consumed, [&](const Watch& watch) { return watch.added_ <= position; });
    if (found->second.empty())
    {
        Erase(found);
    }
    return consumed;
}

std::vector<std::weak_ptr<WatchRegistry::Watch>> WatchRegistry::Snapshot(Position position) const
{
    std::vector<std::pair<Position, std::weak_ptr<Watch>>> held;
    {
        const MutexLock lock(mutex_);
        for (const auto& [path, watchers] : entries_)
        {
            for (const State& state : watchers)
            {
                if (state->added_ < position && state->Held())
                {
                    held.emplace_back(state->added_, state);
                }
            }
        }
    }
    std::sort(held.begin(), held.end(), [](const auto& left, const auto& right) { return left.first < right.first; });
    std::vector<std::weak_ptr<Watch>> states;
    states.reserve(held.size());
    for (auto& [added, state] : held)
    {
        states.push_back(std::move(state));
    }
    return states;
}

WatchRegistry::States WatchRegistry::TakeReleased(const Unwatch& unwatch)
{
    States released;
    if (released_->latest == nullptr)
    {
        return released;
    }
    // Held from the taking to the end, so that who finds none to take finds their paths free, too.
    const MutexLock lock(mutex_);
    released = released_->Take();
    States dropped;
    for (const State& state : released)
    {
        const std::string* const watched = state->path_;
        if (watched == nullptr)
        {
            continue;
        }
        const auto path = entries_.find(*watched);
        dropped.splice(dropped.end(), path->second, state->where_);
        state->path_ = nullptr;
        if (path->second.empty())
        {
            unwatch(path->first);
            Erase(path);
        }
    }
    return released;
}

WatchRegistry::States WatchRegistry::TakeAll()
{
    States all;
    const MutexLock lock(mutex_);
    for (auto& [path, watchers] : entries_)
    {
        Move(watchers, all, [](const Watch& /*watch*/) { return true; });
    }
    entries_.clear();
    bytes_ = 0;
    return all;
}

void WatchRegistry::UnwatchIfUnwatched(const std::string& path, const Unwatch& unwatch) const
{
    const MutexLock lock(mutex_);
    if (entries_.find(path) == entries_.end())
    {
        unwatch(path);
    }
}

std::size_t WatchRegistry::HeldCount() const
{
    std::size_t count = 0;
    const MutexLock lock(mutex_);
    for (const auto& [path, watchers] : entries_)
    {
        count += static_cast<std::size_t>(
            std::count_if(watchers.begin(), watchers.end(), [](const State& state) { return state->Held(); }));
    }
    return count;
}

}  // namespace kx::velmor
