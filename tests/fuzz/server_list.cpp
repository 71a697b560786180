// The input is a list of servers.

#include "source/server_list.h"

#include "tests/fuzz/fuzz_target.h"
#include "tests/fuzz/server_grammar.h"
#include "tests/support/scripted_client_library.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>

namespace kx::velmor::testing_support {

namespace {

std::string Printed(const std::vector<Server>& servers)
{
    std::vector<std::string> items;
    for (const Server& server : servers)
    {
        const bool bracketed = server.host.find(':') != std::string::npos;
        items.push_back((bracketed ? "[" + server.host + "]" : server.host) + ":" + server.port);
    }
    return Join(",", items);
}

bool IsAddress(const std::string& text)
{
    const std::string withoutScope = text.substr(0, text.find('%'));
    in6_addr room{};
    return inet_pton(AF_INET, text.c_str(), &room) == 1 || inet_pton(AF_INET6, withoutScope.c_str(), &room) == 1;
}

bool NamesABadItem(const std::string& reason, const std::string& input)
{
    const std::vector<std::string> items = SplitAt(',', input);
    return std::any_of(items.begin(), items.end(), [&](const std::string& item) {
        const std::string quoted = "\"" + Shown(item) + "\": ";
        return !ServersAreGood(item) && reason.compare(0, quoted.size(), quoted) == 0;
    });
}

bool HasPort(const std::vector<Server>& servers, const std::string& port)
{
    return std::any_of(servers.begin(), servers.end(),
                       [&](const Server& server) { return std::to_string(std::stoi(server.port)) == port; });
}

void RequireAddresses(const std::vector<Server>& servers)
{
    // Fails when a name is looked up.
    const ScriptedNameService nobody;
    const Addresses found = LookUp(servers);
    Require(!::testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed(), "addresses need no name service");
    Require(found.failures.empty(), "addresses can always be looked up");
    std::vector<std::string> items = SplitAt(',', found.numeric);
    for (const std::string& item : items)
    {
        const std::size_t colon = item.rfind(':');
        Require(colon != std::string::npos, "an address has a port");
        Require(IsAddress(item.substr(0, colon)), "the client library gets addresses alone");
        Require(HasPort(servers, item.substr(colon + 1)), "an address has the port of its server");
    }
    std::sort(items.begin(), items.end());
    Require(std::adjacent_find(items.begin(), items.end()) == items.end(), "no address is listed twice");
}

}  // namespace

void CheckInput(const std::string& input)
{
    std::vector<Server> servers;
    try
    {
        servers = ParseServers(input);
    }
    catch (const std::invalid_argument& error)
    {
        Require(!ServersAreGood(input), "a good list is taken");
        Require(NamesABadItem(error.what(), input), "a refusal quotes the item");
        return;
    }
    Require(ServersAreGood(input), "a bad list is refused");

    const std::vector<std::string> items = SplitAt(',', input);
    Require(servers.size() == items.size(), "there is a server for each item");
    const std::vector<Server> again = ParseServers(Printed(servers));
    Require(again.size() == servers.size(), "what is printed parses as a list as long");
    for (std::size_t i = 0; i < servers.size(); ++i)
    {
        const Server& server = servers[i];
        Require(again[i].host == server.host && again[i].port == server.port, "what is printed parses as the same");
        Require(items[i] == server.host + ":" + server.port || items[i] == "[" + server.host + "]:" + server.port,
                "host and port are those of the item");
    }
    if (AllNumeric(servers))
    {
        RequireAddresses(servers);
    }
}

}  // namespace kx::velmor::testing_support
