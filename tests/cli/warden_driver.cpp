// Holds a warden and does nothing else: for tests of what becomes of its commands when this process is stopped or
// killed.
//
//     warden_driver [--lease END KILL] [--hears LINE FILE] -- COMMAND ARGUMENT...
//
// With `--lease` it renews the lease as long as it runs, each time for so many milliseconds. Says what happens in lines
// on standard output, and whether this process has the foreground of the terminal when it ends.

#include "cli/warden.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace kx::velmor;  // NOLINT(google-build-using-namespace)
using cli::WardenReport;
using std::chrono::milliseconds;

struct Task
{
    cli::Launch launch;
    std::optional<std::pair<milliseconds, milliseconds>> lease;
};

Task Parse(const std::vector<std::string>& arguments)
{
    Task task;
    auto next = arguments.begin();
    for (; *next != "--"; ++next)
    {
        if (*next == "--lease")
        {
            const milliseconds end(std::stol(*++next));
            task.lease.emplace(end, milliseconds(std::stol(*++next)));
        }
        else if (*next == "--hears")
        {
            task.launch.hearsRoles = true;
            task.launch.lineWhenLeaseRunsOut = *++next;
            task.launch.roleFile = *++next;
        }
    }
    task.launch.command.assign(next + 1, arguments.end());
    return task;
}

/// False when there is nothing more to come.
bool Print(const WardenReport& report)
{
    switch (report.what)
    {
        case WardenReport::What::Launched:
            std::cout << "launched " << report.pid << std::endl;
            return true;
        case WardenReport::What::Ended:
            std::cout << "ended "
                      << (WIFEXITED(report.waitStatus) ? "exit " + std::to_string(WEXITSTATUS(report.waitStatus))
                                                       : "signal " + std::to_string(WTERMSIG(report.waitStatus)))
                      << (report.leaseRanOut ? " lease" : "") << std::endl;
            return false;
        case WardenReport::What::Gone:
            std::cout << "gone" << std::endl;
            return false;
        default:
            std::cout << "unexpected: " << report.error << std::endl;
            return false;
    }
}

void Renew(cli::Warden& warden, const Task& task)
{
    if (task.lease)
    {
        const BootClock::time_point now = BootClock::now();
        warden.SetLease(now + task.lease->first, now + task.lease->second);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    const Task task = Parse(std::vector<std::string>(argv + 1, argv + argc));
    cli::Warden warden;
    std::cout << "warden " << warden.Pid() << std::endl;
    Renew(warden, task);
    warden.Start(task.launch);
    bool goesOn = true;
    while (goesOn)
    {
        constexpr int kRenewalMilliseconds = 10;
        pollfd awaited{warden.Descriptor(), POLLIN, 0};
        ::poll(&awaited, 1, kRenewalMilliseconds);
        Renew(warden, task);
        while (const std::optional<WardenReport> report = warden.Receive())
        {
            goesOn = Print(*report);
        }
    }
    std::cout << "foreground " << (::tcgetpgrp(STDIN_FILENO) == ::getpgrp() ? "yes" : "no") << std::endl;
    return 0;
}
