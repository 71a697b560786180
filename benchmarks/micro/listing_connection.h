#pragma once

#include <kx/velmor/connection.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace kx::velmor::benchmarks {

/// `count` names of candidates' nodes, in an order that looks like a server's: none. The same in each run.
std::vector<std::string> ShuffledNames(std::size_t count);

/// An election path with children, as cheap as a service can be: what is measured on it is the candidate.
///
/// Lists by copying, as a client library does; looks nothing up; keeps the watch states of paths until others take
/// their place.
///
/// Threads: one.
class ListingConnection final : public Connection
{
public:
    /// With `others` children, all of other sessions.
    explicit ListingConnection(std::size_t others);

    static const std::string& ElectionPath();

    /// Has a watch tell that the connection is there again, upon which a candidate checks.
    void TellReconnection() const;

    /// How long all joinings together have taken from their first listing to the creation of their node.
    std::chrono::nanoseconds BeforeCreation() const { return beforeCreation_; }

    /// Lets go of all watches, which hold candidates.
    void DropWatches() { watches_.clear(); }

    const std::string& RootPath() const override { return root_; }
    int Create(std::string path, const std::string& data, const ACL_vector& acl, int flags,
               std::string* createdPath) const override;
    int GetChildren(std::string path, std::vector<std::string>& children) const override;
    int Exists(std::string path, Stat* stat) const override;
    std::pair<int, WatchHandle> Exists(std::string path, WatchCallback callback, Stat* stat) const override;
    int GuaranteedDelete(std::string path) const override;
    std::unique_ptr<clientid_t> ClientId() const override;

private:
    const std::string root_;
    mutable std::vector<std::string> listing_;
    /// The path of this session's node.
    mutable std::string own_;
    mutable std::unordered_map<std::string, std::shared_ptr<WatchState>> watches_;
    mutable std::chrono::steady_clock::time_point listed_;
    mutable std::chrono::nanoseconds beforeCreation_{0};
};

}  // namespace kx::velmor::benchmarks
