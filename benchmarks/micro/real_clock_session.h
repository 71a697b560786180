#pragma once

#include <kx/velmor/election_session.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::benchmarks {

/// A session in memory that goes by the machine's clock, as a `Session` does; the service's own stands still.
///
/// Threads: any.
class RealClockSession final : public ElectionSession
{
public:
    explicit RealClockSession(std::shared_ptr<ElectionSession> session)
        : session_(std::move(session)), ahead_(BootClock::now() - session_->Now())
    {}

    BootClock::time_point Now() const noexcept override { return BootClock::now(); }
    std::function<BootClock::time_point()> TimeSource() const override { return &BootClock::now; }
    SessionStatus Status() const override
    {
        SessionStatus status = session_->Status();
        if (status.lastHeard)
        {
            *status.lastHeard += ahead_;
            *status.leaseEnd += ahead_;
        }
        return status;
    }
    Registration OnHeard(HeardListener listener) override
    {
        return session_->OnHeard(
            [listener = std::move(listener), ahead = ahead_](std::int64_t session, BootClock::time_point leaseEnd) {
                listener(session, leaseEnd + ahead);
            });
    }

    void Close() override { session_->Close(); }
    Registration OnStateChange(StateListener listener) override { return session_->OnStateChange(std::move(listener)); }
    Registration OnEnding(EndingListener listener) override { return session_->OnEnding(std::move(listener)); }
    Registration KeepFresh() override { return session_->KeepFresh(); }
    const std::string& RootPath() const override { return session_->RootPath(); }
    std::unique_ptr<clientid_t> ClientId() const override { return session_->ClientId(); }
    int Create(std::string path, const std::string& data, const ACL_vector& acl, int flags,
               std::string* createdPath) const override
    {
        return session_->Create(std::move(path), data, acl, flags, createdPath);
    }
    int GetChildren(std::string path, std::vector<std::string>& children) const override
    {
        return session_->GetChildren(std::move(path), children);
    }
    int Exists(std::string path, Stat* stat) const override { return session_->Exists(std::move(path), stat); }
    std::pair<int, WatchHandle> Exists(std::string path, WatchCallback callback, Stat* stat) const override
    {
        return session_->Exists(std::move(path), std::move(callback), stat);
    }
    int GuaranteedDelete(std::string path) const override { return session_->GuaranteedDelete(std::move(path)); }
    int GetData(std::string path, std::string& data, Stat* stat) const override
    {
        return session_->GetData(std::move(path), data, stat);
    }
    int Transact(const std::vector<Operation>& operations, TransactionResult& result) const override
    {
        return session_->Transact(operations, result);
    }
    int TransactIn(std::int64_t sessionId, const std::vector<Operation>& operations,
                   TransactionResult& result) const override
    {
        return session_->TransactIn(sessionId, operations, result);
    }

private:
    const std::shared_ptr<ElectionSession> session_;
    const BootClock::duration ahead_;
};

}  // namespace kx::velmor::benchmarks
