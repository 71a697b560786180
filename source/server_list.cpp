#include "source/server_list.h"

#include "source/printable.h"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace kx::velmor {

namespace {

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

/// The addresses of one server; empty with `error` set when there are none.
AddressList Ask(const Server& server, int flags, int& error)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    error = getaddrinfo(server.host.c_str(), server.port.c_str(), &hints, &found);
    return AddressList(error == 0 ? found : nullptr, &freeaddrinfo);
}

std::string Numeric(const addrinfo& address)
{
    char host[NI_MAXHOST];
    char port[NI_MAXSERV];
    if (getnameinfo(address.ai_addr, address.ai_addrlen, host, sizeof(host), port, sizeof(port),
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0)
    {
        return std::string();
    }
    // The client library takes what follows the last colon for the port, and refuses brackets.
    return std::string(host) + ":" + port;
}

[[noreturn]] void Refuse(const std::string& item, const char* reason)
{
    throw std::invalid_argument("\"" + Printable(item) + "\": " + reason);
}

void CheckPort(const std::string& item, const std::string& port)
{
    constexpr std::size_t kMostDigits = 5;
    constexpr int kHighestPort = 65535;
    if (port.empty() || port.size() > kMostDigits || port.find_first_not_of("0123456789") != std::string::npos)
    {
        Refuse(item, "the port must be a number from 1 to 65535");
    }
    const int number = std::stoi(port);
    if (number < 1 || number > kHighestPort)
    {
        Refuse(item, "the port must be a number from 1 to 65535");
    }
}

Server ParseServer(const std::string& item)
{
    if (item.empty())
    {
        Refuse(item, "a server is missing");
    }
    if (item.find('/') != std::string::npos)
    {
        Refuse(item, "a path does not belong to a server; it goes into rootPath");
    }
    const std::size_t colon = item.rfind(':');
    if (colon == std::string::npos)
    {
        Refuse(item, "the port is missing (host:port)");
    }
    Server server{item.substr(0, colon), item.substr(colon + 1)};
    const bool bracketed = server.host.size() > 2 && server.host.front() == '[' && server.host.back() == ']';
    if (bracketed)
    {
        server.host = server.host.substr(1, server.host.size() - 2);
    }
    const auto unfit = [&](char character) {
        return static_cast<unsigned char>(character) <= ' ' || character == '\x7f' || character == '[' ||
               character == ']' || (character == ':' && !bracketed);
    };
    if (server.host.empty() || std::any_of(server.host.begin(), server.host.end(), unfit))
    {
        Refuse(item, "the host is malformed (host:port, or [address]:port for IPv6)");
    }
    CheckPort(item, server.port);
    return server;
}

}  // namespace

std::vector<Server> ParseServers(const std::string& servers)
{
    std::vector<Server> parsed;
    for (std::size_t begin = 0; begin <= servers.size();)
    {
        const std::size_t end = std::min(servers.find(',', begin), servers.size());
        parsed.push_back(ParseServer(servers.substr(begin, end - begin)));
        begin = end + 1;
    }
    return parsed;
}

bool AllNumeric(const std::vector<Server>& servers)
{
    return std::all_of(servers.begin(), servers.end(), [](const Server& server) {
        int error = 0;
        return Ask(server, AI_NUMERICHOST, error) != nullptr;
    });
}

Addresses LookUp(const std::vector<Server>& servers)
{
    Addresses result;
    std::vector<std::string> known;
    for (const Server& server : servers)
    {
        int error = 0;
        const AddressList list = Ask(server, 0, error);
        if (!list)
        {
            result.failures += (result.failures.empty() ? "" : ", ") + server.host + " (" + gai_strerror(error) + ")";
        }
        for (const addrinfo* address = list.get(); address != nullptr; address = address->ai_next)
        {
            const std::string numeric = Numeric(*address);
            // One machine under two names must not get twice its share of the clients.
            if (!numeric.empty() && std::find(known.begin(), known.end(), numeric) == known.end())
            {
                known.push_back(numeric);
                result.numeric += (result.numeric.empty() ? "" : ",") + numeric;
            }
        }
    }
    return result;
}

}  // namespace kx::velmor
