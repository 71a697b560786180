#pragma once

#include <kx/velmor/election_session.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::cli {

/// A session that tells how long each listing of children took, which every check of the queue begins with. Passes on
/// everything else as it is.
///
/// Threads: any.
class MeasuredSession : public ElectionSession
{
public:
    using OnListing = std::function<void(std::chrono::steady_clock::duration)>;

    /// `onListing` is called by whoever lists, when it was answered, on several threads at once.
    MeasuredSession(std::shared_ptr<ElectionSession> session, OnListing onListing)
        : session_(std::move(session)), onListing_(std::move(onListing))
    {}

    SessionStatus Status() const override { return session_->Status(); }
    Registration OnStateChange(StateListener listener) override { return session_->OnStateChange(std::move(listener)); }
    Registration OnHeard(HeardListener listener) override { return session_->OnHeard(std::move(listener)); }
    Registration OnEnding(EndingListener listener) override { return session_->OnEnding(std::move(listener)); }
    Registration KeepFresh() override { return session_->KeepFresh(); }
    void Close() override { session_->Close(); }
    BootClock::time_point Now() const noexcept override { return session_->Now(); }
    std::function<BootClock::time_point()> TimeSource() const override { return session_->TimeSource(); }
    Registration OnClockJump(std::function<void()> listener) override
    {
        return session_->OnClockJump(std::move(listener));
    }

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

    const std::string& RootPath() const override { return session_->RootPath(); }
    int Create(std::string path, const std::string& data, const ACL_vector& acl, int flags,
               std::string* createdPath) const override
    {
        return session_->Create(std::move(path), data, acl, flags, createdPath);
    }
    int GetChildren(std::string path, std::vector<std::string>& children) const override
    {
        const auto begin = std::chrono::steady_clock::now();
        const int rc = session_->GetChildren(std::move(path), children);
        if (rc == ZOK)
        {
            onListing_(std::chrono::steady_clock::now() - begin);
        }
        return rc;
    }
    int Exists(std::string path, Stat* stat) const override { return session_->Exists(std::move(path), stat); }
    std::pair<int, WatchHandle> Exists(std::string path, WatchCallback callback, Stat* stat) const override
    {
        return session_->Exists(std::move(path), std::move(callback), stat);
    }
    int GuaranteedDelete(std::string path) const override { return session_->GuaranteedDelete(std::move(path)); }
    std::unique_ptr<clientid_t> ClientId() const override { return session_->ClientId(); }

private:
    const std::shared_ptr<ElectionSession> session_;
    const OnListing onListing_;
};

}  // namespace kx::velmor::cli
