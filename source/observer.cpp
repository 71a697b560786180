#include "source/candidate_log.h"
#include "source/election_nodes.h"
#include "source/election_reader.h"
#include "source/exit_gate.h"
#include "source/fork_mark.h"
#include "source/sync.h"

#include <kx/velmor/election_session.h>
#include <kx/velmor/error.h>
#include <kx/velmor/observer.h>

#include <algorithm>
#include <exception>
#include <thread>
#include <tuple>
#include <utility>

namespace kx::velmor {

namespace {

using logging::LogLevel;

/// How often to look for what no watch tells.
constexpr std::chrono::milliseconds kLookInterval{500};

/// A wait by a clock that stands still while the machine sleeps, or that only a test moves.
constexpr std::chrono::seconds kLongestNap{1};

/// Codes that say nothing about the election, and that go by themselves.
bool NoAnswer(int rc)
{
    return rc == ZCONNECTIONLOSS || rc == ZOPERATIONTIMEOUT || rc == ZSESSIONEXPIRED || rc == ZSESSIONMOVED ||
           rc == ZINVALIDSTATE || rc == ZCLOSING;
}

bool Same(const Participant& left, const Participant& right)
{
    const auto all = [](const Participant& participant) {
        return std::tie(participant.role, participant.node, participant.session, participant.epoch, participant.joined,
                        participant.identity);
    };
    return all(left) == all(right);
}

bool Same(const std::optional<Leader>& left, const std::optional<Leader>& right)
{
    const auto all = [](const Leader& leader) {
        return std::tie(leader.node, leader.identity, leader.session, leader.epoch, leader.position);
    };
    return left && right ? all(*left) == all(*right) : left.has_value() == right.has_value();
}

/// But for ages.
bool Same(const ElectionView& left, const ElectionView& right)
{
    const auto rest = [](const ElectionView& view) {
        return std::tie(view.connected, view.known, view.error, view.code);
    };
    return rest(left) == rest(right) && Same(left.leader, right.leader) &&
           std::equal(left.queue.begin(), left.queue.end(), right.queue.begin(), right.queue.end(),
                      [](const Participant& one, const Participant& other) { return Same(one, other); });
}

/// Wakes the observer's thread. Outlives it in the hands of watches.
class Bell
{
public:
    void Ring()
    {
        const MutexLock lock(mutex_);
        ringing_ = true;
        changed_.NotifyAll();
    }

    /// For good.
    void End()
    {
        const MutexLock lock(mutex_);
        ended_ = true;
        changed_.NotifyAll();
    }

    bool Ended() const
    {
        const MutexLock lock(mutex_);
        return ended_;
    }

    /// Waits until it has rung since the last time, or until then; false when it has ended.
    bool Await(const ElectionSession& session, BootClock::time_point until)
    {
        const MutexLock lock(mutex_);
        for (BootClock::time_point now = session.Now(); !ringing_ && !ended_ && now < until; now = session.Now())
        {
            const auto nap = std::min<BootClock::duration>(until - now, kLongestNap);
            changed_.WaitUntil(mutex_, Clock::now() + nap);
        }
        ringing_ = false;
        return !ended_;
    }

private:
    mutable Mutex mutex_;
    CondVar changed_;
    bool ringing_ KX_GUARDED_BY(mutex_) = false;
    bool ended_ KX_GUARDED_BY(mutex_) = false;
};

}  // namespace

/// What an `Observer` is made of. Its thread keeps it alive.
class ObserverCore final : public std::enable_shared_from_this<ObserverCore>
{
public:
    ObserverCore(std::shared_ptr<ElectionSession> session, const std::string& electionPath, Observer::Callback onView)
        : session_(std::move(session)),
          electionPath_(ElectionPath(electionPath)),
          onView_(std::move(onView)),
          reader_(*session_, electionPath_, [bell = bell_] { bell->Ring(); })
    {}

    bool Inherited() const noexcept { return made_.Inherited(); }

    void Start()
    {
        ExitGate::Guard();
        thread_ = std::thread([self = shared_from_this()] { self->Run(); });
    }

    void ShutDown()
    {
        bell_->End();
        if (thread_.get_id() == std::this_thread::get_id())
        {
            // A thread cannot wait for itself. It holds what it still touches.
            thread_.detach();
            return;
        }
        thread_.join();
    }

private:
    void Run()
    {
        const auto ring = [bell = bell_] { bell->Ring(); };
        const Registration states = session_->OnStateChange([ring](const SessionStatus&) { ring(); });
        const Registration jumps = session_->OnClockJump(ring);
        BootClock::time_point next;
        do
        {
            const ExitGate::Pass pass;
            if (!pass)
            {
                return;
            }
            next = Look();
        } while (bell_->Await(*session_, next));
    }

    /// Returns when to look again, unless there is news before.
    BootClock::time_point Look()
    {
        const SessionStatus status = session_->Status();
        const bool connected = status.state == SessionState::Connected;
        ElectionView view = view_;
        view.connected = connected;
        view.error.clear();
        view.code = ZOK;
        if (connected)
        {
            Read(status.sessionId, view);
        }
        Tell(std::move(view));
        return connected ? session_->Now() + kLookInterval : BootClock::time_point::max();
    }

    void Read(std::int64_t sessionId, ElectionView& view)
    {
        try
        {
            if (std::exchange(sessionId_, sessionId) != sessionId)
            {
                reader_.Forget();
            }
            reader_.Read(view);
            logged_ = ZOK;
        }
        catch (const ZooError& error)
        {
            if (NoAnswer(error.Code()))
            {
                view.connected = false;
                return;
            }
            view.error = error.what();
            view.code = error.Code();
            if (std::exchange(logged_, view.code) != view.code)
            {
                KX_LOG(LogLevel::Warning, ElectionLog())
                    << "Cannot look at the election " << electionPath_ << ": " << error.what();
            }
        }
    }

    void Tell(ElectionView view)
    {
        const bool same = std::exchange(told_, true) && Same(view, view_);
        view_ = std::move(view);
        if (same || bell_->Ended())
        {
            return;
        }
        try
        {
            onView_(view_);
        }
        catch (const std::exception& error)
        {
            KX_LOG(LogLevel::Error, ElectionLog()) << "An observer's callback threw: " << error.what();
        }
        catch (...)
        {
            KX_LOG(LogLevel::Error, ElectionLog())
                << "An observer's callback threw something that is no std::exception";
        }
    }

    const ForkMark made_;
    const std::shared_ptr<ElectionSession> session_;
    const std::string electionPath_;
    const Observer::Callback onView_;
    const std::shared_ptr<Bell> bell_ = std::make_shared<Bell>();

    // Of the thread alone.

    ElectionReader reader_;
    /// What `reader_` knows comes from this one.
    std::int64_t sessionId_ = 0;
    ElectionView view_;
    bool told_ = false;
    int logged_ = ZOK;

    /// Of who makes this, and who destroys it.
    std::thread thread_;
};

ElectionView Look(const ElectionSession& session, const std::string& electionPath)
{
    ElectionView view;
    ElectionReader(session, ElectionPath(electionPath), nullptr).Read(view);
    view.connected = true;
    return view;
}

Observer::Observer(std::shared_ptr<ElectionSession> session, const std::string& electionPath, Callback onView)
    : core_(std::make_shared<ObserverCore>(std::move(session), electionPath, std::move(onView)))
{
    core_->Start();
}

Observer::~Observer()
{
    if (core_->Inherited())
    {
        Abandon(core_);
        return;
    }
    core_->ShutDown();
}

}  // namespace kx::velmor
