#include "cli/common_options.h"

#include "cli/duration.h"
#include "cli/exit_status.h"
#include "cli/log_setup.h"
#include "cli/options.h"

#include <kx/velmor/error.h>
#include <kx/velmor/path.h>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <vector>

namespace kx::velmor::cli {

namespace {

using std::chrono::milliseconds;

std::string CheckServer(const std::string& server)
{
    const std::size_t colon = server.rfind(':');
    const std::string host = server.substr(0, colon);
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    const bool fit = !host.empty() && std::none_of(host.begin(), host.end(), [](char character) {
        return static_cast<unsigned char>(character) <= ' ' || character == '/';
    });
    if (colon == std::string::npos || !fit || (!bracketed && host.find(':') != std::string::npos))
    {
        return "\"" + server + "\" is no server: write host:port, or [address]:port for IPv6, with commas between them";
    }
    const std::string port = server.substr(colon + 1);
    constexpr int kHighestPort = 65'535;
    const bool number = !port.empty() && port.size() <= 5 && port.find_first_not_of("0123456789") == std::string::npos;
    if (!number || std::stoi(port) < 1 || std::stoi(port) > kHighestPort)
    {
        return "\"" + server + "\": the port must be a number from 1 to 65535";
    }
    return {};
}

std::string CheckServers(const std::string& servers)
{
    for (std::size_t begin = 0; begin <= servers.size();)
    {
        const std::size_t end = std::min(servers.find(',', begin), servers.size());
        std::string reason = CheckServer(servers.substr(begin, end - begin));
        if (!reason.empty())
        {
            return reason;
        }
        begin = end + 1;
    }
    return {};
}

std::string CheckPath(const std::string& path)
{
    try
    {
        const std::string right = "/" + NormalizePath(path);
        return path == right ? "" : "\"" + path + "\" is no absolute path: did you mean \"" + right + "\"?";
    }
    catch (const VelmorError&)
    {
        return "\"" + path + "\" is no absolute path, such as /services/billing";
    }
}

/// The client library counts milliseconds in an int.
void CheckTimeout(const char* option, const std::optional<milliseconds>& timeout)
{
    constexpr milliseconds kMost(std::numeric_limits<int>::max());
    if (timeout && *timeout > kMost)
    {
        const auto hours = std::chrono::duration_cast<std::chrono::hours>(kMost);
        throw Failure(kUsage, std::string(option) + ": " + FormatDuration(*timeout) + " is too long: the most is " +
                                  FormatDuration(hours));
    }
}

CLI::Option* AddChoice(CLI::App& application, const std::string& flag, std::string& value,
                       const std::vector<std::string>& choices, const std::string& description)
{
    return application.add_option(flag, value, description)
        ->type_name(CLI::detail::join(choices, "|"))
        ->check([choices](const std::string& given) -> std::string {
            return std::find(choices.begin(), choices.end(), given) != choices.end()
                       ? ""
                       : "\"" + given + "\" is none of " + CLI::detail::join(choices, ", ");
        });
}

class Descriptor
{
public:
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    ~Descriptor()
    {
        if (descriptor_ >= 0)
        {
            close(descriptor_);
        }
    }

    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int Get() const { return descriptor_; }

private:
    const int descriptor_;
};

}  // namespace

CommonOptions::CommonOptions(CLI::App& application, const std::string& group)
{
    std::vector<CLI::Option*> options;
    options.push_back(application.add_option("--servers", servers_, "The ZooKeeper servers")
                          ->type_name("HOST:PORT,...")
                          ->join()
                          ->check(CheckServers));
    options.push_back(application.add_option("--election", election_, "The election, as in /services/billing/leader")
                          ->type_name("PATH")
                          ->check(CheckPath));
    options.push_back(application.add_option("--root", root_, "Put in front of all paths, as in /apps/x")
                          ->type_name("PATH")
                          ->check([](const std::string& path) { return path.empty() ? path : CheckPath(path); }));
    options.push_back(AddDuration(application, "--session-timeout", sessionTimeout_,
                                  "How long the servers keep a place in the election after they last heard from its "
                                  "owner (default: 10s; demo: 2s)"));
    options.push_back(AddDuration(application, "--connect-timeout", connectTimeout_,
                                  "How long to wait for a first server to answer (default: 10s; run: for ever)"));
    options.push_back(
        application.add_option("--digest-file", digestFile_, "Holds \"user:password\" for the servers, in one line")
            ->type_name("FILE"));
    options.push_back(AddChoice(application, "--log-level", logLevel_, {"debug", "info", "warning", "error", "off"},
                                "What is told on standard error (default: warning; run: info)"));
    options.push_back(AddChoice(application, "--log-format", logFormat_, {"text", "json"},
                                "Of what is told on standard error: lines for people, or a JSON object each (default: "
                                "text)"));
    options.push_back(application
                          .add_option("--config", configurationFile_,
                                      "Read this configuration file (default: /etc/velmor.conf and "
                                      "~/.config/velmor.conf, as far as they exist)")
                          ->type_name("FILE"));
    for (CLI::Option* const option : options)
    {
        option->group(group);
    }
}

Settings CommonOptions::Complete(const Defaults& defaults) const
{
    Settings settings;
    // CLI11 puts lines together when there are several.
    settings.servers = servers_;
    std::replace(settings.servers.begin(), settings.servers.end(), '\n', ',');
    settings.election = election_.empty() ? defaults.election : election_;
    settings.root = root_;
    settings.sessionTimeout = sessionTimeout_.value_or(defaults.sessionTimeout);
    settings.connectTimeout = connectTimeout_ ? connectTimeout_ : defaults.connectTimeout;
    CheckTimeout("--session-timeout", settings.sessionTimeout);
    CheckTimeout("--connect-timeout", settings.connectTimeout);
    if (!digestFile_.empty())
    {
        settings.digest = ReadDigest(digestFile_);
    }
    return settings;
}

void CommonOptions::StartLog(const Defaults& defaults) const
{
    const auto level = logLevel_.empty() ? std::nullopt : logging::ParseLogLevel(logLevel_);
    SetUpLog(level, defaults.logLevel, LogsJson() ? LogFormat::Json : LogFormat::Text);
}

std::string ReadDigest(const std::string& file)
{
    const auto refuse = [&file](const std::string& reason) {
        throw Failure(kUsage, "--digest-file: " + file + ": " + reason);
    };
    const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status
    {};
    if (descriptor.Get() < 0 || fstat(descriptor.Get(), &status) != 0)
    {
        refuse(std::strerror(errno));
    }
    if ((status.st_mode & (S_IROTH | S_IWOTH)) != 0)
    {
        refuse("everybody may read or change it, and it holds a password: take that away by chmod o= " + file);
    }
    // No more than one over what is enough for anybody.
    std::array<char, 4097> buffer{};
    std::size_t size = 0;
    while (size < buffer.size())
    {
        const ssize_t got = read(descriptor.Get(), buffer.data() + size, buffer.size() - size);
        if (got < 0 && errno != EINTR)
        {
            refuse(std::strerror(errno));
        }
        if (got == 0)
        {
            break;
        }
        size += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
    std::string text(buffer.data(), size);
    text.erase(text.find_last_not_of("\r\n") + 1);
    const std::size_t colon = text.find(':');
    if (size == buffer.size() || colon == std::string::npos || colon == 0 ||
        text.find_first_of(std::string("\r\n\0", 3)) != std::string::npos)
    {
        refuse("it must hold one line like user:password");
    }
    return text;
}

}  // namespace kx::velmor::cli
