#pragma once

#include <kx/velmor/boot_clock.h>

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor::cli {

/// What is to be started.
struct Launch
{
    enum class Kind
    {
        /// The command. One at a time.
        Service,
        /// Something that runs beside it, or before or after it. Any number.
        Hook,
    };

    Kind kind = Kind::Service;
    /// Says which hook, in reports.
    std::string name{};
    /// The program, a path or a name found in PATH, and its arguments.
    std::vector<std::string> command;
    /// Added to the environment that this process had when the warden was made, or put in place of what that has.
    std::map<std::string, std::string> environment{};
    /// Take out of the environment.
    std::vector<std::string> hidden{};
    /// How long after the SIGTERM to those who are left when the command itself has ended they are killed. A hook: how
    /// long it may take before it is.
    std::chrono::milliseconds grace{10'000};
    /// `Service`: the command has descriptor 3, from which it reads a line per `Tell`; VELMOR_ROLE_FD says so.
    bool hearsRoles = false;
    /// With `hearsRoles`, told when the lease runs out, in place of ending the command.
    std::string lineWhenLeaseRunsOut{};
    /// Replaced by a file that holds the line, at once and as a whole, at each line that is told; may be empty.
    std::string roleFile{};
};

/// What the warden has to say.
struct WardenReport
{
    enum class What
    {
        /// The command runs.
        Launched,
        /// It does not: `error` says why.
        NotLaunched,
        /// The service has ended, and nobody that it has started is left.
        Ended,
        /// A hook has ended, and nobody that it has started is left.
        HookEnded,
        /// A line has been passed on to the service, or the one for the end of its lease in place of it: `name` is the
        /// line.
        Told,
        /// Something that is worth a line in the log: `error`.
        Complaint,
        /// The warden itself has ended, which it does not do unless somebody kills it. Whatever it had started is gone.
        Gone,
    };

    What what;
    /// Of what, for what has to do with a command.
    Launch::Kind kind = Launch::Kind::Service;
    /// As `Launch` said.
    std::string name{};
    /// All but `NotLaunched` and `Gone`: the number of the process, after its end the number that it had.
    pid_t pid = 0;
    /// `Ended`, `HookEnded`: as `waitpid` has it.
    int waitStatus = 0;
    /// `Ended`: because the lease ran out. `NotLaunched`: because it had run out before; `code` is ECANCELED.
    bool leaseRanOut = false;
    /// `NotLaunched`: the number, as in <cerrno>, and the text.
    int code = 0;
    std::string error{};
};

/// A process between this one and the commands that it runs, which sees to it that they end:
/// - when this process has ended, however it did: at once, and everything that they have started;
/// - when the lease that this process writes down has run out, also while this process stands still.
///
/// It shares nothing with this process but the descriptors of the start, has a process group of its own, minds no
/// signal, and ends when this process has ended or this object is destroyed, after it has killed what is left.
///
/// Each command leads a process group of its own, and has no descriptors but the standard streams and the one for
/// roles. The service gets the standard input of this process, a hook an empty one; when it is a terminal in whose
/// foreground this process is, the service's group is brought to the foreground for as long as it runs, and is not
/// suspended by the terminal: Ctrl-Z is undone. What this process ignores, as under nohup, stays ignored, SIGPIPE and
/// SIGCHLD excepted.
///
/// What a command has started belongs to it also when it has left the command's session, or its parents have ended.
/// Somebody who has done both, and left the group, counts as the service's while there is one, also when a hook has
/// started it.
///
/// While there is a warden this process has no other children than it had before: when somebody has killed the warden,
/// all others are taken for what it had started, and killed.
///
/// Threads: one at a time. Nothing blocks, except the destructor; a warden that is hundreds of orders behind is given a
/// second, and is killed when it takes none then.
class Warden
{
public:
    /// Forks. To be made while the process has one thread. Throws `std::system_error`.
    Warden();
    /// Kills all that is left and waits until it is gone.
    ~Warden();

    Warden(const Warden&) = delete;
    Warden& operator=(const Warden&) = delete;

    /// Readable when there is a report.
    int Descriptor() const noexcept;
    /// The next report, if there is one.
    std::optional<WardenReport> Receive();

    /// `Launched` or `NotLaunched` follows.
    void Start(const Launch& launch);
    /// To the service: to the process itself or to its whole group. Nothing happens when there is none.
    void Signal(int signal, bool wholeGroup);
    /// SIGTERM to the service's group now; SIGKILL to everything that it has started after `grace`, or when the lease
    /// has run out. `Ended` follows, if there was a service. 0: SIGKILL at once.
    void End(std::chrono::milliseconds grace);
    /// To a service that hears roles: `Told` follows. The last line that it has not read in time is all that is kept
    /// for it.
    void Tell(const std::string& line);

    /// From now on the lease runs out at `end`: the service's group gets SIGTERM, unless it hears roles; at `killAt`
    /// SIGKILL. Costs a store; the warden sees it when the moment before has come.
    void SetLease(BootClock::time_point end, BootClock::time_point killAt) noexcept;
    /// From now on it does not. Before a launch, and after the loss was told to a service that hears roles.
    void ClearLease() noexcept;

    /// Of the process. For tests and for the log.
    pid_t Pid() const noexcept;

private:
    class Impl;
    const std::unique_ptr<Impl> impl_;
};

}  // namespace kx::velmor::cli
