#include "cli/exit_status.h"
#include "cli/service_run.h"

#include <kx/logging/logger.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::cli {

namespace {

using kx::logging::LogLevel;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

const auto g_log = std::make_shared<const kx::logging::Source>("velmor.run");

/// Who is told through these is this process.
const std::vector<std::string> kManagersVariables{"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"};

/// As shells have it.
int StatusOf(int waitStatus)
{
    return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : OfSignal(WTERMSIG(waitStatus));
}

std::string Ending(int waitStatus)
{
    return WIFEXITED(waitStatus) ? "status " + std::to_string(WEXITSTATUS(waitStatus))
                                 : "signal " + std::to_string(WTERMSIG(waitStatus));
}

}  // namespace

void ServiceRun::StartService(std::map<std::string, std::string> environment)
{
    Launch launch;
    launch.kind = Launch::Kind::Service;
    launch.command = options_.command;
    launch.environment = std::move(environment);
    launch.hidden = kManagersVariables;
    launch.grace = options_.grace;
    if (options_.standby)
    {
        launch.hearsRoles = true;
        launch.lineWhenLeaseRunsOut = kNoRole;
        launch.roleFile = options_.roleFile;
        if (!options_.roleFile.empty())
        {
            launch.environment["VELMOR_ROLE_FILE"] = options_.roleFile;
        }
    }
    lastLine_.clear();
    service_ = true;
    serviceStart_ = steady_clock::now();
    warden_.Start(launch);
}

void ServiceRun::StartHook(const char* name, const std::string& command, milliseconds limit,
                           std::map<std::string, std::string> environment)
{
    Launch launch;
    launch.kind = Launch::Kind::Hook;
    launch.name = name;
    launch.command = {"/bin/sh", "-c", command};
    launch.environment = std::move(environment);
    launch.hidden = kManagersVariables;
    launch.grace = limit;
    warden_.Start(launch);
}

bool ServiceRun::EndService(milliseconds grace)
{
    if (service_)
    {
        warden_.End(grace);
    }
    return service_;
}

void ServiceRun::Tell(const std::string& line)
{
    if (service_ && line != lastLine_)
    {
        lastLine_ = line;
        warden_.Tell(line);
    }
}

void ServiceRun::OnToldOfLoss()
{
    if (std::exchange(awaitsToldOfLoss_, false))
    {
        DropLease();
        FinishLoss();
    }
}

void ServiceRun::OnReports()
{
    while (const std::optional<WardenReport> report = warden_.Receive())
    {
        OnReport(*report);
        if (report->what == WardenReport::What::Gone)
        {
            return;
        }
    }
    AwaitReports();
}

void ServiceRun::OnReport(const WardenReport& report)
{
    switch (report.what)
    {
        case WardenReport::What::Launched:
            if (report.kind == Launch::Kind::Service)
            {
                pid_ = report.pid;
                figures_.OnCommandStarted();
                KX_LOG(LogLevel::Info, g_log) << "The command runs: process " << report.pid;
            }
            return;
        case WardenReport::What::NotLaunched:
            KX_LOG(LogLevel::Error, g_log)
                << (report.kind == Launch::Kind::Service ? std::string("The command") : "The hook --" + report.name)
                << " cannot be started: " << report.error;
            if (report.kind == Launch::Kind::Service)
            {
                OnServiceEnded(report.code == ENOENT ? kNotFound : kCannotExecute, false, report.leaseRanOut);
            }
            else
            {
                OnHookEnded(report.name);
            }
            return;
        case WardenReport::What::Ended: {
            KX_LOG(LogLevel::Info, g_log) << "The command has ended with " << Ending(report.waitStatus);
            // Ctrl-C goes to the command alone. Shells and others that handle it end with the status that tells of it.
            const int status = StatusOf(report.waitStatus);
            const bool interrupted = status == OfSignal(SIGINT) || status == OfSignal(SIGQUIT);
            OnServiceEnded(status, interrupted && ::isatty(STDIN_FILENO) == 1, report.leaseRanOut);
            return;
        }
        case WardenReport::What::HookEnded:
            if (report.waitStatus != 0)
            {
                KX_LOG(LogLevel::Warning, g_log)
                    << "The hook --" << report.name << " has ended with " << Ending(report.waitStatus);
            }
            OnHookEnded(report.name);
            return;
        case WardenReport::What::Told:
            if (report.name == kNoRole)
            {
                OnToldOfLoss();
            }
            return;
        case WardenReport::What::Complaint:
            KX_LOG(LogLevel::Warning, g_log) << report.error;
            return;
        case WardenReport::What::Gone:
            OnWardenGone();
            return;
    }
}

