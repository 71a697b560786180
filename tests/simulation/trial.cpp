#include "tests/simulation/trial.h"

#include <cstdio>

namespace kx::velmor::simulation {

Trial::Shadow& Trial::At(const std::string& path)
{
    const auto [found, isNew] = shadows_.try_emplace(path);
    if (isNew)
    {
        if (const NodeTree::Node* const node = tree_.Find(path))
        {
            found->second =
                Shadow{true, node->ephemeralOwner != 0, node->version, node->children, node->childrenCreated};
        }
    }
    return found->second;
}

int Trial::Try(const Step& step)
{
    switch (step.kind)
    {
        case Step::Kind::Create:
            return Create(step);
        case Step::Kind::Delete:
            return Delete(step);
        case Step::Kind::Set: {
            const int rc = Check(step);
            At(step.path).version += rc == ZOK ? 1 : 0;
            return rc;
        }
        case Step::Kind::Check:
            return Check(step);
        case Step::Kind::DeleteTree:
            break;
    }
    return ZUNIMPLEMENTED;
}

int Trial::Create(const Step& step)
{
    if (!IsNodePath(step.path, step.sequential))
    {
        return ZBADARGUMENTS;
    }
    Shadow& parent = At(ParentOf(step.path));
    if (!parent.exists)
    {
        return ZNONODE;
    }
    if (parent.ephemeral)
    {
        return ZNOCHILDRENFOREPHEMERALS;
    }
    std::string path = step.path;
    if (step.sequential)
    {
        char suffix[16];
        std::snprintf(suffix, sizeof(suffix), "%010d", parent.childrenCreated);
        path += suffix;
    }
    // References into a map outlive insertions.
    Shadow& node = At(path);
    if (node.exists)
    {
        return ZNODEEXISTS;
    }
    node = Shadow{true, step.ephemeral, 0, 0, 0};
    ++parent.children;
    ++parent.childrenCreated;
    return ZOK;
}

int Trial::Delete(const Step& step)
{
    const int rc = Check(step);
    if (rc != ZOK)
    {
        return rc;
    }
    Shadow& node = At(step.path);
    if (node.children > 0)
    {
        return ZNOTEMPTY;
    }
    node = Shadow{};
    --At(ParentOf(step.path)).children;
    return ZOK;
}

int Trial::Check(const Step& step)
{
    const Shadow& node = At(step.path);
    if (!node.exists)
    {
        return ZNONODE;
    }
    return step.version == NodeTree::kAnyVersion || step.version == node.version ? ZOK : static_cast<int>(ZBADVERSION);
}

}  // namespace kx::velmor::simulation
