#include "source/transaction_steps.h"

#include <algorithm>

namespace kx::velmor {

namespace {

int Flags(NodeMode mode)
{
    switch (mode)
    {
        case NodeMode::Persistent:
            return 0;
        case NodeMode::Ephemeral:
            return ZOO_EPHEMERAL;
        case NodeMode::PersistentSequential:
            return ZOO_SEQUENCE;
        case NodeMode::EphemeralSequential:
            return ZOO_EPHEMERAL | ZOO_SEQUENCE;
    }
    return 0;
}

/// Room for the path of the node that an operation creates.
std::vector<char> Room(const Operation& operation)
{
    // A sequence number has ten digits, or eleven characters once its counter has overflowed; then the final zero.
    constexpr std::size_t kBehindPath = 11 + 1;
    const bool creates = operation.kind == Operation::Kind::Create;
    return std::vector<char>(creates ? operation.path.size() + kBehindPath : 0);
}

/// Refers to all that it is given.
zoo_op_t Step(const Operation& operation, const ACL_vector& acl, std::vector<char>& created)
{
    const char* const path = operation.path.c_str();
    const int size = static_cast<int>(operation.data.size());
    zoo_op_t step{};
    switch (operation.kind)
    {
        case Operation::Kind::Create:
            zoo_create_op_init(&step, path, operation.data.data(), size, &acl, Flags(operation.mode), created.data(),
                               static_cast<int>(created.size()));
            break;
        case Operation::Kind::Set:
            zoo_set_op_init(&step, path, operation.data.data(), size, operation.version, nullptr);
            break;
        case Operation::Kind::Delete:
            zoo_delete_op_init(&step, path, operation.version);
            break;
        case Operation::Kind::Check:
            zoo_check_op_init(&step, path, operation.version);
            break;
    }
    return step;
}

}  // namespace

std::vector<zoo_op_t> Steps(const std::vector<Operation>& operations, const ACL_vector& acl,
                            TransactionOutcomes& outcomes)
{
    std::vector<zoo_op_t> steps;
    for (const Operation& operation : operations)
    {
        outcomes.paths.push_back(Room(operation));
        steps.push_back(Step(operation, acl, outcomes.paths.back()));
    }
    outcomes.results.resize(operations.size());
    return steps;
}

std::optional<std::size_t> RefusedStep(int rc, const TransactionOutcomes& outcomes)
{
    // The operations before it have no error, and those behind it have one that says that they were not looked at. When
    // there is no answer, the client library gives all of them the same code.
    const auto& results = outcomes.results;
    const auto first = std::find_if(results.begin(), results.end(), [](const auto& result) { return result.err != 0; });
    const bool told =
        first != results.end() && first->err == rc &&
        std::all_of(first + 1, results.end(), [](const auto& result) { return result.err == ZRUNTIMEINCONSISTENCY; });
    return told ? std::optional<std::size_t>(first - results.begin()) : std::nullopt;
}

std::vector<std::string> CreatedPaths(const TransactionOutcomes& outcomes)
{
    std::vector<std::string> created;
    for (const std::vector<char>& path : outcomes.paths)
    {
        created.emplace_back(path.empty() ? "" : path.data());
    }
    return created;
}

}  // namespace kx::velmor
