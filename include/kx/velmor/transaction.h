#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor {

/// What becomes of a node that a transaction creates.
enum class NodeMode
{
    Persistent,
    /// Goes with the session.
    Ephemeral,
    /// The service appends a number to the name.
    PersistentSequential,
    EphemeralSequential,
};

/// One step of a transaction. Paths are absolute, relative to the session's root, as everywhere.
struct Operation
{
    enum class Kind
    {
        Create,
        Set,
        Delete,
        Check,
    };

    /// Matches every version of a node.
    static constexpr int kAnyVersion = -1;

    static Operation Create(std::string path, std::string data, NodeMode mode = NodeMode::Persistent);
    static Operation Set(std::string path, std::string data, int version = kAnyVersion);
    static Operation Delete(std::string path, int version = kAnyVersion);
    /// Changes nothing; fails unless the node exists, in this version.
    static Operation Check(std::string path, int version = kAnyVersion);

    Kind kind = Kind::Check;
    std::string path{};
    std::string data{};
    int version = kAnyVersion;
    NodeMode mode = NodeMode::Persistent;
};

/// What a transaction came to, beside its code.
struct TransactionResult
{
    /// Index of the operation for which the servers refused all of them; empty when they did not.
    std::optional<std::size_t> refused{};
    /// After success, one per operation: the path that was created, sequence number included; empty for other kinds.
    std::vector<std::string> created{};
};

}  // namespace kx::velmor
