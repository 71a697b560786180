#include "tests/support/zookeeper_server.h"

#include "process/child_process.h"
#include "tests/support/network.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/transaction_log.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace kx::velmor::testing_support {

namespace {

/// How often a server moves to another port before it gives up.
constexpr int kPortAttempts = 5;

/// For a server that runs.
constexpr std::chrono::milliseconds kAnswerDeadline{2'000};

/// For a server that starts, which now and then never answers whoever asked too early.
constexpr std::chrono::milliseconds kAnswerDeadlineAtStart{200};

/// The jar names all it depends on in its manifest, by absolute path.
std::string ClassPath()
{
    for (const std::filesystem::path directory : {"/usr/share/java", "/usr/local/share/java"})
    {
        const std::filesystem::path server = directory / "zookeeper.jar";
        const std::filesystem::path log = directory / "slf4j-simple.jar";
        if (std::filesystem::exists(server) && std::filesystem::exists(log))
        {
            return server.string() + ":" + log.string();
        }
    }
    throw std::runtime_error(
        "there is no zookeeper.jar and slf4j-simple.jar in /usr/share/java (script/bootstrap installs "
        "libzookeeper-java)");
}

}  // namespace

class ZooKeeperServer::Impl
{
public:
    explicit Impl(ServerOptions options) : options_(std::move(options)) {}

    std::filesystem::path DataDirectory() const { return directory_.Path() / "data"; }
    std::filesystem::path LogFile() const { return directory_.Path() / "server.log"; }
    std::filesystem::path ConfigurationFile() const { return directory_.Path() / "zoo.cfg"; }

    void WriteConfiguration() const
    {
        std::filesystem::create_directory(DataDirectory());
        std::ofstream file(ConfigurationFile());
        file << "tickTime=" << options_.tickTime.count() << '\n'
             << "dataDir=" << DataDirectory().string() << '\n'
             << "clientPortAddress=127.0.0.1\n"
             << "clientPort=" << port_ << '\n'
             << "admin.enableServer=false\n"
             << "4lw.commands.whitelist=*\n"
             << "maxClientCnxns=0\n"
             << "maxSessionTimeout=" << options_.maxSessionTimeout.count() << '\n'
             << "forceSync=" << (options_.forceSync ? "yes" : "no") << '\n';
        if (!peers_.empty())
        {
            file << "initLimit=50\nsyncLimit=" << options_.syncLimit << '\n';
            for (std::size_t i = 0; i < peers_.size(); ++i)
            {
                file << "server." << i + 1 << "=127.0.0.1:" << peers_[i].quorumPort << ':' << peers_[i].electionPort
                     << '\n';
            }
            std::ofstream(DataDirectory() / "myid") << position_ + 1 << '\n';
        }
        file.close();
        if (!file)
        {
            throw std::runtime_error("cannot write " + ConfigurationFile().string());
        }
    }

    void Launch()
    {
        WriteConfiguration();
        std::error_code absent;
        const std::uintmax_t size = std::filesystem::file_size(LogFile(), absent);
        logStart_ = absent ? 0 : static_cast<std::streamoff>(size);

        process::ProcessOptions options;
        options.command = {
            "java", "-Xmx" + std::to_string(options_.heapMegabytes) + "m", "-XX:+UseSerialGC",
            options_.compiler == ServerOptions::Compiler::Best ? "-XX:+TieredCompilation" : "-XX:TieredStopAtLevel=1",
            // No file in /tmp that a killed server leaves behind.
            "-XX:-UsePerfData"};
        if (const std::optional<std::string> classes = ClassesOption())
        {
            options.command.push_back(*classes);
        }
        for (const std::string& property : options_.properties)
        {
            options.command.push_back("-D" + property);
        }
        const std::string main = peers_.empty() ? "org.apache.zookeeper.server.ZooKeeperServerMain"
                                                : "org.apache.zookeeper.server.quorum.QuorumPeerMain";
        options.command.insert(options.command.end(), {"-cp", ClassPath(), main, ConfigurationFile().string()});
        options.output = LogFile();
        process_.emplace(std::move(options));
    }

    std::optional<std::string> ClassesOption() const
    {
        if (!options_.leaveClassesIn.empty())
        {
            return "-XX:ArchiveClassesAtExit=" + options_.leaveClassesIn.string();
        }
        const char* const classes = std::getenv(kServerClassesVariable);
        std::error_code absent;
        if (classes != nullptr && std::filesystem::is_regular_file(classes, absent))
        {
            return std::string("-XX:SharedArchiveFile=") + classes;
        }
        return std::nullopt;
    }

    process::ChildProcess& Process()
    {
        if (!process_)
        {
            throw std::runtime_error("the server has not been started");
        }
        return *process_;
    }

    bool Running() { return process_ && process_->Running(); }

    std::string LogFrom(std::streamoff start) const
    {
        std::ifstream file(LogFile());
        file.seekg(start);
        return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }

    bool PortTaken() const { return LogFrom(logStart_).find("Address already in use") != std::string::npos; }

    std::optional<std::string> Ask(const std::string& command) const
    {
        return FourLetterCommand(port_, command, kAnswerDeadline);
    }

    std::string Mode(std::chrono::milliseconds deadline) const
    {
        const std::optional<std::string> answer = FourLetterCommand(port_, "srvr", deadline);
        constexpr const char* kLabel = "Mode: ";
        const std::size_t begin = answer ? answer->find(kLabel) : std::string::npos;
        if (begin == std::string::npos)
        {
            return {};
        }
        const std::size_t value = begin + std::char_traits<char>::length(kLabel);
        return answer->substr(value, answer->find('\n', value) - value);
    }

