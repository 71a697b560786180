// One participant in an election, complete: it joins, tells its role on standard output, joins again when its session
// is lost, and leaves when asked to. Start reading at `Participate`.

#include "source/candidate_impl.h"

#include <kx/logging/logger.h>
#include <kx/velmor/error.h>
#include <kx/velmor/session.h>

#include <CLI/CLI.hpp>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace {

using kx::logging::LogLevel;
using kx::velmor::CandidateImpl;
using kx::velmor::Session;
using kx::velmor::SessionOptions;
using kx::velmor::VelmorError;
using std::chrono::milliseconds;

const auto g_log = std::make_shared<const kx::logging::Source>("velmor.example");

constexpr int kExitUsage = 2;

struct Options
{
    std::string servers;
    std::string path = "/velmor/example";
    std::string name = "p" + std::to_string(::getpid());
    milliseconds sessionTimeout{10'000};
};

enum class Role
{
    Joining,
    Follower,
    Next,
    Leader,
    /// The session is over and the node with it: others may lead already.
    Lost,
    Left
};

const char* Text(Role role)
{
    switch (role)
    {
        case Role::Joining:
            return "joining";
        case Role::Follower:
            return "follower";
        case Role::Next:
            return "next";
        case Role::Leader:
            return "leader";
        case Role::Lost:
            return "lost";
        case Role::Left:
            return "left";
    }
    return "?";
}

/// The role in words, one line per change. Checks tell the same role again and again, and a check that was under way
/// when the session ended may speak for a node that is gone: neither makes a line.
///
/// Threads: any. Takes no lock but its own, so it may be called by role callbacks, which hold the candidate's.
class RoleReport
{
public:
    RoleReport(const Options& options, std::shared_ptr<const Session> session)
        : name_(options.name), timeout_(options.sessionTimeout), session_(std::move(session))
    {}

    /// Whose role it is. Call once, before the candidate is started.
    void SetCandidate(const std::shared_ptr<const CandidateImpl>& candidate) { candidate_ = candidate; }

    /// From here on, roles are those of a node of the present session. False when there is none.
    bool Joining()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        identity_ = Identity();
        if (identity_ != 0)
        {
            Change(Role::Joining);
        }
        return identity_ != 0;
    }

    /// What a role callback has to tell.
    void Elected(Role role)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (role_ != Role::Lost && !SessionReplaced())
        {
            Change(role);
        }
    }

    /// Nobody calls back a candidate that is third or later: what has joined and heard nothing follows.
    void Joined()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (role_ == Role::Joining)
        {
            Change(Role::Follower);
        }
    }

    /// Whether the session in which this participant joined is over; then tells so. The candidate does not join again
    /// by itself.
    bool Lost()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!SessionReplaced())
        {
            return false;
        }
        Change(Role::Lost);
        return true;
    }

    void Left()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        Change(Role::Left);
    }

private:
    /// 0 while there is no session.
    std::int64_t Identity() const
    {
        const std::unique_ptr<clientid_t> id = session_->ClientId();
        return id ? id->client_id : 0;
    }

    bool SessionReplaced() const { return Identity() != identity_; }

    void Change(Role role)
    {
        if (role_ == role)
        {
            return;
        }
        role_ = role;
        const std::shared_ptr<const CandidateImpl> candidate = candidate_.lock();
        const std::string node = candidate && role != Role::Joining ? candidate->Name() : std::string();
        // The same clock for all processes of a machine, so that their lines can be put in order.
        using namespace std::chrono;
        const auto now = duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
        std::printf("%" PRId64 ".%06" PRId64 " %s %s node=%s session=0x%" PRIx64 " timeout=%" PRId64 "ms\n",
                    static_cast<std::int64_t>(now / 1'000'000), static_cast<std::int64_t>(now % 1'000'000),
                    name_.c_str(), Text(role), node.empty() ? "-" : node.c_str(), static_cast<std::uint64_t>(identity_),
                    static_cast<std::int64_t>(timeout_.count()));
    }

    const std::string name_;
    const milliseconds timeout_;
    const std::shared_ptr<const Session> session_;
    /// The candidate owns its callbacks, and they own this.
    std::weak_ptr<const CandidateImpl> candidate_;
    /// Guards what follows.
    std::mutex mutex_;
    std::optional<Role> role_;
    std::int64_t identity_ = 0;
};

