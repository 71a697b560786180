// Leaves the classes that a server reads when it starts, and serves a first client, in a file from which other servers
// start faster:
//
//   archive_server_classes build/server-classes.jsa

#include "tests/support/raw_client.h"
#include "tests/support/zookeeper_server.h"

#include <sysexits.h>

#include <exception>
#include <iostream>

int main(int argc, char** argv)
{
    namespace support = kx::velmor::testing_support;
    if (argc != 2)
    {
        std::cerr << "usage: archive_server_classes <file>\n";
        return EX_USAGE;
    }
    try
    {
        support::ServerOptions options;
        options.leaveClassesIn = argv[1];
        support::ZooKeeperServer server(options);
        server.Start();
        {
            support::RawClient client(server.Address());
            client.Create("/node", "data", ZOO_EPHEMERAL | ZOO_SEQUENCE);
            client.List("/");
        }
        server.Stop();
        return EXIT_SUCCESS;
    }
    catch (const std::exception& error)
    {
        std::cerr << "archive_server_classes: " << error.what() << '\n';
        return EX_SOFTWARE;
    }
}
