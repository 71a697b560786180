#pragma once

#include "source/testing/node_tree.h"
#include "tests/support/scripted_connection.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// What the connections of a service share with it. No business of tests.

namespace kx::velmor::testing_support {

struct Delivery
{
    std::weak_ptr<Connection::WatchState> state;
    int type;
    int connectionState;
    std::string path;
};

/// Guarded by the service's mutex, but for what never changes.
struct ScriptedSession
{
    const std::string label;
    const std::string rootPath;
    const std::int64_t id;

    std::optional<std::int64_t> identity = id;
    std::map<std::pair<Call, int>, Step> script{};
    std::map<Call, int> calls{};
    std::function<void()> beforeEveryCall{};
    std::optional<int> everyCall{};
    std::optional<std::string> room{};
    /// The only lasting owner of the states besides their handles, so that handles can be counted.
    std::vector<std::shared_ptr<Connection::WatchState>> states{};
    std::vector<Watch> watches{};
    /// Path and state. The path is empty after the node's event and after the end of the session, when the state gets
    /// session events alone.
    std::vector<std::pair<std::string, std::weak_ptr<Connection::WatchState>>> registered{};
    std::deque<Delivery> pending{};
    bool delivering = false;
    bool stopping = false;

    std::string InTree(const std::string& path) const
    {
        return path == "/" && !rootPath.empty() ? rootPath : rootPath + path;
    }
};

struct ScriptedServiceCore
{
    explicit ScriptedServiceCore(Journal& target) : journal(target) {}

    Journal& journal;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    NodeTree tree;
    std::vector<std::shared_ptr<ScriptedSession>> sessions;
    bool dropsWatches = false;

    /// No handle keeps it any more. `mutex` is held.
    static bool IsReleased(const std::weak_ptr<Connection::WatchState>& watch) { return watch.use_count() == 1; }

    /// `mutex` is held.
    bool IsDropped(const std::weak_ptr<Connection::WatchState>& watch) const
    {
        return dropsWatches && IsReleased(watch);
    }

    /// Ends the watches on one node and puts their deliveries in line. `mutex` is held.
    void NodeEvent(const std::string& path, int type)
    {
        for (const auto& session : sessions)
        {
            for (auto& [watched, state] : session->registered)
            {
                if (watched == path)
                {
                    session->pending.push_back(
                        {state, type, ZOO_CONNECTED_STATE, path.substr(session->rootPath.size())});
                    watched.clear();
                }
            }
        }
        changed.notify_all();
    }

    /// `mutex` is held.
    void SessionEvent(ScriptedSession& session, int connectionState)
    {
        auto& registered = session.registered;
        const auto isOver = [this](const auto& watch) {
            return IsDropped(watch.second) || (watch.first.empty() && IsReleased(watch.second));
        };
        registered.erase(std::remove_if(registered.begin(), registered.end(), isOver), registered.end());
        for (const auto& watch : registered)
        {
            session.pending.push_back({watch.second, ZOO_SESSION_EVENT, connectionState, ""});
        }
        changed.notify_all();
    }

    /// `mutex` is held.
    int Create(const std::string& path, std::int64_t owner, bool sequential, std::string& created)
    {
        tree.BeginTransaction();
        const int rc = tree.Create(path, owner, sequential, created);
        if (rc == ZOK)
        {
            NodeEvent(created, ZOO_CREATED_EVENT);
        }
        return rc;
    }

    /// `mutex` is held.
    int Delete(const std::string& path)
    {
        tree.BeginTransaction();
        const int rc = tree.Delete(path);
        if (rc == ZOK)
        {
            NodeEvent(path, ZOO_DELETED_EVENT);
        }
        return rc;
    }
};

}  // namespace kx::velmor::testing_support
