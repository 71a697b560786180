#include "cli/demo/staged_election.h"

#include "cli/duration.h"
#include "cli/exit_status.h"

#include <kx/velmor/participants.h>
#include <kx/velmor/path.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace kx::velmor::demo {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kLook{10};

std::string UniquePath(const std::string& begin)
{
    std::ostringstream path;
    path << '/' << NormalizePath(begin) << '-' << std::hex << std::random_device{}() << std::random_device{}();
    return path.str();
}

/// `pause` comes between two looks.
void WaitFor(const std::string& what, milliseconds deadline, const std::function<bool()>& condition,
             const std::function<std::string()>& explain, const std::function<void()>& pause)
{
    const Clock::time_point end = Clock::now() + deadline;
    while (true)
    {
        // Read before asking: a process that is not scheduled still gets its last look.
        const bool late = Clock::now() >= end;
        if (condition())
        {
            return;
        }
        if (late)
        {
            throw std::runtime_error("waited in vain for " + cli::FormatDuration(deadline) + ": " + what +
                                     (explain ? "; " + explain() : std::string()));
        }
        pause();
    }
}

/// Waits for as long, or for a signal of `signals`, which is returned; 0 when there was none.
int Pause(const sigset_t& signals)
{
    const timespec limit{0, std::chrono::nanoseconds(kLook).count()};
    return std::max(0, ::sigtimedwait(&signals, nullptr, &limit));
}

}  // namespace

sigset_t EndSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
    {
        sigaddset(&signals, signal);
    }
    return signals;
}

void Await(const std::string& what, milliseconds deadline, const std::function<bool()>& condition,
           const std::function<std::string()>& explain)
{
    WaitFor(what, deadline, condition, explain, [] {
        const int signal = std::ferror(stdout) != 0 ? SIGPIPE : Pause(EndSignals());
        if (signal > 0)
        {
            throw Interrupted{signal};
        }
    });
}

StagedElection::StagedElection(const cli::Settings& settings)
    : settings_(settings),
      path_(UniquePath(settings.election)),
      digest_(settings.digest),
      session_(Session::OpenInBackground(SessionOptionsFor(settings)))
{
    // In place of `Open`, which no signal interrupts.
    const milliseconds patience = settings.connectTimeout.value_or(kPromptly);
    const Clock::time_point end = Clock::now() + patience;
    const auto connected = [this] { return session_->Status().state == SessionState::Connected; };
    Await("a server answers", 2 * patience, [&] { return connected() || Clock::now() >= end; });
    if (!connected())
    {
        throw cli::Failure(cli::kUnavailable,
                           "no server answered within " + cli::FormatDuration(patience) + ": " + settings.servers);
    }
    // Said here what the servers do not permit, in place of five times in a participant's log.
    EnsurePath(*session_, path_, false, ZOO_OPEN_ACL_UNSAFE);
}

StagedElection::~StagedElection()
{
    participants_.clear();
    try
    {
        // A request of a process that has just been killed may still be on its way.
        sigset_t none;
        sigemptyset(&none);
        WaitFor(
            "the election path can be removed", 2 * kPromptly,
            [this] {
                const bool identities = Gone(path_ + "-identities");
                return Gone(path_) && identities;
            },
            {}, [&] { Pause(none); });
    }
    catch (const std::runtime_error& error)
    {
        std::cerr << "velmor: " << settings_.root << path_ << " stays behind on the servers: " << error.what() << '\n';
    }
}

void StagedElection::Join(const std::string& name)
{
    Running& participant = participants_[name];
    participant.log = std::make_unique<MemoryFile>();

    process::ProcessOptions options;
    options.command = {"/proc/self/exe", "demo-participant",
                       // All that counts is given here: whatever configuration this process has read, it has read.
                       "--config", "/dev/null", "--servers", settings_.servers, "--election", path_, "--identity", name,
                       "--session-timeout", cli::FormatDuration(settings_.sessionTimeout), "--log-level", "info",
                       "--log-format", "text"};
    if (!settings_.root.empty())
    {
        options.command.insert(options.command.end(), {"--root", settings_.root});
    }
    if (!settings_.digest.empty())
    {
        options.command.insert(options.command.end(), {"--digest-file", digest_.Path()});
    }
    options.output = participant.log->Path();
    options.onLine = [this](const std::string& line) { board_.OnLine(line); };
    participant.process = std::make_unique<process::ChildProcess>(options);
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
    for (const auto& [name, participant] : participants_)
    {
        std::istringstream log(participant.log->Text());
        std::vector<std::string> lines;
        for (std::string line; std::getline(log, line);)
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

std::vector<std::string> StagedElection::Queue() const
{
    std::vector<std::string> nodes;
    for (const Participant& participant : Participants(*session_, path_))
    {
        nodes.push_back(participant.node);
    }
    return nodes;
}

void StagedElection::CheckProcess(const std::string& name)
{
    if (!Process(name).Running())
    {
        throw std::runtime_error(name + " has ended by itself");
    }
}

std::string StagedElection::Oddity() const
{
    // In this order: who joins or leaves in between is odd at this look, and not at the next one.
    const Scoreboard::Entries entries = board_.Now();
    const std::vector<Participant> queue = Participants(*session_, path_);
    std::size_t present = 0;
    for (const auto& [name, entry] : entries)
    {
        if (!entry.away.empty())
        {
            continue;
        }
        ++present;
        const auto place =
            std::find_if(queue.begin(), queue.end(),
                         [&node = entry.node](const Participant& participant) { return participant.node == node; });
        if (place == queue.end())
        {
            return name + " is not in the queue";
        }
        const std::string due = Word(place->role);
        if (entry.role != due)
        {
            return Joined({name, "says", entry.role, "where the queue says", due});
        }
        if (place->session != std::stoll(entry.session, nullptr, 16))
        {
            return name + "'s node belongs to another session";
        }
        if (place->identity != name)
        {
            return name + "'s node says that it is " + place->identity;
        }
    }
    return queue.size() == present ? "" : "somebody else is in the queue";
}

bool StagedElection::Gone(const std::string& path) const
{
    std::vector<std::string> children;
    const int rc = session_->GetChildren(path, children);
    const std::string parent = path + "/";
    for (const std::string& child : children)
    {
        session_->GuaranteedDelete(parent + child);
    }
    if (rc == ZOK)
    {
        session_->GuaranteedDelete(path);
    }
    return rc == ZNONODE;
}

}  // namespace kx::velmor::demo
