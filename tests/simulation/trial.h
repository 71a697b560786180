#pragma once

#include "source/testing/node_tree.h"
#include "tests/simulation/protocol.h"

#include <cstdint>
#include <map>
#include <string>

namespace kx::velmor::simulation {

/// Tells what the steps of a transaction would come to, without touching the tree: a transaction of which one step
/// fails must leave no trace.
class Trial
{
public:
    explicit Trial(const NodeTree& tree) : tree_(tree) {}

    /// `ZOK`, or the code with which the tree would refuse this step after those before.
    int Try(const Step& step);

private:
    struct Shadow
    {
        bool exists = false;
        bool ephemeral = false;
        std::int32_t version = 0;
        std::int32_t children = 0;
        std::int32_t childrenCreated = 0;
    };

    Shadow& At(const std::string& path);
    int Create(const Step& step);
    int Delete(const Step& step);
    int Check(const Step& step);

    const NodeTree& tree_;
    std::map<std::string, Shadow> shadows_;
};

}  // namespace kx::velmor::simulation
