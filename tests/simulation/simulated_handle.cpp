#include "tests/simulation/simulated_handle.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace kx::velmor::simulation {

namespace {

/// Of the whole simulation: answers must not be taken for those of another connection.
std::uint64_t g_requests = 0;

std::vector<std::size_t> Shuffled(VirtualMachine& machine, std::vector<std::size_t> servers)
{
    for (std::size_t left = servers.size(); left > 1; --left)
    {
        std::swap(servers[left - 1], servers[machine.Random(left)]);
    }
    return servers;
}

std::uint64_t Password(const clientid_t& identity)
{
    std::uint64_t password = 0;
    std::memcpy(&password, identity.passwd, sizeof(password));
    return password;
}

}  // namespace

SimulatedHandle::SimulatedHandle(VirtualMachine& machine, ClientNetwork& network, std::vector<std::size_t> servers,
                                 std::chrono::milliseconds timeout, const clientid_t* identity, zhandle_t* zh,
                                 ClientWatches::Watcher global)
    : machine_(machine),
      network_(network),
      process_(machine.CurrentProcess()),
      servers_(Shuffled(machine, std::move(servers))),
      zh_(zh),
      watches_(global),
      timeout_(timeout)
{
    if (identity != nullptr)
    {
        identity_ = *identity;
    }
    ConnectLater(RandomLatency(machine_) / 10);
}

SimulatedHandle::~SimulatedHandle()
{
    StopTimer();
    if (connection_)
    {
        connection_->CloseLower();
    }
}

int SimulatedHandle::State() const
{
    switch (phase_)
    {
        case Phase::Associating:
            return ZOO_ASSOCIATING_STATE;
        case Phase::Connected:
            return ZOO_CONNECTED_STATE;
        case Phase::Over:
            return ZOO_EXPIRED_SESSION_STATE;
        case Phase::Disconnected:
        case Phase::Closing:
            break;
    }
    return 0;
}

std::optional<std::size_t> SimulatedHandle::ConnectedServer() const
{
    return phase_ == Phase::Connected ? std::optional<std::size_t>(connection_->Server()) : std::nullopt;
}

void SimulatedHandle::ConnectLater(Time delay)
{
    SetTimer(machine_.Now() + delay, [this] { Connect(); });
}

void SimulatedHandle::Connect()
{
    phase_ = Phase::Associating;
    ++attempts_;
    connection_ = network_.Connect(process_, servers_[nextServer_], *this);
    nextServer_ = (nextServer_ + 1) % servers_.size();
    if (!connection_)
    {
        return;
    }
    ToServer message;
    message.kind = ToServer::Kind::Handshake;
    message.handshake = Handshake{identity_.client_id, Password(identity_), timeout_, seen_};
    connection_->SendUp(std::move(message));
    lastReceived_ = lastSent_ = machine_.Now();
    Attend();
}

void SimulatedHandle::OnDown(ClientConnection& connection, ToClient message)
{
    if (&connection != connection_.get())
    {
        return;
    }
    if (message.kind == ToClient::Kind::Closed)
    {
        Lose(ZCONNECTIONLOSS);
        return;
    }
    lastReceived_ = machine_.Now();
    seen_ = std::max(seen_, message.transaction);
    switch (message.kind)
    {
        case ToClient::Kind::Handshake:
            OnHandshake(message.handshake);
            break;
        case ToClient::Kind::Event:
            OnNodeEvent(message.eventType, message.path);
            break;
        case ToClient::Kind::Answer:
            OnAnswer(*message.answer);
            break;
        case ToClient::Kind::Pong:
        case ToClient::Kind::Closed:
            break;
    }
    Attend();
}

void SimulatedHandle::OnHandshake(const Handshake& answer)
{
    if (answer.session == 0)
    {
        phase_ = Phase::Over;
        Lose(ZSESSIONEXPIRED);
        return;
    }
    timeout_ = answer.timeout;
    identity_.client_id = answer.session;
    std::memcpy(identity_.passwd, &answer.password, sizeof(answer.password));
    phase_ = Phase::Connected;
    attempts_ = 0;
    ShowWatches();
    TellSessionEvent(ZOO_CONNECTED_STATE);
    completions_.Post([this, answer] { network_.OnTimeoutKnown(process_, answer.session, answer.timeout); });
    for (std::size_t i = 0; i < pending_.size() && phase_ == Phase::Connected; ++i)
    {
        Send(pending_[i].request);
    }
}

void SimulatedHandle::ShowWatches()
{
    if (watches_.Empty())
    {
        return;
    }
    auto request = std::make_shared<ClientRequest>();
    request->kind = ClientRequest::Kind::SetWatches;
    request->seen = seen_;
    request->watchedNodes = watches_.Nodes();
    request->watchedAbsences = watches_.Absences();
    Transmit(request);
}

int SimulatedHandle::Submit(ClientRequest request, Completion completion, std::optional<ClientWatches::Watcher> watcher)
{
    if (phase_ == Phase::Over || phase_ == Phase::Closing)
    {
        return ZINVALIDSTATE;
    }
    // The client library looks at its state before it takes its lock, and not again: a request that meets the end of
    // the session here has no answer until the handle is closed.
    completions_.Interrupt();
    request.number = ++g_requests;
    const auto shared = std::make_shared<const ClientRequest>(std::move(request));
    pending_.push_back(Pending{shared, std::move(completion), watcher});
    if (phase_ == Phase::Connected)
    {
        Send(shared);
        Attend();
    }
    else if (phase_ == Phase::Disconnected)
    {
        ConnectLater(Time::zero());
    }
    return ZOK;
}

