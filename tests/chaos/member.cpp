// One process of the fault run: a session and a candidate, joined again whenever the candidate falls out of the queue.
// All that it finds out about itself goes into its history. Start reading at `Owner::Run`.

#include "tests/chaos/member_log.h"
#include "tests/chaos/role_book.h"
#include "tests/chaos/watcher.h"

#include <kx/velmor/error.h>
#include <kx/velmor/session.h>

#include <CLI/CLI.hpp>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <string>

namespace {

using kx::velmor::CandidateImpl;
using kx::velmor::Session;
using kx::velmor::SessionOptions;
using kx::velmor::SessionState;
using kx::velmor::SessionStatus;
using kx::velmor::VelmorError;
using kx::velmor::chaos::Instant;
using kx::velmor::chaos::MemberLog;
using kx::velmor::chaos::Now;
using kx::velmor::chaos::RoleBook;
using kx::velmor::chaos::Watcher;
using std::chrono::milliseconds;

struct Options
{
    std::string servers;
    std::string path;
    std::string history;
    int sessionTimeout = 2'000;
};

/// What `main` has blocked so that it waits for us: SIGTERM asks to leave, SIGUSR1 to leave and join again.
sigset_t Requests()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGUSR1);
    return signals;
}

/// The signal that came within this time, if any.
int AwaitRequest(milliseconds time)
{
    const sigset_t signals = Requests();
    const timespec limit{time.count() / 1000, static_cast<long>(time.count() % 1000) * 1'000'000};
    return ::sigtimedwait(&signals, nullptr, &limit);
}

class Owner
{
public:
    explicit Owner(const Options& options) : options_(options), log_(options.history), book_(log_) {}

    void Run()
    {
        log_.Started();
        if (!OpenSession())
        {
            return;
        }
        const auto stateChanges = session_->OnStateChange(
            [this](const SessionStatus& status) { log_.Session(status, session_->ClientId().get()); });
        candidate_ = std::make_shared<CandidateImpl>(
            session_, options_.path, [this] { book_.Elected("leader"); }, [this] { book_.Elected("next"); });
        {
            const Watcher watcher(candidate_, session_, book_, log_);
            TakePart();
        }
        session_->Close();
        book_.Left();
    }

private:
    /// False when it was asked to leave before there was a session.
    bool OpenSession()
    {
        SessionOptions options;
        options.servers = options_.servers;
        options.sessionTimeout = milliseconds(options_.sessionTimeout);
        options.connectTimeout = options.sessionTimeout;
        while (!session_)
        {
            try
            {
                session_ = Session::Open(options);
            }
            catch (const VelmorError& error)
            {
                log_.Trouble(std::string("open: ") + error.what());
                const int request = AwaitRequest(kFirstDelay);
                if (request == SIGTERM || request == SIGINT)
                {
                    return false;
                }
            }
        }
        return true;
    }

    /// Until it is asked to leave.
    void TakePart()
    {
        bool joined = false;
        milliseconds delay{0};
        while (true)
        {
            const int request = AwaitRequest(delay);
            if (request == SIGTERM || request == SIGINT)
            {
                break;
            }
            if (!joined)
            {
                joined = TryToJoin();
                delay = joined ? kLook : std::clamp(2 * delay, kFirstDelay, kLongestDelay);
            }
            else if (request == SIGUSR1 || FellOut())
            {
                TryToLeave();
                joined = false;
                delay = milliseconds(0);
            }
        }
        TryToLeave();
    }

    bool TryToJoin()
    {
        const SessionStatus status = session_->Status();
        if (status.state != SessionState::Connected)
        {
            log_.Turn();
            return false;
        }
        book_.Join(status.sessionId);
        try
        {
            candidate_->Start();
        }
        catch (const VelmorError& error)
        {
            log_.Trouble(std::string("join: ") + error.what());
            return false;
        }
        book_.Joined();
        known_ = false;
        nextQuestion_ = Instant{0};
        return true;
    }

    void TryToLeave()
    {
        book_.Lost();
        try
        {
            candidate_->Stop();
        }
        catch (const VelmorError& error)
        {
            // Stopped all the same. The node goes with its session at the latest.
            log_.Trouble(std::string("leave: ") + error.what());
        }
    }

    /// Whether the session in which it joined is over, or its node gone: the candidate does not join again by itself.
    bool FellOut()
    {
        const RoleBook::Stay stay = book_.Present();
        const SessionStatus status = session_->Status();
        if (status.sessionId != stay.session || status.state == SessionState::Expired)
        {
            return true;
        }
        const Instant now = Now();
        if (now < nextQuestion_)
        {
            return false;
        }
        nextQuestion_ = now + kAskEvery;
        if (status.state != SessionState::Connected)
        {
            log_.Turn();
            return false;
        }
        return AskedOut(stay, now);
    }

    bool AskedOut(const RoleBook::Stay& stay, Instant now)
    {
        Stat stat{};
        const int rc = session_->Exists(options_.path + "/" + candidate_->Name(), &stat);
        if (rc == ZNONODE || (rc == ZOK && stat.ephemeralOwner != stay.session))
        {
            log_.Trouble(rc == ZOK ? "my node is somebody else's" : "my node is gone");
            return true;
        }
        if (rc != ZOK)
        {
            log_.Trouble(std::string("look: ") + zerror(rc));
            return false;
        }
        if (!known_)
        {
            known_ = true;
            log_.Node(stay.number, candidate_->Name(), stat.czxid);
        }
        log_.Queued(stay.number, now);
        return false;
    }

    static constexpr milliseconds kLook{20};
    static constexpr milliseconds kAskEvery{200};
    static constexpr milliseconds kFirstDelay{20};
    static constexpr milliseconds kLongestDelay{1'000};

    const Options options_;
    MemberLog log_;
    RoleBook book_;
    std::shared_ptr<Session> session_;
    std::shared_ptr<CandidateImpl> candidate_;
    bool known_ = false;
    Instant nextQuestion_{0};
};

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app("A member of the fault run's election.");
    app.add_option("--servers", options.servers, "ZooKeeper servers, as in host:2181,host:2181")->required();
    app.add_option("--path", options.path, "Where the election takes place")->required();
    app.add_option("--history", options.history, "File that the history is appended to")->required();
    app.add_option("--session-timeout", options.sessionTimeout, "In milliseconds")->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    // Before any thread starts, since threads take over what is blocked.
    const sigset_t requests = Requests();
    ::pthread_sigmask(SIG_BLOCK, &requests, nullptr);
    try
    {
        Owner(options).Run();
        return EXIT_SUCCESS;
    }
    catch (const std::exception& error)
    {
        std::cerr << "member: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
