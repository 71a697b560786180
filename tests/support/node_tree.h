#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kx::velmor::testing_support {

/// The nodes of a ZooKeeper service, in memory, with the service's result codes.
///
/// Threads: guarded by its owner.
class NodeTree
{
public:
    struct Node
    {
        /// The session that the node goes with; 0 for a persistent node.
        std::int64_t ephemeralOwner = 0;
        std::int64_t created = 0;
        /// Counts all children ever created: where the service takes sequence suffixes from.
        std::int32_t childrenCreated = 0;
        std::int32_t version = 0;
    };

    /// Only "/" exists.
    NodeTree();

    /// `created` is the path, with the sequence suffix that `sequential` asks for.
    int Create(const std::string& path, std::int64_t owner, bool sequential, std::string& created);
    int Delete(const std::string& path);
    int Touch(const std::string& path);

    /// The newest first: the real service promises no order, and sorted names would hide a missing sort.
    int Children(const std::string& path, std::vector<std::string>& children) const;

    /// Null when there is no such node.
    const Node* Find(const std::string& path) const;

    std::vector<std::string> OwnedBy(std::int64_t session) const;

private:
    std::map<std::string, Node> nodes_;
    std::int64_t changes_ = 0;
};

/// "/a" for "/a/b", "/" for "/a".
std::string ParentOf(const std::string& path);

}  // namespace kx::velmor::testing_support
