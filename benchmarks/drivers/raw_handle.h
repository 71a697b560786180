#pragma once

#include "benchmarks/drivers/contender.h"

#include <zookeeper/zookeeper.h>

#include <string>
#include <vector>

namespace kx::velmor::benchmarks {

/// The client library's handle, and its synchronous calls with codes that are errors thrown.
class RawHandle
{
public:
    /// Waits until connected. `watcher` gets every event, with `context`.
    RawHandle(const std::string& servers, std::chrono::milliseconds sessionTimeout, watcher_fn watcher = nullptr,
              void* context = nullptr);
    ~RawHandle();

    RawHandle(const RawHandle&) = delete;
    RawHandle& operator=(const RawHandle&) = delete;

    zhandle_t* Get() const { return handle_; }

    /// Makes the node and those above it, unless they exist.
    void EnsurePath(const std::string& path) const;
    /// The path that was made.
    std::string Create(const std::string& path, int flags) const;
    void Delete(const std::string& path) const;
    /// The names of the children.
    std::vector<std::string> Children(const std::string& path) const;

    /// All at once: each is asked for before the first is answered.
    void CreateAll(const std::vector<std::string>& paths, int flags) const;
    void DeleteAll(const std::vector<std::string>& paths) const;

private:
    zhandle_t* handle_;
};

/// Throws what a code of the client library stands for, unless that is success.
void Insist(int rc, const std::string& what);

}  // namespace kx::velmor::benchmarks
