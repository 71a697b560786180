#include "source/disarming.h"
#include "source/testing/memory_service_core.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace kx::velmor::testing {

namespace {

/// What a sequential node's name gets behind the requested one.
constexpr std::size_t kSequenceDigits = 10;

/// A path of the tree, as the session calls it.
std::string Relative(const MemorySessionRecord& session, const std::string& path)
{
    const std::size_t root = session.options.rootPath.size();
    return path.size() > root ? path.substr(root) : path.empty() ? path : "/";
}

/// What an operation is refused with before the service is asked; `ZOK` when it is not.
int CheckPath(const MemorySessionRecord& session, const std::string& path)
{
    if (session.made.Inherited())
    {
        return ZCLOSING;
    }
    return IsNodePath(path) ? ZOK : ZBADARGUMENTS;
}

}  // namespace

MemorySession::MemorySession(std::shared_ptr<MemorySessionRecord> record) : record_(std::move(record)) {}

MemorySession::~MemorySession()
{
    if (record_->made.Inherited())
    {
        Abandon(record_);
        return;
    }
    record_->service->Close(*record_, !DisarmsOnThisThread());
}

void MemorySession::Close()
{
    if (!record_->made.Inherited())
    {
        record_->service->Close(*record_, true);
    }
}

SessionStatus MemorySession::Status() const
{
    if (record_->made.Inherited())
    {
        SessionStatus closed;
        closed.state = SessionState::Closed;
        closed.negotiatedTimeout = record_->options.sessionTimeout;
        return closed;
    }
    return record_->service->Status(*record_);
}

Registration MemorySession::OnStateChange(StateListener listener)
{
    return record_->made.Inherited() ? Registration() : record_->service->OnStateChange(*record_, std::move(listener));
}

Registration MemorySession::OnHeard(HeardListener listener)
{
    return record_->made.Inherited() ? Registration() : record_->heard.Add(std::move(listener));
}

Registration MemorySession::OnEnding(EndingListener listener)
{
    return record_->made.Inherited() ? Registration() : record_->endings.Add(std::move(listener));
}

Registration MemorySession::KeepFresh()
{
    return record_->made.Inherited() ? Registration() : record_->service->KeepFresh(*record_);
}

BootClock::time_point MemorySession::Now() const noexcept
{
    return record_->service->Now();
}

std::function<BootClock::time_point()> MemorySession::TimeSource() const
{
    return [service = record_->service] { return service->Now(); };
}

Registration MemorySession::OnClockJump(std::function<void()> listener)
{
    if (record_->made.Inherited())
    {
        return Registration();
    }
    return record_->service->OnClockJump(std::move(listener));
}

const std::string& MemorySession::RootPath() const
{
    return record_->options.rootPath;
}

int MemorySession::Create(std::string path, const std::string& data, const ACL_vector& acl, int flags,
                          std::string* createdPath) const
{
    if (record_->made.Inherited())
    {
        return ZCLOSING;
    }
    const bool sequential = (flags & ZOO_SEQUENCE) != 0;
    const bool fits = createdPath == nullptr || createdPath->size() >= path.size() + (sequential ? kSequenceDigits : 0);
    if (!IsNodePath(path, sequential) || !fits || (flags & ~(ZOO_EPHEMERAL | ZOO_SEQUENCE)) != 0)
    {
        return ZBADARGUMENTS;
    }
    std::string created;
    const int rc = record_->service->Create(*record_, record_->InTree(path, sequential), data, acl, flags, created);
    if (rc == ZOK && createdPath != nullptr)
    {
        *createdPath = Relative(*record_, created);
    }
    return rc;
}

int MemorySession::GetChildren(std::string path, std::vector<std::string>& children) const
{
    const int rc = CheckPath(*record_, path);
    return rc == ZOK ? record_->service->GetChildren(*record_, record_->InTree(path), children) : rc;
}

int MemorySession::Exists(std::string path, Stat* stat) const
{
    std::string data;
    return GetData(std::move(path), data, stat);
}

std::pair<int, Connection::WatchHandle> MemorySession::Exists(std::string path, WatchCallback callback,
                                                              Stat* stat) const
{
    int rc = CheckPath(*record_, path);
    if (rc != ZOK)
    {
        return {rc, WatchHandle()};
    }
    const auto watch = std::make_shared<WatchRegistry::Watch>(std::move(callback));
    WatchHandle handle(WatchRegistry::Watch::ForHandle(watch));
    NodeTree::Node node;
    rc = record_->service->Watch(*record_, record_->InTree(path), watch, node);
    if (rc == ZOK && stat != nullptr)
    {
        *stat = StatOf(node);
    }
    return {rc, rc == ZOK || rc == ZNONODE ? std::move(handle) : WatchHandle()};
}

int MemorySession::GuaranteedDelete(std::string path) const
{
    const int rc = CheckPath(*record_, path);
    return rc == ZOK ? record_->service->GuaranteedDelete(*record_, record_->InTree(path)) : rc;
}

std::unique_ptr<clientid_t> MemorySession::ClientId() const
{
    const SessionStatus status = Status();
    if (status.state == SessionState::Closed)
    {
        return nullptr;
    }
    auto identity = std::make_unique<clientid_t>();
    identity->client_id = status.sessionId;
    return identity;
}

int MemorySession::GetData(std::string path, std::string& data, Stat* stat) const
{
    int rc = CheckPath(*record_, path);
    if (rc != ZOK)
    {
        return rc;
    }
    NodeTree::Node node;
    rc = record_->service->Look(*record_, record_->InTree(path), node);
    if (rc != ZOK)
    {
        return rc;
    }
    if (stat != nullptr)
    {
        *stat = StatOf(node);
    }
    data = std::move(node.data);
    return ZOK;
}

int MemorySession::Transact(const std::vector<Operation>& operations, TransactionResult& result) const
{
    return Transact(std::nullopt, operations, result);
}

int MemorySession::TransactIn(std::int64_t sessionId, const std::vector<Operation>& operations,
                              TransactionResult& result) const
{
    return Transact(sessionId, operations, result);
}

int MemorySession::Transact(std::optional<std::int64_t> sessionId, const std::vector<Operation>& operations,
                            TransactionResult& result) const
{
    result = TransactionResult();
    if (record_->made.Inherited())
    {
        return ZCLOSING;
    }
    if (operations.empty())
    {
        return ZBADARGUMENTS;
    }
    std::vector<Operation> inTree = operations;
    for (Operation& operation : inTree)
    {
        const bool sequential =
            operation.kind == Operation::Kind::Create &&
            (operation.mode == NodeMode::PersistentSequential || operation.mode == NodeMode::EphemeralSequential);
        if (!IsNodePath(operation.path, sequential))
        {
            return ZBADARGUMENTS;
        }
        operation.path = record_->InTree(operation.path, sequential);
    }
    const int rc = record_->service->Transact(*record_, sessionId, inTree, result);
    for (std::string& created : result.created)
    {
        created = Relative(*record_, created);
    }
    return rc;
}

}  // namespace kx::velmor::testing
