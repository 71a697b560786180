#pragma once

#include <zookeeper/zookeeper.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kx::velmor {

/// The nodes of a ZooKeeper service, in memory, with the service's result codes.
///
/// Threads: guarded by its owner.
class NodeTree
{
public:
    /// Matches every version of a node.
    static constexpr std::int32_t kAnyVersion = -1;

    struct Node
    {
        std::string data{};
        /// The session that the node goes with; 0 for a persistent node.
        std::int64_t ephemeralOwner = 0;
        /// The transactions that created the node, set its data, and created or deleted a child.
        std::int64_t created = 0;
        std::int64_t changed = 0;
        std::int64_t childrenChanged = 0;
        /// Milliseconds since 1970.
        std::int64_t createdAt = 0;
        std::int64_t changedAt = 0;
        /// Older than all nodes with a greater number, also within one transaction.
        std::int64_t order = 0;
        /// Counts all children ever created: where the service takes sequence suffixes from.
        std::int32_t childrenCreated = 0;
        std::int32_t children = 0;
        std::int32_t version = 0;
    };

    /// Only "/" exists.
    NodeTree();

    /// What is done from now on is one transaction, later than those before and made at `time`, in milliseconds since
    /// 1970.
    void BeginTransaction(std::int64_t time = 0);

    /// The number of the last transaction.
    std::int64_t LastTransaction() const { return transaction_; }

    /// `created` is the path, with the sequence suffix that `sequential` asks for.
    int Create(const std::string& path, std::int64_t owner, bool sequential, std::string& created,
               const std::string& data = {});
    int Delete(const std::string& path, std::int32_t version = kAnyVersion);
    int Set(const std::string& path, const std::string& data, std::int32_t version = kAnyVersion);
    /// Whether the node exists, in this version.
    int Check(const std::string& path, std::int32_t version) const;

    /// The newest first: the real service promises no order, and sorted names would hide a missing sort.
    int Children(const std::string& path, std::vector<std::string>& children) const;

    /// Null when there is no such node.
    const Node* Find(const std::string& path) const;

    std::vector<std::string> OwnedBy(std::int64_t session) const;

private:
    std::map<std::string, Node> nodes_;
    std::int64_t transaction_ = 0;
    std::int64_t time_ = 0;
    std::int64_t order_ = 0;
};

/// What the service tells of a node.
Stat StatOf(const NodeTree::Node& node);

/// Whether the client library and the service take this for the path of a node.
bool IsNodePath(const std::string& path, bool sequential = false);

/// "/a" for "/a/b", "/" for "/a".
std::string ParentOf(const std::string& path);

}  // namespace kx::velmor
