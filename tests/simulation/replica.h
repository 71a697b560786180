#pragma once

#include "source/testing/node_tree.h"
#include "tests/simulation/protocol.h"

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace kx::velmor::simulation {

/// What a server has on its disk: the nodes and the sessions, as of the last transaction that was applied. Servers that
/// have applied the same proposals are equal.
class Replica
{
public:
    struct Change
    {
        /// `ZOO_CREATED_EVENT` and the like.
        int type;
        std::string path;
    };

    struct Effect
    {
        int rc = ZOK;
        std::vector<StepOutcome> outcomes{};
        /// In the order in which they happened.
        std::vector<Change> changes{};
    };

    Replica();

    /// Proposals come in the order of their numbers, without a gap.
    Effect Apply(const Proposal& proposal);

    const NodeTree& Tree() const { return tree_; }
    TransactionNumber LastTransaction() const { return tree_.LastTransaction(); }
    /// With the timeouts of their creation.
    const std::map<SessionId, std::chrono::milliseconds>& Sessions() const { return sessions_; }

private:
    Effect Write(const Proposal& proposal);
    StepOutcome Do(const Step& step, SessionId session, std::vector<Change>& changes);
    StepOutcome DeleteTree(const std::string& path, std::vector<Change>& changes);
    void CloseSession(SessionId session, std::vector<Change>& changes);

    NodeTree tree_;
    std::map<SessionId, std::chrono::milliseconds> sessions_;
};

}  // namespace kx::velmor::simulation
