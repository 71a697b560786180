#include "source/make_path.h"
#include "source/printable.h"

#include <kx/velmor/error.h>
#include <kx/velmor/path.h>

#include <algorithm>
#include <vector>

namespace kx::velmor {

namespace {

/// How often a node is tried again whose creation ended without an answer, and a path whose ancestors somebody deletes
/// while it is built.
constexpr int kAttempts = 3;

constexpr std::size_t kAmpleRoom = 1'000;

[[noreturn]] void Refuse(const std::string& path, const char* reason)
{
    throw VelmorError(("Invalid path \"" + Printable(path) + "\": " + reason).c_str());
}

bool OutcomeUnknown(int rc)
{
    return rc == ZCONNECTIONLOSS || rc == ZOPERATIONTIMEOUT;
}

/// Makes one node below an existing one; `ZOK` when it is there, whoever made it.
int MakeNode(const std::string& path, const PathCalls& calls)
{
    int rc = ZOK;
    for (int attempt = 0; attempt < kAttempts; ++attempt)
    {
        rc = calls.create(path);
        if (rc == ZOK || rc == ZNODEEXISTS)
        {
            return ZOK;
        }
        if (rc == ZNONODE)
        {
            return rc;
        }
        // The server asks for the right to create before it looks whether there is anything to create, and a lost reply
        // tells nothing: in both cases the node may be there.
        const int looked = calls.exists(path);
        if (looked == ZOK)
        {
            return ZOK;
        }
        if (!OutcomeUnknown(rc) || looked != ZNONODE)
        {
            return rc;
        }
    }
    return rc;
}

/// One pass over the path and its ancestors.
int MakeMissing(const std::vector<std::string>& ancestry, const PathCalls& calls)
{
    std::size_t existing = ancestry.size();
    for (; existing > 0; --existing)
    {
        const int rc = calls.exists(ancestry[existing - 1]);
        if (rc == ZOK)
        {
            break;
        }
        if (rc != ZNONODE)
        {
            return rc;
        }
    }
    for (std::size_t next = existing; next < ancestry.size(); ++next)
    {
        const int rc = MakeNode(ancestry[next], calls);
        if (rc != ZOK)
        {
            return rc;
        }
    }
    return ZOK;
}

bool IsRoot(const std::string& path)
{
    return !path.empty() && path.find_first_not_of('/') == std::string::npos;
}

}  // namespace

std::string NormalizePath(std::string path)
{
    if (path.find('\0') != std::string::npos)
    {
        Refuse(path, "it contains a NUL character");
    }
    std::string normal;
    for (std::size_t begin = 0; begin < path.size();)
    {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string component = path.substr(begin, end - begin);
        begin = end + 1;
        if (component.empty())
        {
            continue;
        }
        if (component == "." || component == "..")
        {
            Refuse(path, "\".\" and \"..\" name no node");
        }
        if (!normal.empty())
        {
            normal += '/';
        }
        normal += component;
    }
    if (normal.empty())
    {
        Refuse(path, "it names no node");
    }
    return normal;
}

std::vector<std::string> Ancestry(const std::string& path)
{
    const std::string absolute = "/" + NormalizePath(path);
    std::vector<std::string> paths;
    for (std::size_t end = absolute.find('/', 1); end != std::string::npos; end = absolute.find('/', end + 1))
    {
        paths.push_back(absolute.substr(0, end));
    }
    paths.push_back(absolute);
    return paths;
}

int MakePath(const std::vector<std::string>& ancestry, const PathCalls& calls)
{
    int rc = ZOK;
    for (int attempt = 0; attempt < kAttempts; ++attempt)
    {
        rc = MakeMissing(ancestry, calls);
        // An ancestor went while its children were being made: begin again.
        if (rc != ZNONODE)
        {
            break;
        }
    }
    return rc;
}

void EnsurePath(const Connection& connection, std::string path, bool parentsOnly, const ACL_vector& acl)
{
    std::vector<std::string> ancestry = IsRoot(path) ? std::vector<std::string>{"/"} : Ancestry(path);
    if (parentsOnly)
    {
        ancestry.pop_back();
    }
    const auto exists = [&](const std::string& node) {
        Stat stat{};
        return connection.Exists(node, &stat);
    };
    const auto create = [&](const std::string& node) {
        // Not looked at, but a connection may count on it, and on room for a root in front.
        std::string created(node.size() + kAmpleRoom, '\0');
        return connection.Create(node, std::string(), acl, 0, &created);
    };
    const int rc = MakePath(ancestry, {exists, create});
    if (rc != ZOK)
    {
        throw ZooError(rc);
    }
}

}  // namespace kx::velmor
