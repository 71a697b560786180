// The input is a line each for the session, connect and operation timeouts in milliseconds (the last may be empty), the
// servers, the credentials, and an access rule's permissions (empty for no rule), scheme and id; what is left is the
// root.

#include "source/session_options.h"

#include "tests/fuzz/fuzz_target.h"
#include "tests/fuzz/server_grammar.h"
#include "tests/support/journal.h"
#include "tests/support/log_capture.h"

#include <kx/velmor/error.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <limits>

namespace kx::velmor::testing_support {

namespace {

using std::chrono::milliseconds;

bool TimeoutIsGood(milliseconds timeout)
{
    return timeout > milliseconds::zero() && timeout <= milliseconds(std::numeric_limits<int>::max());
}

bool RootIsGood(const std::string& root)
{
    const auto components = ExpectedComponents(root);
    return root.empty() || (components && root == "/" + Join("/", *components));
}

bool CredentialsAreGood(const std::string& credentials)
{
    return credentials.empty() || (credentials.front() != ':' && credentials.find(':') != std::string::npos);
}

bool RuleIsGood(const AccessRule& rule)
{
    constexpr int kRead = 1;
    constexpr int kAll = 31;
    return rule.permissions >= kRead && rule.permissions <= kAll && !rule.scheme.empty() &&
           (rule.scheme + rule.id).find('\0') == std::string::npos;
}

/// The options for which the documented conditions do not hold.
std::vector<std::string> BadOptions(const SessionOptions& options)
{
    std::vector<std::string> bad;
    const auto look = [&](const char* option, bool good) {
        if (!good)
        {
            bad.emplace_back(option);
        }
    };
    look("rootPath", RootIsGood(options.rootPath));
    look("sessionTimeout", TimeoutIsGood(options.sessionTimeout));
    look("connectTimeout", TimeoutIsGood(options.connectTimeout));
    look("operationTimeout", !options.operationTimeout || TimeoutIsGood(*options.operationTimeout));
    look("digestCredentials", CredentialsAreGood(options.digestCredentials));
    look("accessList", std::all_of(options.accessList.begin(), options.accessList.end(), RuleIsGood));
    look("servers", ServersAreGood(options.servers));
    return bad;
}

/// The options that a log line says are bad.
std::vector<std::string> NamedOptions(const LogCapture& log)
{
    const std::string begin = "Bad session option ";
    std::vector<std::string> named;
    for (const LogRecord& record : log.Records())
    {
        Require(record.level == logging::LogLevel::Error && record.source->Name() == "velmor.session",
                "a bad option is an error of the session");
        Require(record.text.compare(0, begin.size(), begin) == 0, "a log line says what it is about");
        named.push_back(record.text.substr(begin.size(), record.text.find(':') - begin.size()));
    }
    return named;
}

void RequireSecrecy(const LogCapture& log)
{
    const std::string said = "Bad session option digestCredentials: it must be like \"user:password\"";
    for (const LogRecord& record : log.Records())
    {
        const bool aboutThem = record.text.compare(0, said.find(':'), said, 0, said.find(':')) == 0;
        Require(!aboutThem || record.text == said, "credentials are not logged, whatever they are");
    }
}

}  // namespace

void CheckInput(const std::string& input)
{
    InputLines lines(input);
    SessionOptions options;
    options.sessionTimeout = milliseconds(lines.Number().value_or(options.sessionTimeout.count()));
    options.connectTimeout = milliseconds(lines.Number().value_or(options.connectTimeout.count()));
    if (const auto timeout = lines.Number())
    {
        options.operationTimeout = milliseconds(*timeout);
    }
    options.servers = lines.Line();
    options.digestCredentials = lines.Line();
    const auto permissions = lines.Number();
    AccessRule rule;
    rule.scheme = lines.Line();
    rule.id = lines.Line();
    if (permissions)
    {
        rule.permissions = static_cast<int>(std::clamp<std::int64_t>(*permissions, INT_MIN, INT_MAX));
        options.accessList = {AccessRule{ZOO_PERM_ALL, "world", "anyone"}, rule};
    }
    options.rootPath = lines.Rest();

    const std::vector<std::string> bad = BadOptions(options);
    Journal journal;
    const LogCapture log(journal);
    try
    {
        const std::vector<Server> servers = CheckOptions(options);
        Require(bad.empty(), "what is taken is as documented: " + Join(", ", bad));
        Require(servers.size() == SplitAt(',', options.servers).size(), "there is a server for each item");
        Require(NamedOptions(log).empty(), "nothing is said of good options");
    }
    catch (const ZooError& error)
    {
        Require(error.Code() == ZBADARGUMENTS, "a bad option is a bad argument");
        const std::vector<std::string> named = NamedOptions(log);
        RequireSecrecy(log);
        Require(named.size() == 1, "one log line says what is bad");
        Require(std::find(bad.begin(), bad.end(), named.front()) != bad.end(), "the option that is named is bad");
    }
}

}  // namespace kx::velmor::testing_support
