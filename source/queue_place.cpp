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

}  // namespace

QueuePlace::QueuePlace(std::shared_ptr<ElectionSession> session, std::string electionPath, std::int64_t sessionId,
                       Signature signature, Events events)
    : session_(std::move(session)),
      connection_(std::make_shared<BoundConnection>(session_, sessionId)),
      electionPath_(std::move(electionPath)),
      sessionId_(sessionId),
      signature_(Encode(signature)),
      instance_(std::move(signature.instance)),
      events_(std::move(events)),
      watchingNode_(std::make_shared<std::atomic<bool>>(false))
{}

void QueuePlace::Join()
{
    RefuseCompany();
    recipe_ = std::make_shared<CandidateImpl>(connection_, electionPath_, events_.first, events_.second);
    recipe_->Start();
    node_ = recipe_->Name();
    path_ = electionPath_ + "/" + node_;
    WatchNode();
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

void QueuePlace::WatchNode()
{
    // Before the request, since the event may overtake the answer.
    *watchingNode_ = true;
    Stat stat{};
    auto [rc, handle] = session_->Exists(
        path_,
        [watching = watchingNode_, news = events_.news](int type, int /*state*/, const std::string& /*path*/) {
            if (type != ZOO_SESSION_EVENT)
            {
                *watching = false;
                news();
            }
        },
        &stat);
    nodeWatch_ = std::move(handle);
    if (rc != ZOK)
    {
        *watchingNode_ = false;
        throw ZooError(rc);
    }
    if (stat.ephemeralOwner != sessionId_)
    {
        throw ZooError(ZSESSIONEXPIRED);
    }
    epoch_ = stat.czxid;
}

void QueuePlace::MakeIdentity()
{
    EnsurePath(*session_, IdentitiesPath(electionPath_), false, ZOO_OPEN_ACL_UNSAFE);
    identityPath_ = kx::velmor::IdentityPath(electionPath_, node_, sessionId_);
    hasIdentity_ = true;
    const int rc = session_->Create(identityPath_, signature_, ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr);
    if (rc != ZNODEEXISTS)
    {
        Require(rc);
        return;
    }
    // From an attempt whose reply was lost.
    std::string data;
    Require(session_->GetData(identityPath_, data, nullptr));
    if (data != signature_)
    {
        hasIdentity_ = false;
        throw VelmorError("Another candidate of this session takes part");
    }
}

QueuePlace::Claim QueuePlace::TryToClaim()
{
    for (;;)
    {
        std::string last;
        Stat stat{};
        const int read = session_->GetData(IdentitiesPath(electionPath_), last, &stat);
        if (read == ZNONODE)
        {
            return Claim::Gone;
        }
        Require(read);
        if (DecodeEpoch(last) > epoch_)
        {
            return Claim::Outdated;
        }

        mayHaveClaim_ = true;
        constexpr std::size_t kOurNodes = 2;
        constexpr std::size_t kClaimNode = 3;
        TransactionResult result;
        const int rc =
            session_->Transact({Operation::Check(path_), Operation::Check(identityPath_),
                                Operation::Set(IdentitiesPath(electionPath_), EncodeEpoch(epoch_), stat.version),
                                Operation::Create(ClaimPath(electionPath_), signature_, NodeMode::Ephemeral)},
                               result);
        if (rc == ZOK)
        {
            return Claim::Made;
        }
        if (rc == ZNONODE && result.refused && *result.refused < kOurNodes)
        {
            return Claim::Gone;
        }
        if (rc == ZNODEEXISTS && result.refused == kClaimNode)
        {
            const Claim claim = LookAtClaim();
            if (claim != Claim::Gone)
            {
                return claim;
            }
        }
        else if (rc != ZBADVERSION)
        {
            throw ZooError(rc);
        }
        // What was in the way has gone meanwhile: once more.
    }
}

/// Whose claim it is that stands; `Gone` when there is none any more. Watches another one's.
QueuePlace::Claim QueuePlace::LookAtClaim()
{
    auto [rc, handle] = session_->Exists(
        ClaimPath(electionPath_),
        [news = events_.news](int type, int /*state*/, const std::string& /*path*/) {
            if (type != ZOO_SESSION_EVENT)
            {
                news();
            }
        },
        nullptr);
    if (rc == ZNONODE)
    {
        return Claim::Gone;
    }
    Require(rc);
    // From an attempt whose reply was lost.
    if (OurClaim())
    {
        return Claim::Made;
    }
    claimWatch_ = std::move(handle);
    return Claim::Taken;
}

bool QueuePlace::OurClaim() const
{
    std::string data;
    Stat stat{};
    const int rc = session_->GetData(ClaimPath(electionPath_), data, &stat);
    if (rc == ZNONODE)
    {
        return false;
    }
    Require(rc);
    return stat.ephemeralOwner == sessionId_ && data == signature_;
}

std::optional<std::size_t> QueuePlace::Look()
{
    if (!*watchingNode_)
    {
        Stat stat{};
        const int rc = session_->Exists(path_, &stat);
        if (rc == ZNONODE)
        {
            return std::nullopt;
        }
        Require(rc);
        WatchNode();
    }
    std::vector<std::string> names;
    const int rc = session_->GetChildren(electionPath_, names);
    if (rc == ZNONODE)
    {
        return std::nullopt;
    }
    Require(rc);
    if (std::find(names.begin(), names.end(), node_) == names.end())
    {
        return std::nullopt;
    }
    return static_cast<std::size_t>(
        std::count_if(names.begin(), names.end(), [this](const std::string& name) { return name < node_; }));
}

void QueuePlace::Leave()
{
    // Disarmed: there is no news any more.
    {
        const Connection::WatchHandle node = std::move(nodeWatch_);
        const Connection::WatchHandle claim = std::move(claimWatch_);
    }
    if (!connection_->SessionOver())
    {
        if (mayHaveClaim_)
        {
            ReleaseClaim();
        }
        if (std::exchange(hasIdentity_, false))
        {
            RequireGone(session_->GuaranteedDelete(identityPath_));
        }
    }
    if (!node_.empty())
    {
        node_.clear();
        recipe_->Stop();
    }
    else if (recipe_ && !connection_->SessionOver())
    {
        DeleteOwnNodes();
    }
}

QueuePlace::~QueuePlace()
{
    // A watch that the recipe left armed holds the recipe, which holds the watch.
    connection_->DropCallbacks();
}

void QueuePlace::ReleaseClaim()
{
    if (OurClaim())
    {
        // Together, so that a repetition after a lost reply cannot meet a claim that somebody else has made since: it
        // meets no identity any more then.
        TransactionResult result;
        int rc =
            session_->Transact({Operation::Delete(identityPath_), Operation::Delete(ClaimPath(electionPath_))}, result);
        if (rc == ZNONODE && result.refused == 0U)
        {
            // Somebody has deleted the identity, but not the claim.
            rc = session_->Transact({Operation::Delete(ClaimPath(electionPath_))}, result);
        }
        RequireGone(rc);
        hasIdentity_ = rc != ZOK;
    }
    mayHaveClaim_ = false;
}

/// Deletes whatever node is ours: the reply to its creation may have been lost, and its name with it.
void QueuePlace::DeleteOwnNodes() const
{
    std::vector<std::string> names;
    const int listed = session_->GetChildren(electionPath_, names);
    if (listed == ZNONODE)
    {
        return;
    }
    Require(listed);
    for (const std::string& name : names)
    {
        const std::string path = electionPath_ + "/" + name;
        Stat stat{};
        const int rc = session_->Exists(path, &stat);
        if (rc == ZOK && stat.ephemeralOwner == sessionId_)
        {
            KX_LOG(LogLevel::Info, ElectionLog()) << "Taking back " << path;
            session_->GuaranteedDelete(path);
        }
        else if (rc != ZNONODE)
        {
            Require(rc);
        }
    }
}

}  // namespace kx::velmor
