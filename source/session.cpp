#include "source/disarming.h"
#include "source/session_core.h"
#include "source/session_log.h"

#include <kx/velmor/session.h>

#include <algorithm>
#include <utility>

namespace kx::velmor {

namespace {

using logging::LogLevel;

/// What a sequential node's name gets behind the requested one; a counter that has overflowed gets one character more.
constexpr std::size_t kSequenceDigits = 10;

/// A server drops the connection of whoever sends more in one request than this, its default for `jute.maxbuffer`.
constexpr std::size_t kMostRequestBytes = 0xfffff;

bool CanBeSent(const std::string& path)
{
    return !path.empty() && path.front() == '/' && path.find('\0') == std::string::npos;
}

// Sizes on the wire, where every string and list has its length in front.

constexpr std::size_t kNumber = 4;
constexpr std::size_t kHeader = 2 * kNumber;

std::size_t AclBytes(const ACL_vector& acl)
{
    std::size_t bytes = kNumber;
    for (int entry = 0; entry < acl.count; ++entry)
    {
        const ACL& right = acl.data[entry];
        bytes += kNumber + kNumber + std::char_traits<char>::length(right.id.scheme) + kNumber +
                 std::char_traits<char>::length(right.id.id);
    }
    return bytes;
}

/// Of a creation.
std::size_t RequestBytes(const std::string& path, const std::string& data, const ACL_vector& acl)
{
    return kHeader + kNumber + path.size() + kNumber + data.size() + AclBytes(acl) + kNumber;
}

/// Of a transaction.
std::size_t RequestBytes(const std::vector<Operation>& operations, const ACL_vector& acl)
{
    // Kind, end mark and code, in front of each operation and behind the last.
    constexpr std::size_t kSeparator = kNumber + 1 + kNumber;
    std::size_t bytes = kHeader + kSeparator;
    for (const Operation& operation : operations)
    {
        bytes += kSeparator + kNumber + operation.path.size() + kNumber;
        bytes += operation.kind == Operation::Kind::Set || operation.kind == Operation::Kind::Create
                     ? kNumber + operation.data.size()
                     : 0;
        bytes += operation.kind == Operation::Kind::Create ? AclBytes(acl) : 0;
    }
    return bytes;
}

bool TooLarge(std::size_t bytes, const std::string& path)
{
    if (bytes <= kMostRequestBytes)
    {
        return false;
    }
    KX_LOG(LogLevel::Error, SessionLog()) << "A request of " << bytes << " bytes was not sent, since servers take "
                                          << kMostRequestBytes << ": " << Shown(path);
    return true;
}

bool IsSequential(const Operation& operation)
{
    return operation.kind == Operation::Kind::Create &&
           (operation.mode == NodeMode::PersistentSequential || operation.mode == NodeMode::EphemeralSequential);
}

/// Whether a node can have this path, or what a sequence number makes of it.
bool CanNameANode(const std::string& path, bool sequential)
{
    if (!CanBeSent(path) || std::any_of(path.begin(), path.end(), [](char c) { return c >= '\x01' && c <= '\x1f'; }))
    {
        return false;
    }
    if (path == "/")
    {
        return true;
    }
    for (std::size_t begin = 1; begin <= path.size();)
    {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string component = path.substr(begin, end - begin);
        const bool completed = sequential && end == path.size();
        if (!completed && (component.empty() || component == "." || component == ".."))
        {
            return false;
        }
        begin = end + 1;
    }
    return true;
}

/// What an operation that only names a node is refused with; `ZOK` when it may be sent.
int CheckPath(const SessionCore& core, const std::string& path, const std::string& fullPath)
{
    if (core.Inherited())
    {
        return ZCLOSING;
    }
    if (!CanBeSent(path) || TooLarge(RequestBytes(fullPath, std::string(), ACL_vector{0, nullptr}), fullPath))
    {
        return ZBADARGUMENTS;
    }
    return ZOK;
}

}  // namespace

std::shared_ptr<Session> Session::Open(SessionOptions options)
{
    return std::shared_ptr<Session>(new Session(SessionCore::Open(std::move(options))));
}

std::shared_ptr<Session> Session::OpenInBackground(SessionOptions options)
{
    return std::shared_ptr<Session>(new Session(SessionCore::OpenInBackground(std::move(options))));
}

Session::Session(std::shared_ptr<SessionCore> core) : core_(std::move(core)) {}

Session::~Session()
{
    if (core_->Inherited())
    {
        Abandon(core_);
        return;
    }
    core_->Close(!DisarmsOnThisThread());
}

void Session::Close()
{
    if (!core_->Inherited())
    {
        core_->Close(true);
    }
}

SessionStatus Session::Status() const
{
    if (core_->Inherited())
    {
        SessionStatus closed;
        closed.state = SessionState::Closed;
        closed.negotiatedTimeout = core_->Options().sessionTimeout;
        return closed;
    }
    return core_->Status();
}

Registration Session::OnStateChange(StateListener listener)
{
    return core_->Inherited() ? Registration() : core_->OnStateChange(std::move(listener));
}

Registration Session::OnHeard(HeardListener listener)
{
    return core_->Inherited() ? Registration() : core_->OnHeard(std::move(listener));
}

Registration Session::OnEnding(EndingListener listener)
{
    return core_->Inherited() ? Registration() : core_->OnEnding(std::move(listener));
}

Registration Session::KeepFresh()
{
    return core_->Inherited() ? Registration() : core_->KeepFresh();
}

const std::string& Session::RootPath() const
{
    return core_->Options().rootPath;
}

std::string Session::FullPath(const std::string& path, bool sequential) const
{
    // "/" names the root itself, except where a sequence number follows.
    return path == "/" && !sequential && !RootPath().empty() ? RootPath() : RootPath() + path;
}

std::string Session::RelativePath(const std::string& fullPath) const
{
    const std::size_t rootSize = std::min(RootPath().size(), fullPath.size());
    return fullPath.size() == rootSize ? "/" : fullPath.substr(rootSize);
}

int Session::Create(std::string path, const std::string& data, const ACL_vector& asked, int flags,
                    std::string* createdPath) const
{
    if (core_->Inherited())
    {
        return ZCLOSING;
    }
    const ACL_vector acl = core_->Access().InPlaceOf(asked);
    const bool sequential = (flags & ZOO_SEQUENCE) != 0;
    const std::size_t room = createdPath != nullptr ? createdPath->size() : std::string::npos;
    const std::string fullPath = FullPath(path, sequential);
    if (!CanBeSent(path) || path.size() + (sequential ? kSequenceDigits : 0) > room ||
        TooLarge(RequestBytes(fullPath, data, acl), fullPath))
    {
        return ZBADARGUMENTS;
    }

    std::string created;
    const int rc = core_->Create(fullPath, data, acl, flags, created);
    if (rc != ZOK || createdPath == nullptr)
    {
        return rc;
    }
    std::string relative = RelativePath(created);
    if (relative.size() > room)
    {
        // A node whose name its creator cannot know would be left behind.
        KX_LOG(LogLevel::Error, SessionLog()) << "Taken back, since its path does not fit the room: " << created;
        core_->GuaranteedDelete(created, Clock::now());
        return ZBADARGUMENTS;
    }
    *createdPath = std::move(relative);
    return ZOK;
}

int Session::GetChildren(std::string path, std::vector<std::string>& children) const
{
    const std::string fullPath = FullPath(path, false);
    const int rc = CheckPath(*core_, path, fullPath);
    return rc == ZOK ? core_->GetChildren(fullPath, children) : rc;
}

int Session::GetData(std::string path, std::string& data, Stat* stat) const
{
    const std::string fullPath = FullPath(path, false);
    const int rc = CheckPath(*core_, path, fullPath);
    return rc == ZOK ? core_->GetData(fullPath, data, stat) : rc;
}

int Session::Exists(std::string path, Stat* stat) const
{
    const std::string fullPath = FullPath(path, false);
    const int rc = CheckPath(*core_, path, fullPath);
    return rc == ZOK ? core_->Exists(fullPath, stat) : rc;
}

std::pair<int, Connection::WatchHandle> Session::Exists(std::string path, WatchCallback callback, Stat* stat) const
{
    const std::string fullPath = FullPath(path, false);
    int rc = CheckPath(*core_, path, fullPath);
    if (rc != ZOK)
    {
        return {rc, WatchHandle()};
    }
    const auto watch = std::make_shared<WatchRegistry::Watch>(std::move(callback));
    WatchHandle handle(WatchRegistry::Watch::ForHandle(watch));
    rc = core_->WatchExists(fullPath, watch, stat);
    return {rc, rc == ZOK || rc == ZNONODE ? std::move(handle) : WatchHandle()};
}

int Session::GuaranteedDelete(std::string path) const
{
    const std::string fullPath = FullPath(path, false);
    const int rc = CheckPath(*core_, path, fullPath);
    return rc == ZOK ? core_->GuaranteedDelete(fullPath, core_->Deadline()) : rc;
}

int Session::Transact(const std::vector<Operation>& operations, TransactionResult& result) const
{
    return Transact(std::nullopt, operations, result);
}

int Session::TransactIn(std::int64_t sessionId, const std::vector<Operation>& operations,
                        TransactionResult& result) const
{
    return Transact(sessionId, operations, result);
}

int Session::Transact(std::optional<std::int64_t> sessionId, const std::vector<Operation>& operations,
                      TransactionResult& result) const
{
    result = {};
    if (core_->Inherited())
    {
        return ZCLOSING;
    }
    std::vector<Operation> full = operations;
    for (Operation& operation : full)
    {
        const bool sequential = IsSequential(operation);
        if (!CanNameANode(operation.path, sequential))
        {
            return ZBADARGUMENTS;
        }
        operation.path = FullPath(operation.path, sequential);
    }
    const ACL_vector acl = core_->Access().InPlaceOf(ZOO_OPEN_ACL_UNSAFE);
    if (full.empty() || TooLarge(RequestBytes(full, acl), full.front().path))
    {
        return ZBADARGUMENTS;
    }
    const int rc = core_->Transact(sessionId, full, acl, result);
    for (std::string& created : result.created)
    {
        created = created.empty() ? std::string() : RelativePath(created);
    }
    return rc;
}

std::unique_ptr<clientid_t> Session::ClientId() const
{
    return core_->Inherited() ? nullptr : core_->ClientId();
}

std::function<BootClock::time_point()> Session::TimeSource() const
{
    return &BootClock::now;
}

}  // namespace kx::velmor
