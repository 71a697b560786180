#include "source/testing/node_tree.h"

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <utility>

namespace kx::velmor {

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

Stat StatOf(const NodeTree::Node& node)
{
    Stat stat{};
    stat.czxid = node.created;
    stat.mzxid = node.changed;
    stat.pzxid = node.childrenChanged;
    stat.ctime = node.createdAt;
    stat.mtime = node.changedAt;
    stat.version = node.version;
    // The service shows all creations and deletions of children, and counts only creations.
    stat.cversion = 2 * node.childrenCreated - node.children;
    stat.ephemeralOwner = node.ephemeralOwner;
    stat.dataLength = static_cast<std::int32_t>(node.data.size());
    stat.numChildren = node.children;
    return stat;
}

bool IsNodePath(const std::string& path, bool sequential)
{
    if (path.empty() || path.front() != '/')
    {
        return false;
    }
    constexpr char kLastControl = 0x1f;
    for (const char letter : path)
    {
        if (letter >= 0 && letter <= kLastControl)
        {
            return false;
        }
    }
    for (std::size_t begin = 1; begin < path.size();)
    {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string component = path.substr(begin, end - begin);
        if (component.empty() || component == "." || component == "..")
        {
            return false;
        }
        begin = end + 1;
    }
    // A sequential node may be called by its number alone.
    return path == "/" || path.back() != '/' || sequential;
}

std::string ParentOf(const std::string& path)
{
    const std::size_t separator = path.rfind('/');
    return separator == 0 ? "/" : path.substr(0, separator);
}

NodeTree::NodeTree()
{
    nodes_["/"];
}

void NodeTree::BeginTransaction(std::int64_t time)
{
    ++transaction_;
    time_ = time;
}

int NodeTree::Create(const std::string& path, std::int64_t owner, bool sequential, std::string& created,
                     const std::string& data)
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
    ++parent->second.children;
    parent->second.childrenChanged = transaction_;
    Node& node = nodes_[created];
    node.data = data;
    node.ephemeralOwner = owner;
    node.created = node.changed = node.childrenChanged = transaction_;
    node.createdAt = node.changedAt = time_;
    node.order = ++order_;
    return ZOK;
}

int NodeTree::Delete(const std::string& path, std::int32_t version)
{
    if (path == "/")
    {
        return ZBADARGUMENTS;
    }
    const int rc = Check(path, version);
    if (rc != ZOK)
    {
        return rc;
    }
    if (nodes_[path].children > 0)
    {
        return ZNOTEMPTY;
    }
    nodes_.erase(path);
    Node& parent = nodes_[ParentOf(path)];
    --parent.children;
    parent.childrenChanged = transaction_;
    return ZOK;
}

int NodeTree::Set(const std::string& path, const std::string& data, std::int32_t version)
{
    const int rc = Check(path, version);
    if (rc != ZOK)
    {
        return rc;
    }
    Node& node = nodes_[path];
    node.data = data;
    node.changed = transaction_;
    node.changedAt = time_;
    ++node.version;
    return ZOK;
}

int NodeTree::Check(const std::string& path, std::int32_t version) const
{
    const auto node = nodes_.find(path);
    if (node == nodes_.end())
    {
        return ZNONODE;
    }
    return version == kAnyVersion || version == node->second.version ? ZOK : ZBADVERSION;
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
            found.emplace_back(node.order, candidate.substr(candidate.rfind('/') + 1));
        }
    }
    std::sort(found.rbegin(), found.rend());
    children.clear();
    for (auto& [order, name] : found)
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

}  // namespace kx::velmor