void SimulatedHandle::Send(const ClientRequestPtr& request)
{
    if (network_.LosesRequest(process_))
    {
        connection_->Break(false, false);
        return;
    }
    Transmit(request);
}

void SimulatedHandle::Transmit(const ClientRequestPtr& request)
{
    lastSent_ = machine_.Now();
    ToServer message;
    message.kind = ToServer::Kind::Request;
    message.request = request;
    connection_->SendUp(std::move(message));
}

void SimulatedHandle::OnAnswer(const Answer& answer)
{
    if (pending_.empty() || pending_.front().request->number != answer.number)
    {
        return;
    }
    Pending pending = std::move(pending_.front());
    pending_.pop_front();
    if (pending.watcher && (answer.rc == ZOK || answer.rc == ZNONODE))
    {
        watches_.Add(pending.request->path, answer.rc == ZOK, *pending.watcher);
    }
    Complete(std::move(pending.completion), answer);
}

void SimulatedHandle::OnNodeEvent(int type, const std::string& path)
{
    for (const ClientWatches::Watcher& watcher : watches_.Take(path))
    {
        completions_.Post([this, watcher, type, path] {
            watcher.first(zh_, type, ZOO_CONNECTED_STATE, path.c_str(), watcher.second);
        });
    }
}

void SimulatedHandle::TellSessionEvent(int state)
{
    for (const ClientWatches::Watcher& watcher : watches_.ForSessionEvent())
    {
        completions_.Post([this, watcher, state] { watcher.first(zh_, ZOO_SESSION_EVENT, state, "", watcher.second); });
    }
}

void SimulatedHandle::Lose(int rc)
{
    const Phase before = phase_;
    StopTimer();
    connection_->CloseLower();
    connection_.reset();
    if (before == Phase::Closing)
    {
        completions_.Wake();
        return;
    }
    if (before == Phase::Over)
    {
        TellSessionEvent(ZOO_EXPIRED_SESSION_STATE);
        FailPending(rc);
        return;
    }
    phase_ = Phase::Disconnected;
    if (before == Phase::Connected)
    {
        TellSessionEvent(ZOO_CONNECTING_STATE);
    }
    FailPending(rc);
    // All servers have been tried in vain.
    constexpr int kDelaysPerTimeout = 60;
    const bool delayed = attempts_ > 0 && attempts_ % servers_.size() == 0;
    ConnectLater(delayed ? Time(timeout_) / kDelaysPerTimeout : Time::zero());
}

void SimulatedHandle::FailPending(int rc)
{
    for (Pending& pending : std::exchange(pending_, {}))
    {
        Answer answer;
        answer.rc = rc;
        Complete(std::move(pending.completion), std::move(answer));
    }
}

void SimulatedHandle::Complete(Completion completion, Answer answer)
{
    completions_.Post([completion = std::move(completion), answer = std::move(answer)] { completion(answer); });
}

void SimulatedHandle::Attend()
{
    if (!connection_ || phase_ == Phase::Closing)
    {
        return;
    }
    const Time now = machine_.Now();
    const Time third = Time(timeout_) / 3;
    Time next = lastReceived_ + 2 * third;
    if (next <= now)
    {
        Lose(ZOPERATIONTIMEOUT);
        return;
    }
    if (phase_ == Phase::Connected)
    {
        // No heartbeat while an answer is owed.
        if (lastSent_ + third <= now && pending_.empty())
        {
            Transmit(std::make_shared<const ClientRequest>());
        }
        next = std::min(next, lastSent_ + third > now ? lastSent_ + third : now + third);
    }
    SetTimer(next, [this] { Attend(); });
}

void SimulatedHandle::SetTimer(Time when, std::function<void()> action)
{
    StopTimer();
    timer_ = machine_.At(process_, when, [this, action = std::move(action)] {
        timer_.reset();
        action();
    });
}

void SimulatedHandle::StopTimer()
{
    if (timer_)
    {
        machine_.Cancel(*timer_);
        timer_.reset();
    }
}

void SimulatedHandle::Close()
{
    const bool connected = phase_ == Phase::Connected;
    phase_ = Phase::Closing;
    StopTimer();
    // The client library sometimes forgets answers that are outstanding when a handle is closed.
    if (machine_.Random(2) == 0)
    {
        FailPending(ZCLOSING);
    }
    pending_.clear();
    if (connected)
    {
        ClientRequest request;
        request.kind = ClientRequest::Kind::CloseSession;
        request.number = ++g_requests;
        Send(std::make_shared<const ClientRequest>(std::move(request)));
        // A server that has ended a session closes its connection.
        constexpr std::chrono::milliseconds kPatience{1500};
        bool patient = true;
        SetTimer(machine_.Now() + kPatience, [&] {
            patient = false;
            completions_.Wake();
        });
        completions_.Await([&] { return !patient || connection_ == nullptr; });
        StopTimer();
    }
    completions_.Join();
}

}  // namespace kx::velmor::simulation
