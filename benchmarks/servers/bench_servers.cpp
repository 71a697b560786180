// Servers to measure against, for as long as standard input stays open:
//
//   velmor_bench_servers --count 3 --fsync
//
// Prints their addresses in one line once all of them serve. Their directories are made in TMPDIR, and gone at the end.

#include "tests/support/ensemble.h"

#include <CLI/CLI.hpp>

#include <cstddef>
#include <exception>
#include <iostream>
#include <string>

int main(int argc, char** argv)
{
    namespace support = kx::velmor::testing_support;

    std::size_t count = 1;
    support::ServerOptions options;
    options.heapMegabytes = 512;
    options.compiler = support::ServerOptions::Compiler::Best;
    // What the server's own sample configuration has.
    options.tickTime = std::chrono::milliseconds(2000);

    CLI::App app("Runs ZooKeeper servers until standard input ends.");
    app.add_option("--count", count, "How many servers form the ensemble")->check(CLI::IsMember({1, 3}));
    app.add_flag("--fsync", options.forceSync, "Answer writes only once they are on the disk");
    int tickMilliseconds = static_cast<int>(options.tickTime.count());
    app.add_option("--tick", tickMilliseconds, "The unit of the servers' clocks, in milliseconds");
    CLI11_PARSE(app, argc, argv);
    options.tickTime = std::chrono::milliseconds(tickMilliseconds);

    try
    {
        // One alone is configured differently from an ensemble of one.
        support::ZooKeeperServer single(options);
        support::Ensemble several(count, options);
        if (count == 1)
        {
            single.Start();
        }
        else
        {
            several.Start();
        }
        std::cout << (count == 1 ? single.Address() : several.Addresses()) << std::endl;
        for (std::string line; std::getline(std::cin, line);)
        {}
        return EXIT_SUCCESS;
    }
    catch (const std::exception& error)
    {
        std::cerr << "velmor_bench_servers: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
