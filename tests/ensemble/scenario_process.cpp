// A process with members of an election, for scenario_process_test to stop, to starve and to let end in odd ways.
//
//   scenario_process stay|return|exit|candidates|owned-candidates <servers> <election path> <session timeout, ms>
#include "source/candidate_impl.h"

#include <kx/velmor/candidate.h>
#include <kx/velmor/error.h>
#include <kx/velmor/session.h>

#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using kx::velmor::Candidate;
using kx::velmor::CandidateImpl;
using kx::velmor::CandidateOptions;
using kx::velmor::Session;
using kx::velmor::SessionOptions;
using kx::velmor::VelmorError;
using std::chrono::milliseconds;

constexpr int kExitFromMain = 7;
constexpr int kExitFromThread = 8;
constexpr int kCandidatesExit = 9;

/// What callbacks use, and what is destroyed when the process ends.
class Lines
{
public:
    void Say(const std::string& line)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        said_.push_back(line);
        std::cout << line << std::endl;
    }

private:
    std::mutex mutex_;
    std::vector<std::string> said_;
};

struct Member
{
    std::shared_ptr<Session> session;
    std::shared_ptr<CandidateImpl> candidate;
};

Member Join(const SessionOptions& options, const std::string& path, Lines& lines)
{
    Member member;
    member.session = Session::Open(options);
    member.candidate = std::make_shared<CandidateImpl>(
        member.session, path, [&lines] { lines.Say("leads"); }, [&lines] { lines.Say("next"); });
    member.candidate->Start();
    lines.Say("joined");
    return member;
}

std::int64_t SessionId(const Session& session)
{
    const auto identity = session.ClientId();
    return identity ? identity->client_id : 0;
}

/// Until it is told to leave; joins again when its session is another one.
int Stay(const SessionOptions& options, const std::string& path)
{
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    // Before there are other threads, which inherit it.
    ::pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    Lines lines;
    const Member member = Join(options, path, lines);
    std::int64_t joined = SessionId(*member.session);
    const timespec pause{0, 20'000'000};
    while (::sigtimedwait(&ending, nullptr, &pause) != SIGTERM)
    {
        const std::int64_t now = SessionId(*member.session);
        if (now == 0 || now == joined)
        {
            continue;
        }
        try
        {
            member.candidate->Stop();
            member.candidate->Start();
            joined = now;
            lines.Say("joined again");
        }
        catch (const VelmorError& error)
        {
            std::cerr << "cannot join again yet: " << error.what() << '\n';
        }
    }
    member.candidate->Stop();
    member.session->Close();
    return EXIT_SUCCESS;
}

/// Three members, of which two come and go, so that events are under way. Nothing is ever closed.
void LeaveAllOpen(const SessionOptions& options, const std::string& path)
{
    static Lines lines;
    static std::vector<Member> members;
    for (int i = 0; i < 3; ++i)
    {
        members.push_back(Join(options, path, lines));
    }
    std::atomic<bool> done{false};
    std::vector<std::thread> owners;
    for (const std::size_t restless : {0U, 1U})
    {
        owners.emplace_back([&done, candidate = members[restless].candidate] {
            while (!done)
            {
                candidate->Stop();
                candidate->Start();
            }
        });
    }
    std::this_thread::sleep_for(milliseconds(50));
    done = true;
    // The events of their last steps are on their way.
    for (std::thread& owner : owners)
    {
        owner.join();
    }
}

/// Three candidates, of which two come and go. They are left as they are, or `destroyed` with the static objects.
void LeaveCandidatesOpen(const SessionOptions& options, const std::string& path, bool destroyed)
{
    static Lines lines;
    static auto& abandoned = *new std::vector<std::unique_ptr<Candidate>>;
    static std::vector<std::unique_ptr<Candidate>> owned;
    std::vector<std::unique_ptr<Candidate>>& candidates = destroyed ? owned : abandoned;
    CandidateOptions election;
    election.electionPath = path + "-of-candidates";
    election.firstRejoinDelay = milliseconds(1);
    election.onRoleChange = [](kx::velmor::Role role) { lines.Say(ToString(role)); };
    for (int i = 0; i < 3; ++i)
    {
        candidates.push_back(std::make_unique<Candidate>(Session::Open(options), election));
        candidates.back()->Start();
    }
    for (int i = 0; i < 3; ++i)
    {
        candidates[0]->WaitForRole(kx::velmor::Role::Leader, milliseconds(100));
        candidates[0]->Stop();
        candidates[0]->Start();
        candidates[1]->Stop();
        candidates[1]->Start();
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 5)
    {
        std::cerr << "usage: scenario_process stay|return|exit|candidates|owned-candidates <servers> <election path> "
                     "<session timeout, ms>\n";
        return EXIT_FAILURE;
    }
    const std::string mode = argv[1];
    SessionOptions options;
    options.servers = argv[2];
    options.sessionTimeout = milliseconds(std::stoi(argv[4]));
    options.connectTimeout = std::chrono::seconds(20);
    if (mode == "stay")
    {
        return Stay(options, argv[3]);
    }
    if (mode == "candidates" || mode == "owned-candidates")
    {
        LeaveCandidatesOpen(options, argv[3], mode == "owned-candidates");
        return kCandidatesExit;
    }
    LeaveAllOpen(options, argv[3]);
    if (mode == "exit")
    {
        std::thread([] { std::exit(kExitFromThread); }).join();
    }
    return kExitFromMain;
}
