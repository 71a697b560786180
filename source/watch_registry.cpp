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
    // A state that is in no registry ends with its handle.
    const std::shared_ptr<Released> released = watch->listed_ ? watch->released_.lock() : nullptr;
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
    state->listed_ = true;
    state->path_ = &found->first;
    state->where_ = one.begin();
    state->added_ = ++now_;
    found->second.splice(found->second.end(), one);
    return true;
}

void WatchRegistry::Erase(Entries::iterator path)
{
    bytes_ -= BytesOf(path->first);
    entries_.erase(path);
}

void WatchRegistry::Unlist(Watch& watch, States& to, const Unwatch& unwatch)
{
    watch.listed_ = false;
    if (watch.path_ == nullptr)
    {
        to.splice(to.end(), fired_, watch.where_);
        return;
    }
    const auto path = entries_.find(*watch.path_);
    to.splice(to.end(), path->second, watch.where_);
    watch.path_ = nullptr;
    if (path->second.empty())
    {
        unwatch(path->first);
        Erase(path);
    }
}

void WatchRegistry::Remove(const State& state)
{
    States removed;
    const MutexLock lock(mutex_);
    if (state->listed_)
    {
        Unlist(*state, removed, [](const std::string& /*path*/) {});
    }
}

WatchRegistry::WeakStates WatchRegistry::Consume(const std::string& path, Position position)
{
    WeakStates consumed;
    const MutexLock lock(mutex_);
    const auto found = entries_.find(path);
    if (found == entries_.end())
    {
        return consumed;
    }
    States& watchers = found->second;
    for (auto state = watchers.begin(); state != watchers.end();)
    {
        const auto next = std::next(state);
        if ((*state)->added_ <= position)
        {
            consumed.push_back(*state);
            (*state)->path_ = nullptr;
            fired_.splice(fired_.end(), watchers, state);
        }
        state = next;
    }
    if (watchers.empty())
    {
        Erase(found);
    }
    return consumed;
}

WatchRegistry::WeakStates WatchRegistry::Snapshot(Position position) const
{
    std::vector<std::pair<Position, std::weak_ptr<Watch>>> held;
    {
        const auto add = [&](const States& states) {
            for (const State& state : states)
            {
                if (state->added_ < position && state->Held())
                {
                    held.emplace_back(state->added_, state);
                }
            }
        };
        const MutexLock lock(mutex_);
        add(fired_);
        for (const auto& [path, watchers] : entries_)
        {
            add(watchers);
        }
    }
    std::sort(held.begin(), held.end(), [](const auto& left, const auto& right) { return left.first < right.first; });
    WeakStates states;
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
        if (state->listed_)
        {
            Unlist(*state, dropped, unwatch);
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
        all.splice(all.end(), watchers);
    }
    all.splice(all.end(), fired_);
    for (const State& state : all)
    {
        state->listed_ = false;
        state->path_ = nullptr;
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
    const auto held = [](const States& states) {
        return static_cast<std::size_t>(
            std::count_if(states.begin(), states.end(), [](const State& state) { return state->Held(); }));
    };
    const MutexLock lock(mutex_);
    std::size_t count = held(fired_);
    for (const auto& [path, watchers] : entries_)
    {
        count += held(watchers);
    }
    return count;
}

}  // namespace kx::velmor
