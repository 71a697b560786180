#include "source/queue_place.h"

#include "source/candidate_log.h"

#include <kx/velmor/error.h>
#include <kx/velmor/path.h>

#include <algorithm>
#include <utility>

namespace kx::velmor {

namespace {

using logging::LogLevel;

void Require(int rc)
{
    if (rc != ZOK)
    {
        throw ZooError(rc);
    }
}

void RequireGone(int rc)
{
    if (rc != ZNONODE)
    {
        Require(rc);
    }
}

/// A watch that tells of the node's next event, and of none of the session's.
Connection::WatchCallback Once(std::shared_ptr<std::atomic<bool>> watching, std::function<void()> news)
{
    return
        [watching = std::move(watching), news = std::move(news)](int type, int /*state*/, const std::string& /*path*/) {
            if (type != ZOO_SESSION_EVENT)
            {
                *watching = false;
                news();
            }
        };
}

}  // namespace

QueuePlace::QueuePlace(std::shared_ptr<ElectionSession> session, std::string electionPath, std::int64_t sessionId,
                       Signature signature, Events events)
    : session_(std::move(session)),
      connection_(std::make_shared<BoundConnection>(session_, sessionId)),
      electionPath_(std::move(electionPath)),
      sessionId_(sessionId),
      signature_(Encode(signature)),
      instance_(std::move(signature.instance)),
      events_(std::move(events))
{}

QueuePlace::~QueuePlace()
{
    // A watch that the recipe left armed holds the recipe, which holds the watch.
    connection_->DropCallbacks();
}

void QueuePlace::Join()
{
    RefuseCompany();
    recipe_ = std::make_shared<CandidateImpl>(connection_, electionPath_, events_.first, events_.second);
    recipe_->Start();
    node_ = recipe_->Name();
    path_ = electionPath_ + "/" + node_;
    const Stat stat = WatchNode();
    if (stat.ephemeralOwner != sessionId_)
    {
        throw ZooError(ZSESSIONEXPIRED);
    }
    epoch_ = stat.czxid;
    nodeStands_ = true;
    MakeIdentity();
}

/// The recipe takes a node of its session for its own, so that two candidates of one session would share one.
void QueuePlace::RefuseCompany() const
{
    std::vector<std::string> names;
    const int rc = session_->GetChildren(IdentitiesPath(electionPath_), names);
    if (rc == ZNONODE)
    {
        return;
    }
    Require(rc);
    for (const std::string& name : names)
    {
        std::string data;
        if (SessionOfIdentity(name) == SessionText(sessionId_) &&
            session_->GetData(IdentitiesPath(electionPath_) + "/" + name, data, nullptr) == ZOK &&
            DecodeSignature(data).instance != instance_)
        {
            throw VelmorError("Another candidate of this session takes part");
        }
    }
}

Stat QueuePlace::WatchNode()
{
    // Before the request, since the event may overtake the answer.
    *watchingNode_ = true;
    Stat stat{};
    auto [rc, handle] = session_->Exists(path_, Once(watchingNode_, events_.news), &stat);
    nodeWatch_ = std::move(handle);
    if (rc != ZOK)
    {
        *watchingNode_ = false;
        throw ZooError(rc);
    }
    return stat;
}

void QueuePlace::MakeIdentity()
{
    EnsurePath(*connection_, IdentitiesPath(electionPath_), false, ZOO_OPEN_ACL_UNSAFE);
    identityPath_ = kx::velmor::IdentityPath(electionPath_, node_, sessionId_);
    mayHaveIdentity_ = true;
    TransactionResult result;
    const int rc =
        session_->TransactIn(sessionId_, {Operation::Create(identityPath_, signature_, NodeMode::Ephemeral)}, result);
    if (rc != ZNODEEXISTS)
    {
        Require(rc);
        return;
    }
    // From an attempt whose reply was lost; or the recipe has found the node of another candidate of this session.
    if (!HaveIdentity())
    {
        mayHaveIdentity_ = false;
        node_.clear();
        recipe_ = nullptr;
        throw VelmorError("Another candidate of this session takes part");
    }
}

bool QueuePlace::HaveIdentity() const
{
    std::string data;
    const int rc = session_->GetData(identityPath_, data, nullptr);
    if (rc == ZNONODE)
    {
        return false;
    }
    Require(rc);
    return data == signature_;
}

std::optional<QueuePlace::LastClaim> QueuePlace::ReadLastClaim() const
{
    std::string epoch;
    Stat stat{};
    const int rc = session_->GetData(IdentitiesPath(electionPath_), epoch, &stat);
    if (rc == ZNONODE)
    {
        return std::nullopt;
    }
    Require(rc);
    return LastClaim{DecodeEpoch(epoch), stat.mzxid, stat.version};
}

void QueuePlace::PrepareToClaim()
{
    lastClaim_ = ReadLastClaim();
}

void QueuePlace::ReadLastLease()
{
    std::string length;
    Stat stat{};
    const int rc = session_->GetData(LeasePath(electionPath_), length, &stat);
    RequireGone(rc);
    if (rc == ZNONODE)
    {
        lastLease_.reset();
    }
    else if (!lastLease_ || lastLease_->written != stat.mzxid)
    {
        const std::chrono::milliseconds decoded = DecodeLease(length);
        lastLease_ = LastLease{stat.mzxid, stat.version, decoded, session_->Now() + decoded};
    }
}

QueuePlace::Claim QueuePlace::TryToClaim(std::chrono::milliseconds lease)
{
    for (;;)
    {
        std::optional<LastClaim> last = std::exchange(lastClaim_, std::nullopt);
        if (!last)
        {
            last = ReadLastClaim();
        }
        if (!last)
        {
            nodeStands_ = false;
            return Claim::Gone;
        }
        // What was written before it can have been reached is no epoch.
        if (last->epoch > epoch_ && last->epoch < last->written)
        {
            return Claim::Outdated;
        }

        // The last leader's session may have had a timeout that its owner did not know of: the reply that granted it
        // can be lost. Servers that grant this session as much as they granted that one have ended it after its lease.
        if (lastLease_ && lastLease_->length > lease && session_->Now() < lastLease_->end)
        {
            return Claim::Waiting;
        }

        mayHaveClaim_ = true;
        constexpr std::size_t kOurNodes = 2;
        constexpr std::size_t kClaimNode = 3;
        constexpr std::size_t kLeaseNode = 4;
        const std::string leasePath = LeasePath(electionPath_);
        const std::vector<Operation> claiming{
            Operation::Check(path_), Operation::Check(identityPath_),
            Operation::Set(IdentitiesPath(electionPath_), EncodeEpoch(epoch_), last->version),
            Operation::Create(ClaimPath(electionPath_), signature_, NodeMode::Ephemeral),
            lastLease_ ? Operation::Set(leasePath, EncodeLease(lease), lastLease_->version)
                       : Operation::Create(leasePath, EncodeLease(lease))};
        TransactionResult result;
        const int rc = session_->TransactIn(sessionId_, claiming, result);
        if (rc == ZOK)
        {
            claimVersion_ = last->version + 1;
            return Claim::Made;
        }
        if (rc == ZNONODE && result.refused && *result.refused < kOurNodes)
        {
            nodeStands_ = false;
            return Claim::Gone;
        }
        if (rc == ZNODEEXISTS && result.refused == kClaimNode)
        {
            const Claim claim = LookAtClaim();
            if (claim == Claim::Made)
            {
                // From an attempt whose reply was lost, after which there was no other.
                claimVersion_ = last->version;
            }
            if (claim != Claim::Gone)
            {
                return claim;
            }
        }
        else if (result.refused == kLeaseNode && (rc == ZNODEEXISTS || rc == ZNONODE || rc == ZBADVERSION))
        {
            // There is no claim, and the lead was not given back; or what was left behind has changed.
            ReadLastLease();
            lastClaim_ = last;
        }
        else if (rc != ZBADVERSION)
        {
            throw ZooError(rc);
        }
        // What was in the way has gone meanwhile: once more.
    }
}

/// Whose claim it is that stands; `Gone` when there is none any more. Watches it.
QueuePlace::Claim QueuePlace::LookAtClaim()
{
    if (!*watchingClaim_)
    {
        *watchingClaim_ = true;
        auto [rc, handle] = session_->Exists(ClaimPath(electionPath_), Once(watchingClaim_, events_.news), nullptr);
        claimWatch_ = std::move(handle);
        if (rc != ZOK && rc != ZNONODE)
        {
            *watchingClaim_ = false;
            throw ZooError(rc);
        }
    }
    std::string data;
    Stat stat{};
    const int rc = session_->GetData(ClaimPath(electionPath_), data, &stat);
    if (rc == ZNONODE)
    {
        return Claim::Gone;
    }
    Require(rc);
    return stat.ephemeralOwner == sessionId_ && data == signature_ ? Claim::Made : Claim::Taken;
}

std::vector<Operation> QueuePlace::Guards() const
{
    return {Operation::Check(path_), Operation::Check(identityPath_),
            Operation::Check(IdentitiesPath(electionPath_), claimVersion_.value())};
}

std::optional<std::size_t> QueuePlace::Look()
{
    Stat stat{};
    const int rc = session_->Exists(path_, &stat);
    if (rc == ZNONODE || (rc == ZOK && stat.czxid != epoch_))
    {
        nodeStands_ = false;
        return std::nullopt;
    }
    Require(rc);
    if (!*watchingNode_)
    {
        WatchNode();
    }
    if (!HaveIdentity() || (claimVersion_ && LookAtClaim() != Claim::Made))
    {
        return std::nullopt;
    }

    std::vector<std::string> names;
    const int listed = session_->GetChildren(electionPath_, names);
    if (listed == ZNONODE)
    {
        return std::nullopt;
    }
    Require(listed);
    if (std::find(names.begin(), names.end(), node_) == names.end())
    {
        return std::nullopt;
    }
    return static_cast<std::size_t>(
        std::count_if(names.begin(), names.end(), [this](const std::string& name) { return name < node_; }));
}

void QueuePlace::Leave()
{
    // There is no news any more: neither for the recipe, whose node goes before it is stopped, nor here.
    connection_->DropCallbacks();
    nodeStands_ = nodeStands_ && *watchingNode_;
    {
        const Connection::WatchHandle node = std::move(nodeWatch_);
        const Connection::WatchHandle claim = std::move(claimWatch_);
    }
    // What was made went with the session.
    const bool gone = connection_->SessionOver();
    if (mayHaveClaim_ && !gone)
    {
        ReleaseClaim();
    }
    if (mayHaveIdentity_ && !gone)
    {
        DeleteIdentity();
    }
    if (!node_.empty())
    {
        node_.clear();
        recipe_->Stop();
    }
    else if (recipe_ && !gone)
    {
        DeleteOwnNodes();
    }
}

void QueuePlace::ReleaseClaim()
{
    for (;;)
    {
        if (!claimVersion_ && !FindClaim())
        {
            break;
        }
        // Whoever has claimed the lead since has raised the version: a repetition after a lost reply does no harm.
        std::vector<Operation> release{Operation::Check(IdentitiesPath(electionPath_), *claimVersion_),
                                       Operation::Delete(ClaimPath(electionPath_))};
        const std::size_t claimOnly = release.size();
        release.push_back(Operation::Delete(LeasePath(electionPath_)));
        if (mayHaveIdentity_)
        {
            release.push_back(Operation::Delete(identityPath_));
        }
        if (nodeStands_)
        {
            // With the claim, so that the next one in line, who hears of this, can claim the lead at once.
            release.push_back(Operation::Delete(path_));
        }
        TransactionResult result;
        int rc = session_->TransactIn(sessionId_, release, result);
        while (rc == ZNONODE && result.refused && *result.refused >= claimOnly)
        {
            // Somebody else has deleted that one.
            release.erase(release.begin() + static_cast<std::ptrdiff_t>(*result.refused));
            rc = session_->TransactIn(sessionId_, release, result);
        }
        if (rc == ZOK)
        {
            mayHaveIdentity_ = false;
        }
        if (rc == ZOK && nodeStands_)
        {
            connection_->NoteDeleted(path_);
        }
        if (rc != ZBADVERSION)
        {
            RequireGone(rc);
            break;
        }
        // Or somebody has written there by hand.
        claimVersion_.reset();
    }
    mayHaveClaim_ = false;
}

/// Whether there is a claim of ours, whose answer was lost or whose version is not known any more.
bool QueuePlace::FindClaim()
{
    // A claim that got no answer may still be on its way. Without the identity it comes to nothing.
    DeleteIdentity();
    std::string last;
    Stat stat{};
    const int rc = session_->GetData(IdentitiesPath(electionPath_), last, &stat);
    RequireGone(rc);
    if (rc != ZOK || LookAtClaim() != Claim::Made)
    {
        return false;
    }
    claimVersion_ = stat.version;
    return true;
}

void QueuePlace::DeleteIdentity()
{
    if (std::exchange(mayHaveIdentity_, false))
    {
        RequireGone(session_->GuaranteedDelete(identityPath_));
    }
}

/// Deletes whatever node is ours: the reply to its creation may have been lost, and its name with it.
void QueuePlace::DeleteOwnNodes() const
{
    std::vector<std::string> names;
    const int listed = session_->GetChildren(electionPath_, names);
    RequireGone(listed);
    for (const std::string& name : names)
    {
        const std::string path = electionPath_ + "/" + name;
        Stat stat{};
        const int rc = session_->Exists(path, &stat);
        RequireGone(rc);
        if (rc == ZOK && stat.ephemeralOwner == sessionId_)
        {
            KX_LOG(LogLevel::Info, ElectionLog()) << "Taking back " << path;
            RequireGone(session_->GuaranteedDelete(path));
        }
    }
}

}  // namespace kx::velmor
