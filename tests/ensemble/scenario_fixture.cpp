#include "tests/ensemble/scenario_fixture.h"

#include "tests/support/expire_session.h"

#include <kx/velmor/error.h>

#include <algorithm>
#include <iostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace kx::velmor::testing_support {

namespace {

constexpr auto kMinLogLevel = static_cast<std::int32_t>(logging::LogLevel::Info);

/// As the servers write it.
std::string Hexadecimal(std::int64_t session)
{
    std::ostringstream text;
    text << "0x" << std::hex << session;
    return text.str();
}

std::string Joined(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines)
    {
        text += "\n  " + line;
    }
    return text;
}

}  // namespace

Network::Network(const std::vector<std::string>& servers)
{
    for (const std::string& server : servers)
    {
        proxies_.push_back(std::make_unique<Proxy>(server));
    }
}

std::string Network::Addresses() const
{
    std::string addresses;
    for (const auto& proxy : proxies_)
    {
        addresses += (addresses.empty() ? "" : ",") + proxy->Address();
    }
    return addresses;
}

std::vector<Proxy*> Network::Proxies() const
{
    std::vector<Proxy*> proxies;
    for (const auto& proxy : proxies_)
    {
        proxies.push_back(proxy.get());
    }
    return proxies;
}

void Network::Each(const std::function<void(Proxy&)>& verb) const
{
    for (const auto& proxy : proxies_)
    {
        verb(*proxy);
    }
}

void Network::Cut() const
{
    Each([](Proxy& proxy) { proxy.Cut(); });
}

void Network::Disconnect() const
{
    Each([](Proxy& proxy) { proxy.Refuse(); });
    Cut();
}

void Network::Reconnect() const
{
    Each([](Proxy& proxy) { proxy.Accept(); });
}

Member::Member(MemberSetup setup) : network(std::move(setup.network))
{
    setup.options.servers = network->Addresses();
    const std::string address = "127.0.0.1";
    for (std::size_t at = 0; setup.byName && (at = setup.options.servers.find(address)) != std::string::npos;)
    {
        setup.options.servers.replace(at, address.size(), "localhost");
    }
    session = Session::Open(setup.options);
    candidate =
        std::make_shared<CandidateImpl>(session, kElection, std::move(setup.onLeader), std::move(setup.onNextLeader));
}

Member::~Member()
{
    if (session)
    {
        session->Close();
    }
}

void Member::Join()
{
    candidate->Start();
    in_ = true;
}

bool Member::JoinInTheEnd()
{
    int attempts = 0;
    Await("a start that is answered", [&] {
        ++attempts;
        try
        {
            Join();
            return true;
        }
        catch (const ZooError& error)
        {
            if (error.Code() != ZCONNECTIONLOSS && error.Code() != ZOPERATIONTIMEOUT && error.Code() != ZSESSIONEXPIRED)
            {
                throw;
            }
            return false;
        }
        catch (const VelmorError&)
        {
            // Its node went with its session between two of its calls.
            return false;
        }
    });
    return attempts == 1;
}

void Member::Leave()
{
    in_ = false;
    candidate->Stop();
}

void Member::Rejoin()
{
    try
    {
        candidate->Stop();
    }
    catch (const ZooError&)
    {
        // The node goes all the same.
    }
    JoinInTheEnd();
}

void Member::AwaitLeads() const
{
    Await(Path() + " leads", [this] { return Leads(); });
}

void Member::AwaitIsNext() const
{
    Await(Path() + " is next", [this] { return IsNext(); });
}

std::int64_t Member::SessionId() const
{
    const auto identity = session ? session->ClientId() : nullptr;
    return identity ? identity->client_id : 0;
}

void Member::AwaitSessionAfter(std::int64_t old) const
{
    Await("a new session", [&] {
        // Asked for once: between the two there is none.
        const std::int64_t now = SessionId();
        return now != 0 && now != old;
    });
}

