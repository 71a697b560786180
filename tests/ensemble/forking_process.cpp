// A process that leads an election and forks, for candidate_fork_test to end while its child lives on.
//
//   forking_process <servers> <election path> <session timeout, ms>
//
// The child asks what it has inherited whether it leads, all the time, and queues up with a candidate of its own. Both
// say what they do, a line each, and end with SIGTERM.
#include <kx/velmor/candidate.h>
#include <kx/velmor/session.h>

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace {

using kx::velmor::Candidate;
using kx::velmor::CandidateOptions;
using kx::velmor::Leadership;
using kx::velmor::LossReason;
using kx::velmor::Role;
using kx::velmor::Session;
using kx::velmor::SessionOptions;
using std::chrono::milliseconds;

constexpr std::chrono::seconds kPatience{20};

/// Should nobody end the child: its parent may be gone.
constexpr unsigned int kLifetimeSeconds = 60;

void Say(const std::string& line)
{
    std::cout << line << std::endl;
}

struct Member
{
    std::shared_ptr<Session> session;
    std::unique_ptr<Candidate> candidate;
};

Member Join(const SessionOptions& options, const std::string& path, const std::string& name)
{
    Member member;
    member.session = Session::Open(options);
    CandidateOptions election;
    election.electionPath = path;
    election.identity = name;
    election.onLeader = [name](const Leadership&) { Say(name + " gained"); };
    election.onLeaderLost = [name](LossReason reason) { Say(name + " lost: " + ToString(reason)); };
    member.candidate = std::make_unique<Candidate>(member.session, std::move(election));
    member.candidate->Start();
    return member;
}

bool EndIsAsked(milliseconds wait)
{
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    const timespec pause{0, static_cast<long>(std::chrono::nanoseconds(wait).count())};
    return ::sigtimedwait(&ending, nullptr, &pause) == SIGTERM;
}

/// How often it was asked, and how often the answer was that it leads.
struct Answers
{
    std::uint64_t all = 0;
    std::uint64_t yes = 0;

    void Ask(const Candidate& candidate, const Leadership& leadership)
    {
        ++all;
        yes += candidate.IsLeader() || leadership.Stands() || candidate.LeaseLeft().count() > 0 ||
                       candidate.CurrentLeadership() || candidate.CurrentRole() != Role::Stopped
                   ? 1
                   : 0;
    }
};

int BeTheChild(Member inherited, const Leadership& leadership, const SessionOptions& options, const std::string& path)
{
    ::alarm(kLifetimeSeconds);
    Answers answers;
    answers.Ask(*inherited.candidate, leadership);
    Say("child " + std::to_string(::getpid()));

    const Member own = Join(options, path, "child");
    while (!EndIsAsked(milliseconds(1)))
    {
        answers.Ask(*inherited.candidate, leadership);
    }
    Say("child asked " + std::string(answers.all > 1 ? "often" : "once") + ", led " + std::to_string(answers.yes) +
        " times");
    own.candidate->Stop();
    own.session->Close();
    return EXIT_SUCCESS;
}

/// Another child, which stops, closes and destroys what it has inherited, and exits like any program.
void ForkOneThatDestroysAll(Member& member, const Leadership& leadership)
{
    if (::fork() == 0)
    {
        // Should it hang.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        Answers answers;
        answers.Ask(*member.candidate, leadership);
        member.candidate->Stop();
        member.session->Close();
        member = Member();
        Say("second child has destroyed all, led " + std::to_string(answers.yes) + " times");
        std::exit(EXIT_SUCCESS);
    }
}

/// Waits until the servers have heard from the session for longer than they keep it.
void AwaitRefreshes(const Session& session, milliseconds timeout)
{
    const auto begin = session.Now();
    while (session.Status().lastHeard.value_or(begin) - begin <= timeout)
    {
        if (EndIsAsked(milliseconds(20)) || session.Status().state == kx::velmor::SessionState::Closed)
        {
            return;
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
    {
        std::cerr << "usage: forking_process <servers> <election path> <session timeout, ms>\n";
        return EXIT_FAILURE;
    }
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    // Before there are other threads, which inherit it.
    ::pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    const std::string path = argv[2];
    SessionOptions options;
    options.servers = argv[1];
    options.sessionTimeout = milliseconds(std::stoi(argv[3]));
    options.connectTimeout = kPatience;

    Member member = Join(options, path, "parent");
    if (!member.candidate->WaitForRole(Role::Leader, kPatience))
    {
        std::cerr << "nobody leads\n";
        return EXIT_FAILURE;
    }
    const Leadership leadership = member.candidate->CurrentLeadership().value();
    if (::fork() == 0)
    {
        return BeTheChild(std::move(member), leadership, options, path);
    }
    ForkOneThatDestroysAll(member, leadership);
    AwaitRefreshes(*member.session, options.sessionTimeout);
    Say(leadership.Stands() ? "parent leads on" : "parent leads no more");
    while (!EndIsAsked(milliseconds(500)))
    {}
    member.candidate->Stop();
    Say("parent has left");
    member.session->Close();
    return EXIT_SUCCESS;
}
