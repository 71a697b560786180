#include "cli/settings.h"

namespace kx::velmor::cli {

SessionOptions SessionOptionsFor(const Settings& settings)
{
    SessionOptions options;
    options.servers = settings.servers;
    options.rootPath = settings.root;
    options.digestCredentials = settings.digest;
    options.sessionTimeout = settings.sessionTimeout;
    if (settings.connectTimeout)
    {
        options.connectTimeout = *settings.connectTimeout;
    }
    return options;
}

}  // namespace kx::velmor::cli
