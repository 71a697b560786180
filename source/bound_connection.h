#pragma once

#include "source/sync.h"

#include <kx/velmor/election_session.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor {

/// Whether the session that `status` tells of is another one by now, or has ended.
bool SessionOver(const SessionStatus& status, std::int64_t sessionId);

/// A session's connection for as long as the session is the one it began with. Afterwards operations return
/// `ZSESSIONEXPIRED`. Ephemeral nodes get the session's access list, whatever is asked for.
///
/// It deletes nodes of its own session only. Others count as deleted: a node of the same name, in an election path that
/// was made anew, belongs to another session. When the servers do not tell the owner, `GuaranteedDelete` returns their
/// code, deletes nothing, and does not go on in the background.
///
/// Threads: any.
class BoundConnection final : public Connection
{
public:
    BoundConnection(std::shared_ptr<ElectionSession> session, std::int64_t sessionId);

    bool SessionOver() const;

    /// Whether the session may own ephemeral nodes that passed through here: a read found one, or the servers did not
    /// refuse the creation of one.
    bool MayHaveNode() const { return mayHaveNode_; }

    /// This node of ours has been deleted by other means: deleting it again finds nothing, without asking.
    void NoteDeleted(std::string path);

    /// Drops all callbacks of watches: none begins any more.
    void DropCallbacks();

    const std::string& RootPath() const override;
    int Create(std::string path, const std::string& data, const ACL_vector& acl, int flags,
               std::string* createdPath) const override;
    int GetChildren(std::string path, std::vector<std::string>& children) const override;
    int Exists(std::string path, Stat* stat) const override;
    std::pair<int, WatchHandle> Exists(std::string path, WatchCallback callback, Stat* stat) const override;
    int GuaranteedDelete(std::string path) const override;
    std::unique_ptr<clientid_t> ClientId() const override;

private:
    /// A callback that can be taken away from whoever holds it.
    struct Callback
    {
        Mutex mutex;
        std::shared_ptr<const WatchCallback> function KX_GUARDED_BY(mutex);
    };

    void Remember(const std::shared_ptr<Callback>& callback) const;

    const std::shared_ptr<ElectionSession> session_;
    const std::int64_t sessionId_;

    mutable std::atomic<bool> mayHaveNode_{false};

    mutable Mutex mutex_;
    std::string deleted_ KX_GUARDED_BY(mutex_);
    mutable std::vector<std::weak_ptr<Callback>> callbacks_ KX_GUARDED_BY(mutex_);
};

}  // namespace kx::velmor
