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
    if (!CreateIdentity())
    {
        // The recipe has found the node of that candidate.
        node_.clear();
        recipe_ = nullptr;
        throw VelmorError("Another candidate of this session takes part");
    }
}

/// False when the identity of another candidate of this session has the path.
bool QueuePlace::CreateIdentity()
{
    mayHaveIdentity_ = true;
    TransactionResult result;
    const int rc =
        session_->TransactIn(sessionId_, {Operation::Create(identityPath_, signature_, NodeMode::Ephemeral)}, result);
    if (rc == ZNODEEXISTS)
    {
        // From an attempt whose reply was lost, unless it is another candidate's.
        mayHaveIdentity_ = HaveIdentity();
        return mayHaveIdentity_;
    }
    if (result.refused)
    {
        mayHaveIdentity_ = false;
    }
    Require(rc);
    return true;
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
        // An epoch is smaller than the transaction that writes it. Anything else was written by hand.
        if (last->epoch >= epoch_ && last->epoch < last->written)
        {
            // Only this node has this epoch, and before the first attempt from here a smaller one was written. So a
            // claim with our signature is an attempt whose reply was lost, and no leadership began with it. Without an
            // attempt from here, the node has led before: it was adopted.
            if (last->epoch == epoch_ && mayHaveClaim_ && LookAtClaim() == Claim::Made)
            {
                claimVersion_ = last->version;
                return Claim::Made;
            }
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
                // A claim of ours for which another epoch is written. To leave takes it back.
                return Claim::Outdated;
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
    return ReadClaim();
}

QueuePlace::Claim QueuePlace::ReadClaim() const
{
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
    // What was made went with the session.
    const bool gone = connection_->SessionOver();
    if (!std::exchange(leaving_, true))
    {
        StopWatching();
    }
    else if (nodeStands_ && !gone)
    {
        // There was no watch on it since the attempt before.
        Stat stat{};
        const int rc = session_->Exists(path_, &stat);
        RequireGone(rc);
        nodeStands_ = rc == ZOK && stat.czxid == epoch_;
    }
    if (mayHaveClaim_ && !gone)
    {
        ReleaseClaim();
    }
    if (!gone)
    {
        DeleteIdentity();
    }
    if (!node_.empty())
    {
        node_.clear();
        recipe_->Stop();
    }
    else if (recipe_ && connection_->MayHaveNode() && !gone)
    {
        DeleteOwnNodes();
    }
}

/// There is no news any more: neither for the recipe, whose node goes before it is stopped, nor here.
void QueuePlace::StopWatching()
{
    connection_->DropCallbacks();
    nodeStands_ = nodeStands_ && *watchingNode_;
    const Connection::WatchHandle node = std::move(nodeWatch_);
    const Connection::WatchHandle claim = std::move(claimWatch_);
}

/// Deletes our claim, and with it identity and node. Never the claim of another one, whatever has been deleted and made
/// anew meanwhile: the transaction deletes our identity, too, and so is refused unless that stands. No other node of
/// any time has the identity's path, as long as each candidate of an election has a session of its own. While the
/// identity stands its parent cannot be deleted, and so the parent's version has not begun again since it was read.
/// Each claim raises it: as long as it is the same, the claim is ours or gone.
void QueuePlace::ReleaseClaim()
{
    bool leaseStands = true;
    while (claimVersion_ || FindClaim())
    {
        // The node goes with the claim, so that the next one in line, who hears of this, can claim the lead at once.
        std::vector<Operation> release{Operation::Check(IdentitiesPath(electionPath_), *claimVersion_),
                                       Operation::Delete(ClaimPath(electionPath_)), Operation::Delete(identityPath_)};
        constexpr std::size_t kIdentity = 2;
        if (leaseStands)
        {
            release.push_back(Operation::Delete(LeasePath(electionPath_)));
        }
        const std::size_t nodeStep = release.size();
        const std::size_t leaseStep = nodeStep - 1;
        if (nodeStands_)
        {
            release.push_back(Operation::Delete(path_));
        }
        TransactionResult result;
        const int rc = session_->TransactIn(sessionId_, release, result);
        if (rc == ZOK)
        {
            mayHaveIdentity_ = false;
            if (nodeStands_)
            {
                connection_->NoteDeleted(path_);
            }
            break;
        }
        if (rc == ZNONODE && result.refused == nodeStep)
        {
            nodeStands_ = false;
        }
        else if (rc == ZNONODE && result.refused == kIdentity)
        {
            mayHaveIdentity_ = false;
            claimVersion_.reset();
        }
        else if (rc == ZNONODE && result.refused == leaseStep)
        {
            leaseStands = false;
        }
        else if (rc == ZBADVERSION)
        {
            claimVersion_.reset();
        }
        else
        {
            RequireGone(rc);
            break;
        }
    }
    mayHaveClaim_ = false;
}

/// Whether a claim of ours stands, whose answer was lost or whose version is not known any more. Then its version is
/// known, and the identity stands, which `ReleaseClaim` relies on.
bool QueuePlace::FindClaim()
{
    for (;;)
    {
        // A claim that got no answer may still be on its way. Without the identity it comes to nothing.
        DeleteIdentity();
        if (ReadClaim() != Claim::Made)
        {
            return false;
        }
        if (!CreateIdentity())
        {
            throw VelmorError("Another candidate of this session takes part");
        }
        // In this order: a claim that another one makes after the version was read raises it.
        const std::optional<LastClaim> last = ReadLastClaim();
        if (last && ReadClaim() == Claim::Made)
        {
            claimVersion_ = last->version;
            return true;
        }
    }
}

void QueuePlace::DeleteIdentity()
{
    if (!mayHaveIdentity_)
    {
        return;
    }
    TransactionResult result;
    RequireGone(session_->TransactIn(sessionId_, {Operation::Delete(identityPath_)}, result));
    mayHaveIdentity_ = false;
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
