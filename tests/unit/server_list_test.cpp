#include "source/server_list.h"

#include "tests/support/scripted_client_library.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace kx::velmor {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using testing_support::ScriptedNameService;

/// What a list is refused with; empty when it is taken.
std::string Refusal(const std::string& servers)
{
    try
    {
        ParseServers(servers);
    }
    catch (const std::invalid_argument& error)
    {
        return error.what();
    }
    return std::string();
}

std::vector<std::string> Parsed(const std::string& servers)
{
    std::vector<std::string> parsed;
    for (const Server& server : ParseServers(servers))
    {
        parsed.push_back(server.host + " " + server.port);
    }
    return parsed;
}

TEST(ServerListTest, ListIsSplitIntoHostsAndPorts)
{
    EXPECT_THAT(Parsed("zk1.example:2181"), ElementsAre("zk1.example 2181"));
    EXPECT_THAT(Parsed("a:1,127.0.0.1:65535,[::1]:2181"), ElementsAre("a 1", "127.0.0.1 65535", "::1 2181"));
    EXPECT_THAT(Parsed("a:02181"), ElementsAre("a 02181"));
}

TEST(ServerListTest, MalformedListsAreRefusedWithTheItemAndTheReason)
{
    struct Case
    {
        std::string servers;
        std::string item;
        std::string reason;
    };
    const std::string port = "the port must be a number from 1 to 65535";
    const std::string host = "the host is malformed";
    const std::vector<Case> cases = {
        {"", "\"\"", "a server is missing"},
        {"a:1,", "\"\"", "a server is missing"},
        {",a:1", "\"\"", "a server is missing"},
        {"a:1,,b:1", "\"\"", "a server is missing"},
        {"a:1/x", "\"a:1/x\"", "a path does not belong to a server; it goes into rootPath"},
        {"a:1/x,b:1", "\"a:1/x\"", "a path does not belong to a server; it goes into rootPath"},
        {"a", "\"a\"", "the port is missing (host:port)"},
        {"b:1,a", "\"a\"", "the port is missing (host:port)"},
        {"a:", "\"a:\"", port},
        {"a:0", "\"a:0\"", port},
        {"a:65536", "\"a:65536\"", port},
        {"a:99999", "\"a:99999\"", port},
        {"a:002181", "\"a:002181\"", port},
        {"a:-1", "\"a:-1\"", port},
        {"a:+1", "\"a:+1\"", port},
        {"a:2181 ", "\"a:2181 \"", port},
        {"a:http", "\"a:http\"", port},
        {":2181", "\":2181\"", host},
        {" a:2181", "\" a:2181\"", host},
        {"a:1, b:1", "\" b:1\"", host},
        {"a\n:1", "\"a\n:1\"", host},
        {std::string("a\0b:1", 5), "\"a\\0b:1\"", host},
        {"::1:2181", "\"::1:2181\"", host},
        {"[]:2181", "\"[]:2181\"", host},
        {"[::1:2181", "\"[::1:2181\"", host},
        {"::1]:2181", "\"::1]:2181\"", host},
        {"[[::1]]:2181", "\"[[::1]]:2181\"", host},
    };
    for (const Case& bad : cases)
    {
        EXPECT_THAT(Refusal(bad.servers), AllOf(StartsWith(bad.item), HasSubstr(bad.reason))) << bad.servers;
    }
}

TEST(ServerListTest, OnlyAddressesNeedNoNameService)
{
    EXPECT_TRUE(AllNumeric(ParseServers("127.0.0.1:1,[::1]:1")));
    EXPECT_FALSE(AllNumeric(ParseServers("127.0.0.1:1,localhost:1")));
}

TEST(ServerListTest, AddressesAreHandedOnWithoutBracketsAndWithoutTheNameService)
{
    ScriptedNameService names;
    const Addresses found = LookUp(ParseServers("127.0.0.1:2181,[::1]:2182"));
    EXPECT_EQ(found.numeric, "127.0.0.1:2181,::1:2182");
    EXPECT_EQ(found.failures, "");
}

TEST(ServerListTest, NamesBecomeAllTheirAddresses)
{
    ScriptedNameService names;
    names.Expect("a.example", {"127.0.0.2", "::1"});
    names.Expect("b.example", {"127.0.0.3"});
    const Addresses found = LookUp(ParseServers("a.example:1,b.example:2"));
    EXPECT_EQ(found.numeric, "127.0.0.2:1,::1:1,127.0.0.3:2");
    EXPECT_EQ(found.failures, "");
}

TEST(ServerListTest, MachineUnderTwoNamesIsListedOnce)
{
    ScriptedNameService names;
    names.Expect("a.example", {"127.0.0.2"});
    names.Expect("b.example", {"127.0.0.2", "127.0.0.3"});
    names.Expect("c.example", {"127.0.0.2"});
    EXPECT_EQ(LookUp(ParseServers("a.example:1,b.example:1,c.example:2")).numeric,
              "127.0.0.2:1,127.0.0.3:1,127.0.0.2:2");
}

TEST(ServerListTest, NamesThatFailAreToldBesideTheOthers)
{
    ScriptedNameService names;
    names.ExpectFailure("a.example", EAI_AGAIN);
    names.Expect("b.example", {"127.0.0.3"});
    names.ExpectFailure("c.example", EAI_NONAME);
    const Addresses found = LookUp(ParseServers("a.example:1,b.example:1,c.example:1"));
    EXPECT_EQ(found.numeric, "127.0.0.3:1");
    EXPECT_EQ(found.failures,
              std::string("a.example (") + gai_strerror(EAI_AGAIN) + "), c.example (" + gai_strerror(EAI_NONAME) + ")");
}

TEST(ServerListTest, NothingIsHandedOnWhenAllNamesFail)
{
    ScriptedNameService names;
    names.ExpectFailure("a.example", EAI_FAIL);
    const Addresses found = LookUp(ParseServers("a.example:1"));
    EXPECT_EQ(found.numeric, "");
    EXPECT_THAT(found.failures, HasSubstr("a.example"));
}

}  // namespace
}  // namespace kx::velmor
