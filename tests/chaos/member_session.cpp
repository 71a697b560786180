#include "tests/chaos/member_session.h"

#include <kx/velmor/error.h>

#include <signal.h>

namespace kx::velmor::chaos {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kBetweenAttempts{20};

sigset_t Signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGUSR1);
    sigaddset(&signals, SIGUSR2);
    return signals;
}

}  // namespace

void HoldRequests()
{
    const sigset_t signals = Signals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

Request AwaitRequest(milliseconds time)
{
    const sigset_t signals = Signals();
    const timespec limit{time.count() / 1000, static_cast<long>(time.count() % 1000) * 1'000'000};
    switch (::sigtimedwait(&signals, nullptr, &limit))
    {
        case SIGTERM:
        case SIGINT:
            return Request::Leave;
        case SIGUSR1:
            return Request::LeaveAndJoinAgain;
        case SIGUSR2:
            return Request::Fork;
        default:
            return Request::None;
    }
}

std::shared_ptr<Session> OpenSession(const MemberOptions& options, MemberLog& log)
{
    SessionOptions session;
    session.servers = options.servers;
    session.sessionTimeout = options.sessionTimeout;
    session.connectTimeout = options.sessionTimeout;
    do
    {
        try
        {
            return Session::Open(session);
        }
        catch (const VelmorError& error)
        {
            log.Trouble(std::string("open: ") + error.what());
        }
    } while (AwaitRequest(kBetweenAttempts) != Request::Leave);
    return nullptr;
}

}  // namespace kx::velmor::chaos
