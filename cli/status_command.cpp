#include "cli/duration.h"
#include "cli/exit_status.h"
#include "cli/output.h"
#include "cli/queue_json.h"
#include "cli/queue_table.h"
#include "cli/subcommand.h"

#include <kx/velmor/error.h>
#include <kx/velmor/observer.h>

#include <CLI/CLI.hpp>
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <string>

namespace kx::velmor::cli {

namespace {

constexpr const char* kDescription =
    "Shows who takes part in an election, in the order of the queue, and who leads.\n"
    "The first in the queue is the \"leader\" once it has claimed the lead, and \"elected\"\n"
    "until then. A leader that has lost its place and has not finished yet has the\n"
    "position \"-\".";

constexpr const char* kFooter =
    "Examples:\n"
    "  velmor status --servers zk1:2181,zk2:2181 --election /services/billing\n"
    "  velmor status --json | jq -r .leader.identity\n"
    "  velmor status > /dev/null || echo 'nobody leads'\n"
    "\n"
    "Exit status: 0 somebody leads, 1 nobody leads, 64 usage, 69 no server answered in\n"
    "time, 70 internal error, 77 not permitted, 78 configuration file.";

std::shared_ptr<Session> Open(const Settings& settings)
{
    const SessionOptions options = SessionOptionsFor(settings);
    try
    {
        return Session::Open(options);
    }
    catch (const ZooError& error)
    {
        if (error.Code() != ZOPERATIONTIMEOUT)
        {
            throw;
        }
        throw Failure(kUnavailable, "no server answered within " + FormatDuration(options.connectTimeout) +
                                        " (--connect-timeout): " + settings.servers);
    }
}

ElectionView ViewOf(const Session& session, const Settings& settings)
{
    try
    {
        return Look(session, settings.election);
    }
    catch (const ZooError& error)
    {
        if (error.Code() == ZNOAUTH)
        {
            throw Failure(kNotPermitted, "the servers do not permit a look at " + settings.election +
                                             ": --digest-file names credentials");
        }
        throw;
    }
}

int Show(const Settings& settings, bool json)
{
    // Whoever reads may have seen enough.
    ::signal(SIGPIPE, SIG_IGN);
    const std::shared_ptr<Session> session = Open(settings);
    const ElectionView view = ViewOf(*session, settings);
    session->Close();
    std::string text;
    if (json)
    {
        text = StatusJson(settings.election, view) + "\n";
    }
    else
    {
        for (const std::string& line : TableOf(view))
        {
            text += line + "\n";
        }
    }
    Write(STDOUT_FILENO, text);
    return view.leader ? kSuccess : kNobodyLeads;
}

}  // namespace

Subcommand AddStatus(CLI::App& application)
{
    const auto json = std::make_shared<bool>(false);
    CLI::App* const app = application.add_subcommand("status", kDescription);
    app->footer(kFooter);
    app->add_flag("--json", *json, "One JSON object, for programs");
    Subcommand status;
    status.app = app;
    status.run = [json](const Settings& settings) { return Show(settings, *json); };
    return status;
}

}  // namespace kx::velmor::cli