/// Waits for SIGTERM or SIGINT, which `main` has blocked so that they wait for us.
bool ToldToLeaveWithin(milliseconds time)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    const timespec limit{time.count() / 1000, static_cast<long>(time.count() % 1000) * 1'000'000};
    return ::sigtimedwait(&signals, nullptr, &limit) > 0;
}

/// True when the participant has joined the queue at its end.
bool TryToJoin(CandidateImpl& candidate, RoleReport& report)
{
    if (!report.Joining())
    {
        KX_LOG(LogLevel::Info, g_log) << "Waiting for a session to join the election in";
        return false;
    }
    try
    {
        candidate.Start();
    }
    catch (const VelmorError& error)
    {
        KX_LOG(LogLevel::Warning, g_log) << "Could not join the election, trying again soon: " << error.what();
        return false;
    }
    report.Joined();
    return true;
}

/// True when the participant's node is gone for sure.
bool TryToLeave(CandidateImpl& candidate)
{
    try
    {
        candidate.Stop();
    }
    catch (const VelmorError& error)
    {
        // Stopped all the same. The node goes with its session at the latest.
        KX_LOG(LogLevel::Warning, g_log) << "Could not delete the candidate's node: " << error.what();
        return false;
    }
    return true;
}

int Participate(const Options& options)
{
    SessionOptions sessionOptions;
    sessionOptions.servers = options.servers;
    sessionOptions.sessionTimeout = options.sessionTimeout;
    const std::shared_ptr<Session> session = Session::Open(sessionOptions);

    // A leader that is cut off from the servers goes on believing until it hears from them again, while another one may
    // have taken over: work that must never be done by two has to be fenced off where it takes effect.
    const auto report = std::make_shared<RoleReport>(options, session);
    const auto candidate = std::make_shared<CandidateImpl>(
        session, options.path, [report] { report->Elected(Role::Leader); }, [report] { report->Elected(Role::Next); });
    report->SetCandidate(candidate);

    constexpr milliseconds kLook{50};
    constexpr milliseconds kLongestDelay{5'000};
    milliseconds delay{0};
    bool joined = false;
    while (!ToldToLeaveWithin(delay))
    {
        if (!joined)
        {
            joined = TryToJoin(*candidate, *report);
            delay = joined ? kLook : std::clamp(2 * delay, kLook, kLongestDelay);
        }
        else if (report->Lost())
        {
            KX_LOG(LogLevel::Warning, g_log) << "The session is over, joining the election again at its end";
            TryToLeave(*candidate);
            joined = false;
        }
    }

    const bool left = TryToLeave(*candidate);
    session->Close();
    report->Left();
    return left ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app("Takes part in a leader election and prints a line for each change of role, until SIGTERM or SIGINT.");
    app.add_option("--servers", options.servers, "ZooKeeper servers, as in host:2181,host:2181")->required();
    app.add_option("--path", options.path, "Where the election takes place")->capture_default_str();
    app.add_option("--name", options.name, "This participant's name in its output")->capture_default_str();
    app.add_option_function<std::int64_t>(
           "--session-timeout", [&](std::int64_t value) { options.sessionTimeout = milliseconds(value); },
           "How long after its last sign of life a participant is out, with unit, as in 2s or 500ms (default: 10s)")
        ->type_name("DURATION")
        ->transform(CLI::AsNumberWithUnit(std::map<std::string, std::int64_t>{{"ms", 1}, {"s", 1000}},
                                          CLI::AsNumberWithUnit::UNIT_REQUIRED));
    app.footer(
        "A line: seconds on CLOCK_MONOTONIC, name, role (joining, follower, next, leader, lost, left), node=<name>,\n"
        "session=<id>, timeout=<asked for>. Exit status: 0 left, 1 failed or left without deleting the node, 2 usage.");
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& error)
    {
        return app.exit(error) == EXIT_SUCCESS ? EXIT_SUCCESS : kExitUsage;
    }

    // Before any thread starts, since threads take over what is blocked.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    try
    {
        return Participate(options);
    }
    catch (const VelmorError& error)
    {
        KX_LOG(LogLevel::Error, g_log) << "Could not take part in the election: " << error.what();
        return EXIT_FAILURE;
    }
}
