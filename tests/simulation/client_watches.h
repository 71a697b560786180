#pragma once

#include <zookeeper/zookeeper.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::simulation {

/// The client library's table of watches.
class ClientWatches
{
public:
    /// Watchers are told apart by function and context.
    using Watcher = std::pair<watcher_fn, void*>;
    using Watchers = std::vector<Watcher>;

    explicit ClientWatches(Watcher global) : global_(global) {}

    /// After the answer to a request with a watch: on a node, or on the absence of one.
    void Add(const std::string& path, bool exists, Watcher watcher);
    /// False when there is none.
    bool Remove(const std::string& path, Watcher watcher);
    /// Takes those out that are told of an event of this node.
    Watchers Take(const std::string& path);
    /// All of them, each once, the global one last.
    Watchers ForSessionEvent() const;

    bool Empty() const { return nodes_.empty() && absences_.empty(); }
    std::vector<std::string> Nodes() const { return Paths(nodes_); }
    std::vector<std::string> Absences() const { return Paths(absences_); }

private:
    using Table = std::map<std::string, Watchers>;

    static std::vector<std::string> Paths(const Table& table);

    const Watcher global_;
    Table nodes_;
    Table absences_;
};

}  // namespace kx::velmor::simulation
