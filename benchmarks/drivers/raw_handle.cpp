#include "benchmarks/drivers/raw_handle.h"

#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace kx::velmor::benchmarks {

namespace {

/// Counts answers that are still to come.
class Outstanding
{
public:
    explicit Outstanding(std::size_t count) : left_(count) {}

    void Answered(int rc)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        rc_ = rc_ == ZOK ? rc : rc_;
        if (--left_ == 0)
        {
            done_.notify_all();
        }
    }

    void Await(const std::string& what)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!done_.wait_for(lock, kPatience, [this] { return left_ == 0; }))
        {
            throw std::runtime_error(what + ": no answer");
        }
        Insist(rc_, what);
    }

private:
    std::mutex mutex_;
    std::condition_variable done_;
    std::size_t left_;
    int rc_ = ZOK;
};

void OnString(int rc, const char*, const void* data)
{
    static_cast<Outstanding*>(const_cast<void*>(data))->Answered(rc);
}

void OnVoid(int rc, const void* data)
{
    static_cast<Outstanding*>(const_cast<void*>(data))->Answered(rc);
}

}  // namespace

void Insist(int rc, const std::string& what)
{
    if (rc != ZOK)
    {
        throw std::runtime_error(what + ": " + zerror(rc));
    }
}

RawHandle::RawHandle(const std::string& servers, std::chrono::milliseconds sessionTimeout, watcher_fn watcher,
                     void* context)
    : handle_(zookeeper_init2(servers.c_str(), watcher, static_cast<int>(sessionTimeout.count()), nullptr, context,
                              ZOO_NO_LOG_CLIENTENV, [](const char*) {}))
{
    if (handle_ == nullptr)
    {
        throw std::runtime_error("cannot open a handle for " + servers);
    }
    zoo_set_servers_resolution_delay(handle_, -1);
    const Clock::time_point end = Clock::now() + kPatience;
    while (zoo_state(handle_) != ZOO_CONNECTED_STATE)
    {
        if (Clock::now() > end)
        {
            zookeeper_close(handle_);
            throw std::runtime_error("no server answers at " + servers);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

RawHandle::~RawHandle()
{
    zookeeper_close(handle_);
}

void RawHandle::EnsurePath(const std::string& path) const
{
    for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1))
    {
        const std::string ancestor = path.substr(0, end);
        const int rc = zoo_create(handle_, ancestor.c_str(), "", 0, &ZOO_OPEN_ACL_UNSAFE, 0, nullptr, 0);
        Insist(rc == ZNODEEXISTS ? static_cast<int>(ZOK) : rc, "create " + ancestor);
        if (end == std::string::npos)
        {
            return;
        }
    }
}

std::string RawHandle::Create(const std::string& path, int flags) const
{
    constexpr std::size_t kSequenceRoom = 12;
    std::string created(path.size() + kSequenceRoom, '\0');
    Insist(zoo_create(handle_, path.c_str(), "", 0, &ZOO_OPEN_ACL_UNSAFE, flags, created.data(),
                      static_cast<int>(created.size())),
           "create " + path);
    created.resize(created.find('\0'));
    return created;
}

void RawHandle::Delete(const std::string& path) const
{
    Insist(zoo_delete(handle_, path.c_str(), -1), "delete " + path);
}

std::vector<std::string> RawHandle::Children(const std::string& path) const
{
    String_vector listing{};
    Insist(zoo_get_children(handle_, path.c_str(), 0, &listing), "list " + path);
    std::vector<std::string> children(listing.data, listing.data + listing.count);
    deallocate_String_vector(&listing);
    return children;
}

void RawHandle::CreateAll(const std::vector<std::string>& paths, int flags) const
{
    Outstanding outstanding(paths.size());
    for (const std::string& path : paths)
    {
        Insist(zoo_acreate(handle_, path.c_str(), "", 0, &ZOO_OPEN_ACL_UNSAFE, flags, &OnString, &outstanding),
               "create " + path);
    }
    outstanding.Await("create many");
}

void RawHandle::DeleteAll(const std::vector<std::string>& paths) const
{
    Outstanding outstanding(paths.size());
    for (const std::string& path : paths)
    {
        Insist(zoo_adelete(handle_, path.c_str(), -1, &OnVoid, &outstanding), "delete " + path);
    }
    outstanding.Await("delete many");
}

}  // namespace kx::velmor::benchmarks
