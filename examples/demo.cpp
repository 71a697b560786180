// Five processes elect a leader, and three leaders in a row come to grief: one leaves, one is killed, one is frozen and
// comes back. Shows every change, checks that each successor is the one that was announced, and tells how long each
// handover took. Start reading at `Play`.

#include "examples/staged_election.h"
#include "tests/support/zookeeper_server.h"

#include <CLI/CLI.hpp>
#include <signal.h>

#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using kx::velmor::demo::Await;
using kx::velmor::demo::EndSignals;
using kx::velmor::demo::Entry;
using kx::velmor::demo::Interrupted;
using kx::velmor::demo::kPromptly;
using kx::velmor::demo::Scoreboard;
using kx::velmor::demo::StagedElection;
using std::chrono::milliseconds;
namespace process = kx::velmor::process;
namespace support = kx::velmor::testing_support;

constexpr int kExitUsage = 2;
constexpr int kExitInterrupted = 128 + SIGINT;

struct Options
{
    /// Empty: start a throwaway server.
    std::string servers;
    milliseconds sessionTimeout{2'000};
};

struct Handover
{
    std::string cause;
    std::string from;
    std::string to;
    milliseconds duration;
};

/// Brings the leader to grief and waits until the one that was next leads.
Handover HandOver(StagedElection& election, const std::string& cause, const std::string& away, milliseconds deadline,
                  const std::function<void(process::ChildProcess&)>& strike)
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

    handovers.push_back(HandOver(election, "is told to leave", "left", kPromptly, [](process::ChildProcess& leader) {
        leader.Terminate(kPromptly);
        if (leader.AwaitExit(kPromptly) != EXIT_SUCCESS)
        {
            throw std::runtime_error("a participant that was told to leave did not end well");
        }
    }));
    handovers.push_back(
        HandOver(election, "is killed", "killed", expiry, [](process::ChildProcess& leader) { leader.Kill(); }));
    handovers.push_back(
        HandOver(election, "is frozen", "frozen", expiry, [](process::ChildProcess& leader) { leader.Pause(); }));

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

int Run(const Options& options)
{
    std::optional<support::ZooKeeperServer> server;
    std::string servers = options.servers;
    if (servers.empty())
    {
        server.emplace();
        server->Start();
        servers = server->Address();
        std::printf("A throwaway server at %s.\n", servers.c_str());
    }
    StagedElection election(servers, options.sessionTimeout);
    try
    {
        Play(election);
    }
    catch (const std::exception& error)
    {
        election.PrintLogs();
        throw;
    }
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app(
        "Five processes elect a leader; leaders leave, are killed and are frozen. Checks and times each handover.");
    app.add_option(
        "--servers", options.servers,
        "An existing ensemble, as in host:2181,host:2181. The demonstration uses a path of its own there and "
        "removes it. Default: a throwaway server");
    app.add_option_function<std::int64_t>(
           "--session-timeout", [&](std::int64_t value) { options.sessionTimeout = milliseconds(value); },
           "The participants' session timeout, with unit, as in 2s or 500ms (default: 2s)")
        ->type_name("DURATION")
        ->transform(CLI::AsNumberWithUnit(std::map<std::string, std::int64_t>{{"ms", 1}, {"s", 1000}},
                                          CLI::AsNumberWithUnit::UNIT_REQUIRED));
    app.footer("Exit status: 0 when every election went as announced, 1 when one did not, 2 usage, 130 interrupted.");
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& error)
    {
        return app.exit(error) == EXIT_SUCCESS ? EXIT_SUCCESS : kExitUsage;
    }

    // Before any thread starts, since threads take over what is blocked.
    const sigset_t signals = EndSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    try
    {
        return Run(options);
    }
    catch (const Interrupted&)
    {
        std::cerr << "demo: interrupted\n";
        return kExitInterrupted;
    }
    catch (const std::exception& error)
    {
        std::cerr << "demo: FAILED: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
