#include "source/bound_connection.h"

#include <algorithm>

namespace kx::velmor {

bool SessionOver(const SessionStatus& status, std::int64_t sessionId)
{
    return status.sessionId != sessionId || status.state == SessionState::Expired ||
           status.state == SessionState::Closed;
}

BoundConnection::BoundConnection(std::shared_ptr<ElectionSession> session, std::int64_t sessionId)
    : session_(std::move(session)), sessionId_(sessionId)
{}

bool BoundConnection::SessionOver() const
{
    return velmor::SessionOver(session_->Status(), sessionId_);
}

void BoundConnection::NoteDeleted(std::string path)
{
    const MutexLock lock(mutex_);
    deleted_ = std::move(path);
}

void BoundConnection::DropCallbacks()
{
    std::vector<std::weak_ptr<Callback>> callbacks;
    {
        const MutexLock lock(mutex_);
        callbacks.swap(callbacks_);
    }
    for (const std::weak_ptr<Callback>& weak : callbacks)
    {
        if (const auto callback = weak.lock())
        {
            std::shared_ptr<const WatchCallback> function;
            const MutexLock lock(callback->mutex);
            // Destroyed after the lock, with all that it holds.
            function.swap(callback->function);
        }
    }
}

const std::string& BoundConnection::RootPath() const
{
    return session_->RootPath();
}

int BoundConnection::Create(std::string path, const std::string& data, const ACL_vector& acl, int flags,
                            std::string* createdPath) const
{
    if (SessionOver())
    {
        return ZSESSIONEXPIRED;
    }
    if ((flags & ZOO_EPHEMERAL) == 0)
    {
        return session_->Create(std::move(path), data, acl, flags, createdPath);
    }
    // What goes with a session must not be made in the next one, which may be there by now.
    const NodeMode mode = (flags & ZOO_SEQUENCE) != 0 ? NodeMode::EphemeralSequential : NodeMode::Ephemeral;
    TransactionResult result;
    const int rc = session_->TransactIn(sessionId_, {Operation::Create(std::move(path), data, mode)}, result);
    if (!result.refused)
    {
        mayHaveNode_ = true;
    }
    if (rc == ZOK && createdPath != nullptr)
    {
        if (result.created.front().size() > createdPath->size())
        {
            session_->GuaranteedDelete(result.created.front());
            return ZBADARGUMENTS;
        }
        *createdPath = result.created.front();
    }
    return rc;
}

int BoundConnection::GetChildren(std::string path, std::vector<std::string>& children) const
{
    return SessionOver() ? static_cast<int>(ZSESSIONEXPIRED) : session_->GetChildren(std::move(path), children);
}

int BoundConnection::Exists(std::string path, Stat* stat) const
{
    if (SessionOver())
    {
        return ZSESSIONEXPIRED;
    }
    const int rc = session_->Exists(std::move(path), stat);
    if (rc == ZOK && stat != nullptr && stat->ephemeralOwner == sessionId_)
    {
        mayHaveNode_ = true;
    }
    return rc;
}

std::pair<int, Connection::WatchHandle> BoundConnection::Exists(std::string path, WatchCallback function,
                                                                Stat* stat) const
{
    if (SessionOver())
    {
        return {ZSESSIONEXPIRED, WatchHandle()};
    }
    const auto callback = std::make_shared<Callback>();
    {
        const MutexLock lock(callback->mutex);
        callback->function = std::make_shared<const WatchCallback>(std::move(function));
    }
    Remember(callback);
    return session_->Exists(
        std::move(path),
        [callback](int type, int state, std::string node) {
            std::shared_ptr<const WatchCallback> present;
            {
                const MutexLock lock(callback->mutex);
                present = callback->function;
            }
            if (present)
            {
                (*present)(type, state, std::move(node));
            }
        },
        stat);
}

int BoundConnection::GuaranteedDelete(std::string path) const
{
    if (SessionOver())
    {
        return ZNONODE;
    }
    {
        const MutexLock lock(mutex_);
        if (path == deleted_)
        {
            return ZNONODE;
        }
    }
    Stat stat{};
    const int rc = session_->Exists(path, &stat);
    if (rc != ZOK)
    {
        // Without an answer the node may belong to another session.
        return rc;
    }
    if (stat.ephemeralOwner != sessionId_)
    {
        return ZNONODE;
    }
    return session_->GuaranteedDelete(std::move(path));
}

std::unique_ptr<clientid_t> BoundConnection::ClientId() const
{
    return session_->ClientId();
}

void BoundConnection::Remember(const std::shared_ptr<Callback>& callback) const
{
    const MutexLock lock(mutex_);
    callbacks_.erase(std::remove_if(callbacks_.begin(), callbacks_.end(),
                                    [](const std::weak_ptr<Callback>& weak) { return weak.expired(); }),
                     callbacks_.end());
    callbacks_.push_back(callback);
}

}  // namespace kx::velmor
