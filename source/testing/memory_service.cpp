#include "source/session_options.h"
#include "source/testing/memory_service_core.h"

#include <kx/velmor/error.h>
#include <kx/velmor/session.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace kx::velmor::testing {

namespace {

constexpr std::chrono::seconds kPatience{30};

void CheckOptions(const MemorySessionOptions& options)
{
    // Those of any session, whose servers are none of a test's business.
    SessionOptions all{"127.0.0.1:1"};
    all.rootPath = options.rootPath;
    all.sessionTimeout = options.sessionTimeout;
    velmor::CheckOptions(all);
}

void Insist(int rc)
{
    if (rc != ZOK)
    {
        throw ZooError(rc);
    }
}

MemorySessionRecord& Own(const std::shared_ptr<MemoryServiceCore>& core, MemorySessionRecord& session)
{
    if (session.service != core)
    {
        throw std::invalid_argument("The session belongs to another service");
    }
    return session;
}

}  // namespace

MemoryService::MemoryService() : core_(std::make_shared<MemoryServiceCore>()) {}

MemoryService::~MemoryService() = default;

std::shared_ptr<MemorySession> MemoryService::Open(MemorySessionOptions options)
{
    CheckOptions(options);
    return std::shared_ptr<MemorySession>(new MemorySession(core_->Open(std::move(options))));
}

void MemoryService::Expire(const MemorySession& session)
{
    core_->Expire(Own(core_, *session.record_));
}

void MemoryService::Cut(const MemorySession& session)
{
    core_->Cut(Own(core_, *session.record_));
}

void MemoryService::Heal(const MemorySession& session)
{
    core_->Heal(Own(core_, *session.record_));
}

void MemoryService::LoseReply(const MemorySession& session)
{
    core_->LoseReply(Own(core_, *session.record_));
}

void MemoryService::Refuse(const std::string& path, int code)
{
    Insist(IsNodePath(path) ? ZOK : ZBADARGUMENTS);
    core_->Refuse(path, code);
}

void MemoryService::Advance(std::chrono::nanoseconds time)
{
    if (time < std::chrono::nanoseconds(0))
    {
        throw std::invalid_argument("Time does not run backwards");
    }
    core_->Advance(time);
}

BootClock::time_point MemoryService::Now() const noexcept
{
    return core_->Now();
}

void MemoryService::Add(const std::string& path, const std::string& data)
{
    Insist(IsNodePath(path) ? core_->Add(path, data) : static_cast<int>(ZBADARGUMENTS));
}

void MemoryService::Set(const std::string& path, const std::string& data)
{
    Insist(core_->Set(path, data));
}

void MemoryService::Delete(const std::string& path)
{
    Insist(core_->Delete(path));
}

bool MemoryService::Has(const std::string& path) const
{
    return core_->Find(path).has_value();
}

std::string MemoryService::Data(const std::string& path) const
{
    const auto node = core_->Find(path);
    Insist(node ? ZOK : ZNONODE);
    return node->data;
}

std::vector<std::string> MemoryService::Children(const std::string& path) const
{
    std::vector<std::string> children;
    Insist(core_->Children(path, children));
    std::sort(children.begin(), children.end());
    return children;
}

void MemoryService::AwaitQuiet() const
{
    if (!core_->AwaitQuiet(Clock::now() + kPatience))
    {
        throw std::runtime_error("There are still events, or callbacks that run");
    }
}

}  // namespace kx::velmor::testing
