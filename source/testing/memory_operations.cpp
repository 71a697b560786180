// Operations on the tree of a service in memory: those of sessions, and those of the test itself.

#include "source/make_path.h"
#include "source/result_codes.h"
#include "source/testing/memory_service_core.h"

namespace kx::velmor::testing {

namespace {

/// Codes that do not come from the service, and say nothing about the node.
bool NoAnswer(int rc)
{
    return rc == ZCONNECTIONLOSS || rc == ZOPERATIONTIMEOUT || rc == ZSESSIONEXPIRED || rc == ZINVALIDSTATE ||
           rc == ZCLOSING;
}

}  // namespace

int MemoryServiceCore::Create(Record& session, const std::string& path, const std::string& data, const ACL_vector& acl,
                              int flags, std::string& created)
{
    DropReleasedWatches(session);
    AllHeard heard;
    int rc = ZOK;
    {
        const MutexLock lock(mutex_);
        rc = Reach(session, path);
        if (rc == ZOK)
        {
            const std::int64_t owner = (flags & ZOO_EPHEMERAL) != 0 ? session.status.sessionId : 0;
            const auto create = [&]() KX_REQUIRES(mutex_) {
                return CreateNode(path, data, owner, (flags & ZOO_SEQUENCE) != 0, created);
            };
            rc = acl.count > 0 ? create() : static_cast<int>(ZINVALIDACL);
            if (rc == ZNONODE)
            {
                rc = CreateRoot(session, path);
                rc = rc == ZOK ? create() : rc;
            }
        }
        rc = Answer(session, rc, heard);
    }
    Tell(heard);
    return rc;
}

int MemoryServiceCore::GetChildren(Record& session, const std::string& path, std::vector<std::string>& children)
{
    DropReleasedWatches(session);
    const MutexLock lock(mutex_);
    const int rc = Reach(session, path);
    return rc == ZOK ? tree_.Children(path, children) : rc;
}

int MemoryServiceCore::Look(Record& session, const std::string& path, NodeTree::Node& node)
{
    DropReleasedWatches(session);
    const MutexLock lock(mutex_);
    const int rc = Reach(session, path);
    const NodeTree::Node* const found = tree_.Find(path);
    if (rc != ZOK || found == nullptr)
    {
        return rc != ZOK ? rc : static_cast<int>(ZNONODE);
    }
    node = *found;
    return ZOK;
}

int MemoryServiceCore::Watch(Record& session, const std::string& path, const WatchRegistry::State& state,
                             NodeTree::Node& node)
{
    DropReleasedWatches(session);
    const MutexLock lock(mutex_);
    const int rc = Reach(session, path);
    if (rc != ZOK)
    {
        return rc;
    }
    if (!session.watches.Add(path, state))
    {
        return ZMARSHALLINGERROR;
    }
    session.watched[path];
    const NodeTree::Node* const found = tree_.Find(path);
    if (found == nullptr)
    {
        return ZNONODE;
    }
    node = *found;
    return ZOK;
}

int MemoryServiceCore::GuaranteedDelete(Record& session, const std::string& path)
{
    DropReleasedWatches(session);
    AllHeard heard;
    int rc = ZOK;
    {
        const MutexLock lock(mutex_);
        rc = Reach(session, path);
        rc = rc == ZOK ? DeleteNode(path) : rc;
        if (NoAnswer(rc) && rc != ZCLOSING)
        {
            session.pendingDeletes.push_back(path);
        }
        rc = Answer(session, rc, heard);
    }
    Tell(heard);
    return rc;
}

int MemoryServiceCore::Transact(Record& session, std::optional<std::int64_t> sessionId,
                                const std::vector<Operation>& operations, TransactionResult& result)
{
    DropReleasedWatches(session);
    AllHeard heard;
    int rc = ZOK;
    {
        const MutexLock lock(mutex_);
        if (sessionId.value_or(session.status.sessionId) != session.status.sessionId)
        {
            return ZSESSIONEXPIRED;
        }
        rc = Reach(session, std::string());
        if (rc == ZOK)
        {
            rc = Apply(session, operations, result);
            if (rc == ZNONODE && operations[*result.refused].kind == Operation::Kind::Create)
            {
                rc = CreateRoot(session, operations[*result.refused].path);
                rc = rc == ZOK ? Apply(session, operations, result) : rc;
            }
        }
        rc = Answer(session, rc, heard);
        if (NoAnswer(rc))
        {
            result = TransactionResult();
        }
    }
    Tell(heard);
    return rc;
}

int MemoryServiceCore::Apply(const Record& session, const std::vector<Operation>& operations, TransactionResult& result)
{
    result = TransactionResult();
    BeginTransaction();
    const NodeTree before = tree_;
    std::vector<std::string> created(operations.size());
    for (std::size_t index = 0; index < operations.size(); ++index)
    {
        const int rc = ApplyOne(session, operations[index], created[index]);
        if (rc != ZOK)
        {
            tree_ = before;
            result.refused = index;
            return rc;
        }
    }
    for (std::size_t index = 0; index < operations.size(); ++index)
    {
        const Operation& operation = operations[index];
        switch (operation.kind)
        {
            case Operation::Kind::Create:
                OnChange(ZOO_CREATED_EVENT, created[index]);
                break;
            case Operation::Kind::Set:
                OnChange(ZOO_CHANGED_EVENT, operation.path);
                break;
            case Operation::Kind::Delete:
                OnChange(ZOO_DELETED_EVENT, operation.path);
                break;
            case Operation::Kind::Check:
                break;
        }
    }
    result.created = std::move(created);
    return ZOK;
}

int MemoryServiceCore::ApplyOne(const Record& session, const Operation& operation, std::string& created)
{
    const int refused = Refusal(operation.path);
    if (refused != ZOK)
    {
        return refused;
    }
    const bool ephemeral = operation.mode == NodeMode::Ephemeral || operation.mode == NodeMode::EphemeralSequential;
    const bool sequential =
        operation.mode == NodeMode::PersistentSequential || operation.mode == NodeMode::EphemeralSequential;
    switch (operation.kind)
    {
        case Operation::Kind::Create:
            return tree_.Create(operation.path, ephemeral ? session.status.sessionId : 0, sequential, created,
                                operation.data);
        case Operation::Kind::Set:
            return tree_.Set(operation.path, operation.data, operation.version);
        case Operation::Kind::Delete:
            return tree_.Delete(operation.path, operation.version);
        case Operation::Kind::Check:
            return tree_.Check(operation.path, operation.version);
    }
    return ZBADARGUMENTS;
}

int MemoryServiceCore::Reach(const Record& session, const std::string& path) const
{
    switch (session.status.state)
    {
        case SessionState::Connected:
            return Refusal(path);
        case SessionState::Closed:
            return ZCLOSING;
        default:
            return ZCONNECTIONLOSS;
    }
}

int MemoryServiceCore::Refusal(const std::string& path) const
{
    for (std::string node = path; !node.empty() && !refused_.empty(); node = ParentOf(node))
    {
        const auto refused = refused_.find(node);
        if (refused != refused_.end())
        {
            return refused->second;
        }
        if (node == "/")
        {
            break;
        }
    }
    return ZOK;
}

void MemoryServiceCore::BeginTransaction()
{
    tree_.BeginTransaction(epochMilliseconds_ +
                           std::chrono::duration_cast<std::chrono::milliseconds>(Now().time_since_epoch()).count());
}

int MemoryServiceCore::CreateNode(const std::string& path, const std::string& data, std::int64_t owner, bool sequential,
                                  std::string& created)
{
    BeginTransaction();
    const int rc = tree_.Create(path, owner, sequential, created, data);
    if (rc == ZOK)
    {
        OnChange(ZOO_CREATED_EVENT, created);
    }
    return rc;
}

int MemoryServiceCore::DeleteNode(const std::string& path)
{
    BeginTransaction();
    const int rc = tree_.Delete(path);
    if (rc == ZOK)
    {
        OnChange(ZOO_DELETED_EVENT, path);
    }
    return rc;
}

int MemoryServiceCore::CreateRoot(const Record& session, const std::string& path)
{
    const std::string& root = session.options.rootPath;
    if (root.empty() || !session.options.createRoot || path.rfind('/') > root.size())
    {
        return ZNONODE;
    }
    std::vector<std::string> ancestry = Ancestry(root);
    if (path == root)
    {
        ancestry.pop_back();
    }
    for (const std::string& node : ancestry)
    {
        if (tree_.Find(node) == nullptr)
        {
            std::string created;
            const int refused = Refusal(node);
            const int rc = refused == ZOK ? CreateNode(node, std::string(), 0, false, created) : refused;
            if (rc != ZOK)
            {
                return rc;
            }
        }
    }
    return ZOK;
}

int MemoryServiceCore::Answer(Record& session, int rc, AllHeard& heard)
{
    if (NoAnswer(rc))
    {
        return rc;
    }
    if (session.losesReply)
    {
        session.losesReply = false;
        Disconnect(session);
        Reconnect(session, heard);
        return ZCONNECTIONLOSS;
    }
    if (AgreedByMajority(rc))
    {
        NoteHeard(session, heard);
    }
    return rc;
}

void MemoryServiceCore::RetryDeletes(Record& session, AllHeard& heard)
{
    if (session.status.state != SessionState::Connected || session.pendingDeletes.empty())
    {
        return;
    }
    std::vector<std::string> unanswered;
    for (const std::string& path : session.pendingDeletes)
    {
        const int refused = Refusal(path);
        if (NoAnswer(refused))
        {
            unanswered.push_back(path);
            continue;
        }
        if (refused == ZOK)
        {
            DeleteNode(path);
            NoteHeard(session, heard);
        }
    }
    session.pendingDeletes = std::move(unanswered);
}

int MemoryServiceCore::Add(const std::string& path, const std::string& data)
{
    const MutexLock lock(mutex_);
    std::string created;
    std::vector<std::string> missing;
    for (std::string node = ParentOf(path); tree_.Find(node) == nullptr; node = ParentOf(node))
    {
        missing.push_back(node);
    }
    for (auto node = missing.rbegin(); node != missing.rend(); ++node)
    {
        const int rc = CreateNode(*node, std::string(), 0, false, created);
        if (rc != ZOK)
        {
            return rc;
        }
    }
    return CreateNode(path, data, 0, false, created);
}

int MemoryServiceCore::Set(const std::string& path, const std::string& data)
{
    const MutexLock lock(mutex_);
    BeginTransaction();
    const int rc = tree_.Set(path, data);
    if (rc == ZOK)
    {
        OnChange(ZOO_CHANGED_EVENT, path);
    }
    return rc;
}

int MemoryServiceCore::Delete(const std::string& path)
{
    const MutexLock lock(mutex_);
    return DeleteNode(path);
}

std::optional<NodeTree::Node> MemoryServiceCore::Find(const std::string& path) const
{
    const MutexLock lock(mutex_);
    const NodeTree::Node* const node = tree_.Find(path);
    return node != nullptr ? std::make_optional(*node) : std::nullopt;
}

int MemoryServiceCore::Children(const std::string& path, std::vector<std::string>& children) const
{
    const MutexLock lock(mutex_);
    return tree_.Children(path, children);
}

}  // namespace kx::velmor::testing
