#pragma once

// Linking simulated_client_library.cpp defines the functions of the ZooKeeper C client library that sessions call, on
// top of `EnsembleModel::Current()`. Constants, texts and the functions that only fill in structures stay the real
// library's. Servers are "127.0.0.1:<EnsembleModel::Port(server)>".
//
// Access lists and credentials are accepted and have no effect. Calls that no session makes are not there, and flags
// that no session uses end the program.

namespace kx::velmor::simulation {

/// Does nothing. A program that calls it is linked with these functions in place of the client library's.
void LinkSimulatedClientLibrary();

}  // namespace kx::velmor::simulation
