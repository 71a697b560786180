#include "cli/warden.h"

#include "cli/owned_descriptor.h"
#include "cli/process_tree.h"
#include "cli/shared_lease.h"
#include "cli/terminal_foreground.h"
#include "cli/warden_process.h"
#include "cli/warden_protocol.h"

#include <kx/logging/logger.h>

#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

namespace kx::velmor::cli {

using logging::LogLevel;

namespace {

const auto g_log = std::make_shared<const logging::Source>("velmor.warden");

/// No signal reaches this thread, nor what it forks.
class SignalsBlocked
{
public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before_{};
};

std::set<pid_t> Children()
{
    const pid_t self = ::getpid();
    std::set<pid_t> children;
    for (const ProcessEntry& process : Descendants(self).value_or(std::vector<ProcessEntry>()))
    {
        children.insert(process.top);
    }
    return children;
}

/// Ends without a trace of the process that this one was forked from: no destructors, nothing written out.
[[noreturn]] void BecomeWarden(OwnedDescriptor socket, SharedLease& lease, pid_t ownersGroup)
{
    try
    {
        Checked(::setpgid(0, 0), "setpgid");
        WardenProcess process(std::move(socket), lease, ownersGroup);
        process.Run();
    }
    catch (const std::exception& error)
    {
        KX_LOG(LogLevel::Error, g_log) << "The warden gives up and has ended all commands: " << error.what();
        ::_exit(EXIT_FAILURE);
    }
    ::_exit(EXIT_SUCCESS);
}

}  // namespace

class Warden::Impl
{
public:
    Impl() : terminal_(::getpgrp()), hadForeground_(terminal_.IsOwners()), others_(Children())
    {
        Checked(::prctl(PR_GET_CHILD_SUBREAPER, &wasSubreaper_), "PR_GET_CHILD_SUBREAPER");
        int ends[2];
        Checked(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), "socketpair");
        socket_ = OwnedDescriptor(ends[0]);
        OwnedDescriptor theirs(ends[1]);
        socket_ = MovedUp(std::move(socket_));
        theirs = MovedUp(std::move(theirs));
        const pid_t group = ::getpgrp();
        const SignalsBlocked blocked;
        pid_ = Checked(::fork(), "fork");
        if (pid_ == 0)
        {
            BecomeWarden(std::move(theirs), lease_, group);
        }
        // Both do, so that it is so for both from here on.
        ::setpgid(pid_, pid_);
        ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    }

    ~Impl()
    {
        if (!buried_)
        {
            // This, too, when somebody has duplicated the descriptor.
            ::shutdown(socket_.Get(), SHUT_RDWR);
            // Also one that somebody has stopped.
            ::kill(pid_, SIGCONT);
            int status = -1;
            while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR)
            {}
            // One that has ended in order has left nothing, and what else there is now may be others'.
            while (status != 0 && !Bury())
            {}
        }
        ::prctl(PR_SET_CHILD_SUBREAPER, wasSubreaper_);
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    int Socket() const noexcept { return socket_.Get(); }
    pid_t Pid() const noexcept { return pid_; }

    std::optional<WardenReport> Receive()
    {
        if (buried_)
        {
            return std::nullopt;
        }
        const Received received = ReceiveMessage(socket_.Get());
        if (received.message)
        {
            return received.message->get<WardenReport>();
        }
        if (!received.closed)
        {
            return std::nullopt;
        }
        takesOrders_ = false;
        if (!Bury())
        {
            return std::nullopt;
        }
        // Nothing will come any more, which is not the same as an end that can be read again and again.
        Checked(::dup3(OwnedDescriptor(Checked(::eventfd(0, EFD_CLOEXEC), "eventfd")).Get(), socket_.Get(), O_CLOEXEC),
                "dup");
        return WardenReport{WardenReport::What::Gone};
    }

