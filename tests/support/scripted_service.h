#pragma once

#include "tests/support/scripted_connection.h"

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace kx::velmor::testing_support {

/// A ZooKeeper service in memory: one tree of nodes and any number of sessions.
///
/// Outlives what is tested: when it goes it drops all callbacks, and checks that every script is used up. Threads: any.
class ScriptedService
{
public:
    explicit ScriptedService(Journal& journal);
    ~ScriptedService();

    ScriptedService(const ScriptedService&) = delete;
    ScriptedService& operator=(const ScriptedService&) = delete;

    /// A session of its own. Its calls are noted as "label: call" unless the label is empty. `rootPath` is created.
    std::shared_ptr<ScriptedConnection> Open(const std::string& label = "", const std::string& rootPath = "");

    /// From now on nothing is delivered to watches that were let go of. Otherwise each check leaves two that fire at
    /// every session event, and those lead to further checks.
    void DropWatchesThatAreLetGoOf();

    // What other parties do. Paths are the service's, without any connection's root; all throw `std::logic_error` when
    // the service refuses.

    /// Makes a persistent node and its missing ancestors.
    void Add(const std::string& path);
    /// Makes a node that goes with a session.
    void Add(const std::string& path, const ScriptedConnection& owner);
    void Delete(const std::string& path);
    /// Changes the node's data.
    void Touch(const std::string& path);
    /// Ends the session: its nodes go, its calls fail, and its watches hear of that and of later sessions alone.
    void Expire(ScriptedConnection& connection);

    bool Has(const std::string& path) const;
    std::vector<std::string> Children(const std::string& path) const;

    /// Blocks until no event is pending and no callback runs, which takes an `EventThread` for every connection. Throws
    /// `std::runtime_error` after `kPatience`.
    void AwaitQuiet() const;

private:
    const std::shared_ptr<ScriptedServiceCore> core_;
};

/// Delivers a connection's events as they arrive, on a thread of its own, until it goes. Callbacks must not throw.
class EventThread
{
public:
    explicit EventThread(std::shared_ptr<ScriptedConnection> connection);
    ~EventThread();

    EventThread(const EventThread&) = delete;
    EventThread& operator=(const EventThread&) = delete;

private:
    const std::shared_ptr<ScriptedConnection> connection_;
    std::thread thread_;
};

}  // namespace kx::velmor::testing_support