void ServiceRun::OnServiceEnded(int status, bool byTerminal, bool leaseRanOut)
{
    const steady_clock::time_point now = steady_clock::now();
    service_ = false;
    pid_ = 0;
    awaitsToldOfLoss_ = false;
    DropLease();
    const bool told = WasTold(now, byTerminal);
    const bool lost = !told && (lostService_ || leaseRanOut);
    lostService_ = false;
    if (!status_ && !told && RunsAgain(options_.restart, lost || status != kSuccess))
    {
        // Without a delay of its own when the command has done nothing wrong.
        pause_ = lost ? milliseconds(0) : delay_.Next(now - serviceStart_);
        KX_LOG(LogLevel::Info, g_log) << "Joins again at the end of the queue in " << pause_.count() << " ms";
    }
    else if (!status_)
    {
        if (lost)
        {
            KX_LOG(LogLevel::Error, g_log) << "The leadership is lost";
        }
        status_ = lost ? kLeadershipLost : status;
    }
    interrupted_.reset();

    // The candidate does, when its callback has returned. A command on standby is started by joining anew.
    const bool joinsByItself = loss_ && !status_ && !options_.standby;
    FinishLoss();
    if (!joinsByItself)
    {
        Leave();
    }
}

void ServiceRun::OnHookEnded(const std::string& name)
{
    if (name == kLostHook)
    {
        lossHookRuns_ = false;
        FinishLoss();
    }
    else
    {
        nextHookRuns_ = false;
    }
}

void ServiceRun::OnWardenGone()
{
    KX_LOG(LogLevel::Error, g_log) << "The process that watches over commands was killed, and with it what it watched";
    lossHookDue_ = false;
    lossHookRuns_ = false;
    service_ = false;
    awaitsToldOfLoss_ = false;
    pid_ = 0;
    DropLease();
    if (!status_)
    {
        status_ = kInternal;
    }
    FinishLoss();
    Leave();
}

// Signals

void ServiceRun::OnSignal(int signal)
{
    if (!service_)
    {
        if (std::exchange(leavesOnSignal_, true))
        {
            // Servers that do not answer may take a while to be left. Whoever asks twice does not care to wait.
            KX_LOG(LogLevel::Warning, g_log) << "Ends without having left: the servers notice by the session timeout";
            std::_Exit(OfSignal(signal));
        }
        KX_LOG(LogLevel::Info, g_log) << "Leaves the election on signal " << signal;
        if (!status_)
        {
            status_ = OfSignal(signal);
        }
        Leave();
        return;
    }
    switch (signal)
    {
        case SIGTERM:
            if (std::exchange(toldToEnd_, true))
            {
                warden_.Signal(signal, true);
                return;
            }
            KX_LOG(LogLevel::Info, g_log) << "Ends the command and leaves the election";
            manager_.Stopping();
            EndService(options_.grace);
            if (!leading_)
            {
                // The lead is not for a command that is about to end.
                Leave();
            }
            return;
        case SIGINT:
        case SIGQUIT:
            interrupted_ = steady_clock::now();
            warden_.Signal(signal, true);
            return;
        default:
            warden_.Signal(signal, false);
            return;
    }
}

bool ServiceRun::WasTold(steady_clock::time_point now, bool byTerminal) const
{
    return toldToEnd_ || byTerminal || (interrupted_ && now - *interrupted_ < options_.grace);
}

}  // namespace kx::velmor::cli
