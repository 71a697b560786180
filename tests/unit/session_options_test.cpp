#include "source/session_options.h"

#include "tests/support/journal.h"
#include "tests/support/log_capture.h"

#include <kx/velmor/error.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace kx::velmor {
namespace {

using logging::LogLevel;
using std::chrono::milliseconds;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using testing_support::Journal;
using testing_support::LogCapture;

class SessionOptionsTest : public ::testing::Test
{
protected:
    SessionOptionsTest() { options.servers = "127.0.0.1:2181"; }

    void ExpectRefused(const std::string& option, const std::string& reason)
    {
        const std::size_t before = log.Records().size();
        try
        {
            CheckOptions(options);
            ADD_FAILURE() << "taken: " << option << ", " << reason;
            return;
        }
        catch (const ZooError& error)
        {
            EXPECT_EQ(error.Code(), ZBADARGUMENTS);
        }
        const auto records = log.Records();
        ASSERT_EQ(records.size(), before + 1) << option;
        EXPECT_EQ(records.back().level, LogLevel::Error);
        EXPECT_EQ(records.back().source->Name(), "velmor.session");
        EXPECT_THAT(records.back().text, StartsWith("Bad session option " + option + ": "));
        EXPECT_THAT(records.back().text, HasSubstr(reason));
    }

    Journal journal;
    LogCapture log{journal};
    SessionOptions options;
};

TEST_F(SessionOptionsTest, GoodOptionsGiveTheServers)
{
    options.servers = "a.example:1,[::1]:2";
    for (const char* root : {"", "/x", "/apps/x"})
    {
        options.rootPath = root;
        const std::vector<Server> servers = CheckOptions(options);
        ASSERT_EQ(servers.size(), 2U);
        EXPECT_EQ(servers[1].host, "::1");
    }
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(SessionOptionsTest, ServersAreChecked)
{
    for (const char* servers : {"", "a", "a:0", "a:65536", "a:1,,b:1"})
    {
        options.servers = servers;
        ExpectRefused("servers", "");
    }
    options.servers = "a:1,b:port";
    ExpectRefused("servers", "\"b:port\": the port must be a number");
}

TEST_F(SessionOptionsTest, RootIsChecked)
{
    for (const char* root : {"x", "/x/", "//x", "/a//b", "/"})
    {
        options.rootPath = root;
        ExpectRefused("rootPath", "");
    }
    options.rootPath = "/a/../b";
    ExpectRefused("rootPath", "Invalid path \"/a/../b\"");
    options.rootPath = "x";
    ExpectRefused("rootPath", "\"x\" must begin with one \"/\"");
    options.rootPath = std::string("/a\0b", 4);
    ExpectRefused("rootPath", "NUL");
}

TEST_F(SessionOptionsTest, DurationsMustBePositiveAndFitTheClientLibrary)
{
    const std::vector<std::pair<std::string, std::function<void(milliseconds)>>> durations = {
        {"sessionTimeout", [this](milliseconds value) { options.sessionTimeout = value; }},
        {"connectTimeout", [this](milliseconds value) { options.connectTimeout = value; }},
        {"operationTimeout", [this](milliseconds value) { options.operationTimeout = value; }},
    };
    constexpr milliseconds kMost{std::numeric_limits<int>::max()};
    for (const auto& [option, set] : durations)
    {
        for (const milliseconds bad : {milliseconds(0), milliseconds(-1), kMost + milliseconds(1)})
        {
            set(bad);
            ExpectRefused(option, std::to_string(bad.count()) + " ms");
        }
        for (const milliseconds good : {milliseconds(1), kMost})
        {
            set(good);
            EXPECT_NO_THROW(CheckOptions(options)) << option;
        }
    }
}

TEST_F(SessionOptionsTest, CredentialsNeedAUser)
{
    for (const char* bad : {"user", ":", ":password"})
    {
        options.digestCredentials = bad;
        ExpectRefused("digestCredentials", "it must be like \"user:password\"");
    }
    for (const char* good : {"", "user:", "user:password", "user:pass:word"})
    {
        options.digestCredentials = good;
        EXPECT_NO_THROW(CheckOptions(options)) << good;
    }
}

TEST_F(SessionOptionsTest, AccessRulesNeedRightsAndAScheme)
{
    const AccessRule good{ZOO_PERM_ALL, "auth", ""};
    options.accessList = {good, {ZOO_PERM_READ, "world", "anyone"}};
    EXPECT_NO_THROW(CheckOptions(options));

    for (const int permissions : {0, -1, ZOO_PERM_ALL + 1})
    {
        options.accessList = {good, {permissions, "world", "anyone"}};
        ExpectRefused("accessList", "permissions " + std::to_string(permissions));
    }
    const std::string cut("ip\0", 3);
    for (const AccessRule& bad : {AccessRule{1, "", "id"}, AccessRule{1, cut, "id"}, AccessRule{1, "ip", cut}})
    {
        options.accessList = {good, bad};
        ExpectRefused("accessList", "a rule needs a scheme");
    }
}

}  // namespace
}  // namespace kx::velmor
