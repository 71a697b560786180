#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

namespace kx::velmor::testing_support {

/// ZooKeeper requests by the number they carry on the wire.
enum class Request : int
{
    Create = 1,
    Delete = 2,
    Exists = 3,
    GetData = 4,
    SetData = 5,
    GetChildren = 8,
    Sync = 9,
    Ping = 11,
    Multi = 14,
    Create2 = 15,
    RemoveWatches = 18,
    CreateContainer = 19,
    CreateTtl = 21,
    SetWatches = 101,
    CloseSession = -11
};

/// The network between clients and one server, with faults on request: a TCP proxy on a free port of 127.0.0.1 that
/// knows where one ZooKeeper message ends and the next begins. (Four-letter commands do not pass.)
///
/// Threads: any. A verb has taken effect when it returns: what a client sends later meets it. Verbs block for as long
/// as the proxy's thread takes to get to them, and throw nothing.
class Proxy
{
public:
    /// Which way messages are going.
    enum class Direction
    {
        ToServer,
        ToClient,
        Both
    };

    /// In front of the server at `target`, "127.0.0.1:<port>", which need not run yet.
    explicit Proxy(const std::string& target);
    /// Closes all connections.
    ~Proxy();

    Proxy(const Proxy&) = delete;
    Proxy& operator=(const Proxy&) = delete;

    /// "127.0.0.1:<port>".
    std::string Address() const;

    /// Closes all connections, with no word to either side. New ones are welcome.
    void Cut();
    /// Closes new connections at once. Existing ones stay.
    void Refuse();
    /// Ends `Refuse`.
    void Accept();
    /// Keeps all connections, new ones too, open and silent. What arrives is kept for later, ends of connections
    /// included.
    void BlackHole(Direction direction = Direction::Both);
    /// Ends `BlackHole` in both directions; what was held back is delivered.
    void Heal();
    /// Each message, either way, is sent on that much later than it arrives, and none overtakes another; zero ends it,
    /// for what arrives from then on. Faults below meet a message when it is sent on.
    void Delay(std::chrono::milliseconds delay);

    /// The next request of this type reaches the server, but its reply does not reach the client: both sides are closed
    /// in its place.
    void DropReply(Request type);
    /// The next request of this type does not reach the server: both sides are closed instead.
    void DropRequest(Request type);
    /// Both sides are closed as soon as the next request of this type has been sent on. The server may or may not act
    /// upon it.
    void CutAfterRequest(Request type);
    /// The next `count` requests of this type meet none of the three faults above; they wait for the one after.
    void Spare(Request type, std::size_t count);
    /// Of the three faults above, those that are still to happen.
    std::size_t FaultsPending() const;

    /// Connections that clients have at the moment; ever had, refused ones left out; tried to make and were refused.
    std::size_t Connections() const;
    std::size_t Accepted() const;
    std::size_t Refused() const;
    /// Requests of this type that have been sent on to the server.
    std::size_t Forwarded(Request type) const;

private:
    class Impl;
    const std::unique_ptr<Impl> impl_;
};

}  // namespace kx::velmor::testing_support
