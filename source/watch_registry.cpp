#include "source/watch_registry.h"

#include <algorithm>
#include <utility>

namespace kx::velmor {

namespace {

/// Whether the registry alone refers to a state. Nobody can begin to refer to it again then: handles are not copied.
bool Released(const WatchRegistry::State& state)
{
    return state.use_count() == 1;
}

/// Less than servers take, since a watch may still be in the client library when its state is gone.
constexpr std::size_t kMostBytes = 1'000'000;

std::size_t BytesOf(const std::string& path)
{
    constexpr std::size_t kLength = 4;
    return kLength + path.size();
}

}  // namespace

WatchRegistry::Position WatchRegistry::Now() const
{
    const MutexLock lock(mutex_);
    return ++now_;
}

bool WatchRegistry::Add(const std::string& path, const State& state)
{
    const MutexLock lock(mutex_);
    auto found = entries_.find(path);
    if (found == entries_.end())
    {
        if (bytes_ + BytesOf(path) > kMostBytes)
        {
            return false;
        }
        bytes_ += BytesOf(path);
        found = entries_.emplace(path, std::vector<Entry>()).first;
    }
    found->second.push_back(Entry{state, ++now_});
    return true;
}

WatchRegistry::Entries::iterator WatchRegistry::Erase(Entries::iterator path)
{
    bytes_ -= BytesOf(path->first);
    return entries_.erase(path);
}

void WatchRegistry::Remove(const std::string& path, const State& state)
{
    const MutexLock lock(mutex_);
    const auto found = entries_.find(path);
    if (found == entries_.end())
    {
        return;
    }
    std::vector<Entry>& watchers = found->second;
    // The caller's reference keeps the state alive beyond the lock.
    watchers.erase(
        std::remove_if(watchers.begin(), watchers.end(), [&](const Entry& entry) { return entry.state == state; }),
        watchers.end());
    if (watchers.empty())
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
    std::vector<Entry>& watchers = found->second;
    const auto younger = std::stable_partition(watchers.begin(), watchers.end(),
                                               [&](const Entry& entry) { return entry.added > position; });
    std::for_each(younger, watchers.end(), [&](Entry& entry) { consumed.push_back(std::move(entry.state)); });
    watchers.erase(younger, watchers.end());
    if (watchers.empty())
    {
        Erase(found);
    }
    return consumed;
}

std::vector<std::weak_ptr<Connection::WatchState>> WatchRegistry::Snapshot(Position position) const
{
    std::vector<std::pair<Position, std::weak_ptr<Connection::WatchState>>> held;
    {
        const MutexLock lock(mutex_);
        for (const auto& [path, watchers] : entries_)
        {
            for (const Entry& entry : watchers)
            {
                if (entry.added < position && !Released(entry.state))
                {
                    held.emplace_back(entry.added, entry.state);
                }
            }
        }
    }
    std::sort(held.begin(), held.end(), [](const auto& left, const auto& right) { return left.first < right.first; });
    std::vector<std::weak_ptr<Connection::WatchState>> states;
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
    const MutexLock lock(mutex_);
    for (auto path = entries_.begin(); path != entries_.end();)
    {
        std::vector<Entry>& watchers = path->second;
        const auto gone = std::stable_partition(watchers.begin(), watchers.end(),
                                                [](const Entry& entry) { return !Released(entry.state); });
        std::for_each(gone, watchers.end(), [&](Entry& entry) { released.push_back(std::move(entry.state)); });
        watchers.erase(gone, watchers.end());
        if (!watchers.empty())
        {
            ++path;
            continue;
        }
        unwatch(path->first);
        path = Erase(path);
    }
    return released;
}

WatchRegistry::States WatchRegistry::TakeAll()
{
    States all;
    const MutexLock lock(mutex_);
    for (auto& [path, watchers] : entries_)
    {
        for (Entry& entry : watchers)
        {
            all.push_back(std::move(entry.state));
        }
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
            std::count_if(watchers.begin(), watchers.end(), [](const Entry& entry) { return !Released(entry.state); }));
    }
    return count;
}

}  // namespace kx::velmor
