// What the watches of sessions in memory are told.

#include "source/testing/memory_service_core.h"
#include "source/watch_delivery.h"

namespace kx::velmor::testing {

void MemoryServiceCore::PostSessionEvent(Record& session, int state)
{
    Post(session, [this, &session, state, position = session.watches.Now()] {
        TellSessionEvent(session.watches, position, state,
                         [&] { return Status(session).state == SessionState::Closed; });
        DropReleasedWatches(session);
    });
}

void MemoryServiceCore::PostNodeEvent(Record& session, int type, const std::string& path)
{
    Post(session, [this, &session, type, path, position = session.watches.Now()] {
        const std::size_t root = session.options.rootPath.size();
        const std::string nodePath = path.size() > root ? path.substr(root) : "/";
        TellNodeEvent(session.watches, position, type, ZOO_CONNECTED_STATE, path, nodePath,
                      [&] { return Status(session).state == SessionState::Closed; });
        DropReleasedWatches(session);
    });
}

void MemoryServiceCore::OnChange(int type, const std::string& path)
{
    for (const auto& session : sessions_)
    {
        if (!session->cut && session->watched.erase(path) > 0)
        {
            PostNodeEvent(*session, type, path);
        }
    }
}

void MemoryServiceCore::TellMissedChanges(Record& session)
{
    // As the real service does when it is shown a client's watches: it knows what is there now, and when that changed.
    for (auto watch = session.watched.begin(); watch != session.watched.end();)
    {
        const auto& [path, wasThere] = *watch;
        const NodeTree::Node* const node = tree_.Find(path);
        const bool changed = node != nullptr && node->changed > session.cutAfter;
        if ((node != nullptr) == wasThere && !changed)
        {
            ++watch;
            continue;
        }
        PostNodeEvent(session,
                      node == nullptr ? ZOO_DELETED_EVENT
                      : wasThere      ? ZOO_CHANGED_EVENT
                                      : ZOO_CREATED_EVENT,
                      path);
        watch = session.watched.erase(watch);
    }
}

void MemoryServiceCore::DropReleasedWatches(Record& session)
{
    // Destroyed with no lock held: the callbacks' captures may destroy anything.
    WatchRegistry::States released;
    const MutexLock lock(mutex_);
    released = session.watches.TakeReleased([&](const std::string& path) { session.watched.erase(path); });
}

}  // namespace kx::velmor::testing
