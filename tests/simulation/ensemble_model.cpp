#include "tests/simulation/ensemble_model.h"

#include "tests/simulation/client_network.h"
#include "tests/simulation/election.h"
#include "tests/simulation/simulated_client_library.h"

#include <stdexcept>
#include <utility>

namespace kx::velmor::simulation {

namespace {

EnsembleModel* g_current = nullptr;

constexpr int kFirstPort = 1;

/// Some day in 2026, in milliseconds since 1970.
constexpr std::int64_t kBeginning = 1'790'000'000'000;

}  // namespace

class EnsembleModel::Impl final : private ServerWorld
{
public:
    Impl(VirtualMachine& machine, EnsembleOptions options)
        : machine_(machine), options_(options), election_(machine, servers_), network_(machine, servers_)
    {
        ServerWorld& world = *this;
        for (std::size_t server = 0; server < options.servers; ++server)
        {
            servers_.push_back(std::make_unique<EnsembleServer>(world, server, options.limits));
        }
        election_.Begin();
    }

    EnsembleServers& Servers() { return servers_; }
    Election& Elections() { return election_; }
    ClientNetwork& Network() { return network_; }

    std::optional<std::size_t> Leader() const
    {
        const EnsembleServer& last = *servers_[lastLeader_];
        std::size_t together = 1;
        for (std::size_t server = 0; server < servers_.size(); ++server)
        {
            together += servers_[server]->Follows() == lastLeader_ && !servers_[server]->Frozen() &&
                                !election_.Parted(server, lastLeader_)
                            ? 1
                            : 0;
        }
        const bool leads = last.Established() && !last.Frozen() && 2 * together > servers_.size();
        return leads ? std::optional<std::size_t>(lastLeader_) : std::nullopt;
    }

    const Replica& Agreed() const { return servers_[lastLeader_]->Data(); }

    void Delete(const std::string& path)
    {
        deletions_.push_back(path);
        if (Leader())
        {
            Delete();
        }
    }

private:
    VirtualMachine& Machine() override { return machine_; }
    const EnsembleOptions& Options() const override { return options_; }
    std::int64_t WallClock() const override
    {
        return kBeginning + std::chrono::duration_cast<std::chrono::milliseconds>(machine_.Now()).count();
    }
    SessionId NewSession(std::size_t server) override
    {
        // The upper byte is the server's number.
        constexpr unsigned kServerShift = 56;
        return (static_cast<SessionId>(server + 1) << kServerShift) + ++sessions_;
    }
    bool LosesAnswer(ProcessId process, bool handshake) override { return network_.LosesAnswer(process, handshake); }
    void OnLooking(std::size_t server) override { election_.Look(server); }
    void OnClientConnected(const ClientConnection& connection) override { network_.OnConnected(connection); }
    void OnTimeoutGranted(SessionId session, std::chrono::milliseconds timeout) override
    {
        network_.OnTimeoutGranted(session, timeout);
    }
    void OnEstablished(std::size_t server) override
    {
        lastLeader_ = server;
        Delete();
    }

    void Delete()
    {
        for (const std::string& path : std::exchange(deletions_, {}))
        {
            servers_[lastLeader_]->DeleteTree(path);
        }
    }

    VirtualMachine& machine_;
    const EnsembleOptions options_;
    std::size_t lastLeader_ = 0;
    SessionId sessions_ = 0;
    std::vector<std::string> deletions_;
    EnsembleServers servers_;
    Election election_;
    ClientNetwork network_;
};

EnsembleModel::EnsembleModel(VirtualMachine& machine, EnsembleOptions options)
    : impl_(std::make_unique<Impl>(machine, options))
{
    if (g_current != nullptr)
    {
        throw std::logic_error("one ensemble at a time");
    }
    LinkSimulatedClientLibrary();
    g_current = this;
}

EnsembleModel::~EnsembleModel()
{
    g_current = nullptr;
}

EnsembleModel& EnsembleModel::Current()
{
    if (g_current == nullptr)
    {
        throw std::logic_error("there is no ensemble");
    }
    return *g_current;
}

std::size_t EnsembleModel::Servers() const
{
    return impl_->Servers().size();
}

int EnsembleModel::Port(std::size_t server)
{
    return kFirstPort + static_cast<int>(server);
}

std::string EnsembleModel::Addresses() const
{
    std::string addresses;
    for (std::size_t server = 0; server < Servers(); ++server)
    {
        addresses += (server > 0 ? ",127.0.0.1:" : "127.0.0.1:") + std::to_string(Port(server));
    }
    return addresses;
}

std::optional<std::size_t> EnsembleModel::Leader() const
{
    return impl_->Leader();
}

std::optional<EnsembleModel::SessionTimeouts> EnsembleModel::Timeouts(ProcessId process) const
{
    return impl_->Network().Timeouts(process);
}

std::optional<std::size_t> EnsembleModel::ConnectedServer(ProcessId process) const
{
    return impl_->Network().ConnectedServer(process);
}

void EnsembleModel::Kill(std::size_t server)
{
    impl_->Servers()[server]->Kill();
}

void EnsembleModel::Start(std::size_t server)
{
    impl_->Servers()[server]->Start();
}

void EnsembleModel::Freeze(std::size_t server)
{
    impl_->Servers()[server]->Freeze();
}

void EnsembleModel::Thaw(std::size_t server)
{
    impl_->Servers()[server]->Thaw();
}

void EnsembleModel::Part(std::size_t one, std::size_t other)
{
    impl_->Elections().Part(one, other);
}

void EnsembleModel::Join(std::size_t one, std::size_t other)
{
    impl_->Elections().Join(one, other);
}

void EnsembleModel::SetLimits(std::size_t server, ServerLimits limits)
{
    impl_->Servers()[server]->SetLimits(limits);
}

void EnsembleModel::Cut(ProcessId process, std::optional<std::size_t> server)
{
    impl_->Network().Cut(process, server);
}

void EnsembleModel::Silence(ProcessId process, std::optional<std::size_t> server, Direction direction)
{
    impl_->Network().Silence(process, server, direction);
}

void EnsembleModel::Refuse(ProcessId process, std::optional<std::size_t> server)
{
    impl_->Network().Refuse(process, server);
}

void EnsembleModel::Heal(ProcessId process, std::optional<std::size_t> server)
{
    impl_->Network().Heal(process, server);
}

void EnsembleModel::Delay(ProcessId process, std::optional<std::size_t> server, Direction direction, Time delay)
{
    impl_->Network().Delay(process, server, direction, delay);
}

void EnsembleModel::LoseNextAnswer(ProcessId process, bool handshake)
{
    impl_->Network().LoseNextAnswer(process, handshake);
}

void EnsembleModel::LoseNextRequest(ProcessId process)
{
    impl_->Network().LoseNextRequest(process);
}

void EnsembleModel::Disconnect(ProcessId process)
{
    impl_->Network().Disconnect(process);
}

void EnsembleModel::Delete(const std::string& path)
{
    impl_->Delete(path);
}

bool EnsembleModel::Has(const std::string& path) const
{
    return impl_->Agreed().Tree().Find(path) != nullptr;
}

std::vector<std::string> EnsembleModel::Children(const std::string& path) const
{
    std::vector<std::string> children;
    impl_->Agreed().Tree().Children(path, children);
    return children;
}

std::size_t EnsembleModel::Sessions() const
{
    return impl_->Agreed().Sessions().size();
}

ClientNetwork& EnsembleModel::Network()
{
    return impl_->Network();
}

}  // namespace kx::velmor::simulation