    /// Whether it is this server, and not somebody else's, that answers on the port.
    bool IsOurs() const
    {
        const std::optional<std::string> answer = Ask("conf");
        return answer && answer->find(DataDirectory().string()) != std::string::npos;
    }

    ServerOptions options_;
    const TemporaryDirectory directory_;
    std::uint16_t port_ = options_.port != 0 ? options_.port : ChooseFreePort();
    std::size_t position_ = 0;
    std::vector<Peer> peers_;
    /// Where the running server's part of the log begins.
    std::streamoff logStart_ = 0;
    /// From then on others may know the address.
    bool hasServed_ = false;
    /// After the directory, so that it ends before the directory goes.
    std::optional<process::ChildProcess> process_;
};

ZooKeeperServer::ZooKeeperServer(ServerOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

ZooKeeperServer::~ZooKeeperServer() = default;

void ZooKeeperServer::Start()
{
    for (int attempt = 1;; ++attempt)
    {
        Launch();
        const Outcome outcome = AwaitOutcome(kPatience);
        if (outcome == Outcome::Serving)
        {
            return;
        }
        // Members of an ensemble know each other's ports; the ensemble moves as a whole.
        if (outcome != Outcome::PortTaken || impl_->hasServed_ || !impl_->peers_.empty() || attempt == kPortAttempts)
        {
            Fail(outcome == Outcome::TimedOut ? "does not serve" : "ended at start");
        }
        Kill();
        ChoosePorts();
    }
}

void ZooKeeperServer::Launch()
{
    if (Running())
    {
        throw std::runtime_error("the server is running already");
    }
    impl_->Launch();
}

void ZooKeeperServer::AwaitServing(std::chrono::milliseconds deadline)
{
    const Outcome outcome = AwaitOutcome(deadline);
    if (outcome != Outcome::Serving)
    {
        Fail(outcome == Outcome::TimedOut ? "does not serve" : "ended at start");
    }
}

void ZooKeeperServer::Kill()
{
    impl_->Process().Kill();
}

void ZooKeeperServer::Stop()
{
    impl_->Process().Terminate(kPatience);
}

void ZooKeeperServer::Pause()
{
    impl_->Process().Pause();
}

void ZooKeeperServer::Continue()
{
    impl_->Process().Continue();
}

void ZooKeeperServer::WipeData()
{
    if (Running())
    {
        throw std::runtime_error("the server is running, cannot wipe its data");
    }
    std::filesystem::remove_all(impl_->DataDirectory());
}

void ZooKeeperServer::SetMaxSessionTimeout(std::chrono::milliseconds limit)
{
    impl_->options_.maxSessionTimeout = limit;
}

void ZooKeeperServer::AddNode(const std::string& path, std::int32_t counter)
{
    if (Running())
    {
        throw std::runtime_error("the server is running, cannot add to its data");
    }
    RecordCreation(impl_->DataDirectory(), path, counter);
}

void ZooKeeperServer::Restart()
{
    Kill();
    Start();
}

bool ZooKeeperServer::Running() const
{
    return impl_->Running();
}

bool ZooKeeperServer::Serving() const
{
    return !Mode().empty();
}

std::string ZooKeeperServer::Address() const
{
    return LoopbackAddress(impl_->port_);
}

std::uint16_t ZooKeeperServer::Port() const
{
    return impl_->port_;
}

int ZooKeeperServer::Pid() const
{
    return impl_->Process().Pid();
}

std::string ZooKeeperServer::Ask(const std::string& command) const
{
    std::optional<std::string> answer = impl_->Ask(command);
    if (!answer)
    {
        throw std::runtime_error("the server at " + Address() + " does not answer " + command);
    }
    return *std::move(answer);
}

std::string ZooKeeperServer::Mode() const
{
    return impl_->Mode(kAnswerDeadline);
}

std::string ZooKeeperServer::Log() const
{
    return impl_->LogFrom(0);
}

void ZooKeeperServer::ChoosePorts()
{
    impl_->port_ = ChooseFreePort();
}

void ZooKeeperServer::JoinEnsemble(std::size_t position, std::vector<Peer> peers)
{
    impl_->position_ = position;
    impl_->peers_ = std::move(peers);
}

ZooKeeperServer::Outcome ZooKeeperServer::AwaitOutcome(std::chrono::milliseconds deadline)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (std::chrono::steady_clock::now() < end)
    {
        if (!Running())
        {
            return impl_->PortTaken() ? Outcome::PortTaken : Outcome::Ended;
        }
        if (!impl_->Mode(kAnswerDeadlineAtStart).empty() && impl_->IsOurs())
        {
            impl_->hasServed_ = true;
            return Outcome::Serving;
        }
        // A member of an ensemble lives on without its election port, but never gets anywhere.
        if (impl_->PortTaken())
        {
            return Outcome::PortTaken;
        }
        constexpr std::chrono::milliseconds kPause{10};
        impl_->Process().AwaitExit(kPause);
    }
    return Outcome::TimedOut;
}

void ZooKeeperServer::Fail(const std::string& what) const
{
    constexpr std::size_t kTail = 2000;
    std::string log = Log();
    if (log.size() > kTail)
    {
        log = "..." + log.substr(log.size() - kTail);
    }
    throw std::runtime_error("the server at " + Address() + " " + what + "; its log:\n" + log);
}

}  // namespace kx::velmor::testing_support
