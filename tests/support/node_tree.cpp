#include "tests/support/node_tree.h"

#include <zookeeper/zookeeper.h>

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <utility>

namespace kx::velmor::testing_support {

namespace {

bool IsValid(const std::string& path)
{
    return path == "/" || (!path.empty() && path.front() == '/' && path.back() != '/' &&
                           path.find("//") == std::string::npos && path.find('\0') == std::string::npos);
}

bool IsChild(const std::string& path, const std::string& parent)
{
    return path != "/" && ParentOf(path) == parent;
}

}  // namespace

std::string ParentOf(const std::string& path)
{
    const std::size_t separator = path.rfind('/');
    return separator == 0 ? "/" : path.substr(0, separator);
}

NodeTree::NodeTree()
{
    nodes_["/"];
}

int NodeTree::Create(const std::string& path, std::int64_t owner, bool sequential, std::string& created)
{
    // A sequential node's name may be nothing but its number.
    if (!IsValid(sequential ? path + "0" : path))
    {
        return ZBADARGUMENTS;
    }
    if (path == "/")
    {
        return ZNODEEXISTS;
    }
    const auto parent = nodes_.find(ParentOf(path));
    if (parent == nodes_.end())
    {
        return ZNONODE;
    }
    if (parent->second.ephemeralOwner != 0)
    {
        return ZNOCHILDRENFOREPHEMERALS;
    }
    created = path;
    if (sequential)
    {
        std::ostringstream suffix;
        suffix << std::setw(10) << std::setfill('0') << parent->second.childrenCreated;
        created += suffix.str();
    }
    if (nodes_.count(created) != 0)
    {
        return ZNODEEXISTS;
    }
    ++parent->second.childrenCreated;
    nodes_[created] = Node{owner, ++changes_, 0, 0};
    return ZOK;
}

int NodeTree::Delete(const std::string& path)
{
    std::vector<std::string> children;
    const int rc = Children(path, children);
    if (rc != ZOK)
    {
        return rc;
    }
    if (!children.empty())
    {
        return ZNOTEMPTY;
    }
    nodes_.erase(path);
    return ZOK;
}

int NodeTree::Touch(const std::string& path)
{
    const auto node = nodes_.find(path);
    if (node == nodes_.end())
    {
        return ZNONODE;
    }
    ++node->second.version;
    return ZOK;
}

int NodeTree::Children(const std::string& path, std::vector<std::string>& children) const
{
    if (nodes_.count(path) == 0)
    {
        return ZNONODE;
    }
    std::vector<std::pair<std::int64_t, std::string>> found;
    for (const auto& [candidate, node] : nodes_)
    {
        if (IsChild(candidate, path))
        {
            found.emplace_back(node.created, candidate.substr(candidate.rfind('/') + 1));
        }
    }
    std::sort(found.rbegin(), found.rend());
    children.clear();
    for (auto& [created, name] : found)
    {
        children.push_back(std::move(name));
    }
    return ZOK;
}

const NodeTree::Node* NodeTree::Find(const std::string& path) const
{
    const auto node = nodes_.find(path);
    return node == nodes_.end() ? nullptr : &node->second;
}

std::vector<std::string> NodeTree::OwnedBy(std::int64_t session) const
{
    std::vector<std::string> owned;
    for (const auto& [path, node] : nodes_)
    {
        if (node.ephemeralOwner != 0 && node.ephemeralOwner == session)
        {
            owned.push_back(path);
        }
    }
    return owned;
}

}  // namespace kx::velmor::testing_support
