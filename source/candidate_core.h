#pragma once

#include "source/backoff.h"
#include "source/fork_mark.h"
#include "source/lease.h"
#include "source/queue_place.h"
#include "source/sync.h"
#include "source/teller.h"

#include <kx/logging/logger.h>
#include <kx/velmor/candidate.h>
#include <kx/velmor/election_session.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace kx::velmor {

/// What `Candidate` is made of. It outlives the `Candidate` for as long as one of its threads runs.
///
/// The worker thread does everything that blocks: it joins, claims the lead, looks after its place, and leaves. The
/// teller runs the user's callbacks and ends a leadership whose lease has run out. What the session's event thread has
/// to say is noted in the present stay, under its number, and drawn upon by the worker.
///
/// No lock is held while the session, a callback or the log is called. `mutex_` comes before the locks of the lease and
/// of the teller.
class CandidateCore final : public std::enable_shared_from_this<CandidateCore>
{
public:
    CandidateCore(std::shared_ptr<ElectionSession> session, CandidateOptions options);
    ~CandidateCore() = default;
    CandidateCore(const CandidateCore&) = delete;
    CandidateCore& operator=(const CandidateCore&) = delete;

    /// Whether this is a forked child's copy: threads do not exist, and locks may be held for ever. Only what takes
    /// none may be called then.
    bool Inherited() const noexcept { return made_.Inherited(); }

    // See `Candidate`.

    void Start();
    void Stop();
    bool IsLeader() const noexcept { return LeaseLeft() > BootClock::duration::zero(); }
    /// 0 when it does not lead.
    BootClock::duration LeaseLeft() const noexcept { return lease_->Left(); }
    std::optional<Leadership> CurrentLeadership();
    Role CurrentRole();
    bool WaitForRole(Role role, std::chrono::milliseconds timeout);
    Role WaitForChange(Role from, std::chrono::milliseconds timeout);
    std::string NodeName() const;
    const std::string& Identity() const noexcept { return signature_.identity; }
    std::string Error() const;

    /// Stops for good, and ends the threads, on which it may be called. Once.
    void ShutDown();

    /// See `Leadership`.
    GuardedWrite Write(std::uint64_t stay, const std::vector<Operation>& operations);

private:
    /// One place in the queue, from before joining until after leaving.
    struct Stay
    {
        /// Counts up; 0 while there is none.
        std::uint64_t number = 0;
        std::int64_t session = 0;
        std::chrono::milliseconds sessionTimeout{0};
        BootClock::time_point since{};

        // What the queue says.

        bool first = false;
        bool second = false;
        /// When it is to read what it needs to claim the lead; of one that is second.
        BootClock::time_point prepareAt = BootClock::time_point::max();
        /// Counts what the recipe found.
        int findings = 0;
        /// Something has changed since the worker looked.
        bool news = false;

        // What the worker has made.

        bool joined = false;
        bool led = false;
        BootClock::time_point ledSince{};
        std::string node{};
        std::int64_t epoch = 0;
        /// What holds on the servers only while it leads.
        std::vector<Operation> guards{};

        /// Set once it is to be left.
        std::optional<LossReason> over{};
        BootClock::time_point overSince{};
        /// It is left without its callbacks, one of which has run for too long.
        bool abandoned = false;
    };

    /// A callback that runs.
    struct RunningCallback
    {
        const char* name;
        /// Its time counts from here; the end of time for `onLeader` while the leadership stands.
        BootClock::time_point since;
        /// How many session timeouts of it were reported.
        std::int64_t reported = 0;
    };

    /// Holds `mutex_`, and writes what there is to log when it has let go of it.
    class KX_SCOPED_CAPABILITY Access
    {
    public:
        explicit Access(CandidateCore& core) KX_ACQUIRE(core.mutex_);
        ~Access() KX_RELEASE();
        Access(const Access&) = delete;
        Access& operator=(const Access&) = delete;

    private:
        CandidateCore& core_;
    };
    /// What went wrong in the attempts to leave one place.
    struct LeavingFailures
    {
        /// Each is logged once.
        std::set<std::string> causes{};
        /// Of the last attempt: no repetition mends it, as far as the candidate can know.
        bool refused = false;
    };
    struct LogLine
    {
        logging::LogLevel level;
        std::string text;
    };

    // Roles: candidate_core.cpp

    void StartThreads() KX_REQUIRES(mutex_);
    /// What the teller runs.
    void Tell();
    /// Once nothing is told any more. The worker may still be leaving, and hold this.
    void DropCallbacks();
    /// Takes on a role, and has its callbacks run.
    void SetRole(Role to, LossReason reason) KX_REQUIRES(mutex_);
    /// The role by what the queue says; unchanged while the lead is not claimed.
    Role RoleInQueue() const KX_REQUIRES(mutex_);
    Leadership PresentLeadership() KX_REQUIRES(mutex_);
    /// Ends the present stay, if it is not over already.
    void EndStay(LossReason reason) KX_REQUIRES(mutex_);
    /// Ends it when its lease has run out.
    void NoticeLapse() KX_REQUIRES(mutex_);
    /// It stops by itself. `reason` is what a leader is told.
    void Fail(const std::string& error, LossReason reason = LossReason::Left) KX_REQUIRES(mutex_);
    /// Whether it has stopped by itself, so that its role stays as it is until the next `Start`.
    bool HasGivenUp() const KX_REQUIRES(mutex_) { return role_ == Role::Stopped && !error_.empty(); }
    void Log(logging::LogLevel level, const std::string& text) KX_REQUIRES(mutex_);
    template <typename Condition>
    Role AwaitRole(const Condition& condition, std::chrono::milliseconds timeout);
    /// What the teller looks after.
    std::chrono::milliseconds KeepWatch();
    void OnSession();
    void OnFirst(std::uint64_t stay) { OnPosition(stay, 0); }
    void OnSecond(std::uint64_t stay) { OnPosition(stay, 1); }
    void OnPosition(std::uint64_t stay, std::size_t position);
    void OnNews(std::uint64_t stay);

