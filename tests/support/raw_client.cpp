#include "tests/support/raw_client.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace kx::velmor::testing_support {

namespace {

constexpr std::chrono::milliseconds kTimeoutOfTakenOverSession{10'000};

[[noreturn]] void Fail(const std::string& operation, const std::string& path, int rc)
{
    throw std::runtime_error("test client: " + operation + " " + path + ": " + zerror(rc) + " (" + std::to_string(rc) +
                             ")");
}

/// The client library would print to standard error otherwise. What goes wrong comes back as a code.
void DropLogLine(const char* /*line*/) {}

/// A handle and the last state its session events reported.
class Handle
{
public:
    Handle(const std::string& servers, std::chrono::milliseconds timeout, const clientid_t* session) : servers_(servers)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        handle_ = ::zookeeper_init2(servers.c_str(), &OnEvent, static_cast<int>(timeout.count()), session, this,
                                    ZOO_NO_LOG_CLIENTENV, &DropLogLine);
        if (handle_ == nullptr)
        {
            throw std::runtime_error("test client: cannot make a handle for " + servers);
        }
    }

    ~Handle() { Close(); }

    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    int Close()
    {
        zhandle_t* const handle = std::exchange(handle_, nullptr);
        return handle == nullptr ? ZOK : ::zookeeper_close(handle);
    }

    /// True when connected, false when the session is over.
    bool AwaitConnectedOrOver(std::chrono::milliseconds deadline)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        const bool known = changed_.wait_for(
            lock, deadline, [this] { return state_ == ZOO_CONNECTED_STATE || state_ == ZOO_EXPIRED_SESSION_STATE; });
        if (!known)
        {
            throw std::runtime_error("test client: no answer from " + servers_ + " in " +
                                     std::to_string(deadline.count()) + " ms");
        }
        return state_ == ZOO_CONNECTED_STATE;
    }

    zhandle_t* Get() const
    {
        if (handle_ == nullptr)
        {
            throw std::runtime_error("test client: used after it was closed");
        }
        return handle_;
    }

private:
    static void OnEvent(zhandle_t* /*handle*/, int type, int state, const char* /*path*/, void* context)
    {
        if (type != ZOO_SESSION_EVENT)
        {
            return;
        }
        auto* const self = static_cast<Handle*>(context);
        {
            const std::lock_guard<std::mutex> lock(self->mutex_);
            self->state_ = state;
        }
        self->changed_.notify_all();
    }

    const std::string servers_;
    std::mutex mutex_;
    std::condition_variable changed_;
    int state_ = 0;
    zhandle_t* handle_ = nullptr;
};

struct Answer
{
    std::mutex mutex;
    std::condition_variable arrived;
    std::optional<int> rc;
};

void OnSynced(int rc, const char* /*path*/, const void* context)
{
    // Shared, since the library may drop the completion when the handle is closed, and call it late otherwise.
    const std::unique_ptr<const std::shared_ptr<Answer>> answer(static_cast<const std::shared_ptr<Answer>*>(context));
    {
        const std::lock_guard<std::mutex> lock((*answer)->mutex);
        (*answer)->rc = rc;
    }
    (*answer)->arrived.notify_all();
}

}  // namespace

class RawClient::Impl
{
public:
    Impl(const std::string& servers, std::chrono::milliseconds timeout, const clientid_t* session)
        : handle_(servers, timeout, session)
    {
        if (!handle_.AwaitConnectedOrOver(kPatience))
        {
            throw std::runtime_error("test client: the session is over");
        }
    }

    Handle handle_;
};

RawClient::RawClient(const std::string& servers, std::chrono::milliseconds sessionTimeout)
    : impl_(std::make_unique<Impl>(servers, sessionTimeout, nullptr))
{}

RawClient::RawClient(const std::string& servers, const clientid_t& session)
    : impl_(std::make_unique<Impl>(servers, kTimeoutOfTakenOverSession, &session))
{}

RawClient::~RawClient() = default;

void RawClient::Close()
{
    const int rc = impl_->handle_.Close();
    if (rc != ZOK)
    {
        Fail("close", "the session", rc);
    }
}

std::vector<std::string> RawClient::List(const std::string& path)
{
    String_vector names{};
    const int rc = ::zoo_get_children(impl_->handle_.Get(), path.c_str(), 0, &names);
    if (rc != ZOK)
    {
        Fail("list", path, rc);
    }
    std::vector<std::string> children(names.data, names.data + names.count);
    ::deallocate_String_vector(&names);
    std::sort(children.begin(), children.end());
    return children;
}

