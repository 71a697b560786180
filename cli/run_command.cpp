#include "cli/exit_status.h"
#include "cli/options.h"
#include "cli/service_run.h"
#include "cli/subcommand.h"

#include <CLI/CLI.hpp>
#include <signal.h>

#include <map>
#include <memory>
#include <string>

namespace kx::velmor::cli {

namespace {

constexpr const char* kDescription =
    "Takes part in an election and runs a command, without a shell, while it leads.\n"
    "When the leadership is lost the command and all that it has started is ended\n"
    "before anybody else can lead. When the command has ended, or velmor is told to\n"
    "leave, the next one takes over at once.";

constexpr const char* kFooter =
    "The command has VELMOR_ELECTION, VELMOR_NODE, VELMOR_IDENTITY and VELMOR_EPOCH (the\n"
    "fencing token) in its environment, the standard input, and a process group of its\n"
    "own. TERM, INT and QUIT are passed on to that group, HUP, USR1 and USR2 to the\n"
    "command itself; TERM also ends velmor when the command has ended. While no command\n"
    "runs, each of the six leaves the election.\n"
    "\n"
    "Examples:\n"
    "  velmor run --servers zk1:2181,zk2:2181 --election /services/billing \\\n"
    "    -- billing-worker --port 80\n"
    "  velmor run --grace 30s --restart on-failure --http 8080 -- billing-worker\n"
    "  velmor run --wait 5s -- nightly-report || echo 'runs elsewhere'\n"
    "  velmor run --standby --role-file /run/billing.role -- billing-worker --warm\n"
    "\n"
    "Exit status: that of the command, 128+N when signal N ended it or velmor; 64 usage,\n"
    "69 no server answered in time, 70 internal error, 75 not elected within --wait,\n"
    "76 leadership lost, 77 not permitted, 78 configuration file, 126 the command cannot\n"
    "be executed, 127 it was not found.";

void Check(const RunOptions& options)
{
    if (!options.roleFile.empty() && !options.standby)
    {
        throw Failure(kUsage, "--role-file: only a command that runs with --standby is told its role");
    }
    if (options.wait && options.standby)
    {
        throw Failure(kUsage, "--wait: with --standby the command runs all the time; leave out one of the two");
    }
}

int Run(const Settings& settings, RunOptions options)
{
    options.command = settings.command;
    Check(options);
    // Whoever reads our log may have gone, and so may those who ask over HTTP.
    ::signal(SIGPIPE, SIG_IGN);
    // Before any thread starts.
    Warden warden;
    return ServiceRun(settings, std::move(options), warden).Run();
}

}  // namespace

Subcommand AddRun(CLI::App& application)
{
    const auto options = std::make_shared<RunOptions>();
    CLI::App* const app = application.add_subcommand("run", kDescription);
    app->footer(kFooter);
    app->add_option("--identity", options->identity, "Who this is, for people (default: host name and process id)");
    AddDuration(*app, "--grace", options->grace,
                "How long after SIGTERM the command is killed; less when the leadership would not last as long",
                std::chrono::milliseconds(0));
    AddDuration(*app, "--wait", options->wait, "Give up with status 75 when not leading within this time");
    app->add_option("--restart", options->restart,
                    "Whether to join again when the command has ended or the lead is lost")
        ->transform(CLI::CheckedTransformer(
            std::map<std::string, Restart>{
                {"never", Restart::Never}, {"on-failure", Restart::OnFailure}, {"always", Restart::Always}},
            CLI::ignore_case))
        ->type_name("never|on-failure|always")
        ->default_str("never");
    app->add_option("--on-next", options->onNext, "Given to /bin/sh when this one is the next leader: time to warm up")
        ->type_name("COMMAND");
    app->add_option("--on-lost", options->onLost,
                    "Given to /bin/sh when the lead is lost and the command has ended, with VELMOR_REASON")
        ->type_name("COMMAND");
    app->add_flag("--standby", options->standby,
                  "Run the command all the time and tell it its role, a line for each change on descriptor 3");
    app->add_option("--role-file", options->roleFile, "With --standby: a file that holds the newest of these lines")
        ->type_name("FILE");
    app->add_option("--http", options->http, "Answer /leader, /next, /status and /metrics there; port 0: any")
        ->type_name("[ADDRESS:]PORT");

    Subcommand run;
    run.app = app;
    run.run = [options](const Settings& settings) { return Run(settings, *options); };
    run.defaults.connectTimeout.reset();
    run.defaults.logLevel = logging::LogLevel::Info;
    run.defaults.takesCommand = true;
    return run;
}

}  // namespace kx::velmor::cli
