// Operations: one request and its answer, repeated where that is safe, always within a deadline.

#include "source/make_path.h"
#include "source/session_core.h"
#include "source/session_log.h"

#include <algorithm>
#include <utility>

namespace kx::velmor {

namespace {

/// What the client library suggests between attempts to connect: a sixtieth of the session timeout.
constexpr int kFirstRetryDivisor = 60;
constexpr int kMostRetryDivisor = 6;

/// Codes that say nothing about the node, only that no answer came.
bool NoAnswer(int rc)
{
    return rc == ZCONNECTIONLOSS || rc == ZOPERATIONTIMEOUT;
}

bool SessionOver(int rc)
{
    return rc == ZINVALIDSTATE || rc == ZSESSIONEXPIRED || rc == ZCLOSING;
}

/// Whether a code tells of the node, or of the request itself.
bool Answered(int rc)
{
    return !NoAnswer(rc) && !SessionOver(rc);
}

}  // namespace

int SessionCore::Create(const std::string& path, const std::string& data, const ACL_vector& acl, int flags,
                        std::string& createdPath)
{
    const Clock::time_point deadline = Deadline();
    Answer answer = CreateOnce(path, data, acl, flags, deadline);
    if (answer.rc == ZNONODE && MissesRoot(path))
    {
        const int rc = CreateRoot(path, deadline);
        if (rc != ZOK)
        {
            return rc;
        }
        answer = CreateOnce(path, data, acl, flags, deadline);
    }
    if (answer.rc == ZOK)
    {
        createdPath = std::move(answer.request->createdPath);
    }
    return answer.rc;
}

SessionCore::Answer SessionCore::CreateOnce(const std::string& path, const std::string& data, const ACL_vector& acl,
                                            int flags, Clock::time_point deadline)
{
    return Call(Kind::Write, path, deadline, [&](ClientHandle& handle, const std::shared_ptr<Request>& request) {
        return handle.Create(request, path, data, acl, flags);
    });
}

int SessionCore::Transact(std::optional<std::int64_t> sessionId, const std::vector<Operation>& operations,
                          const ACL_vector& acl, TransactionResult& result)
{
    const Clock::time_point deadline = Deadline();
    Answer answer = TransactOnce(sessionId, operations, acl, deadline);
    const std::optional<std::size_t> refused = answer.request ? answer.request->refused : std::nullopt;
    if (answer.rc == ZNONODE && refused)
    {
        const Operation& operation = operations[*refused];
        if (operation.kind == Operation::Kind::Create && MissesRoot(operation.path))
        {
            const int rc = CreateRoot(operation.path, deadline);
            if (rc != ZOK)
            {
                result.refused = Answered(rc) ? refused : std::nullopt;
                return rc;
            }
            answer = TransactOnce(sessionId, operations, acl, deadline);
        }
    }
    if (answer.rc == ZOK)
    {
        result.created = std::move(answer.request->createdPaths);
    }
    else if (answer.request && Answered(answer.rc))
    {
        result.refused = answer.request->refused;
    }
    return answer.rc;
}

SessionCore::Answer SessionCore::TransactOnce(std::optional<std::int64_t> sessionId,
                                              const std::vector<Operation>& operations, const ACL_vector& acl,
                                              Clock::time_point deadline)
{
    return Call(
        Kind::Write, operations.front().path, deadline,
        [&](ClientHandle& handle, const std::shared_ptr<Request>& request) {
            return handle.Transact(request, operations, acl);
        },
        sessionId);
}

bool SessionCore::MissesRoot(const std::string& path) const
{
    return options_.createRoot && !options_.rootPath.empty() && path.rfind('/') <= options_.rootPath.size();
}

int SessionCore::CreateRoot(const std::string& path, Clock::time_point deadline)
{
    std::vector<std::string> ancestry = Ancestry(options_.rootPath);
    if (path == options_.rootPath)
    {
        ancestry.pop_back();
    }
    return MakePath(ancestry, {[&](const std::string& node) { return ExistsBefore(node, deadline).rc; },
                               [&](const std::string& node) {
                                   const ACL_vector acl = accessList_.InPlaceOf(ZOO_OPEN_ACL_UNSAFE);
                                   return CreateOnce(node, std::string(), acl, 0, deadline).rc;
                               }});
}

int SessionCore::GetChildren(const std::string& path, std::vector<std::string>& children)
{
    Answer answer =
        Call(Kind::Read, path, Deadline(), [&](ClientHandle& handle, const std::shared_ptr<Request>& request) {
            return handle.GetChildren(request, path);
        });
    if (answer.rc == ZOK)
    {
        children = std::move(answer.request->children);
    }
    return answer.rc;
}

int SessionCore::Exists(const std::string& path, Stat* stat)
{
    const Answer answer = ExistsBefore(path, Deadline());
    if (answer.rc == ZOK && stat != nullptr)
    {
        *stat = answer.request->stat;
    }
    return answer.rc;
}

int SessionCore::GetData(const std::string& path, std::string& data, Stat* stat)
{
    Answer answer = Call(
        Kind::Read, path, Deadline(),
        [&](ClientHandle& handle, const std::shared_ptr<Request>& request) { return handle.GetData(request, path); });
    if (answer.rc == ZOK)
    {
        data = std::move(answer.request->data);
        if (stat != nullptr)
        {
            *stat = answer.request->stat;
        }
    }
    return answer.rc;
}

SessionCore::Answer SessionCore::ExistsBefore(const std::string& path, Clock::time_point deadline)
{
    return Call(Kind::Read, path, deadline, [&](ClientHandle& handle, const std::shared_ptr<Request>& request) {
        return handle.Exists(request, path);
    });
}

int SessionCore::WatchExists(const std::string& path, const WatchRegistry::State& state, Stat* stat)
{
    // Before the request, since the event may overtake the answer.
    if (!AddWatch(path, state))
    {
        return ZMARSHALLINGERROR;
    }
    const Answer answer =
        Call(Kind::Read, path, Deadline(), [&](ClientHandle& handle, const std::shared_ptr<Request>& request) {
            return handle.WatchExists(request, path);
        });
    if (answer.rc != ZOK && answer.rc != ZNONODE)
    {
        watches_.Remove(state);
    }
    // An event that was on its way may have ended the watch before the client library had it; and an attempt that
    // failed in the end may have armed it.
    Unwatch(path);
    if (answer.rc == ZOK && stat != nullptr)
    {
        *stat = answer.request->stat;
    }
    return answer.rc;
}

bool SessionCore::AddWatch(const std::string& path, const WatchRegistry::State& state)
{
    if (watches_.Add(path, state))
    {
        return true;
    }
    DropReleasedWatches();
    if (watches_.Add(path, state))
    {
        return true;
    }
    KX_LOG(logging::LogLevel::Error, SessionLog()) << "No room for one more watched path: " << Shown(path);
    return false;
}

Clock::time_point SessionCore::Deadline() const
{
    return Clock::now() + options_.operationTimeout.value_or(options_.sessionTimeout);
}

SessionCore::Answer SessionCore::Call(Kind kind, const std::string& path, Clock::time_point deadline,
                                      const Submission& submit, std::optional<std::int64_t> sessionId)
{
    std::optional<std::uint64_t> generation;
    std::optional<Backoff> backoff;
    if (!Connected())
    {
        // The wait for a connection may be long.
        DropReleasedWatches();
    }
    for (;;)
    {
        const LiveConnection live = AwaitConnection(generation, sessionId, deadline);
        if (live.rc != ZOK)
        {
            return {live.rc, nullptr};
        }
        generation = live.generation;
        Answer answer = Attempt(kind, live, path, deadline, submit);
        if (kind == Kind::Write || !NoAnswer(answer.rc) || Clock::now() >= deadline)
        {
            return answer;
        }
        if (!backoff)
        {
            backoff.emplace(std::max(options_.sessionTimeout / kFirstRetryDivisor, std::chrono::milliseconds(1)),
                            std::max(options_.sessionTimeout / kMostRetryDivisor, std::chrono::milliseconds(1)));
        }
        AwaitNewConnection(live, backoff->Next(), deadline);
    }
}

SessionCore::Answer SessionCore::Attempt(Kind kind, const LiveConnection& live, const std::string& path,
                                         Clock::time_point deadline, const Submission& submit)
{
    // The server answers in the order in which it was asked: what is pending is done before we look.
    if (live.deletesPending)
    {
        SubmitDeletes(false);
    }
    const auto request = std::make_shared<Request>();
    const auto sync = kind == Kind::Read && !live.synced ? std::make_shared<Request>() : nullptr;
    int rc = sync ? live.handle->Sync(sync, path) : static_cast<int>(ZOK);
    if (rc != ZOK)
    {
        return {Settle(rc, live.generation), request};
    }
    rc = submit(*live.handle, request);
    // While the request is on its way.
    DropReleasedWatches();
    rc = rc == ZOK ? request->Await(deadline) : rc;
    if (sync && Answered(rc))
    {
        // Sent first, it has its answer by now, unless the connection went in between.
        const int synced = sync->Await(deadline);
        rc = synced == ZOK ? rc : synced;
    }
    rc = Settle(rc, live.generation);
    if (kind == Kind::Read && Answered(rc) && !Trustworthy(live, sync != nullptr))
    {
        rc = ZCONNECTIONLOSS;
    }
    return {rc, request};
}

SessionCore::LiveConnection SessionCore::AwaitConnection(std::optional<std::uint64_t> generation,
                                                         std::optional<std::int64_t> sessionId,
                                                         Clock::time_point deadline)
{
    const MutexLock lock(mutex_);
    if (phase_ == SessionState::Suspended)
    {
        generation = generation.value_or(generation_);
    }
    bool inTime = true;
    for (;;)
    {
        if (phase_ == SessionState::Closed)
        {
            return {ZCLOSING};
        }
        // What was asked in one session must not be answered by the next.
        if (generation.value_or(generation_) != generation_ || sessionId.value_or(sessionId_) != sessionId_)
        {
            return {ZSESSIONEXPIRED};
        }
        if (phase_ == SessionState::Connected && handle_)
        {
            return {ZOK, handle_, generation_, connection_, syncedConnection_ == connection_, !pendingDeletes_.empty()};
        }
        if (!inTime)
        {
            return {ZCONNECTIONLOSS};
        }
        inTime = changed_.WaitUntil(mutex_, deadline);
    }
}

int SessionCore::Settle(int rc, std::uint64_t generation) const
{
    if (Answered(rc))
    {
        return rc;
    }
    const MutexLock lock(mutex_);
    if (phase_ == SessionState::Closed)
    {
        return ZCLOSING;
    }
    // The handle may know of the end of its session before we are told.
    return generation != generation_ || SessionOver(rc) ? static_cast<int>(ZSESSIONEXPIRED) : rc;
}

bool SessionCore::Trustworthy(const LiveConnection& live, bool synced)
{
    const MutexLock lock(mutex_);
    // A request that waited in the client library for the next connection may be answered by a server that lags behind.
    if (live.connection != connection_)
    {
        return false;
    }
    if (synced)
    {
        syncedConnection_ = live.connection;
    }
    return true;
}

void SessionCore::AwaitNewConnection(const LiveConnection& live, std::chrono::milliseconds delay,
                                     Clock::time_point deadline)
{
    const Clock::time_point end = std::min(Clock::now() + delay, deadline);
    const MutexLock lock(mutex_);
    const auto settled = [&]() KX_REQUIRES(mutex_) {
        return phase_ == SessionState::Closed || generation_ != live.generation ||
               (phase_ == SessionState::Connected && connection_ != live.connection);
    };
    while (!settled() && changed_.WaitUntil(mutex_, end))
    {}
}

}  // namespace kx::velmor