std::optional<Stat> RawClient::Exists(const std::string& path)
{
    Stat stat{};
    const int rc = ::zoo_exists(impl_->handle_.Get(), path.c_str(), 0, &stat);
    if (rc == ZNONODE)
    {
        return std::nullopt;
    }
    if (rc != ZOK)
    {
        Fail("exists", path, rc);
    }
    return stat;
}

std::string RawClient::Data(const std::string& path)
{
    // The largest node that a server takes in its default configuration.
    std::string data(1024 * 1024, '\0');
    int length = static_cast<int>(data.size());
    const int rc = ::zoo_get(impl_->handle_.Get(), path.c_str(), 0, data.data(), &length, nullptr);
    if (rc != ZOK)
    {
        Fail("get", path, rc);
    }
    // -1 for a node that was created without any data.
    data.resize(static_cast<std::size_t>(std::max(length, 0)));
    return data;
}

std::string RawClient::Create(const std::string& path, const std::string& data, int flags)
{
    // Room for the sequence number, its sign and the terminator: the library truncates in silence.
    std::string created(path.size() + 12, '\0');
    const int rc = ::zoo_create(impl_->handle_.Get(), path.c_str(), data.data(), static_cast<int>(data.size()),
                                &ZOO_OPEN_ACL_UNSAFE, flags, created.data(), static_cast<int>(created.size()));
    if (rc != ZOK)
    {
        Fail("create", path, rc);
    }
    created.resize(created.find('\0'));
    return created;
}

bool RawClient::Delete(const std::string& path)
{
    const int rc = ::zoo_delete(impl_->handle_.Get(), path.c_str(), -1);
    if (rc != ZOK && rc != ZNONODE)
    {
        Fail("delete", path, rc);
    }
    return rc == ZOK;
}

void RawClient::Permit(const std::string& path, int permissions)
{
    ACL entry{permissions, ZOO_ANYONE_ID_UNSAFE};
    const ACL_vector list{1, &entry};
    const int rc = ::zoo_set_acl(impl_->handle_.Get(), path.c_str(), -1, &list);
    if (rc != ZOK)
    {
        Fail("set the access list of", path, rc);
    }
}

void RawClient::DeleteAll(const std::string& path)
{
    String_vector names{};
    const int listed = ::zoo_get_children(impl_->handle_.Get(), path.c_str(), 0, &names);
    if (listed == ZNONODE)
    {
        return;
    }
    if (listed != ZOK)
    {
        Fail("list", path, listed);
    }
    const std::vector<std::string> children(names.data, names.data + names.count);
    ::deallocate_String_vector(&names);
    for (const std::string& child : children)
    {
        DeleteAll(path + "/" + child);
    }
    Delete(path);
}

void RawClient::Sync(const std::string& path)
{
    const auto answer = std::make_shared<Answer>();
    auto context = std::make_unique<const std::shared_ptr<Answer>>(answer);
    const int rc = ::zoo_async(
        impl_->handle_.Get(), path.c_str(),
        [](int result, const char* value, const void* data) { OnSynced(result, value, data); }, context.get());
    if (rc != ZOK)
    {
        Fail("sync", path, rc);
    }
    // The completion's from here on.
    static_cast<void>(context.release());
    std::unique_lock<std::mutex> lock(answer->mutex);
    if (!answer->arrived.wait_for(lock, kPatience, [&] { return answer->rc.has_value(); }))
    {
        throw std::runtime_error("test client: sync " + path + " was never answered");
    }
    if (*answer->rc != ZOK)
    {
        Fail("sync", path, *answer->rc);
    }
}

clientid_t RawClient::Id() const
{
    return *::zoo_client_id(impl_->handle_.Get());
}

std::chrono::milliseconds RawClient::SessionTimeout() const
{
    return std::chrono::milliseconds(::zoo_recv_timeout(impl_->handle_.Get()));
}

bool CloseSession(const std::string& servers, const clientid_t& session, std::chrono::milliseconds deadline)
{
    Handle handle(servers, kTimeoutOfTakenOverSession, &session);
    if (!handle.AwaitConnectedOrOver(deadline))
    {
        return false;
    }
    const int rc = handle.Close();
    if (rc != ZOK)
    {
        Fail("close", "a session taken over", rc);
    }
    return true;
}

}  // namespace kx::velmor::testing_support
