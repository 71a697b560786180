#include "tests/simulation/client_watches.h"

#include <algorithm>

namespace kx::velmor::simulation {

namespace {

void AddOnce(ClientWatches::Watchers& watchers, const ClientWatches::Watcher& watcher)
{
    if (std::find(watchers.begin(), watchers.end(), watcher) == watchers.end())
    {
        watchers.push_back(watcher);
    }
}

}  // namespace

void ClientWatches::Add(const std::string& path, bool exists, Watcher watcher)
{
    AddOnce((exists ? nodes_ : absences_)[path], watcher);
}

bool ClientWatches::Remove(const std::string& path, Watcher watcher)
{
    bool removed = false;
    for (Table* const table : {&nodes_, &absences_})
    {
        const auto found = table->find(path);
        if (found == table->end())
        {
            continue;
        }
        Watchers& watchers = found->second;
        const auto end = std::remove(watchers.begin(), watchers.end(), watcher);
        removed = removed || end != watchers.end();
        watchers.erase(end, watchers.end());
        if (watchers.empty())
        {
            table->erase(found);
        }
    }
    return removed;
}

ClientWatches::Watchers ClientWatches::Take(const std::string& path)
{
    Watchers taken;
    for (Table* const table : {&nodes_, &absences_})
    {
        const auto found = table->find(path);
        if (found != table->end())
        {
            for (const Watcher& watcher : found->second)
            {
                AddOnce(taken, watcher);
            }
            table->erase(found);
        }
    }
    return taken;
}

ClientWatches::Watchers ClientWatches::ForSessionEvent() const
{
    Watchers all;
    for (const Table* const table : {&nodes_, &absences_})
    {
        for (const auto& [path, watchers] : *table)
        {
            for (const Watcher& watcher : watchers)
            {
                if (watcher != global_)
                {
                    AddOnce(all, watcher);
                }
            }
        }
    }
    all.push_back(global_);
    return all;
}

std::vector<std::string> ClientWatches::Paths(const Table& table)
{
    std::vector<std::string> paths;
    for (const auto& [path, watchers] : table)
    {
        paths.push_back(path);
    }
    return paths;
}

}  // namespace kx::velmor::simulation
