#include "cli/standing.h"

#include <utility>
#include <vector>

namespace kx::velmor::cli {

StandingReader::StandingReader(std::shared_ptr<const Session> session, const Candidate& candidate, std::string election)
    : session_(std::move(session)), candidate_(candidate), election_(std::move(election))
{}

Standing StandingReader::Read() const
{
    Standing standing;
    standing.election = election_;
    standing.identity = candidate_.Identity();
    standing.role = candidate_.CurrentRole();
    standing.node = candidate_.NodeName();
    if (const std::optional<Leadership> leadership = candidate_.CurrentLeadership())
    {
        standing.epoch = leadership->Epoch();
    }
    standing.leaseLeft = candidate_.LeaseLeft();
    standing.session = session_->Status();
    standing.queueLength = QueueLength();
    return standing;
}

std::optional<std::size_t> StandingReader::QueueLength() const
{
    // Without a connection a question would wait for one.
    std::vector<std::string> names;
    const bool known =
        session_->Status().state == SessionState::Connected && session_->GetChildren(election_, names) == ZOK;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (known)
    {
        queueLength_ = names.size();
    }
    return queueLength_;
}

}  // namespace kx::velmor::cli
