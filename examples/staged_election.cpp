#include "examples/staged_election.h"

#include "tests/support/await.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <optional>
#include <random>
#include <sstream>
#include <stdexcept>

namespace kx::velmor::demo {

namespace {

using std::chrono::milliseconds;

/// The example, which is built into the same directory.
std::string ParticipantProgram()
{
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "velmor_election").string();
}

std::string UniquePath()
{
    std::ostringstream path;
    path << "/velmor-demo-" << std::hex << std::random_device{}() << std::random_device{}();
    return path.str();
}

}  // namespace

sigset_t EndSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

void Await(const std::string& what, milliseconds deadline, const std::function<bool()>& condition,
           const std::function<std::string()>& explain)
{
    support::Await(
        what,
        [&] {
            const sigset_t signals = EndSignals();
            const timespec now{0, 0};
            if (::sigtimedwait(&signals, nullptr, &now) > 0)
            {
                throw Interrupted();
            }
            return condition();
        },
        deadline, explain);
}

StagedElection::StagedElection(const std::string& servers, milliseconds sessionTimeout)
    : servers_(servers), sessionTimeout_(sessionTimeout), path_(UniquePath()), client_(servers, sessionTimeout)
{}

StagedElection::~StagedElection()
{
    processes_.clear();
    try
    {
        // A request of a process that has just been killed may still be on its way.
        support::Await("the election path can be removed", [this] {
            try
            {
                client_.DeleteAll(path_);
                client_.DeleteAll(path_ + "-identities");
                client_.Sync();
                return !client_.Exists(path_) && !client_.Exists(path_ + "-identities");
            }
            catch (const std::runtime_error&)
            {
                return false;
            }
        });
    }
    catch (const std::runtime_error& error)
    {
        std::cerr << "demo: " << path_ << " stays behind on the servers: " << error.what() << '\n';
    }
}

void StagedElection::Join(const std::string& name)
{
    process::ProcessOptions options;
    options.command = {ParticipantProgram(),
                       "--servers",
                       servers_,
                       "--path",
                       path_,
                       "--name",
                       name,
                       "--session-timeout",
                       std::to_string(sessionTimeout_.count()) + "ms"};
    options.output = LogOf(name);
    options.onLine = [this](const std::string& line) { board_.OnLine(line); };
    processes_[name] = std::make_unique<process::ChildProcess>(options);
    Await(name + " joins", kPromptly, [&] {
        CheckProcess(name);
        const Scoreboard::Entries entries = board_.Now();
        const auto entry = entries.find(name);
        return entry != entries.end() && entry->second.role != "joining";
    });
}

void StagedElection::AwaitQuiet(milliseconds deadline)
{
    std::string odd;
    Await(
        "all agree on who leads and who is next", deadline,
        [&] {
            CheckAll();
            odd = Oddity();
            return odd.empty();
        },
        [&] { return odd; });
}

void StagedElection::CheckAll()
{
    const std::string problem = board_.Problem();
    if (!problem.empty())
    {
        throw std::runtime_error(problem);
    }
    for (const auto& [name, entry] : board_.Now())
    {
        if (entry.away.empty())
        {
            CheckProcess(name);
        }
    }
}

void StagedElection::PrintLogs() const
{
    for (const auto& [name, process] : processes_)
    {
        std::ifstream file(LogOf(name));
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);)
        {
            lines.push_back(line);
        }
        constexpr std::size_t kTail = 10;
        std::cerr << "--- the end of " << name << "'s log\n";
        for (std::size_t i = lines.size() - std::min(lines.size(), kTail); i < lines.size(); ++i)
        {
            std::cerr << lines[i] << '\n';
        }
    }
}

std::vector<std::string> StagedElection::Queue()
{
    client_.Sync();
    return client_.List(path_);
}

void StagedElection::CheckProcess(const std::string& name)
{
    if (!Process(name).Running())
    {
        throw std::runtime_error(name + " has ended by itself");
    }
}

std::string StagedElection::Oddity()
{
    const Scoreboard::Entries entries = board_.Now();
    const std::vector<std::string> queue = Queue();
    std::size_t present = 0;
    for (const auto& [name, entry] : entries)
    {
        if (!entry.away.empty())
        {
            continue;
        }
        ++present;
        const auto place = std::find(queue.begin(), queue.end(), entry.node);
        if (place == queue.end())
        {
            return name + " is not in the queue: " + Joined(queue);
        }
        const std::string due = place == queue.begin() ? "leader" : place == queue.begin() + 1 ? "next" : "follower";
        if (entry.role != due)
        {
            return Joined({name, "says", entry.role, "where the queue says", due});
        }
        const std::optional<Stat> stat = client_.Exists(path_ + "/" + entry.node);
        if (!stat || stat->ephemeralOwner != std::stoll(entry.session, nullptr, 16))
        {
            return name + "'s node belongs to another session";
        }
    }
    return queue.size() == present ? "" : "somebody else is in the queue: " + Joined(queue);
}

}  // namespace kx::velmor::demo
