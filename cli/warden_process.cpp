#include "cli/warden_process.h"

#include "cli/command_start.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <exception>
#include <iterator>
#include <new>
#include <system_error>
#include <utility>

namespace kx::velmor::cli {

namespace {

constexpr int kFirstBesideStreams = STDERR_FILENO + 1;

/// What the other side has open is none of the commands' business, nor to be kept open by this process.
void CloseAllBut(int kept)
{
    if (kept > kFirstBesideStreams)
    {
        ::close_range(kFirstBesideStreams, static_cast<unsigned>(kept) - 1, 0);
    }
    ::close_range(static_cast<unsigned>(kept) + 1, ~0U, 0);
}

/// Fills what is free of the standard streams and of number 3, so that nothing else gets these. Returns number 3.
OwnedDescriptor OccupyLowNumbers()
{
    int number = -1;
    do
    {
        number = Checked(::open("/dev/null", O_RDWR), "/dev/null");
        // Below, it has become a standard stream, for commands too.
    } while (number < kFirstBesideStreams);
    Checked(::fcntl(number, F_SETFD, FD_CLOEXEC), "fcntl");
    return OwnedDescriptor(number);
}

OwnedDescriptor SignalsOfChildren()
{
    ::signal(SIGCHLD, SIG_DFL);
    // Writing to who does not read is answered.
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t signals;
    sigfillset(&signals);
    Checked(::sigprocmask(SIG_SETMASK, &signals, nullptr), "sigprocmask");
    sigemptyset(&signals);
    sigaddset(&signals, SIGCHLD);
    return OwnedDescriptor(Checked(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd"));
}

bool HasChildren()
{
    siginfo_t info{};
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
}

void Drain(int descriptor)
{
    constexpr std::size_t kRoom = 1024;
    std::array<char, kRoom> news{};
    while (::read(descriptor, news.data(), news.size()) > 0)
    {}
}

void SetTimer(int timer, BootClock::time_point due)
{
    // Zero would stop it.
    const auto time = std::max(due.time_since_epoch(), BootClock::duration(1));
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    itimerspec setting{};
    if (due != BootClock::time_point::max())
    {
        setting.it_value.tv_sec = seconds.count();
        setting.it_value.tv_nsec = (time - seconds).count();
    }
    Checked(::timerfd_settime(timer, TFD_TIMER_ABSTIME, &setting, nullptr), "timerfd_settime");
}

}  // namespace

WardenProcess::WardenProcess(OwnedDescriptor socket, SharedLease& lease, pid_t owner)
    : socket_(std::move(socket)), lease_(lease), terminal_(owner)
{
    ::prctl(PR_SET_NAME, "velmor-warden");
    CloseAllBut(socket_.Get());
    null_ = OccupyLowNumbers();
    children_ = SignalsOfChildren();
    timer_ = OwnedDescriptor(Checked(::timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC | TFD_NONBLOCK), "timerfd_create"));
    Checked(::prctl(PR_SET_CHILD_SUBREAPER, 1), "PR_SET_CHILD_SUBREAPER");
}

WardenProcess::~WardenProcess()
{
    // Whatever there is to be seen of others.
    for (const std::unique_ptr<WardenJob>& job : jobs_)
    {
        job->Signal(SIGKILL, true);
    }
    while (HasChildren())
    {
        for (const ProcessEntry& process : Descendants(::getpid()).value_or(std::vector<ProcessEntry>()))
        {
            SignalProcess(process, SIGKILL);
        }
        while (::waitpid(-1, nullptr, WNOHANG) > 0)
        {}
        // Who was started meanwhile was not seen.
        constexpr int kPauseMilliseconds = 10;
        pollfd awaited{children_.Get(), POLLIN, 0};
        if (HasChildren() && ::poll(&awaited, 1, kPauseMilliseconds) > 0)
        {
            Drain(children_.Get());
        }
    }
    terminal_.GiveBack();
}

void WardenProcess::Run()
{
    while (Obey())
    {
        Reap();
        Advance();
        if (!ownerIsGone_)
        {
            Wait();
        }
    }
}

bool WardenProcess::Obey()
{
    while (!ownerIsGone_)
    {
        const Received received = ReceiveMessage(socket_.Get());
        ownerIsGone_ = received.closed;
        if (!received.message)
        {
            break;
        }
        if (!received.message->is_null())
        {
            Do(received.message->get<Order>());
        }
    }
    return !ownerIsGone_;
}

void WardenProcess::Do(const Order& order)
{
    WardenJob* const service = Service();
    if (order.what == Order::What::Start)
    {
        Start(order.launch);
    }
    else if (service == nullptr)
    {
        return;
    }
    else if (order.what == Order::What::Signal)
    {
        service->Signal(order.signal, order.wholeGroup);
    }
    else if (order.what == Order::What::End)
    {
        const Time now = BootClock::now();
        service->End(now + order.grace, now);
    }
    else if (order.what == Order::What::Tell && service->Teller() != nullptr)
    {
        Tell(*service, order.line);
    }
}

void WardenProcess::Start(const Launch& launch)
{
    const bool isService = launch.kind == Launch::Kind::Service;
    if (launch.command.empty())
    {
        NotStarted(launch, EINVAL, "there is no command");
    }
    else if (isService && Service() != nullptr)
    {
        NotStarted(launch, EBUSY, "another command runs");
    }
    else if (isService && !launch.hearsRoles && BootClock::now() >= lease_.Read().end)
    {
        NotStarted(launch, ECANCELED, "the lease has run out", true);
    }
    else
    {
        try
        {
            auto teller = launch.hearsRoles ? std::make_unique<RoleTeller>(launch.roleFile, Complaining()) : nullptr;
            StartSurroundings surroundings;
            surroundings.foreground = isService && terminal_.IsOwners();
            surroundings.rolePipe = teller ? teller->ReadEnd().Get() : -1;
            surroundings.null = null_.Get();
            const StartResult result = StartCommand(launch, surroundings);
            if (result.pid == 0)
            {
                NotStarted(launch, result.code, result.error);
                return;
            }
            Started(launch, result.pid, std::move(teller));
        }
        catch (const std::system_error& error)
        {
            NotStarted(launch, error.code().value(), error.what());
        }
        catch (const std::bad_alloc& error)
        {
            NotStarted(launch, ENOMEM, error.what());
        }
    }
}

void WardenProcess::Started(const Launch& launch, pid_t pid, std::unique_ptr<RoleTeller> teller)
{
    if (teller)
    {
        teller->ReadEnd().Close();
    }
    jobs_.push_back(std::make_unique<WardenJob>(launch, pid, std::move(teller), Complaining()));
    WardenReport report{WardenReport::What::Launched};
    report.kind = launch.kind;
    report.name = launch.name;
    report.pid = pid;
    Report(report);
}

void WardenProcess::NotStarted(const Launch& launch, int code, const std::string& error, bool leaseRanOut)
{
    terminal_.GiveBack();
    WardenReport report{WardenReport::What::NotLaunched};
    report.kind = launch.kind;
    report.name = launch.name;
    report.leaseRanOut = leaseRanOut;
    report.code = code;
    report.error = error;
    Report(report);
}

void WardenProcess::Reap()
{
    Drain(children_.Get());
    int status = 0;
    pid_t pid = 0;
    while ((pid = ::waitpid(-1, &status, WNOHANG | WUNTRACED)) > 0)
    {
        for (const std::unique_ptr<WardenJob>& job : jobs_)
        {
            if (!job->Runs() || job->Pid() != pid)
            {
                continue;
            }
            if (WIFSTOPPED(status))
            {
                Stopped(*job, WSTOPSIG(status));
            }
            else
            {
                job->HasEnded(status);
            }
        }
    }
}

void WardenProcess::Stopped(const WardenJob& job, int signal) const
{
    const bool byTerminal = signal == SIGTSTP || signal == SIGTTIN || signal == SIGTTOU;
    if (byTerminal && TerminalForeground::IsOf(job.Pid()))
    {
        job.Signal(SIGCONT, true);
    }
}

void WardenProcess::Advance()
{
    const Time now = BootClock::now();
    advancedAt_ = now;
    lookAgain_ = false;
    if (WardenJob* const service = Service())
    {
        service->Mind(lease_.Read(), now);
    }
    for (const std::unique_ptr<WardenJob>& job : jobs_)
    {
        job->KillGroupWhenDue(now);
    }
    for (auto job = jobs_.begin(); job != jobs_.end();)
    {
        if (!IsOver(**job, now))
        {
            ++job;
            continue;
        }
        WardenReport report{(*job)->IsService() ? WardenReport::What::Ended : WardenReport::What::HookEnded};
        report.kind = (*job)->What().kind;
        report.name = (*job)->What().name;
        report.pid = (*job)->Pid();
        report.waitStatus = (*job)->WaitStatus();
        report.leaseRanOut = (*job)->LeaseRanOut();
        job = jobs_.erase(job);
        terminal_.GiveBack();
        Report(report);
    }
}

bool WardenProcess::IsOver(WardenJob& job, Time now)
{
    if (!job.WantsMembers(now))
    {
        return false;
    }
    const std::optional<std::vector<ProcessEntry>> members = MembersOf(job);
    if (!members)
    {
        lookAgain_ = true;
        return false;
    }
    if (!members->empty() || job.Runs())
    {
        job.TreatMembers(*members, now);
        return false;
    }
    // Not to be seen is not yet gone: the kernel knows for sure when all children are this command's, and otherwise
    // a second look has to do.
    const auto isEmpty = [](const auto& found) { return found && found->empty(); };
    const bool over = jobs_.size() == 1 ? !HasChildren() : isEmpty(MembersOf(job));
    lookAgain_ = lookAgain_ || !over;
    return over;
}

std::optional<std::vector<ProcessEntry>> WardenProcess::MembersOf(const WardenJob& job) const
{
    const std::optional<std::vector<ProcessEntry>> all = Descendants(::getpid());
    if (!all)
    {
        return std::nullopt;
    }
    std::vector<ProcessEntry> members;
    std::copy_if(all->begin(), all->end(), std::back_inserter(members),
                 [&](const ProcessEntry& process) { return &JobOf(process, *all) == &job; });
    return members;
}

const WardenJob& WardenProcess::JobOf(const ProcessEntry& process, const std::vector<ProcessEntry>& all) const
{
    const auto top = std::find_if(all.begin(), all.end(),
                                  [&](const ProcessEntry& candidate) { return candidate.pid == process.top; });
    for (const std::unique_ptr<WardenJob>& job : jobs_)
    {
        const pid_t number = job->Pid();
        if ((job->Runs() && process.top == number) || process.group == number || top->group == number)
        {
            return *job;
        }
    }
    const WardenJob* const service = Service();
    return service != nullptr ? *service : *jobs_.front();
}

void WardenProcess::Wait()
{
    constexpr std::chrono::milliseconds kLookAgain{5};
    Time due = lookAgain_ ? advancedAt_ + kLookAgain : Time::max();
    std::vector<pollfd> awaited{{socket_.Get(), POLLIN, 0}, {children_.Get(), POLLIN, 0}, {timer_.Get(), POLLIN, 0}};
    for (const std::unique_ptr<WardenJob>& job : jobs_)
    {
        due = std::min(due, job->NextDue(lease_.Read(), advancedAt_));
        if (job->Teller() != nullptr && job->Teller()->Awaited())
        {
            awaited.push_back({*job->Teller()->Awaited(), POLLOUT, 0});
        }
    }
    SetTimer(timer_.Get(), due);
    if (::poll(awaited.data(), awaited.size(), -1) < 0 && errno != EINTR)
    {
        throw std::system_error(errno, std::generic_category(), "poll");
    }
    Drain(timer_.Get());
    if (const WardenJob* const service = Service(); service != nullptr && service->Teller() != nullptr)
    {
        service->Teller()->Continue();
    }
}

void WardenProcess::Tell(WardenJob& service, const std::string& line)
{
    // Whoever sends a line may have stood still since.
    const bool over = BootClock::now() >= lease_.Read().end;
    service.Teller()->Tell(over ? service.What().lineWhenLeaseRunsOut : line);
    WardenReport report{WardenReport::What::Told};
    report.name = line;
    Report(report);
}

Complain WardenProcess::Complaining()
{
    return [this](const std::string& text) {
        try
        {
            WardenReport report{WardenReport::What::Complaint};
            report.error = text;
            Report(report);
        }
        catch (const std::exception&)
        {
            // What cannot be sent is found out by the next report that has to be.
        }
    };
}

void WardenProcess::Report(const WardenReport& report)
{
    try
    {
        SendMessage(socket_.Get(), report);
    }
    catch (const std::system_error& error)
    {
        if (error.code() != std::errc::broken_pipe && error.code() != std::errc::connection_reset)
        {
            throw;
        }
        ownerIsGone_ = true;
    }
}

WardenJob* WardenProcess::Service() const
{
    const auto service = std::find_if(jobs_.begin(), jobs_.end(), [](const auto& job) { return job->IsService(); });
    return service == jobs_.end() ? nullptr : service->get();
}

}  // namespace kx::velmor::cli
