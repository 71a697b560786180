// One participant in an election, complete: it joins, tells its role on standard output, and leaves when asked to.
// Start reading at `Participate`.

#include <kx/logging/logger.h>
#include <kx/velmor/candidate.h>
#include <kx/velmor/error.h>
#include <kx/velmor/session.h>

#include <CLI/CLI.hpp>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <string>

namespace {

using kx::logging::LogLevel;
using kx::velmor::Candidate;
using kx::velmor::CandidateOptions;
using kx::velmor::Leadership;
using kx::velmor::LossReason;
using kx::velmor::Role;
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

int Participate(const Options& options)
{
    SessionOptions sessionOptions;
    sessionOptions.servers = options.servers;
    sessionOptions.sessionTimeout = options.sessionTimeout;
    const std::shared_ptr<Session> session = Session::OpenInBackground(sessionOptions);

    CandidateOptions election;
    election.electionPath = options.path;
    election.identity = options.name;
    election.onRoleChange = [&](Role role) { std::cout << options.name << ": " << ToString(role) << std::endl; };
    // The epoch is for whatever the leader writes to: it tells this leadership from all that were before.
    election.onLeader = [&](const Leadership& leadership) {
        std::cout << options.name << ": leads with fencing token " << leadership.Epoch() << std::endl;
    };
    election.onLeaderLost = [&](LossReason reason) {
        std::cout << options.name << ": leads no more: " << ToString(reason) << std::endl;
    };
    Candidate candidate(session, election);
    candidate.Start();

    constexpr milliseconds kLook{200};
    while (!ToldToLeaveWithin(kLook))
    {
        if (candidate.CurrentRole() == Role::Stopped)
        {
            KX_LOG(LogLevel::Error, g_log) << "Takes no part any more: " << candidate.Error();
            return EXIT_FAILURE;
        }
    }
    candidate.Stop();
    session->Close();
    return EXIT_SUCCESS;
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
    app.footer("Exit status: 0 left, 1 failed, 2 usage.");
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
