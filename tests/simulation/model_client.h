#pragma once

#include "tests/simulation/client_network.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>

namespace kx::velmor::simulation {

/// A client of the modelled servers that sends what a test says and nothing else: no heartbeats, no reconnections.
class ModelClient final : private ClientConnection::Lower
{
public:
    ModelClient(VirtualMachine& machine, EnsembleModel& ensemble, ProcessId process)
        : machine_(machine), ensemble_(ensemble), process_(process)
    {}
    ~ModelClient() { Hang(); }
    ModelClient(const ModelClient&) = delete;
    ModelClient& operator=(const ModelClient&) = delete;

    /// Connects, within the session if there is one, and waits for the answer to the handshake. False when the
    /// connection is closed instead, or the session is over.
    bool Connect(std::size_t server, std::chrono::milliseconds timeout)
    {
        SendHandshake(server, timeout);
        Await([this] { return closed_ || greeted_; });
        return greeted_ && !closed_ && session_.session != 0;
    }

    void SendHandshake(std::size_t server, std::chrono::milliseconds timeout)
    {
        Hang();
        closed_ = greeted_ = false;
        answers_.clear();
        events_.clear();
        connection_ = ensemble_.Network().Connect(process_, server, *this);
        ToServer message;
        message.kind = ToServer::Kind::Handshake;
        message.handshake = session_;
        message.handshake.timeout = timeout;
        connection_->SendUp(std::move(message));
    }

    /// Closes the connection; the session goes on.
    void Hang()
    {
        if (connection_)
        {
            connection_->CloseLower();
            connection_.reset();
        }
    }

    void Send(ClientRequest request)
    {
        request.number = ++sent_;
        ToServer message;
        message.kind = ToServer::Kind::Request;
        message.request = std::make_shared<const ClientRequest>(std::move(request));
        connection_->SendUp(std::move(message));
    }

    void SendCreate(const std::string& path, bool ephemeral = false)
    {
        ClientRequest request;
        request.kind = ClientRequest::Kind::Write;
        request.path = path;
        request.steps.push_back(Step{Step::Kind::Create, path, {}, -1, ephemeral});
        Send(std::move(request));
    }

    void SendExists(const std::string& path, bool watch = false)
    {
        ClientRequest request;
        request.kind = ClientRequest::Kind::Exists;
        request.path = path;
        request.watch = watch;
        Send(std::move(request));
    }

    /// The code of the next answer; empty when the connection is closed first, or after ten seconds.
    std::optional<int> AwaitAnswer()
    {
        Await([this] { return closed_ || !answers_.empty(); });
        if (answers_.empty())
        {
            return std::nullopt;
        }
        last_ = answers_.front();
        answers_.pop_front();
        return last_.rc;
    }

    std::optional<int> Create(const std::string& path, bool ephemeral = false)
    {
        SendCreate(path, ephemeral);
        return AwaitAnswer();
    }

    std::optional<int> Exists(const std::string& path, bool watch = false)
    {
        SendExists(path, watch);
        return AwaitAnswer();
    }

    /// What the last answer said.
    const Answer& Last() const { return last_; }
    std::size_t Waiting() const { return answers_.size(); }
    const std::deque<std::pair<int, std::string>>& Events() const { return events_; }
    bool Closed() const { return closed_; }
    /// As of the last handshake.
    const Handshake& Session() const { return session_; }

private:
    bool Reads() const override { return true; }

    void OnDown(ClientConnection& connection, ToClient message) override
    {
        if (&connection != connection_.get())
        {
            return;
        }
        switch (message.kind)
        {
            case ToClient::Kind::Handshake:
                greeted_ = true;
                session_ = message.handshake;
                break;
            case ToClient::Kind::Answer:
                answers_.push_back(*message.answer);
                break;
            case ToClient::Kind::Event:
                events_.emplace_back(message.eventType, message.path);
                break;
            case ToClient::Kind::Pong:
                break;
            case ToClient::Kind::Closed:
                closed_ = true;
                break;
        }
    }

    template <typename Done>
    void Await(const Done& done)
    {
        machine_.Run(machine_.Now() + std::chrono::seconds(10), done);
    }

    VirtualMachine& machine_;
    EnsembleModel& ensemble_;
    const ProcessId process_;
    ClientConnectionPtr connection_;
    Handshake session_{};
    bool greeted_ = false;
    bool closed_ = false;
    std::uint64_t sent_ = 0;
    std::deque<Answer> answers_;
    std::deque<std::pair<int, std::string>> events_;
    Answer last_{};
};

}  // namespace kx::velmor::simulation
