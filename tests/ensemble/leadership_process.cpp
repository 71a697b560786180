// A process with one candidate that joins once, for leadership_servers_test to stop, to kill and to let fork.
//
//   leadership_process ask|destroy <servers> <election path> <session timeout, ms>
//
// It writes a line for each thing that happens, times in nanoseconds of CLOCK_BOOTTIME:
//
//   asked parent|child <time> <from> <until>   when `IsLeader` was last called, and what its answers prove; 0 0:
//   nothing extended <time>                            the lease ends later than a moment ago forked <process id> child
//   ended
//
// SIGUSR1 makes it fork: the child goes on asking, or destroys candidate and session and ends. SIGTERM makes the parent
// leave and end.
#include "tests/ensemble/lead_record.h"

#include <kx/velmor/session.h>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <string>

namespace {

using kx::velmor::BootClock;
using kx::velmor::Candidate;
using kx::velmor::CandidateOptions;
using kx::velmor::Session;
using kx::velmor::SessionOptions;
using kx::velmor::testing_support::LeadRecord;
using std::chrono::milliseconds;

constexpr milliseconds kTellEvery{10};
/// Each answer adds more than this to a lease.
constexpr milliseconds kExtension{100};
/// The child ends by itself after this long, also when the test has crashed.
constexpr unsigned kChildSeconds = 120;

long long Count(BootClock::time_point time)
{
    return static_cast<long long>(time.time_since_epoch().count());
}

/// Takes no lock and fills no buffer that a forked child would inherit in the middle of its use.
template <typename... Values>
void Tell(const char* format, Values... values)
{
    char line[160];
    const int length = std::snprintf(line, sizeof line, format, values...);
    if (::write(STDOUT_FILENO, line, static_cast<std::size_t>(length)) != length)
    {
        ::_exit(EXIT_FAILURE);
    }
}

/// Asks a candidate and tells what the answers prove: at each change, and now and then.
class Questions
{
public:
    explicit Questions(const char* name) : name_(name) {}

    void Ask(const Candidate& candidate)
    {
        const bool leads = record_.Ask(candidate);
        if (leads == led_ && record_.Asked() < nextTelling_)
        {
            return;
        }
        led_ = leads;
        nextTelling_ = record_.Asked() + kTellEvery;
        const auto lead = record_.Known().value_or(kx::velmor::testing_support::Lead{});
        Tell("asked %s %lld %lld %lld\n", name_, Count(record_.Asked()), Count(lead.from), Count(lead.until));
    }

private:
    const char* const name_;
    LeadRecord record_;
    bool led_ = false;
    BootClock::time_point nextTelling_{};
};

/// Returns after a hundred microseconds, or with a signal.
int AwaitSignal(const sigset_t& signals)
{
    const timespec pause{0, 100'000};
    return ::sigtimedwait(&signals, nullptr, &pause);
}

[[noreturn]] void BeChild(std::unique_ptr<Candidate>& candidate, std::shared_ptr<Session>& session, bool destroys,
                          const sigset_t& signals)
{
    // From the first instruction on.
    Questions questions("child");
    questions.Ask(*candidate);
    ::alarm(kChildSeconds);
    while (!destroys && AwaitSignal(signals) != SIGTERM)
    {
        questions.Ask(*candidate);
    }
    if (destroys)
    {
        candidate->Stop();
        candidate.reset();
        session->Close();
        session.reset();
    }
    Tell("%s\n", "child ended");
    ::_exit(EXIT_SUCCESS);
}

int TakePart(const SessionOptions& options, const std::string& path, bool childDestroys)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    // Before there are other threads, which inherit it.
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    auto session = Session::Open(options);
    CandidateOptions election;
    election.electionPath = path;
    election.rejoin = false;
    auto candidate = std::make_unique<Candidate>(session, std::move(election));
    candidate->Start();
    Questions questions("parent");
    milliseconds left{0};
    for (;;)
    {
        questions.Ask(*candidate);
        const milliseconds before = std::exchange(left, candidate->LeaseLeft());
        if (left > before + kExtension)
        {
            Tell("extended %lld\n", Count(BootClock::now()));
        }
        switch (AwaitSignal(signals))
        {
            case SIGUSR1: {
                const pid_t child = ::fork();
                if (child == 0)
                {
                    BeChild(candidate, session, childDestroys, signals);
                }
                Tell("forked %d\n", static_cast<int>(child));
                break;
            }
            case SIGTERM:
                candidate->Stop();
                session->Close();
                return EXIT_SUCCESS;
            default:
                break;
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 5)
    {
        std::cerr << "usage: leadership_process ask|destroy <servers> <election path> <session timeout, ms>\n";
        return EXIT_FAILURE;
    }
    SessionOptions options;
    options.servers = argv[2];
    options.sessionTimeout = milliseconds(std::stoi(argv[4]));
    options.connectTimeout = std::chrono::seconds(20);
    try
    {
        return TakePart(options, argv[3], std::string(argv[1]) == "destroy");
    }
    catch (const std::exception& error)
    {
        std::cerr << "leadership_process: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
