// The program `velmor`: parses what is asked for, sets up the log and hands over to the subcommand.

#include "cli/exit_status.h"
#include "cli/subcommand.h"

#include <kx/velmor/error.h>

#include <CLI/CLI.hpp>

#include <iostream>
#include <vector>

namespace {

using namespace kx::velmor::cli;  // NOLINT(google-build-using-namespace)

}  // namespace

int main(int argc, char** argv)
{
    Settings settings;
    CLI::App app("Runs a service under a leader election, and shows who leads.", "velmor");
    app.require_subcommand(1);
    app.add_option("--servers", settings.servers, "ZooKeeper servers, as in host:2181,host:2181");
    app.add_option("--election", settings.election, "The election path, as in /services/billing/leader");
    app.fallthrough();
    const std::vector<Subcommand> subcommands;
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& error)
    {
        return app.exit(error) == kSuccess ? kSuccess : kUsage;
    }
    try
    {
        for (const Subcommand& subcommand : subcommands)
        {
            if (subcommand.app->parsed())
            {
                return subcommand.run(settings);
            }
        }
    }
    catch (const Failure& failure)
    {
        std::cerr << "velmor: " << failure.what() << '\n';
        return failure.Status();
    }
    catch (const std::exception& error)
    {
        std::cerr << "velmor: " << error.what() << '\n';
    }
    return kInternal;
}
