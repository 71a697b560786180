#include "source/candidate_impl.h"

#include <kx/logging/logger.h>
#include <kx/velmor/error.h>
#include <kx/velmor/path.h>

#include <algorithm>
#include <utility>

namespace kx::velmor {

namespace {

using logging::LogLevel;

const std::shared_ptr<const logging::Source> g_log = std::make_shared<const logging::Source>("velmor.candidate");

/// Room for what the service appends to a sequential node's name, and a terminating NUL.
constexpr std::size_t kSequenceRoom = 12;

}  // namespace

CandidateImpl::CandidateImpl(std::shared_ptr<Connection> connection, const std::string& electionPath,
                             std::function<void()> leaderCallback, std::function<void()> nextLeaderCallback)
    : connection_(std::move(connection)),
      electionPath_("/" + NormalizePath(electionPath)),
      leaderCallback_(std::move(leaderCallback)),
      nextLeaderCallback_(std::move(nextLeaderCallback)),
      started_(false),
      isLeader_(false),
      isNextLeader_(false)
{}

void CandidateImpl::Start()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (started_)
    {
        return;
    }

    EnsurePath(*connection_, electionPath_, false, ZOO_OPEN_ACL_UNSAFE);

    std::string ownNode = FindOurNode();
    if (!ownNode.empty())
    {
        name_ = std::move(ownNode);
        KX_LOG(LogLevel::Info, g_log) << "Found an existing candidate node " << name_;
    }
    else
    {
        const std::string requestedPath = electionPath_ + "/c-";
        const int mode = ZOO_EPHEMERAL | ZOO_SEQUENCE;
        name_.resize(connection_->RootPath().size() + requestedPath.size() + kSequenceRoom);
        const int rc = connection_->Create(requestedPath, std::string(), ZOO_OPEN_ACL_UNSAFE, mode, &name_);
        if (rc != ZOK)
        {
            KX_LOG(LogLevel::Error, g_log) << "Failed to create election node " << requestedPath << ": " << zerror(rc);
            throw ZooError(rc);
        }
        KX_LOG(LogLevel::Info, g_log) << "Created candidate node " << name_;
    }

    const std::size_t lastSeparator = name_.rfind('/');
    if (lastSeparator != std::string::npos)
    {
        name_.erase(0, lastSeparator + 1);
    }

    CheckLeader();
    started_ = true;
    KX_LOG(LogLevel::Debug, g_log) << "Candidate started";
}

std::string CandidateImpl::FindOurNode() const
{
    std::vector<std::string> children;
    const int listed = connection_->GetChildren(electionPath_, children);
    if (listed != ZOK)
    {
        throw ZooError(listed);
    }

    const std::unique_ptr<clientid_t> self = connection_->ClientId();
    for (const std::string& child : children)
    {
        Stat stat{};
        const int rc = connection_->Exists(electionPath_ + "/" + child, &stat);
        if (rc == ZNONODE)
        {
            continue;
        }
        if (rc != ZOK)
        {
            throw ZooError(rc);
        }
        if (self && stat.ephemeralOwner == self->client_id)
        {
            return electionPath_ + "/" + child;
        }
    }
    return std::string();
}

void CandidateImpl::CheckLeader()
{
    KX_LOG(LogLevel::Debug, g_log) << "Checking for new leader";

    std::vector<std::string> children;
    const int rc = connection_->GetChildren(electionPath_, children);
    if (rc != ZOK)
    {
        throw ZooError(rc);
    }

    KX_LOG(LogLevel::Info, g_log) << "CheckLeader: before sorting children=" << GetChildrenString(children);
    // Every candidate's name is "c-" and a number of fixed width, so that names sort by age.
    std::sort(children.begin(), children.end());
    KX_LOG(LogLevel::Info, g_log) << "CheckLeader: after sorting children=" << GetChildrenString(children);

    const auto own = std::lower_bound(children.begin(), children.end(), name_);
    if (own == children.end() || *own != name_)
    {
        throw VelmorError("Failed to find own node");
    }

    if (own == children.begin())
    {
        KX_LOG(LogLevel::Debug, g_log) << "Candidate " << name_ << " has become the leader";
        isLeader_ = true;
        isNextLeader_ = false;
        leaderCallback_();
        return;
    }

    const auto ahead = own - 1;
    if (ahead == children.begin())
    {
        KX_LOG(LogLevel::Debug, g_log) << "Candidate " << name_ << " is the next leader";
        isLeader_ = false;
        isNextLeader_ = true;
        nextLeaderCallback_();
        // Let go of, not disarmed: if it still fires, one more check does no harm.
        secondPredecessorWatch_ = Connection::WatchHandle();
    }

    if (!SetupWatcher(*ahead, predecessorWatch_))
    {
        CheckLeader();
        return;
    }
    // A candidate whose flag is still set from an earlier check may be further back than second; it makes do with the
    // one watch.
    if (!isNextLeader_)
    {
        SetupWatcher(*(ahead - 1), secondPredecessorWatch_);
    }
}

std::string CandidateImpl::GetChildrenString(const std::vector<std::string>& children) const
{
    std::string text;
    for (const std::string& child : children)
    {
        text += child;
        text += ", ";
    }
    return text;
}

bool CandidateImpl::SetupWatcher(const std::string& child, Connection::WatchHandle& handle)
{
    const std::string path = electionPath_ + "/" + child;
    // The callback's reference is strong, so that no event can meet a candidate that is gone.
    const std::shared_ptr<CandidateImpl> self = shared_from_this();
    Connection::WatchCallback callback = [candidate = self](int type, int state, std::string node) {
        candidate->OnNodeUpdate(type, state, std::move(node));
    };
    auto [rc, watch] = connection_->Exists(path, std::move(callback), nullptr);
    if (rc == ZNONODE)
    {
        return false;
    }
    if (rc != ZOK)
    {
        throw ZooError(rc);
    }
    KX_LOG(LogLevel::Info, g_log) << "Watching predecessor " << path;
    handle = std::move(watch);
    return true;
}

void CandidateImpl::OnNodeUpdate(int type, int state, std::string /*path*/)
{
    // A lost connection says nothing about the queue; the reconnection that follows asks again.
    if (type == ZOO_SESSION_EVENT && state != ZOO_CONNECTED_STATE)
    {
        return;
    }

    const std::lock_guard<std::mutex> lock(mutex_);
    if (!started_)
    {
        return;
    }
    try
    {
        CheckLeader();
    }
    catch (const VelmorError& error)
    {
        KX_LOG(LogLevel::Error, g_log) << "CheckLeader Failed: " << error.what();
    }
}

void CandidateImpl::Stop()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!started_)
    {
        return;
    }

    isLeader_ = false;
    isNextLeader_ = false;
    started_ = false;
    // Let go of, not disarmed: a watch that still fires finds the candidate stopped.
    predecessorWatch_ = Connection::WatchHandle();
    secondPredecessorWatch_ = Connection::WatchHandle();

    const int rc = connection_->GuaranteedDelete(electionPath_ + "/" + name_);
    if (rc != ZOK && rc != ZNONODE)
    {
        KX_LOG(LogLevel::Debug, g_log) << "Failed to remove candidate node: " << zerror(rc);
        throw ZooError(rc);
    }
    KX_LOG(LogLevel::Debug, g_log) << "Candidate stopped";
}

}  // namespace kx::velmor
