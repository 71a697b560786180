#pragma once

#include <kx/velmor/election_session.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::testing_support {

/// Hands everything on to another session, and keeps a list of the reads, as in "exists /a", "watch /a", "data /a",
/// "children /a". Tasks can run before reads, and before each "transaction".
///
/// Threads: any.
class CountingSession final : public ElectionSession
{
public:
    explicit CountingSession(std::shared_ptr<ElectionSession> session) : session_(std::move(session)) {}

    int Reads() const;
    int Count(const std::string& read) const;
    std::vector<std::string> Take();
    void Forget() { Take(); }
    /// Runs `task` before the next such read or transaction, or before each one.
    void Before(const std::string& read, std::function<void()> task);
    void BeforeEach(const std::string& read, std::function<void()> task);

    /// Leases end so much sooner than the session says.
    void ShortenLeases(BootClock::duration by) { shortened_ = by.count(); }

    SessionStatus Status() const override
    {
        SessionStatus status = session_->Status();
        if (status.leaseEnd)
        {
            *status.leaseEnd -= BootClock::duration(shortened_);
        }
        return status;
    }
    Registration OnStateChange(StateListener listener) override { return session_->OnStateChange(std::move(listener)); }
    Registration OnHeard(HeardListener listener) override
    {
        return session_->OnHeard(
            [this, listener = std::move(listener)](std::int64_t id, BootClock::time_point leaseEnd) {
                listener(id, leaseEnd - BootClock::duration(shortened_));
            });
    }
    Registration OnEnding(EndingListener listener) override { return session_->OnEnding(std::move(listener)); }
    Registration KeepFresh() override { return session_->KeepFresh(); }
    void Close() override { session_->Close(); }
    BootClock::time_point Now() const noexcept override { return session_->Now(); }
    std::function<BootClock::time_point()> TimeSource() const override { return session_->TimeSource(); }
    Registration OnClockJump(std::function<void()> listener) override
    {
        return session_->OnClockJump(std::move(listener));
    }
    const std::string& RootPath() const override { return session_->RootPath(); }
    std::unique_ptr<clientid_t> ClientId() const override { return session_->ClientId(); }

    int GetChildren(std::string path, std::vector<std::string>& children) const override;
    int Exists(std::string path, Stat* stat) const override;
    std::pair<int, WatchHandle> Exists(std::string path, WatchCallback callback, Stat* stat) const override;
    int GetData(std::string path, std::string& data, Stat* stat) const override;

    int Create(std::string path, const std::string& data, const ACL_vector& acl, int flags,
               std::string* createdPath) const override
    {
        return session_->Create(std::move(path), data, acl, flags, createdPath);
    }
    int GuaranteedDelete(std::string path) const override { return session_->GuaranteedDelete(std::move(path)); }
    int Transact(const std::vector<Operation>& operations, TransactionResult& result) const override
    {
        RunTask("transaction");
        return session_->Transact(operations, result);
    }
    int TransactIn(std::int64_t sessionId, const std::vector<Operation>& operations,
                   TransactionResult& result) const override
    {
        RunTask("transaction");
        return session_->TransactIn(sessionId, operations, result);
    }

private:
    struct Task
    {
        std::function<void()> run;
        bool once;
    };

    void Note(const std::string& read) const;
    void RunTask(const std::string& before) const;

    const std::shared_ptr<ElectionSession> session_;
    std::atomic<BootClock::rep> shortened_{0};
    mutable std::mutex mutex_;
    mutable std::vector<std::string> reads_;
    mutable std::map<std::string, Task> tasks_;
};

}  // namespace kx::velmor::testing_support
