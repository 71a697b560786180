#include "source/election_reader.h"

#include "source/election_nodes.h"
#include "source/participant_nodes.h"

#include <kx/velmor/election_session.h>
#include <kx/velmor/error.h>

#include <algorithm>
#include <tuple>
#include <utility>

namespace kx::velmor {

namespace {

/// How often a queue is read that changes meanwhile.
constexpr int kMostReadings = 4;

/// How many of the queue are watched.
constexpr std::size_t kFront = 2;

/// Whether there is a node.
bool Found(int rc)
{
    if (rc != ZOK && rc != ZNONODE)
    {
        throw ZooError(rc);
    }
    return rc == ZOK;
}

}  // namespace

bool ElectionReader::Stand::operator==(const Stand& other) const
{
    const auto all = [](const Stand& stand) {
        return std::tie(stand.queueMade, stand.queueChanged, stand.identitiesMade, stand.identitiesChanged,
                        stand.epochWritten);
    };
    return all(*this) == all(other);
}

ElectionReader::ElectionReader(const ElectionSession& session, std::string electionPath, std::function<void()> news)
    : session_(session), electionPath_(std::move(electionPath)), news_(std::move(news))
{
    Forget();
}

void ElectionReader::Forget()
{
    seen_.reset();
    queueStand_.reset();
    names_.clear();
    queue_.clear();
    leader_.reset();
    watches_.clear();
    watches_[IdentitiesPath(electionPath_)];
    watches_[ClaimPath(electionPath_)];
}

void ElectionReader::Read(ElectionView& view)
{
    // Before anything is read, so that whatever changes after it is told.
    for (auto& [path, watch] : watches_)
    {
        Arm(path, watch);
    }
    Stand stand = ReadStand();
    for (int readings = 0; readings < kMostReadings && !(seen_ && *seen_ == stand); ++readings)
    {
        seen_.reset();
        ReadQueue(stand);
        ReadLeader(stand);
        WatchFront();
        const Stand after = ReadStand();
        if (after == stand)
        {
            seen_ = stand;
        }
        stand = after;
    }
    for (Participant& participant : queue_)
    {
        DescribeAge(participant);
    }
    view.queue = queue_;
    view.leader = leader_;
    view.known = true;
}

ElectionReader::Stand ElectionReader::ReadStand() const
{
    Stand stand;
    Stat stat{};
    if (Found(session_.Exists(electionPath_, &stat)))
    {
        stand.queueMade = stat.czxid;
        stand.queueChanged = stat.pzxid;
    }
    if (Found(session_.Exists(IdentitiesPath(electionPath_), &stat)))
    {
        stand.identitiesMade = stat.czxid;
        stand.identitiesChanged = stat.pzxid;
        stand.epochWritten = stat.mzxid;
    }
    return stand;
}

void ElectionReader::ReadQueue(const Stand& stand)
{
    // Should this not come through, there is nothing to go by.
    const std::optional<Stand> before = std::exchange(queueStand_, std::nullopt);
    const bool sameQueue = before && stand.queueMade == before->queueMade;
    const bool newIdentities =
        stand.identitiesMade != 0 && !(before && stand.identitiesChanged == before->identitiesChanged);
    if (!sameQueue || stand.queueChanged != before->queueChanged)
    {
        std::vector<std::string> names =
            stand.queueMade != 0 ? Queue(session_, electionPath_) : std::vector<std::string>();
        if (!sameQueue || names == names_)
        {
            // Numbers begin again below a new path, and by hand a node can be made again under the name that it had.
            queue_.clear();
        }
        names_ = std::move(names);
    }

    std::map<std::string, Participant> known;
    for (Participant& participant : std::exchange(queue_, {}))
    {
        known.emplace(participant.node, std::move(participant));
    }
    for (const std::string& name : names_)
    {
        Participant participant;
        participant.node = name;
        const auto found = known.find(name);
        const bool isNew = found == known.end();
        if (!isNew)
        {
            participant = std::move(found->second);
        }
        else if (!DescribePlace(session_, electionPath_, participant))
        {
            continue;
        }
        // It is told who somebody is after that somebody has come.
        if (participant.identity.empty() && (isNew || newIdentities))
        {
            DescribeIdentity(session_, electionPath_, participant);
        }
        participant.role = RoleAt(queue_.size());
        queue_.push_back(std::move(participant));
    }
    queueStand_ = stand;
}

void ElectionReader::ReadLeader(const Stand& stand)
{
    leader_.reset();
    if (stand.identitiesMade == 0)
    {
        return;
    }
    std::string signature;
    Stat claim{};
    if (!Found(session_.GetData(ClaimPath(electionPath_), signature, &claim)))
    {
        return;
    }
    Leader leader;
    leader.session = claim.ephemeralOwner;
    leader.identity = DecodeSignature(signature).identity;
    std::string epoch;
    Stat written{};
    // One transaction makes the claim and writes the epoch: what was written by another is not the claim's.
    if (Found(session_.GetData(IdentitiesPath(electionPath_), epoch, &written)) && written.mzxid == claim.czxid)
    {
        leader.epoch = DecodeEpoch(epoch);
    }
    FindPlace(leader);
    leader_ = std::move(leader);
}

void ElectionReader::FindPlace(Leader& leader) const
{
    const auto place = std::find_if(queue_.begin(), queue_.end(), [&](const Participant& participant) {
        return participant.session != 0 && participant.session == leader.session &&
               (leader.epoch == 0 || participant.epoch == leader.epoch);
    });
    if (place != queue_.end())
    {
        leader.node = place->node;
        leader.epoch = place->epoch;
        leader.position = static_cast<std::size_t>(place - queue_.begin());
        return;
    }
    std::vector<std::string> names;
    if (!Found(session_.GetChildren(IdentitiesPath(electionPath_), names)))
    {
        return;
    }
    const std::string session = SessionText(leader.session);
    for (const std::string& name : names)
    {
        const std::string node = name.substr(0, name.size() - std::min(name.size(), session.size() + 1));
        // A place that it has still, or again, was not the one that the claim was made from.
        if (SessionOfIdentity(name) == session && std::find(names_.begin(), names_.end(), node) == names_.end())
        {
            leader.node = node;
            return;
        }
    }
}

void ElectionReader::WatchFront()
{
    std::map<std::string, Watch> before = std::exchange(watches_, {});
    const auto keep = [&](const std::string& path) {
        const auto node = before.extract(path);
        Arm(path, node ? watches_.emplace(path, std::move(node.mapped())).first->second : watches_[path]);
    };
    keep(IdentitiesPath(electionPath_));
    keep(ClaimPath(electionPath_));
    for (std::size_t position = 0; position < std::min(kFront, queue_.size()); ++position)
    {
        keep(electionPath_ + "/" + queue_[position].node);
    }
}

void ElectionReader::Arm(const std::string& path, Watch& watch) const
{
    if (!news_ || *watch.armed)
    {
        return;
    }
    // Before the request, since the event may overtake the answer.
    *watch.armed = true;
    auto [rc, handle] = session_.Exists(
        path,
        [armed = watch.armed, news = news_](int type, int /*state*/, const std::string& /*path*/) {
            if (type != ZOO_SESSION_EVENT)
            {
                *armed = false;
                news();
            }
        },
        nullptr);
    watch.handle = std::move(handle);
    if (rc != ZOK && rc != ZNONODE)
    {
        *watch.armed = false;
        throw ZooError(rc);
    }
}

}  // namespace kx::velmor
