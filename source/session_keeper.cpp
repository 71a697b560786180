// What keeps a session going when there is no connection: opening handles, giving up on silence, repeating deletions.

#include "source/session_core.h"
#include "source/session_log.h"

#include <cerrno>
#include <cstring>
#include <system_error>
#include <thread>

namespace kx::velmor {

namespace {

using logging::LogLevel;

/// A session that nobody answers for is given up after this many session timeouts. The client library never does so: it
/// waits for a server's word, and servers that have lost their data never give it. Not sooner, because servers that
/// come back with their data let the session live on.
constexpr int kPatienceInTimeouts = 4;

/// How long to wait for the name service while there are addresses from before to go on with.
constexpr std::chrono::seconds kLookUpPatience{5};

}  // namespace

void SessionCore::EnsureKeeper()
{
    if (keeperRunning_ || phase_ == SessionState::Closed)
    {
        return;
    }
    keeperRunning_ = true;
    try
    {
        std::thread([self = shared_from_this()] { self->Keep(); }).detach();
    }
    catch (const std::system_error& error)
    {
        // Watches have little to tell while there is no connection, so that the event thread can stand in.
        events_.Post([reason = std::string(error.what())] {
            KX_LOG(LogLevel::Error, SessionLog())
                << "The event thread keeps the session, for want of a thread: " << reason;
        });
        events_.Post([this] { Keep(); }, EventLoop::AtExit::Run);
    }
}

void SessionCore::Keep()
{
    {
        const MutexLock lock(mutex_);
        keeperThread_ = std::this_thread::get_id();
    }
    const bool standingIn = events_.OnEventThread();
    for (;;)
    {
        std::shared_ptr<ClientHandle> finished;
        switch (AwaitDuty(standingIn, finished))
        {
            case Duty::None:
                return;
            case Duty::OpenHandle:
                OpenHandle(std::move(finished));
                break;
            case Duty::RepeatDeletes:
                SubmitDeletes(true);
                break;
            case Duty::Refresh:
                Refresh();
                break;
        }
    }
}

SessionCore::Duty SessionCore::AwaitDuty(bool standingIn, std::shared_ptr<ClientHandle>& finished)
{
    const MutexLock lock(mutex_);
    for (;;)
    {
        const Clock::time_point now = Clock::now();
        Clock::time_point wake = silentSince_ + kPatienceInTimeouts * negotiatedTimeout_;
        switch (phase_)
        {
            case SessionState::Connecting:
                // The addresses may be out of date by now.
                if (!handle_ || wake <= now)
                {
                    // It is too late now for the old handle to connect.
                    ++generation_;
                    finished = std::move(handle_);
                    return Duty::OpenHandle;
                }
                break;
            case SessionState::Expired:
                finished = std::move(handle_);
                return Duty::OpenHandle;
            case SessionState::Suspended:
                if (wake <= now)
                {
                    EndSession(ZOO_EXPIRED_SESSION_STATE, "given up after silence, ms: " +
                                                              std::to_string((now - silentSince_).count() / 1'000'000));
                    continue;
                }
                break;
            case SessionState::Connected: {
                const auto [duty, next] = DutyWhileConnected();
                if (duty != Duty::None)
                {
                    return duty;
                }
                wake = next;
                // The event thread has callbacks to run. Without a keeper the session is not kept fresh, which its
                // status tells.
                const bool leave = standingIn && pendingDeletes_.empty();
                if (wake != Clock::time_point::max() && !leave)
                {
                    break;
                }
                [[fallthrough]];
            }
            case SessionState::Closed:
                keeperRunning_ = false;
                keeperThread_ = std::thread::id();
                changed_.NotifyAll();
                return Duty::None;
        }
        changed_.WaitUntil(mutex_, wake);
    }
}

std::pair<SessionCore::Duty, Clock::time_point> SessionCore::DutyWhileConnected() const
{
    const Clock::time_point now = Clock::now();
    Clock::time_point next = Clock::time_point::max();
    if (!pendingDeletes_.empty())
    {
        next = NextDelete();
        if (next <= now)
        {
            return {Duty::RepeatDeletes, now};
        }
    }
    if (freshHolds_ > 0)
    {
        // One under way ends by itself and notifies.
        const Clock::time_point refresh = refreshing_ ? now + negotiatedTimeout_ : refreshAt_;
        if (refresh <= now)
        {
            return {Duty::Refresh, now};
        }
        next = std::min(next, refresh);
    }
    return {Duty::None, next};
}

Registration SessionCore::KeepFresh()
{
    {
        const MutexLock lock(mutex_);
        ++freshHolds_;
        changed_.NotifyAll();
        if (phase_ == SessionState::Connected)
        {
            EnsureKeeper();
        }
    }
    return Registration([weak = weak_from_this()] {
        if (const auto self = weak.lock(); self && !self->Inherited())
        {
            const MutexLock lock(self->mutex_);
            --self->freshHolds_;
            self->changed_.NotifyAll();
        }
    });
}

void SessionCore::Refresh()
{
    std::shared_ptr<ClientHandle> handle;
    std::uint64_t connection = 0;
    {
        const MutexLock lock(mutex_);
        if (phase_ != SessionState::Connected || !handle_)
        {
            return;
        }
        handle = handle_;
        connection = connection_;
        refreshing_ = true;
    }
    const auto request = std::make_shared<Request>([weak = weak_from_this(), connection](int /*rc*/) {
        if (const auto self = weak.lock())
        {
            self->OnRefreshed(connection);
        }
    });
    if (handle->WriteNothing(request) != ZOK)
    {
        OnRefreshed(connection);
    }
}

void SessionCore::OnRefreshed(std::uint64_t connection)
{
    const MutexLock lock(mutex_);
    refreshing_ = false;
    // One that was sent over an earlier connection is old news.
    const bool present = connection == connection_;
    refreshAt_ = Clock::now();
    refreshAt_ += present ? SessionLifetime::WriteInterval(lifetime_.MinTimeout()) : Clock::duration::zero();
    changed_.NotifyAll();
}

void SessionCore::OpenHandle(std::shared_ptr<ClientHandle> finished)
{
    if (finished)
    {
        finished->Close(ZSESSIONEXPIRED);
        PaceReopening();
    }
    const std::string addresses = AwaitAddresses();
    if (addresses.empty())
    {
        Pause(reopening_.Next());
        return;
    }

    std::uint64_t generation = 0;
    {
        const MutexLock lock(mutex_);
        if (phase_ == SessionState::Closed)
        {
            return;
        }
        if (phase_ == SessionState::Expired)
        {
            Advance(SessionState::Connecting, "servers " + addresses);
        }
        generation = ++generation_;
        silentSince_ = Clock::now();
        lifetime_.Begin(BootClock::now());
    }
    std::shared_ptr<ClientHandle> handle =
        ClientHandle::Open(addresses, options_.sessionTimeout, options_.digestCredentials, generation, *this);
    if (!handle)
    {
        const int error = errno;
        KX_LOG(LogLevel::Error, SessionLog()) << "No handle for servers " << addresses << ": " << std::strerror(error);
        Pause(reopening_.Next());
        return;
    }
    {
        const MutexLock lock(mutex_);
        if (phase_ != SessionState::Closed)
        {
            handle_ = std::move(handle);
            openedAt_ = silentSince_;
            changed_.NotifyAll();
            return;
        }
    }
    handle->Close(ZCLOSING);
}

void SessionCore::PaceReopening()
{
    bool endedInOrder = false;
    bool openedLately = false;
    {
        const MutexLock lock(mutex_);
        endedInOrder = endedInOrder_;
        openedLately = openedAt_ && Clock::now() - *openedAt_ < negotiatedTimeout_;
    }
    if (endedInOrder)
    {
        reopening_.Reset();
    }
    if (openedLately)
    {
        // Servers that end each session at once must not be asked for the next one without end, and those that grant
        // none, or refuse the credentials, less and less often.
        Pause(reopening_.Next());
    }
}

std::string SessionCore::AwaitAddresses()
{
    if (numericServers_)
    {
        return LookUp(servers_).numeric;
    }

    std::uint64_t ticket = 0;
    {
        const MutexLock lock(mutex_);
        ticket = ++lookUpsAsked_;
    }
    // The name service may take longer than anybody here can wait, and cannot be interrupted.
    try
    {
        std::thread([weak = weak_from_this(), servers = servers_, ticket] {
            const Addresses addresses = LookUp(servers);
            if (const auto self = weak.lock())
            {
                self->OnAddresses(ticket, addresses);
            }
        }).detach();
    }
    catch (const std::system_error&)
    {
        OnAddresses(ticket, LookUp(servers_));
    }

    const Clock::time_point deadline = Clock::now() + kLookUpPatience;
    const MutexLock lock(mutex_);
    while (phase_ != SessionState::Closed && lookUpsAnswered_ < ticket)
    {
        if (addresses_.empty())
        {
            changed_.Wait(mutex_);
        }
        else if (!changed_.WaitUntil(mutex_, deadline))
        {
            break;
        }
    }
    return addresses_;
}

void SessionCore::OnAddresses(std::uint64_t ticket, const Addresses& addresses)
{
    if (!addresses.failures.empty())
    {
        KX_LOG(LogLevel::Warning, SessionLog()) << "Servers that cannot be looked up: " << addresses.failures;
    }
    const MutexLock lock(mutex_);
    if (ticket <= lookUpsAnswered_)
    {
        return;
    }
    lookUpsAnswered_ = ticket;
    if (!addresses.numeric.empty())
    {
        addresses_ = addresses.numeric;
    }
    changed_.NotifyAll();
}

void SessionCore::Pause(std::chrono::milliseconds delay)
{
    const Clock::time_point end = Clock::now() + delay;
    const MutexLock lock(mutex_);
    while (phase_ != SessionState::Closed && changed_.WaitUntil(mutex_, end))
    {}
}

}  // namespace kx::velmor
