#include "source/election_nodes.h"
#include "source/participant_nodes.h"

#include <kx/velmor/election_session.h>
#include <kx/velmor/error.h>

#include <algorithm>
#include <utility>

namespace kx::velmor {

using std::chrono::milliseconds;
using std::chrono::system_clock;

std::vector<std::string> Queue(const ElectionSession& session, const std::string& electionPath)
{
    std::vector<std::string> names;
    const int rc = session.GetChildren(electionPath, names);
    if (rc != ZOK && rc != ZNONODE)
    {
        throw ZooError(rc);
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool DescribePlace(const ElectionSession& session, const std::string& electionPath, Participant& participant)
{
    Stat stat{};
    const int rc = session.Exists(electionPath + "/" + participant.node, &stat);
    if (rc == ZNONODE)
    {
        return false;
    }
    if (rc != ZOK)
    {
        throw ZooError(rc);
    }
    participant.session = stat.ephemeralOwner;
    participant.epoch = stat.czxid;
    participant.joined = system_clock::time_point(milliseconds(stat.ctime));
    DescribeAge(participant);
    return true;
}

void DescribeIdentity(const ElectionSession& session, const std::string& electionPath, Participant& participant)
{
    std::string data;
    const int rc = session.GetData(IdentityPath(electionPath, participant.node, participant.session), data, nullptr);
    if (rc == ZOK)
    {
        participant.identity = DecodeSignature(data).identity;
    }
    else if (rc != ZNONODE)
    {
        throw ZooError(rc);
    }
}

void DescribeAge(Participant& participant)
{
    participant.age =
        std::max(std::chrono::duration_cast<milliseconds>(system_clock::now() - participant.joined), milliseconds(0));
}

Role RoleAt(std::size_t position)
{
    if (position == 0)
    {
        return Role::Leader;
    }
    return position == 1 ? Role::NextLeader : Role::Follower;
}

namespace {

/// False when the node has gone.
bool Describe(const ElectionSession& session, const std::string& electionPath, Participant& participant)
{
    if (!DescribePlace(session, electionPath, participant))
    {
        return false;
    }
    DescribeIdentity(session, electionPath, participant);
    return true;
}

}  // namespace

std::vector<Participant> Participants(const ElectionSession& session, const std::string& electionPath)
{
    const std::string path = ElectionPath(electionPath);
    std::vector<Participant> participants;
    for (std::string& name : Queue(session, path))
    {
        Participant participant;
        participant.node = std::move(name);
        if (Describe(session, path, participant))
        {
            participant.role = RoleAt(participants.size());
            participants.push_back(std::move(participant));
        }
    }
    return participants;
}

std::optional<std::string> LeaderIdentity(const ElectionSession& session, const std::string& electionPath)
{
    const std::string path = ElectionPath(electionPath);
    for (std::string& name : Queue(session, path))
    {
        Participant first;
        first.node = std::move(name);
        if (Describe(session, path, first))
        {
            return first.identity.empty() ? std::nullopt : std::optional<std::string>(first.identity);
        }
    }
    return std::nullopt;
}

}  // namespace kx::velmor
