#include "tests/chaos/ending.h"

#include "source/election_nodes.h"
#include "tests/chaos/member_log.h"
#include "tests/support/raw_client.h"

#include <algorithm>
#include <map>
#include <stdexcept>
#include <thread>

namespace kx::velmor::chaos {

namespace {

using testing_support::RawClient;

/// A leader whose last look is older than this is none now.
constexpr std::chrono::milliseconds kRecently{500};

std::vector<QueueNode> Nodes(RawClient& client, const std::string& path)
{
    std::vector<QueueNode> queue;
    for (const std::string& name : client.List(path))
    {
        if (const std::optional<Stat> stat = client.Exists(std::string(path).append("/").append(name)))
        {
            queue.push_back({name, stat->ephemeralOwner});
        }
    }
    return queue;
}

/// Why this is no election at rest; empty when it is one.
std::string Unrest(const Ending& ending, const std::vector<std::string>& leaders, std::int64_t leadersSession)
{
    std::map<std::int64_t, int> missing;
    for (const std::int64_t session : ending.sessions)
    {
        ++missing[session];
    }
    for (const QueueNode& node : ending.queue)
    {
        if (--missing[node.owner] < 0)
        {
            return node.name + " has no member that it belongs to, or another one already";
        }
    }
    if (ending.queue.size() != ending.sessions.size())
    {
        return std::to_string(ending.queue.size()) + " nodes for " + std::to_string(ending.sessions.size()) +
               " members";
    }
    if (leaders.size() != 1)
    {
        return std::to_string(leaders.size()) + " leaders";
    }
    return leadersSession == ending.queue.front().owner ? "" : leaders.front() + " leads, but is not the first";
}

/// The same of what candidates keep beside the queue.
std::string UnrestBesides(const Ending& ending, const std::string& path)
{
    std::map<std::string, std::int64_t> expected;
    for (const QueueNode& node : ending.queue)
    {
        expected[IdentityPath(path, node.name, node.owner)] = node.owner;
    }
    expected[ClaimPath(path)] = ending.queue.front().owner;
    // Persistent, and there for as long as a candidate leads.
    expected[LeasePath(path)] = 0;
    for (const QueueNode& node : ending.besides)
    {
        const auto found = expected.find(IdentitiesPath(path) + "/" + node.name);
        if (found == expected.end() || found->second != node.owner)
        {
            return node.name + " in " + IdentitiesPath(path) + " belongs to nobody in the queue, or not to the leader";
        }
        expected.erase(found);
    }
    return expected.empty() ? "" : expected.begin()->first + " is missing";
}

Ending Look(Stage& stage, Subject subject, RawClient& client)
{
    Ending ending;
    ending.at = Now();
    client.Sync();
    ending.queue = Nodes(client, stage.Path());
    if (subject == Subject::Candidate)
    {
        ending.besides = Nodes(client, IdentitiesPath(stage.Path()));
    }
    std::vector<std::string> leaders;
    std::int64_t leadersSession = 0;
    for (std::size_t i = 0; i < stage.Members(); ++i)
    {
        const Member& member = stage.HistoryOf(i);
        const std::int64_t session = member.stays.empty() ? 0 : member.stays.back().session;
        ending.sessions.push_back(session);
        const std::optional<Interval> lead = LastLead(member);
        if (lead && Now() - lead->end < kRecently)
        {
            leaders.push_back(member.name);
            leadersSession = session;
        }
    }
    ending.watches = stage.Watches();
    ending.unrest = Unrest(ending, leaders, leadersSession);
    if (ending.unrest.empty() && subject == Subject::Candidate)
    {
        ending.unrest = UnrestBesides(ending, stage.Path());
    }
    return ending;
}

}  // namespace

Ending AwaitRest(Stage& stage, Subject subject, std::chrono::milliseconds deadline,
                 const std::function<bool()>& interrupted)
{
    RawClient client(stage.Addresses());
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (true)
    {
        Ending ending;
        try
        {
            ending = Look(stage, subject, client);
        }
        catch (const std::runtime_error& error)
        {
            ending.at = Now();
            ending.unrest = error.what();
        }
        if (ending.unrest.empty() || interrupted() || std::chrono::steady_clock::now() >= end)
        {
            return ending;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

}  // namespace kx::velmor::chaos
