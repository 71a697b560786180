#pragma once

#include "tests/support/await.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace kx::velmor::testing_support {

/// What a server is started with.
struct ServerOptions
{
    /// Java heap. 16 does for small trees; 64 for thousands of sessions.
    int heapMegabytes = 64;
    /// The unit of the server's clocks. Session timeouts are at least two of them.
    std::chrono::milliseconds tickTime{100};
    /// Session timeouts above this are cut down to it.
    std::chrono::milliseconds maxSessionTimeout{60'000};
    /// After how many ticks of silence a follower and its ensemble's leader give each other up.
    int syncLimit = 20;
    /// System properties of the server, as in "zookeeper.enableEagerACLCheck=true".
    std::vector<std::string> properties{};
    /// The port to begin with; 0 for one that is free now.
    std::uint16_t port = 0;
    /// Whether writes are on the disk before they are answered.
    bool forceSync = false;

    enum class Compiler
    {
        /// Starts fast.
        Quick,
        /// As in production: fast once warm.
        Best,
    };
    Compiler compiler = Compiler::Quick;
    /// Where a server that ends by `Stop` is to leave the classes it has read, for others to start from: they do when
    /// `kServerClassesVariable` names that file. Empty for nowhere.
    std::filesystem::path leaveClassesIn{};
};

/// Environment variable with the path of such a file. Saves a third of the processor time of a start; what does not fit
/// the Java at hand is passed over.
constexpr const char* kServerClassesVariable = "VELMOR_SERVER_CLASSES";

/// A throwaway ZooKeeper server: a process of its own on a free port of 127.0.0.1, with its own temporary directory.
///
/// Process and directory go with this object, and also when this process ends in any other way. The address stays the
/// same over restarts. Nothing is written to disk for good, unless it is told to.
///
/// Threads: one at a time, except `Address`, `Port` and `Ask`, which any thread may call once the server has been
/// started. Verbs throw `std::runtime_error`, which quotes the end of the server's log where that helps.
class ZooKeeperServer
{
public:
    /// Makes the directory and chooses a port, but starts nothing.
    explicit ZooKeeperServer(ServerOptions options = {});
    ~ZooKeeperServer();

    ZooKeeperServer(const ZooKeeperServer&) = delete;
    ZooKeeperServer& operator=(const ZooKeeperServer&) = delete;

    /// Starts the server and waits until it serves requests; as a member of an ensemble, that takes a quorum. When
    /// somebody else takes the port before the very first start, it moves to another.
    void Start();
    /// `Start` in two steps, for who wants several servers to start at once.
    void Launch();
    void AwaitServing(std::chrono::milliseconds deadline = kPatience);

    /// SIGKILL. The server has ended, and its connections with it, when this returns.
    void Kill();
    /// SIGTERM, and waits until it has ended.
    void Stop();
    /// SIGSTOP: connections stay and nothing is answered.
    void Pause();
    /// SIGCONT.
    void Continue();
    /// Forgets all nodes and sessions. Only while the server is not running.
    void WipeData();
    /// Cuts session timeouts down to another limit from the next start on. A session that reconnects then is granted a
    /// timeout anew.
    void SetMaxSessionTimeout(std::chrono::milliseconds limit);
    /// Adds a plain node to the server's tree whose parent, which must exist, numbers its next sequential child with
    /// `counter`. Once, and only while the server is not running; not for a member of an ensemble.
    void AddNode(const std::string& path, std::int32_t counter);
    /// `Kill` and `Start`: nodes and sessions are kept.
    void Restart();

    bool Running() const;
    /// Whether it answers, and serves requests.
    bool Serving() const;

    /// "127.0.0.1:<port>". Final after the first start.
    std::string Address() const;
    std::uint16_t Port() const;
    int Pid() const;

    /// The answer to a four-letter command, as in `Ask("wchp")`. Blocks for up to two seconds; throws when there is no
    /// answer.
    std::string Ask(const std::string& command) const;

    /// "standalone", "leader" or "follower", or empty when it does not serve.
    std::string Mode() const;

    /// The server's log up to now, over all starts.
    std::string Log() const;

private:
    friend class Ensemble;

    /// One line of the configuration of an ensemble.
    struct Peer
    {
        std::uint16_t quorumPort = 0;
        std::uint16_t electionPort = 0;
    };

    enum class Outcome
    {
        Serving,
        PortTaken,
        Ended,
        TimedOut
    };

    void ChoosePorts();
    void JoinEnsemble(std::size_t position, std::vector<Peer> peers);
    Outcome AwaitOutcome(std::chrono::milliseconds deadline);
    [[noreturn]] void Fail(const std::string& what) const;

    class Impl;
    const std::unique_ptr<Impl> impl_;
};

}  // namespace kx::velmor::testing_support
