#include "tests/chaos/recipe_member.h"

#include "tests/chaos/watcher.h"

#include <kx/velmor/error.h>

#include <algorithm>
#include <string>
#include <utility>

namespace kx::velmor::chaos {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLook{20};
constexpr milliseconds kAskEvery{200};
constexpr milliseconds kFirstDelay{20};
constexpr milliseconds kLongestDelay{1'000};

}  // namespace

RecipeMember::RecipeMember(MemberOptions options, std::shared_ptr<Session> session, MemberLog& log)
    : options_(std::move(options)),
      session_(std::move(session)),
      log_(log),
      book_(log_),
      candidate_(std::make_shared<CandidateImpl>(
          session_, options_.path, [this] { book_.Elected("leader"); }, [this] { book_.Elected("next"); }))
{}

void RecipeMember::Run()
{
    {
        const Watcher watcher(candidate_, session_, book_, log_);
        TakePart();
    }
    session_->Close();
    book_.Left();
}

void RecipeMember::TakePart()
{
    bool joined = false;
    milliseconds delay{0};
    while (true)
    {
        const Request request = AwaitRequest(delay);
        if (request == Request::Leave)
        {
            break;
        }
        if (!joined)
        {
            joined = TryToJoin();
            delay = joined ? kLook : std::clamp(2 * delay, kFirstDelay, kLongestDelay);
        }
        else if (request == Request::LeaveAndJoinAgain || FellOut())
        {
            TryToLeave();
            joined = false;
            delay = milliseconds(0);
        }
    }
    TryToLeave();
}

bool RecipeMember::TryToJoin()
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

void RecipeMember::TryToLeave()
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

bool RecipeMember::FellOut()
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

bool RecipeMember::AskedOut(const RoleBook::Stay& stay, Instant now)
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

}  // namespace kx::velmor::chaos
