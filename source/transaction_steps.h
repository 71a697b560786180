#pragma once

#include <kx/velmor/transaction.h>

#include <zookeeper/zookeeper.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor {

/// What the client library writes about a transaction: while it is under way into memory that must stay where it is,
/// and be read only once the answer is there. However this object is moved, that memory stays.
struct TransactionOutcomes
{
    std::vector<zoo_op_result_t> results;
    /// Room for the paths of created nodes; empty for other operations.
    std::vector<std::vector<char>> paths;
};

/// The operations as the client library takes them, which makes room in `outcomes`. They refer to all that is given.
std::vector<zoo_op_t> Steps(const std::vector<Operation>& operations, const ACL_vector& acl,
                            TransactionOutcomes& outcomes);

/// For which operation the servers refused all of them with `rc`; empty when they did not say so.
std::optional<std::size_t> RefusedStep(int rc, const TransactionOutcomes& outcomes);

/// After success, one per operation; empty for those that create nothing.
std::vector<std::string> CreatedPaths(const TransactionOutcomes& outcomes);

}  // namespace kx::velmor