    // Callbacks, and those that run for too long: candidate_callbacks.cpp

    /// Has the teller run it, and notes that it runs.
    void TellCallback(const char* name, Teller::Task callback) KX_REQUIRES(mutex_);
    /// As above, of `onLeader`.
    void TellLeader(Leadership leadership) KX_REQUIRES(mutex_);
    void OnCallback(const char* name, const Teller::Task& callback);
    /// When to `CheckCallback` because of the one that runs; the end of time when none does.
    BootClock::time_point CallbackDue() const KX_REQUIRES(mutex_);
    /// Reports the one that runs, if it is due. One that has run for too long costs the session.
    void CheckCallback();
    /// Waits until all have returned, or one has cost the session.
    void AwaitCallbacks();

    // The worker: candidate_worker.cpp

    enum class Duty
    {
        CheckCallback,
        Claim,
        Prepare,
        Look,
        Leave,
    };

    void Work();
    /// Until it stops.
    void TakePart();
    /// The session that is connected, once one is; empty when it is to stop.
    std::optional<std::int64_t> AwaitSession();
    /// From joining to leaving. Returns whether it lasted, so that delays begin with the first again.
    bool StayInQueue(std::int64_t session);
    bool HasLasted() KX_REQUIRES(mutex_);
    bool Join(QueuePlace& place);
    /// Nobody can be told any more, the log included: what refers to static objects must not run.
    void EndWithTheProcess();
    void HoldPlace(QueuePlace& place);
    Duty AwaitDuty(BootClock::time_point claimAt, BootClock::time_point lookAt);
    /// Returns when to try again, unless there is news before. With the claim made, `freshness` keeps the session
    /// fresh.
    BootClock::time_point Claim(QueuePlace& place, Registration& freshness);
    /// False when the servers were not heard from for so long that it cannot, or not for long enough.
    bool Lead(const QueuePlace& place);
    void Prepare(QueuePlace& place);
    void Look(QueuePlace& place);
    /// Takes up a position in the queue, which may be none.
    void TakePosition(std::optional<std::size_t> position) KX_REQUIRES(mutex_);
    /// Until the place is taken back, or its session is over. A refusal after `ShutDown` ends it, too.
    void Leave(QueuePlace& place);
    /// False when it is to be tried again.
    bool TryToLeave(QueuePlace& place, LeavingFailures& failures);
    /// Logs what went wrong. What can never succeed stops the candidate.
    void Report(const std::string& what, const std::exception& error);
    /// False when it is to stop.
    bool Pause(std::chrono::milliseconds delay);
    /// Waits until woken, or until then.
    void AwaitNews(BootClock::time_point until) KX_REQUIRES(mutex_);
    void WakeWorker() KX_REQUIRES(mutex_);
    std::chrono::milliseconds SessionTimeout() const { return session_->Status().negotiatedTimeout; }

    const ForkMark made_;
    const std::shared_ptr<ElectionSession> session_;
    /// Its callbacks belong to `mutex_`, and while the teller runs they stay as they are.
    CandidateOptions options_;
    const std::string electionPath_;
    const Signature signature_;

    /// Also held by what the session calls on its own threads, where nothing bigger may go, and by each `Leadership`.
    const std::shared_ptr<Lease> lease_;
    Teller teller_;

    // Of the worker alone.

    Backoff rejoining_;
    /// A leadership has ended with `CallbackFailed`, and none has lasted since.
    bool failsToLead_ = false;

    mutable Mutex mutex_;
    /// Notified of every change below.
    CondVar changed_;
    std::vector<LogLine> log_ KX_GUARDED_BY(mutex_);
    Role role_ KX_GUARDED_BY(mutex_) = Role::Stopped;
    std::string error_ KX_GUARDED_BY(mutex_);
    /// What the servers have refused to take back, until it is taken back.
    std::string leavingError_ KX_GUARDED_BY(mutex_);
    /// Started, and neither stopped nor failed since.
    bool wanted_ KX_GUARDED_BY(mutex_) = false;
    /// Started since the worker looked last.
    bool startedAnew_ KX_GUARDED_BY(mutex_) = false;
    /// The worker takes part, or has not left yet.
    bool busy_ KX_GUARDED_BY(mutex_) = false;
    /// The servers cannot be told of the leaving, or refuse it: `Stop` does not wait for it any longer.
    bool leavingLate_ KX_GUARDED_BY(mutex_) = false;
    /// The worker is to look what there is to do.
    bool awake_ KX_GUARDED_BY(mutex_) = false;
    bool shutDown_ KX_GUARDED_BY(mutex_) = false;
    std::uint64_t stays_ KX_GUARDED_BY(mutex_) = 0;
    Stay stay_ KX_GUARDED_BY(mutex_);
    std::optional<RunningCallback> running_ KX_GUARDED_BY(mutex_);
    /// The worker is to be woken when the teller has run a callback.
    bool awaitsCallbacks_ KX_GUARDED_BY(mutex_) = false;
    bool tellerStarted_ KX_GUARDED_BY(mutex_) = false;
    std::thread worker_ KX_GUARDED_BY(mutex_);
};

}  // namespace kx::velmor