ScenarioFixture::ScenarioFixture(std::size_t servers) : log_(journal_, kMinLogLevel), ensemble_(servers)
{
    ensemble_.Start();
}

ScenarioFixture::~ScenarioFixture()
{
    if (HasFailure())
    {
        for (const std::string& line : journal_.Lines())
        {
            std::cerr << line << '\n';
        }
    }
}

SessionOptions ScenarioFixture::Options()
{
    return Options(std::chrono::seconds(5));
}

SessionOptions ScenarioFixture::Options(std::chrono::milliseconds sessionTimeout)
{
    SessionOptions options;
    options.sessionTimeout = sessionTimeout;
    options.connectTimeout = kPatience;
    return options;
}

std::shared_ptr<Network> ScenarioFixture::MakeNetwork() const
{
    std::vector<std::string> servers;
    std::istringstream addresses(ensemble_.Addresses());
    for (std::string server; std::getline(addresses, server, ',');)
    {
        servers.push_back(server);
    }
    return std::make_shared<Network>(servers);
}

Member& ScenarioFixture::Add(MemberSetup setup)
{
    if (!setup.network)
    {
        setup.network = MakeNetwork();
    }
    // What they refer to goes with the test, and members outlive it.
    for (std::function<void()>* const callback : {&setup.onLeader, &setup.onNextLeader})
    {
        *callback = [over = over_, call = std::move(*callback)] {
            if (!*over)
            {
                call();
            }
        };
    }
    return members_.emplace_back(std::move(setup));
}

Member& ScenarioFixture::Join(MemberSetup setup)
{
    Member& member = Add(std::move(setup));
    member.Join();
    return member;
}

void ScenarioFixture::JoinMany(std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
    {
        Join();
    }
}

void ScenarioFixture::AwaitWhole()
{
    AwaitRoles();
    CutAll();
    AwaitNoFlaw("the election is whole after a cut", [this] { return FlawInQueueAndRoles(true) + FlawInWatches(); });
}

void ScenarioFixture::MendUntilWhole()
{
    AwaitNoFlaw("queue and roles are mended", [this] {
        Mend();
        return FlawInQueueAndRoles(false);
    });
    CutAll();
    AwaitNoFlaw("the election is mended and whole after a cut", [this] {
        Mend();
        return FlawInQueueAndRoles(true) + FlawInWatches();
    });
}

void ScenarioFixture::AwaitRoles()
{
    AwaitNoFlaw("queue and roles are right", [this] { return FlawInQueueAndRoles(false); });
}

void ScenarioFixture::AwaitWatch(const Member& watching, const Member& watched)
{
    const std::string watch = watched.Path() + " by " + Hexadecimal(watching.SessionId());
    Await("watched is " + watch, [&] {
        const std::vector<std::string> watches = Watches();
        return std::binary_search(watches.begin(), watches.end(), watch);
    });
}

void ScenarioFixture::CutAll()
{
    std::set<Network*> networks;
    for (const Member& member : members_)
    {
        networks.insert(member.network.get());
    }
    for (Network* const network : networks)
    {
        network->Cut();
    }
}

void ScenarioFixture::AwaitNoFlaw(const std::string& what, const std::function<std::string()>& flaw)
{
    std::string last;
    Await(
        what,
        [&] {
            try
            {
                last = flaw();
            }
            catch (const std::runtime_error& error)
            {
                // The servers may still be on their way back, or may have forgotten this session.
                last = error.what();
                ForgetObserver();
            }
            return last.empty();
        },
        2 * kPatience, [&] { return last; });
}

void ScenarioFixture::Mend()
{
    for (Member& member : members_)
    {
        if (!member.In())
        {
            continue;
        }
        const std::optional<Stat> stat = Observer().Exists(member.Path());
        if (!stat || stat->ephemeralOwner != member.SessionId())
        {
            member.Rejoin();
        }
    }
}

void ScenarioFixture::Expire(const Member& member)
{
    const auto identity = member.session->ClientId();
    if (!identity)
    {
        throw std::runtime_error("there is no session to expire");
    }
    ExpireSession(member.network->Proxies(), ensemble_.Addresses(), *identity);
}

