// Five processes elect a leader, and three leaders in a row come to grief: one leaves, one is killed, one is frozen and
// comes back. Shows every change, checks that each successor is the one that was announced, and tells how long each
// handover took. Start reading at `Play`.

#include "cli/demo/staged_election.h"
#include "cli/exit_status.h"
#include "cli/subcommand.h"

#include <kx/velmor/error.h>

#include <CLI/CLI.hpp>
#include <signal.h>

#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::cli {

namespace {

using demo::Await;
using demo::EndSignals;
using demo::Entry;
using demo::Interrupted;
using demo::kPromptly;
using demo::Scoreboard;
using demo::StagedElection;
using process::ChildProcess;
using std::chrono::milliseconds;

constexpr int kNotAsAnnounced = 1;

constexpr const char* kDescription =
    "Five processes elect a leader; leaders leave, are killed and are frozen. Shows,\n"
    "checks and times each handover.";

constexpr const char* kFooter =
    "The election takes place on a path of its own, which begins with --election\n"
    "(default: /velmor-demo) and is removed at the end, also when the demonstration is\n"
    "interrupted. No other election is touched.\n"
    "\n"
    "Example:\n"
    "  velmor demo --servers zk1:2181,zk2:2181\n"
    "\n"
    "Exit status: 0 every election went as announced, 1 one did not, 64 usage, 69 no\n"
    "server answered in time, 77 not permitted, 78 configuration file, 128+N ended by\n"
    "signal N.";

struct Handover
{
    std::string cause;
    std::string from;
    std::string to;
    milliseconds duration;
};

/// Brings the leader to grief and waits until the one that was next leads.
Handover HandOver(StagedElection& election, const std::string& cause, const std::string& away, milliseconds deadline,
                  const std::function<void(ChildProcess&)>& strike)
{
    Scoreboard& board = election.Board();
    const std::string leader = board.WithRole("leader").at(0);
    const std::string next = board.WithRole("next").at(0);

    board.SetAway(leader, away, leader + " " + cause);
    const auto begin = std::chrono::steady_clock::now();
    strike(election.Process(leader));
    Await(next + " leads after " + leader + " " + cause, deadline, [&] {
        election.CheckAll();
        const std::vector<std::string> leaders = board.WithRole("leader");
        if (!leaders.empty() && leaders.front() != next)
        {
            throw std::runtime_error(next + " was to lead next, but " + leaders.front() + " does");
        }
        return !leaders.empty();
    });
    const auto end = board.Now().at(next).since;
    election.AwaitQuiet(kPromptly);
    return {cause, leader, next, std::chrono::duration_cast<milliseconds>(end - begin)};
}

void PrintTable(const std::vector<Handover>& handovers, milliseconds sessionTimeout)
{
    std::printf("\n%-22s %-14s %s\n", "what befell the leader", "handover", "until the next one led");
    for (const Handover& handover : handovers)
    {
        std::printf("%-22s %-14s %5" PRId64 " ms\n", handover.cause.c_str(),
                    (handover.from + " -> " + handover.to).c_str(),
                    static_cast<std::int64_t>(handover.duration.count()));
    }
    std::printf("Session timeout in force: %" PRId64 " ms. Times by CLOCK_MONOTONIC of this machine.\n",
                static_cast<std::int64_t>(sessionTimeout.count()));
}

void Play(StagedElection& election)
{
    for (const char* name : {"n1", "n2", "n3", "n4", "n5"})
    {
        election.Join(name);
    }
    election.AwaitQuiet(kPromptly);

    const milliseconds timeout = election.GrantedTimeout();
    const milliseconds expiry = 2 * timeout + kPromptly;
    std::vector<Handover> handovers;

    handovers.push_back(HandOver(election, "is told to leave", "left", kPromptly, [](ChildProcess& leader) {
        leader.Terminate(kPromptly);
        if (leader.AwaitExit(kPromptly) != kSuccess)
        {
            throw std::runtime_error("a participant that was told to leave did not end well");
        }
    }));
    handovers.push_back(HandOver(election, "is killed", "killed", expiry, [](ChildProcess& leader) { leader.Kill(); }));
    handovers.push_back(
        HandOver(election, "is frozen", "frozen", expiry, [](ChildProcess& leader) { leader.Pause(); }));

    const std::string frozen = handovers.back().from;
    election.Board().Tell(frozen + " goes on");
    election.Process(frozen).Continue();
    Await(frozen + " is back", expiry, [&] {
        election.CheckAll();
        const Entry entry = election.Board().Now().at(frozen);
        return entry.away.empty() && entry.role != "lost" && entry.role != "joining";
    });
    election.AwaitQuiet(kPromptly);
    if (election.Queue().back() != election.Board().Now().at(frozen).node)
    {
        throw std::runtime_error(frozen + " is back, but not at the end of the queue");
    }

    // From the back, so that nobody moves up any more.
    Scoreboard& board = election.Board();
    for (const char* role : {"follower", "next", "leader"})
    {
        for (const std::string& name : board.WithRole(role))
        {
            board.SetAway(name, "left", name + " is told to leave");
            election.Process(name).Terminate(kPromptly);
        }
    }
    PrintTable(handovers, timeout);
}

int Demonstrate(const Settings& settings)
{
    // Before any thread starts, since threads take over what is blocked. A reader of the output who goes away is
    // noticed by an error, in place of a signal that would leave the election behind.
    const sigset_t signals = EndSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    try
    {
        StagedElection election(settings);
        try
        {
            Play(election);
        }
        catch (const std::exception&)
        {
            election.PrintLogs();
            throw;
        }
        return kSuccess;
    }
    catch (const Interrupted& interrupted)
    {
        return OfSignal(interrupted.signal);
    }
    catch (const Failure&)
    {
        throw;
    }
    catch (const VelmorError&)
    {
        throw;
    }
    catch (const std::runtime_error& error)
    {
        throw Failure(kNotAsAnnounced, std::string("the election did not go as announced: ") + error.what());
    }
}

}  // namespace

Subcommand AddDemo(CLI::App& application)
{
    CLI::App* const app = application.add_subcommand("demo", kDescription);
    app->footer(kFooter);
    Defaults defaults;
    defaults.election = "/velmor-demo";
    defaults.sessionTimeout = milliseconds(2'000);
    return {app, Demonstrate, defaults};
}

}  // namespace kx::velmor::cli
