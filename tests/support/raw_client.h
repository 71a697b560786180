#pragma once

#include "tests/support/await.h"

#include <zookeeper/zookeeper.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor::testing_support {

/// A plain ZooKeeper session with which a test looks at the tree and changes it behind the back of what is tested.
///
/// Nothing is retried: every code that an operation does not announce is thrown as `std::runtime_error` with the
/// operation, the path and the client library's text. Paths are absolute.
///
/// Threads: one at a time. Operations block for a round trip.
class RawClient
{
public:
    /// Opens a session with "host:port,host:port" and waits until it is connected.
    explicit RawClient(const std::string& servers,
                       std::chrono::milliseconds sessionTimeout = std::chrono::milliseconds(10'000));

    /// Takes over a session that exists, from whoever is connected to it. Throws when the session is over.
    RawClient(const std::string& servers, const clientid_t& session);

    /// Closes the session.
    ~RawClient();

    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    /// Ends the session, which takes its ephemeral nodes away. Nothing happens the second time.
    void Close();

    /// Names of the children, sorted.
    std::vector<std::string> List(const std::string& path);
    /// Empty when there is no node.
    std::optional<Stat> Exists(const std::string& path);
    std::string Data(const std::string& path);
    /// Returns the path of what was created. `flags` as `ZOO_EPHEMERAL | ZOO_SEQUENCE`.
    std::string Create(const std::string& path, const std::string& data = {}, int flags = 0);
    /// False when there is no node.
    bool Delete(const std::string& path);
    /// The node and all below it; whoever deletes at the same time is no hindrance.
    void DeleteAll(const std::string& path);
    /// Replaces the node's access list: everybody has these permissions, as in `ZOO_PERM_READ | ZOO_PERM_ADMIN`.
    void Permit(const std::string& path, int permissions);
    /// Makes the server that this session is connected to catch up with the ensemble.
    void Sync(const std::string& path = "/");

    /// The session's identity.
    clientid_t Id() const;
    /// The session timeout that the servers granted.
    std::chrono::milliseconds SessionTimeout() const;

private:
    class Impl;
    const std::unique_ptr<Impl> impl_;
};

/// Takes a session over and closes it. False when it was over already.
///
/// Meanwhile its owner must be kept from reconnecting, or the two steal the session from each other.
bool CloseSession(const std::string& servers, const clientid_t& session,
                  std::chrono::milliseconds deadline = kPatience);

}  // namespace kx::velmor::testing_support
