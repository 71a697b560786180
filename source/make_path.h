#pragma once

#include <zookeeper/zookeeper.h>

#include <functional>
#include <string>
#include <vector>

namespace kx::velmor {

/// "/a/b/c" as "/a", "/a/b", "/a/b/c". Throws `VelmorError` for a path that names no node.
std::vector<std::string> Ancestry(const std::string& path);

/// How a path is looked at and a node of it made; both take a path and give a ZooKeeper code.
struct PathCalls
{
    std::function<int(const std::string&)> exists;
    std::function<int(const std::string&)> create;
};

/// Makes the missing nodes of a path, given with its ancestors as `Ancestry` does. `ZOK` when all are there, whoever
/// made them.
int MakePath(const std::vector<std::string>& ancestry, const PathCalls& calls);

}  // namespace kx::velmor
