#include "source/session_options.h"

#include "source/session_log.h"

#include <kx/velmor/error.h>
#include <kx/velmor/path.h>

#include <limits>
#include <stdexcept>
#include <string>

namespace kx::velmor {

namespace {

[[noreturn]] void Refuse(const char* option, const std::string& reason)
{
    KX_LOG(logging::LogLevel::Error, SessionLog()) << "Bad session option " << option << ": " << reason;
    throw ZooError(ZBADARGUMENTS);
}

void CheckRoot(const std::string& root)
{
    if (root.empty())
    {
        return;
    }
    try
    {
        if (root != "/" + NormalizePath(root))
        {
            Refuse("rootPath", "\"" + root + "\" must begin with one \"/\" and not end with one, as in \"/apps/x\"");
        }
    }
    catch (const ZooError&)
    {
        throw;
    }
    catch (const VelmorError& error)
    {
        Refuse("rootPath", error.what());
    }
}

void CheckTimeout(const char* option, std::chrono::milliseconds timeout)
{
    // The client library counts milliseconds in an int.
    if (timeout.count() <= 0 || timeout.count() > std::numeric_limits<int>::max())
    {
        Refuse(option, std::to_string(timeout.count()) + " ms; it must be positive and below 25 days");
    }
}

void CheckCredentials(const std::string& credentials)
{
    // Neither part is ever shown.
    const std::size_t colon = credentials.find(':');
    if (!credentials.empty() && (colon == 0 || colon == std::string::npos))
    {
        Refuse("digestCredentials", "it must be like \"user:password\"");
    }
}

void CheckAccessRule(const AccessRule& rule)
{
    const auto cut = [](const std::string& text) { return text.find('\0') != std::string::npos; };
    if (rule.permissions <= 0 || (rule.permissions & ~ZOO_PERM_ALL) != 0)
    {
        Refuse("accessList",
               "permissions " + std::to_string(rule.permissions) + ", which is no sum of ZOO_PERM_ values");
    }
    if (rule.scheme.empty() || cut(rule.scheme) || cut(rule.id))
    {
        Refuse("accessList", "a rule needs a scheme, and texts without zero bytes");
    }
}

}  // namespace

const std::shared_ptr<const logging::Source>& SessionLog()
{
    // Never destroyed: sessions that are open at the end of the process log while static objects go.
    static const auto& source =
        *new std::shared_ptr<const logging::Source>(std::make_shared<const logging::Source>("velmor.session"));
    return source;
}

std::vector<Server> CheckOptions(const SessionOptions& options)
{
    CheckRoot(options.rootPath);
    CheckTimeout("sessionTimeout", options.sessionTimeout);
    CheckTimeout("connectTimeout", options.connectTimeout);
    if (options.operationTimeout)
    {
        CheckTimeout("operationTimeout", *options.operationTimeout);
    }
    CheckCredentials(options.digestCredentials);
    for (const AccessRule& rule : options.accessList)
    {
        CheckAccessRule(rule);
    }
    try
    {
        return ParseServers(options.servers);
    }
    catch (const std::invalid_argument& error)
    {
        Refuse("servers", error.what());
    }
}

}  // namespace kx::velmor