std::vector<std::string> ScenarioFixture::Queue()
{
    Observer().Sync();
    return Observer().List(kElection);
}

std::vector<std::string> ScenarioFixture::Watches()
{
    std::vector<std::string> watches;
    for (std::size_t i = 0; i < ensemble_.Size(); ++i)
    {
        if (!ensemble_.Server(i).Running())
        {
            continue;
        }
        // A path, and whoever watches it in lines of their own.
        std::istringstream lines(ensemble_.Server(i).Ask("wchp"));
        std::string path;
        for (std::string line; std::getline(lines, line);)
        {
            if (line.rfind('\t', 0) == 0)
            {
                watches.push_back(path + " by " + line.substr(1));
            }
            else
            {
                path = line;
            }
        }
    }
    std::sort(watches.begin(), watches.end());
    return watches;
}

RawClient& ScenarioFixture::Observer()
{
    // A server that has only just started now and then leaves a client waiting, which then takes two thirds of this.
    constexpr std::chrono::seconds kSessionTimeout{2};
    if (!observer_)
    {
        observer_.emplace(ensemble_.Addresses(), kSessionTimeout);
    }
    return *observer_;
}

bool ScenarioFixture::Logged(const std::string& part) const
{
    const std::vector<LogRecord> records = log_.Records();
    return std::any_of(records.begin(), records.end(),
                       [&](const LogRecord& record) { return record.text.find(part) != std::string::npos; });
}

std::vector<const Member*> ScenarioFixture::InOrder() const
{
    std::vector<const Member*> members;
    for (const Member& member : members_)
    {
        if (member.In())
        {
            members.push_back(&member);
        }
    }
    std::sort(members.begin(), members.end(), [](const Member* left, const Member* right) {
        return left->candidate->Name() < right->candidate->Name();
    });
    return members;
}

std::string ScenarioFixture::FlawInQueueAndRoles(bool secondIsNext)
{
    const std::vector<const Member*> members = InOrder();
    std::vector<std::string> names;
    for (const Member* const member : members)
    {
        names.push_back(member->candidate->Name());
    }
    const std::vector<std::string> queue = Queue();
    if (queue != names)
    {
        return "in are" + Joined(names) + "\nbut the queue is" + Joined(queue);
    }
    for (std::size_t i = 0; i < members.size(); ++i)
    {
        const Member& member = *members[i];
        const std::optional<Stat> stat = Observer().Exists(member.Path());
        if (!stat || stat->ephemeralOwner != member.SessionId())
        {
            return member.Path() + " is not owned by the living session of its member";
        }
        const bool mayBeNext = i == 1;
        if (member.Leads() != (i == 0) || (member.IsNext() && !mayBeNext) ||
            (secondIsNext && mayBeNext && !member.IsNext()))
        {
            return "number " + std::to_string(i) + (member.Leads() ? " leads" : " does not lead") +
                   (member.IsNext() ? " and is next" : " and is not next");
        }
    }
    for (const Member& member : members_)
    {
        if (!member.In() && member.candidate && (member.Leads() || member.IsNext()))
        {
            return "who has left still believes in a role";
        }
    }
    return {};
}

std::string ScenarioFixture::FlawInWatches()
{
    const std::vector<const Member*> members = InOrder();
    std::vector<std::string> expected;
    for (std::size_t i = 1; i < members.size(); ++i)
    {
        const std::string watcher = " by " + Hexadecimal(members[i]->SessionId());
        expected.push_back(members[i - 1]->Path() + watcher);
        if (i > 1)
        {
            expected.push_back(members[i - 2]->Path() + watcher);
        }
    }
    std::sort(expected.begin(), expected.end());
    const std::vector<std::string> watches = Watches();
    return watches == expected ? std::string()
                               : "to be watched are" + Joined(expected) + "\nbut watched are" + Joined(watches);
}

}  // namespace kx::velmor::testing_support
