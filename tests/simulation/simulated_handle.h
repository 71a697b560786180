#pragma once

#include "tests/simulation/client_network.h"
#include "tests/simulation/client_watches.h"
#include "tests/simulation/completion_thread.h"
#include "tests/simulation/protocol.h"

#include <zookeeper/zookeeper.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor::simulation {

/// What the C client library does for one handle.
///
/// The work of the library's I/O thread takes place in events of the process that opened the handle, and so not while
/// that process is paused. Events of watches and answers are told, in order, by a thread.
///
/// Threads: everything runs on one thread of the operating system, and is interrupted only inside of
/// `CompletionThread`.
class SimulatedHandle final : private ClientConnection::Lower
{
public:
    /// Takes what a request came to. On failure the answer is empty but for its code.
    using Completion = std::function<void(const Answer&)>;

    SimulatedHandle(VirtualMachine& machine, ClientNetwork& network, std::vector<std::size_t> servers,
                    std::chrono::milliseconds timeout, const clientid_t* identity, zhandle_t* zh,
                    ClientWatches::Watcher global);
    ~SimulatedHandle();
    SimulatedHandle(const SimulatedHandle&) = delete;
    SimulatedHandle& operator=(const SimulatedHandle&) = delete;

    /// `ZOK`, or why nothing was queued.
    int Submit(ClientRequest request, Completion completion, std::optional<ClientWatches::Watcher> watcher = {});
    ClientWatches& Watches() { return watches_; }

    /// The value of `zoo_state`.
    int State() const;
    bool Unrecoverable() const { return phase_ == Phase::Over; }
    int Timeout() const { return static_cast<int>(timeout_.count()); }
    const clientid_t& Identity() const { return identity_; }
    std::optional<std::size_t> ConnectedServer() const;

    /// Ends the session where there is a connection, and waits for that; then for the callbacks.
    void Close();

private:
    enum class Phase
    {
        /// Until the next attempt.
        Disconnected,
        Associating,
        Connected,
        /// Only to be closed.
        Over,
        Closing,
    };
    struct Pending
    {
        ClientRequestPtr request;
        Completion completion;
        std::optional<ClientWatches::Watcher> watcher;
    };

    bool Reads() const override { return true; }
    void OnDown(ClientConnection& connection, ToClient message) override;
    void OnHandshake(const Handshake& answer);
    void OnAnswer(const Answer& answer);
    void OnNodeEvent(int type, const std::string& path);

    void Connect();
    void ConnectLater(Time delay);
    /// The connection is lost, for the reason `rc`.
    void Lose(int rc);
    void Send(const ClientRequestPtr& request);
    void Transmit(const ClientRequestPtr& request);
    void ShowWatches();
    /// Sends a heartbeat where one is due, gives up a silent connection, and looks again when it has to.
    void Attend();
    void SetTimer(Time when, std::function<void()> action);
    void StopTimer();
    void TellSessionEvent(int state);
    /// All requests that have no answer get this code.
    void FailPending(int rc);
    void Complete(Completion completion, Answer answer);

    VirtualMachine& machine_;
    ClientNetwork& network_;
    const ProcessId process_;
    const std::vector<std::size_t> servers_;
    zhandle_t* const zh_;
    ClientWatches watches_;
    CompletionThread completions_;

    Phase phase_ = Phase::Disconnected;
    std::chrono::milliseconds timeout_;
    clientid_t identity_{};
    TransactionNumber seen_ = 0;
    ClientConnectionPtr connection_;
    std::size_t nextServer_ = 0;
    /// Attempts since the last connection.
    std::size_t attempts_ = 0;
    Time lastReceived_{0};
    Time lastSent_{0};
    std::deque<Pending> pending_;
    std::optional<EventId> timer_;
};

}  // namespace kx::velmor::simulation
