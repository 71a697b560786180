#include "tests/chaos/injector.h"

#include "tests/chaos/member_log.h"
#include "tests/support/await.h"
#include "tests/support/expire_session.h"
#include "tests/support/raw_client.h"

#include <kx/velmor/session.h>

#include <signal.h>

#include <algorithm>
#include <numeric>
#include <stdexcept>
#include <utility>

namespace kx::velmor::chaos {

namespace {

using process::ChildProcess;
using testing_support::Await;
using testing_support::Proxy;
using testing_support::RawClient;
using testing_support::Request;

/// Who has last shown longer ago that it leads may be gone.
constexpr std::chrono::milliseconds kRecently{100};

bool OfNetwork(FaultKind kind)
{
    return kind <= FaultKind::Silence;
}

bool OfRequest(FaultKind kind)
{
    return kind >= FaultKind::DropReply && kind <= FaultKind::CutAfterRequest;
}

bool OfMember(FaultKind kind)
{
    return kind >= FaultKind::ExpireSession && kind <= FaultKind::PauseAllMembers;
}

bool OfServers(FaultKind kind)
{
    return kind >= FaultKind::KillServer && kind <= FaultKind::PauseAllServers;
}

bool OfLease(FaultKind kind)
{
    return kind >= FaultKind::LowerTimeout;
}

bool ConcernsAll(const PlannedFault& planned)
{
    return OfServers(planned.kind) || planned.kind == FaultKind::LowerTimeout ||
           planned.kind == FaultKind::LoseServerAfterPause || planned.kind == FaultKind::LeaveInTurn ||
           planned.kind == FaultKind::PauseAllMembers || planned.kind == FaultKind::DeletePath ||
           (OfNetwork(planned.kind) && planned.target.allMembers);
}

bool Silences(FaultKind kind)
{
    return kind >= FaultKind::KillMember && kind <= FaultKind::PauseAllMembers;
}

bool TakesNodes(FaultKind kind)
{
    return kind == FaultKind::ExpireSession || kind == FaultKind::DeleteNode || kind == FaultKind::DeletePath;
}

/// Repeats what a server that is about to serve again may still refuse.
void Insist(const std::string& what, const std::function<void()>& act)
{
    Await(what, [&] {
        try
        {
            act();
            return true;
        }
        catch (const std::runtime_error&)
        {
            return false;
        }
    });
}

clientid_t ToClientId(const SessionKey& key)
{
    clientid_t id{};
    id.client_id = key.id;
    for (std::size_t i = 0; i < sizeof(id.passwd); ++i)
    {
        id.passwd[i] = static_cast<char>(std::stoi(key.password.substr(2 * i, 2), nullptr, 16));
    }
    return id;
}

/// A request of this type, through the client library.
void Send(RawClient& client, Request request)
{
    const std::string path = "/drain";
    switch (request)
    {
        case Request::Create:
            client.Create(path, {}, ZOO_EPHEMERAL | ZOO_SEQUENCE);
            break;
        case Request::Delete:
            client.Delete(path);
            break;
        case Request::GetChildren:
            client.List("/");
            break;
        case Request::Sync:
            client.Sync();
            break;
        case Request::GetData:
            client.Data(path);
            break;
        default:
            client.Exists(path);
            break;
    }
}

void SendMulti(const std::string& server)
{
    SessionOptions options;
    options.servers = server;
    TransactionResult result;
    Session::Open(options)->Transact({Operation::Check("/")}, result);
}

std::string Label(const PlannedFault& planned, const std::string& member)
{
    std::string label = Name(planned.kind);
    if (OfRequest(planned.kind))
    {
        label += std::string(" of ") + Name(planned.request);
    }
    if (!ConcernsAll(planned) || planned.kind == FaultKind::LoseServerAfterPause)
    {
        label += " " + member;
    }
    const bool chosen = OfNetwork(planned.kind) || planned.kind == FaultKind::KillServer ||
                        planned.kind == FaultKind::PauseServer || planned.kind == FaultKind::LowerTimeout;
    if (chosen && planned.target.server)
    {
        label += " s" + std::to_string(*planned.target.server + 1);
    }
    if (planned.kind == FaultKind::LowerTimeout)
    {
        label += " to " + std::to_string(planned.grants.count()) + " ms" +
                 (planned.silences ? ", then silence the leader" : "");
    }
    if (planned.kind == FaultKind::LoseServerAfterPause)
    {
        label += " of " + std::to_string(planned.pausedPercent) + " % of its timeout, " +
                 std::to_string(planned.runs.count()) + " ms later" + (planned.kills ? ", by killing it" : "");
    }
    if (planned.leaving && planned.kind != FaultKind::LeaveInTurn)
    {
        label += ", leaders leaving";
    }
    return label;
}

}  // namespace

Fault Injector::Strike(const PlannedFault& planned)
{
    // Also where it is not needed, so that a fault is as late as any other.
    const std::size_t member = planned.target.member.value_or(stage_.Leader());
    Fault fault;
    fault.kind = Name(planned.kind);
    fault.label = Label(planned, Stage::NameOf(member));
    fault.silences = Silences(planned.kind);
    fault.takesNodes = TakesNodes(planned.kind);
    fault.leaving = planned.leaving;
    if (!ConcernsAll(planned))
    {
        fault.members = {Stage::NameOf(member)};
    }
    fault.when.begin = Now();
    fault.when.end = fault.when.begin;
    if (OfNetwork(planned.kind))
    {
        StrikeNetwork(planned, member);
    }
    else if (OfRequest(planned.kind))
    {
        StrikeRequest(planned, member);
    }
    else if (OfMember(planned.kind))
    {
        StrikeMember(planned, member);
    }
    else if (planned.kind == FaultKind::LeaveInTurn)
    {
        HaveLeaderLeave();
    }
    else if (OfServers(planned.kind))
    {
        StrikeServers(planned);
    }
    else if (OfLease(planned.kind))
    {
        StrikeLease(planned, member);
    }
    else
    {
        StrikeNodes(planned, member);
    }
    return fault;
}

void Injector::Undo()
{
    if (const auto undo = std::exchange(undo_, nullptr))
    {
        undo();
    }
}

void Injector::StrikeNetwork(const PlannedFault& planned, std::size_t member)
{
    const auto only = planned.target.allMembers ? std::nullopt : std::optional<std::size_t>(member);
    const std::vector<Proxy*> links = stage_.Links(only, planned.target.server);
    for (Proxy* const link : links)
    {
        switch (planned.kind)
        {
            case FaultKind::Refuse:
                link->Refuse();
                [[fallthrough]];
            case FaultKind::Cut:
                link->Cut();
                break;
            case FaultKind::SilenceToServer:
                link->BlackHole(Proxy::Direction::ToServer);
                break;
            case FaultKind::SilenceToClient:
                link->BlackHole(Proxy::Direction::ToClient);
                break;
            default:
                link->BlackHole();
                break;
        }
    }
    undo_ = [links] {
        for (Proxy* const link : links)
        {
            link->Accept();
            link->Heal();
        }
    };
}

void Injector::StrikeRequest(const PlannedFault& planned, std::size_t member)
{
    const std::vector<Proxy*> links = stage_.Links(member, std::nullopt);
    const auto used =
        std::find_if(links.begin(), links.end(), [](const Proxy* link) { return link->Connections() > 0; });
    Proxy* const link = used == links.end() ? links.front() : *used;
    switch (planned.kind)
    {
        case FaultKind::DropReply:
            link->DropReply(planned.request);
            break;
        case FaultKind::DropRequest:
            link->DropRequest(planned.request);
            break;
        default:
            link->CutAfterRequest(planned.request);
            break;
    }
    stage_.Process(member).Signal(SIGUSR1);
    undo_ = [this, link, request = planned.request] { Drain(*link, request); };
}

void Injector::HaveLeaderLeave()
{
    const Stage::Lead lead = stage_.LatestLead();
    ChildProcess& process = stage_.Process(lead.member);
    if (lead.when.begin != asked_ && Now() - lead.when.end < kRecently && process.Running())
    {
        asked_ = lead.when.begin;
        process.Signal(SIGUSR1);
    }
}

void Injector::StrikeMember(const PlannedFault& planned, std::size_t member)
{
    switch (planned.kind)
    {
        case FaultKind::ExpireSession: {
            const SessionKey key = stage_.HistoryOf(member).session;
            if (key.id != 0)
            {
                testing_support::ExpireSession(stage_.Links(member, std::nullopt), stage_.Addresses(), ToClientId(key));
            }
            break;
        }
        case FaultKind::KillMember:
            stage_.Process(member).Kill();
            undo_ = [this, member] { stage_.StartMember(member); };
            break;
        case FaultKind::PauseAllMembers: {
            std::vector<std::size_t> all;
            for (std::size_t i = 0; i < stage_.Members(); ++i)
            {
                all.push_back(i);
            }
            PauseMembers(all);
            break;
        }
        default:
            PauseMembers({member});
            break;
    }
}

void Injector::StrikeServers(const PlannedFault& planned)
{
    switch (planned.kind)
    {
        case FaultKind::KillServer:
            KillServers({*planned.target.server});
            break;
        case FaultKind::PauseServer:
            PauseServers({*planned.target.server});
            break;
        case FaultKind::KillServersLeader:
            KillServers({stage_.Servers().LeaderIndex(Stage::kServersReturn)});
            break;
        case FaultKind::PauseServersLeader:
            PauseServers({stage_.Servers().LeaderIndex(Stage::kServersReturn)});
            break;
        case FaultKind::LoseQuorum:
            KillServers({0, 1});
            break;
        default: {
            std::vector<std::size_t> all(stage_.Servers().Size());
            std::iota(all.begin(), all.end(), std::size_t{0});
            PauseServers(all);
            break;
        }
    }
}

void Injector::StrikeNodes(const PlannedFault& planned, std::size_t member)
{
    std::string path = stage_.Path();
    if (planned.kind == FaultKind::DeleteNode)
    {
        const std::vector<Stay>& stays = stage_.HistoryOf(member).stays;
        if (stays.empty() || stays.back().node.empty())
        {
            return;
        }
        path += "/" + stays.back().node;
    }
    // Whoever joins meanwhile makes the path's own deletion fail.
    Insist("the servers let go of " + path, [&] { RawClient(stage_.Addresses()).DeleteAll(path); });
}

void Injector::PauseMembers(const std::vector<std::size_t>& members)
{
    for (const std::size_t member : members)
    {
        stage_.Process(member).Pause();
    }
    undo_ = [this, members] {
        for (const std::size_t member : members)
        {
            stage_.Process(member).Continue();
        }
    };
}

void Injector::KillServers(const std::vector<std::size_t>& servers)
{
    for (const std::size_t server : servers)
    {
        stage_.Servers().Server(server).Kill();
    }
    undo_ = [this, servers] { stage_.RestartServers(servers); };
}

void Injector::PauseServers(const std::vector<std::size_t>& servers)
{
    for (const std::size_t server : servers)
    {
        stage_.Servers().Server(server).Pause();
    }
    undo_ = [this, servers] {
        for (const std::size_t server : servers)
        {
            stage_.Servers().Server(server).Continue();
        }
        for (const std::size_t server : servers)
        {
            stage_.Servers().Server(server).AwaitServing(Stage::kServersReturn);
        }
    };
}

void Injector::Drain(Proxy& link, Request request)
{
    Await("the fault of a request meets one", [&] {
        if (link.FaultsPending() > 0)
        {
            try
            {
                if (request == Request::Multi)
                {
                    SendMulti(link.Address());
                }
                else
                {
                    RawClient client(link.Address());
                    Send(client, request);
                }
            }
            catch (const std::runtime_error&)
            {
                // As intended.
            }
        }
        return link.FaultsPending() == 0;
    });
}

}  // namespace kx::velmor::chaos