    void Send(const Order& order)
    {
        if (!takesOrders_)
        {
            return;
        }
        try
        {
            SendMessage(socket_.Get(), order);
        }
        catch (const std::system_error& error)
        {
            takesOrders_ = false;
            KX_LOG(LogLevel::Error, g_log) << "The warden takes no orders and is killed: " << error.what();
            // `Receive` reports it.
            ::kill(pid_, SIGKILL);
        }
    }

    /// Somebody may have stopped the warden, and what is to end now waits for nobody.
    void Continue() const noexcept
    {
        if (!buried_)
        {
            ::kill(pid_, SIGCONT);
        }
    }

    void Start(const Launch& launch)
    {
        if (!launch.roleFile.empty())
        {
            roleFile_ = launch.roleFile;
        }
        Order order{Order::What::Start};
        order.launch = launch;
        Send(order);
    }

    void SetLease(const SharedLease::Times& times) noexcept
    {
        const SharedLease::Times before = std::exchange(leaseWritten_, times);
        lease_.Write(times);
        // It wakes up when the lease that it knows runs out, and need not be told of a longer one.
        if (takesOrders_ && (times.end < before.end || times.killAt < before.killAt))
        {
            SendNudge(socket_.Get());
        }
    }

private:
    /// Kills and waits for what a warden that was killed has left, without waiting long. Says whether it is done.
    bool Bury()
    {
        const SignalsBlocked blocked;
        const std::optional<std::vector<ProcessEntry>> left = Descendants(::getpid());
        bool done = left.has_value();
        for (const ProcessEntry& process : left.value_or(std::vector<ProcessEntry>()))
        {
            if (others_.count(process.top) != 0)
            {
                continue;
            }
            SignalProcess(process, SIGKILL);
            if (process.parent == ::getpid())
            {
                ::waitpid(process.pid, nullptr, WNOHANG);
            }
            // Until there is nobody: they may have started others before they took notice.
            done = false;
        }
        if (!done)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            return false;
        }
        if (hadForeground_)
        {
            terminal_.GiveBack();
        }
        if (!roleFile_.empty())
        {
            ::unlink(roleFile_.c_str());
        }
        buried_ = true;
        return true;
    }

    SharedLease lease_;
    SharedLease::Times leaseWritten_ = SharedLease::kNone;
    const TerminalForeground terminal_;
    const bool hadForeground_;
    /// Children of this process that are not the warden's.
    const std::set<pid_t> others_;
    int wasSubreaper_ = 0;
    OwnedDescriptor socket_;
    pid_t pid_ = 0;
    std::string roleFile_;
    bool takesOrders_ = true;
    /// The warden has ended, and all that it had started.
    bool buried_ = false;
};

Warden::Warden() : impl_(std::make_unique<Impl>()) {}

Warden::~Warden() = default;

int Warden::Descriptor() const noexcept
{
    return impl_->Socket();
}

std::optional<WardenReport> Warden::Receive()
{
    return impl_->Receive();
}

void Warden::Start(const Launch& launch)
{
    impl_->Start(launch);
}

void Warden::Signal(int signal, bool wholeGroup)
{
    Order order{Order::What::Signal};
    order.signal = signal;
    order.wholeGroup = wholeGroup;
    impl_->Send(order);
}

void Warden::End(std::chrono::milliseconds grace)
{
    impl_->Continue();
    Order order{Order::What::End};
    order.grace = grace;
    impl_->Send(order);
}

void Warden::Tell(const std::string& line)
{
    Order order{Order::What::Tell};
    order.line = line;
    impl_->Send(order);
}

void Warden::SetLease(BootClock::time_point end, BootClock::time_point killAt) noexcept
{
    impl_->SetLease({end, killAt});
}

void Warden::ClearLease() noexcept
{
    impl_->SetLease(SharedLease::kNone);
}

pid_t Warden::Pid() const noexcept
{
    return impl_->Pid();
}

}  // namespace kx::velmor::cli
