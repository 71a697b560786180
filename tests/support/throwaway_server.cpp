// Runs a command with a ZooKeeper server of its own, whose address the command finds in VELMOR_SERVERS:
//
//   throwaway_server -- velmor demo
//
// The server has gone when this ends, however it does. The command has the terminal, and its status is passed on, 128 +
// N for signal N; so are signals that somebody sends here.

#include "tests/support/zookeeper_server.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <sysexits.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

using kx::velmor::testing_support::ZooKeeperServer;

constexpr int kBySignal = 128;
constexpr int kCannotExecute = 126;
constexpr int kNotFound = 127;

sigset_t EndSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
    {
        sigaddset(&signals, signal);
    }
    return signals;
}

sigset_t Awaited()
{
    sigset_t signals = EndSignals();
    sigaddset(&signals, SIGCHLD);
    return signals;
}

/// In the foreground of the terminal, if this is. Does not outlive this process.
pid_t Start(char** command, const sigset_t& mask)
{
    const pid_t self = ::getpid();
    const pid_t child = ::fork();
    if (child != 0)
    {
        return child;
    }
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != self)
    {
        ::_exit(EXIT_FAILURE);
    }
    ::sigprocmask(SIG_SETMASK, &mask, nullptr);
    ::execvp(command[0], command);
    const int error = errno;
    // Nothing that takes a lock: another thread may have held it when this process was made.
    const char* const text = ::strerrordesc_np(error);
    for (const char* const part : {"throwaway_server: ", static_cast<const char*>(command[0]), ": ", text, "\n"})
    {
        if (::write(STDERR_FILENO, part, std::strlen(part)) < 0)
        {
            break;
        }
    }
    ::_exit(error == ENOENT ? kNotFound : kCannotExecute);
}

/// Its wait status, when it has ended.
int AwaitEnd(pid_t child)
{
    const sigset_t signals = Awaited();
    while (true)
    {
        siginfo_t info{};
        const int signal = ::sigwaitinfo(&signals, &info);
        int status = 0;
        if (::waitpid(child, &status, WNOHANG) == child)
        {
            return status;
        }
        // What the terminal sends has reached the command, too.
        if (signal > 0 && signal != SIGCHLD && info.si_code != SI_KERNEL)
        {
            ::kill(child, signal);
        }
    }
}

int Run(char** command)
{
    // Before any thread starts, since threads take over what is blocked. What comes before the command runs waits for
    // it.
    const sigset_t signals = Awaited();
    sigset_t before;
    ::pthread_sigmask(SIG_BLOCK, &signals, &before);

    ZooKeeperServer server;
    server.Start();
    ::setenv("VELMOR_SERVERS", server.Address().c_str(), 1);
    // Not of the server's, which has not ended.
    const sigset_t early = EndSignals();
    const timespec now{0, 0};
    const int signal = ::sigtimedwait(&early, nullptr, &now);
    if (signal > 0)
    {
        return kBySignal + signal;
    }
    const pid_t child = Start(command, before);
    if (child < 0)
    {
        throw std::runtime_error(std::string("cannot fork: ") + ::strerrordesc_np(errno));
    }
    const int status = AwaitEnd(child);
    return WIFSIGNALED(status) ? kBySignal + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3 || std::string(argv[1]) != "--")
    {
        std::cerr << "usage: throwaway_server -- command argument...\n";
        return EX_USAGE;
    }
    try
    {
        return Run(argv + 2);
    }
    catch (const std::exception& error)
    {
        std::cerr << "throwaway_server: " << error.what() << '\n';
        return EX_SOFTWARE;
    }
}
