// What the demonstration starts five times: takes part in an election and prints a line for each change of role, for
// the scoreboard to read. Start reading at `Participate`.

#include "cli/demo/scoreboard.h"
#include "cli/exit_status.h"
#include "cli/subcommand.h"

#include <kx/logging/logger.h>
#include <kx/velmor/candidate.h>
#include <kx/velmor/session.h>

#include <CLI/CLI.hpp>
#include <signal.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

namespace kx::velmor::cli {

namespace {

using demo::Word;
using logging::LogLevel;
using std::chrono::milliseconds;

const auto g_log = std::make_shared<const logging::Source>("velmor.demo");

/// "<seconds on CLOCK_MONOTONIC> <name> <role> node=<name, or -> session=<id>", and perhaps more.
void Print(const std::string& name, const Session& session, const std::string& role, const std::string& node,
           const std::string& more = std::string())
{
    // The same clock for all processes of a machine, so that their lines can be put in order.
    using namespace std::chrono;
    const auto now = duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
    std::printf("%" PRId64 ".%06" PRId64 " %s %s node=%s session=0x%" PRIx64 "%s\n",
                static_cast<std::int64_t>(now / 1'000'000), static_cast<std::int64_t>(now % 1'000'000), name.c_str(),
                role.c_str(), node.empty() ? "-" : node.c_str(), static_cast<std::uint64_t>(session.Status().sessionId),
                more.c_str());
}

sigset_t LeaveSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

/// The signals are blocked, so that they wait for us.
bool ToldToLeaveWithin(milliseconds time)
{
    const sigset_t signals = LeaveSignals();
    const timespec limit{0, std::chrono::nanoseconds(time).count()};
    return ::sigtimedwait(&signals, nullptr, &limit) > 0;
}

int Participate(const Settings& settings, const std::string& name)
{
    // Before any thread starts, since threads take over what is blocked.
    const sigset_t signals = LeaveSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);

    const std::shared_ptr<Session> session = Session::OpenInBackground(SessionOptionsFor(settings));

    // The callbacks ask the candidate for its node, and are made before it. What they use goes after it.
    Role before = Role::Stopped;
    std::optional<Candidate> candidate;
    CandidateOptions election;
    election.electionPath = settings.election;
    election.identity = name;
    election.onRoleChange = [&](Role role) {
        // Of the lead the callback below tells, and of its end the end of `Participate`.
        if (role != Role::Leader && role != Role::Stopped)
        {
            const bool lost = role == Role::Joining && before != Role::Stopped;
            Print(name, *session, lost ? "lost" : Word(role), candidate->NodeName());
        }
        before = role;
    };
    election.onLeader = [&](const Leadership& leadership) {
        Print(name, *session, Word(Role::Leader), candidate->NodeName(),
              " epoch=" + std::to_string(leadership.Epoch()));
    };
    candidate.emplace(session, election);
    candidate->Start();

    constexpr milliseconds kLook{200};
    while (!ToldToLeaveWithin(kLook))
    {
        if (candidate->CurrentRole() == Role::Stopped)
        {
            KX_LOG(LogLevel::Error, g_log) << "Takes no part any more: " << candidate->Error();
            return kInternal;
        }
    }
    candidate->Stop();
    session->Close();
    Print(name, *session, "left", std::string());
    return kSuccess;
}

}  // namespace

Subcommand AddDemoParticipant(CLI::App& application)
{
    // Without a group it is in no help.
    CLI::App* const app =
        application.add_subcommand("demo-participant", "One participant of the demonstration")->group(std::string());
    const auto name = std::make_shared<std::string>();
    app->add_option("--identity", *name, "Its name")->required();
    return {app, [name](const Settings& settings) { return Participate(settings, *name); }};
}

}  // namespace kx::velmor::cli
