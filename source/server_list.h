#pragma once

#include <string>
#include <vector>

namespace kx::velmor {

/// One server of an ensemble as the user names it.
struct Server
{
    /// A name, an IPv4 address, or an IPv6 address without its brackets.
    std::string host;
    /// 1 to 65535, in decimal.
    std::string port;
};

/// "host:port,[v6]:port" as a list. Throws `std::invalid_argument` saying what is wrong with which item.
std::vector<Server> ParseServers(const std::string& servers);

/// What looking servers up gave.
struct Addresses
{
    /// "ip:port,ip:port", what the client library takes: IPv6 addresses without brackets, too. Empty when no server
    /// could be looked up.
    std::string numeric;
    /// The servers that could not be looked up, with the reason for each; empty when all could.
    std::string failures;
};

/// Whether looking up `servers` needs no name service.
bool AllNumeric(const std::vector<Server>& servers);

/// Looks up each server. Blocks for as long as the name service takes, unless all are numeric.
Addresses LookUp(const std::vector<Server>& servers);

}  // namespace kx::velmor
