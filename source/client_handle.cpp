#include "source/client_handle.h"

#include "source/client_log.h"
#include "source/result_codes.h"
#include "source/thread_state.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <utility>

namespace kx::velmor {

namespace {

/// After these the library does nothing more for a handle than to wait for being closed.
bool Final(int state)
{
    return state == ZOO_EXPIRED_SESSION_STATE || state == ZOO_AUTH_FAILED_STATE;
}

/// Whether a code is a server's answer, rather than the client library's word on why there is none.
bool FromServer(int rc)
{
    return rc == ZOK || (rc < ZAPIERROR && rc != ZSESSIONEXPIRED && rc != ZAUTHFAILED && rc != ZCLOSING &&
                         rc != ZNOTHING && rc != ZSESSIONMOVED);
}

/// No client creates this node, and no client needs a permission to learn that it does not exist.
constexpr const char* kNoSuchNode = "/zookeeper/no-such-node";

/// The server that a handle is connected to, as "address:port"; empty when it cannot be told.
std::string ConnectedServer(zhandle_t* zh)
{
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (zookeeper_get_connected_host(zh, reinterpret_cast<sockaddr*>(&address), &length) == nullptr)
    {
        return std::string();
    }
    char host[NI_MAXHOST];
    char port[NI_MAXSERV];
    if (getnameinfo(reinterpret_cast<sockaddr*>(&address), length, host, sizeof(host), port, sizeof(port),
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0)
    {
        return std::string();
    }
    return std::string(host) + ":" + port;
}

}  // namespace

ClientHandle::ClientHandle(std::uint64_t generation, std::string credentials, ClientEvents& events)
    : generation_(generation), credentials_(std::move(credentials)), events_(events)
{}

std::shared_ptr<ClientHandle> ClientHandle::Open(const std::string& addresses, std::chrono::milliseconds sessionTimeout,
                                                 const std::string& credentials, std::uint64_t generation,
                                                 ClientEvents& events)
{
    std::shared_ptr<ClientHandle> handle(new ClientHandle(generation, credentials, events));
    const ExclusiveLock lock(handle->gate_);
    // The first report may come before this call returns, which is why reports use the handle that they are given.
    handle->zh_ = zookeeper_init2(addresses.c_str(), &ClientHandle::OnWatch, static_cast<int>(sessionTimeout.count()),
                                  nullptr, handle.get(), ZOO_NO_LOG_CLIENTENV, &ClientLog::OnLine);
    if (handle->zh_ == nullptr)
    {
        return nullptr;
    }
    // By default the client library looks its servers up again before every request, and freezes when that fails.
    zoo_set_servers_resolution_delay(handle->zh_, -1);
    return handle;
}

ClientHandle::~ClientHandle()
{
    Close(ZCLOSING);
}

template <typename Function>
int ClientHandle::Submit(Kind kind, const std::shared_ptr<Request>& request, Function&& function,
                         std::string watchedPath, TransactionOutcomes outcomes)
{
    if (closing_)
    {
        return ZCLOSING;
    }
    const SharedLock lock(gate_);
    if (zh_ == nullptr)
    {
        return ZCLOSING;
    }
    const Call* call = nullptr;
    {
        const MutexLock callsLock(callsMutex_);
        const std::uint64_t number = ++callsMade_;
        auto owned = std::make_unique<Call>(
            Call{this, number, request, std::move(watchedPath), kind, BootClock::now(), std::move(outcomes)});
        call = owned.get();
        calls_.emplace(number, std::move(owned));
    }
    const int rc = function(zh_, static_cast<const void*>(call));
    if (rc == ZOK)
    {
        return ZOK;
    }
    {
        const MutexLock callsLock(callsMutex_);
        calls_.erase(call->number);
    }
    // The library reports whatever stops it from queueing as a failure to marshal, the end of the session included.
    return rc == ZMARSHALLINGERROR && is_unrecoverable(zh_) != ZOK ? static_cast<int>(ZINVALIDSTATE) : rc;
}

int ClientHandle::Create(const std::shared_ptr<Request>& request, const std::string& path, const std::string& data,
                         const ACL_vector& acl, int flags)
{
    return Submit(Kind::Write, request, [&](zhandle_t* zh, const void* call) {
        return zoo_acreate(zh, path.c_str(), data.data(), static_cast<int>(data.size()), &acl, flags,
                           &ClientHandle::OnString, call);
    });
}

int ClientHandle::GetChildren(const std::shared_ptr<Request>& request, const std::string& path)
{
    return Submit(Kind::Read, request, [&](zhandle_t* zh, const void* call) {
        return zoo_aget_children(zh, path.c_str(), 0, &ClientHandle::OnStrings, call);
    });
}

int ClientHandle::GetData(const std::shared_ptr<Request>& request, const std::string& path)
{
    return Submit(Kind::Read, request, [&](zhandle_t* zh, const void* call) {
        return zoo_aget(zh, path.c_str(), 0, &ClientHandle::OnData, call);
    });
}

int ClientHandle::Exists(const std::shared_ptr<Request>& request, const std::string& path)
{
    return Submit(Kind::Read, request, [&](zhandle_t* zh, const void* call) {
        return zoo_aexists(zh, path.c_str(), 0, &ClientHandle::OnStat, call);
    });
}

int ClientHandle::WatchExists(const std::shared_ptr<Request>& request, const std::string& path)
{
    return Submit(
        Kind::Read, request,
        [&](zhandle_t* zh, const void* call) {
            return zoo_awexists(zh, path.c_str(), &ClientHandle::OnWatch, this, &ClientHandle::OnStat, call);
        },
        path);
}

int ClientHandle::Delete(const std::shared_ptr<Request>& request, const std::string& path)
{
    constexpr int kAnyVersion = -1;
    return Submit(Kind::Write, request, [&](zhandle_t* zh, const void* call) {
        return zoo_adelete(zh, path.c_str(), kAnyVersion, &ClientHandle::OnVoid, call);
    });
}

int ClientHandle::ReadNothing(const std::shared_ptr<Request>& request)
{
    return Submit(Kind::Read, request, [&](zhandle_t* zh, const void* call) {
        return zoo_aget_acl(zh, kNoSuchNode, &ClientHandle::OnAcl, call);
    });
}

int ClientHandle::WriteNothing(const std::shared_ptr<Request>& request)
{
    // A transaction, since servers that check permissions eagerly do not look into it.
    return Transact(request, {Operation::Check(kNoSuchNode)}, ZOO_OPEN_ACL_UNSAFE);
}

int ClientHandle::Transact(const std::shared_ptr<Request>& request, const std::vector<Operation>& operations,
                           const ACL_vector& acl)
{
    // Of what the library is given here only the outcomes outlive the call below.
    TransactionOutcomes outcomes;
    const std::vector<zoo_op_t> steps = Steps(operations, acl, outcomes);
    zoo_op_result_t* const results = outcomes.results.data();
    return Submit(
        Kind::Write, request,
        [&](zhandle_t* zh, const void* call) {
            // Otherwise the library would lose the memory of what it cannot queue.
            if (is_unrecoverable(zh) != ZOK)
            {
                return static_cast<int>(ZINVALIDSTATE);
            }
            return zoo_amulti(zh, static_cast<int>(steps.size()), steps.data(), results, &ClientHandle::OnOutcomes,
                              call);
        },
        {}, std::move(outcomes));
}

int ClientHandle::Sync(const std::shared_ptr<Request>& request, const std::string& path)
{
    return Submit(Kind::Read, request, [&](zhandle_t* zh, const void* call) {
        return zoo_async(zh, path.c_str(), &ClientHandle::OnString, call);
    });
}

void ClientHandle::ForgetWatch(const std::string& path)
{
    if (closing_)
    {
        return;
    }
    const SharedLock lock(gate_);
    if (zh_ != nullptr)
    {
        // "Local" keeps it off the network. Its code does not matter: without a watcher there is nothing to forget.
        constexpr int kLocal = 1;
        zoo_remove_watches(zh_, path.c_str(), ZWATCHTYPE_DATA, &ClientHandle::OnWatch, this, kLocal);
    }
}

void ClientHandle::Close(int rc)
{
    closing_ = true;
    zhandle_t* zh = nullptr;
    {
        const ExclusiveLock lock(gate_);
        zh = std::exchange(zh_, nullptr);
    }
    if (zh == nullptr)
    {
        return;
    }

    // Who waits is told first: closing takes seconds when a server hangs.
    std::vector<std::shared_ptr<Request>> waiting;
    {
        const MutexLock lock(callsMutex_);
        for (const auto& [number, owned] : calls_)
        {
            waiting.push_back(owned->request);
        }
    }
    for (const std::shared_ptr<Request>& request : waiting)
    {
        request->Finish(rc);
    }

    closingThread_ = gettid();
    zookeeper_close(zh);
    closed_ = true;

    // The library's threads are gone; what it has not answered by now it never will.
    const MutexLock lock(callsMutex_);
    calls_.clear();
}

void ClientHandle::LeaveCallback(bool final)
{
    if (mayLeave_ || (!final && !closing_))
    {
        return;
    }
    constexpr std::chrono::microseconds kPause{200};
    // Where the state of threads cannot be seen, the steps in question are over long before this.
    constexpr std::chrono::milliseconds kLongEnough{100};
    while (closingThread_ == 0)
    {
        std::this_thread::sleep_for(kPause);
    }
    // The closing thread sleeps only once it waits for this one to end, which is well past those steps.
    const Clock::time_point end = Clock::now() + kLongEnough;
    while (!closed_ && !Asleep(closingThread_) && Clock::now() < end)
    {
        std::this_thread::sleep_for(kPause);
    }
    mayLeave_ = true;
}

std::unique_ptr<ClientHandle::Call> ClientHandle::Take(const void* data)
{
    const MutexLock lock(callsMutex_);
    const auto found = calls_.find(static_cast<const Call*>(data)->number);
    std::unique_ptr<Call> call = std::move(found->second);
    calls_.erase(found);
    return call;
}

void ClientHandle::OnWatch(zhandle_t* zh, int type, int state, const char* path, void* context) noexcept
{
    ClientHandle& self = *static_cast<ClientHandle*>(context);
    if (type != ZOO_SESSION_EVENT)
    {
        self.events_.OnNodeEvent(self.generation_, type, state, path);
        self.LeaveCallback(false);
        return;
    }
    SessionEvent event{state, {}, std::chrono::milliseconds(0), std::chrono::milliseconds(0), std::string()};
    if (state == ZOO_CONNECTED_STATE)
    {
        event.identity = *zoo_client_id(zh);
        event.negotiatedTimeout = std::chrono::milliseconds(zoo_recv_timeout(zh));
        self.minTimeout_ = std::min(self.minTimeout_, event.negotiatedTimeout);
        event.minTimeout = self.minTimeout_;
        event.server = ConnectedServer(zh);
        if (!self.ShowCredentials(zh))
        {
            // Who asks now would be heard on the next connection before the credentials are.
            return;
        }
    }
    self.events_.OnSessionEvent(self.generation_, event);
    self.LeaveCallback(Final(state));
}

bool ClientHandle::ShowCredentials(zhandle_t* zh)
{
    if (credentials_.empty() || credentialsShown_)
    {
        return true;
    }
    // Not sooner, since the library takes them only while it has a connection. It keeps them, and shows them itself on
    // the next one. A server that refuses them ends the session, which is reported like any other end.
    credentialsShown_ =
        zoo_add_auth(zh, "digest", credentials_.data(), static_cast<int>(credentials_.size()), nullptr, nullptr) == ZOK;
    return credentialsShown_;
}

void ClientHandle::OnAnswer(int rc, const void* data, const std::function<void(Request&)>& store)
{
    ClientHandle& self = *static_cast<const Call*>(data)->handle;
    const auto call = self.Take(data);
    if (AgreedByMajority(rc))
    {
        self.events_.OnServerAnswer(self.generation_, call->sent, call->kind == Kind::Write);
    }
    const bool awaited = call->request->Finish(rc, store);
    if (!awaited && !call->watchedPath.empty() && (rc == ZOK || rc == ZNONODE))
    {
        self.events_.OnLateWatch(self.generation_, call->watchedPath);
    }
    self.LeaveCallback(false);
}

void ClientHandle::OnString(int rc, const char* value, const void* data) noexcept
{
    OnAnswer(rc, data, [&](Request& request) { request.createdPath = value != nullptr ? value : ""; });
}

void ClientHandle::OnStrings(int rc, const String_vector* strings, const void* data) noexcept
{
    OnAnswer(rc, data, [&](Request& request) {
        if (strings != nullptr)
        {
            request.children.assign(strings->data, strings->data + strings->count);
        }
    });
}

void ClientHandle::OnStat(int rc, const Stat* stat, const void* data) noexcept
{
    OnAnswer(rc, data, [&](Request& request) {
        if (stat != nullptr)
        {
            request.stat = *stat;
        }
    });
}

void ClientHandle::OnData(int rc, const char* value, int length, const Stat* stat, const void* data) noexcept
{
    OnAnswer(rc, data, [&](Request& request) {
        // A node that was made without data has a length of -1.
        if (value != nullptr && length > 0)
        {
            request.data.assign(value, static_cast<std::size_t>(length));
        }
        if (stat != nullptr)
        {
            request.stat = *stat;
        }
    });
}

void ClientHandle::OnOutcomes(int rc, const void* data) noexcept
{
    const TransactionOutcomes& outcomes = static_cast<const Call*>(data)->outcomes;
    OnAnswer(rc, data, [&](Request& request) {
        if (rc == ZOK)
        {
            request.createdPaths = CreatedPaths(outcomes);
        }
        else if (FromServer(rc) || rc == ZBADARGUMENTS)
        {
            request.refused = RefusedStep(rc, outcomes);
        }
    });
}

void ClientHandle::OnAcl(int rc, ACL_vector* /*acl*/, Stat* /*stat*/, const void* data) noexcept
{
    OnAnswer(rc, data, nullptr);
}

void ClientHandle::OnVoid(int rc, const void* data) noexcept
{
    OnAnswer(rc, data, nullptr);
}

}  // namespace kx::velmor
