#include "tests/ensemble/leadership_fixture.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <sstream>
#include <utility>

namespace kx::velmor::testing_support {

namespace {

CandidateOptions JoinsOnce(const std::string& electionPath)
{
    CandidateOptions options;
    options.electionPath = electionPath;
    options.rejoin = false;
    return options;
}

BootClock::time_point ReadTime(std::istream& line)
{
    BootClock::rep count = 0;
    line >> count;
    return BootClock::time_point(BootClock::duration(count));
}

}  // namespace

WatchedMember::WatchedMember(const std::string& servers, const std::string& electionPath,
                             std::chrono::milliseconds sessionTimeout)
    : session_([&] {
          SessionOptions options;
          options.servers = servers;
          options.sessionTimeout = sessionTimeout;
          options.connectTimeout = kPatience;
          return Session::Open(options);
      }()),
      candidate_(session_, JoinsOnce(electionPath)),
      thread_([this] { Watch(); })
{
    candidate_.Start();
}

WatchedMember::~WatchedMember()
{
    ends_ = true;
    thread_.join();
}

void WatchedMember::Watch()
{
    while (!ends_)
    {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            record_.Ask(candidate_);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
}

void WatchedMember::AwaitTimeout(std::chrono::milliseconds timeout) const
{
    Await("the servers grant " + std::to_string(timeout.count()) + " ms", [&] {
        const SessionStatus status = session_->Status();
        const bool granted = status.state == SessionState::Connected && status.negotiatedTimeout == timeout;
        return granted || candidate_.CurrentRole() == Role::Stopped;
    });
}

bool WatchedMember::AwaitExtension() const
{
    std::chrono::milliseconds left = candidate_.LeaseLeft();
    Await("the lease is extended", [&] {
        const std::chrono::milliseconds before = std::exchange(left, candidate_.LeaseLeft());
        return left > before || left.count() == 0;
    });
    return left.count() > 0;
}

LeadRecord WatchedMember::Record() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return record_;
}

void WatchedMember::AwaitAskedAfter(BootClock::time_point time) const
{
    Await("an answer", [&] { return Record().Asked() > time; });
}

LeadershipProcess::LeadershipProcess(const std::string& childDoes, const std::string& servers,
                                     const std::string& electionPath, std::chrono::milliseconds sessionTimeout)
{
    process::ProcessOptions options;
    options.command = {LEADERSHIP_PROCESS, childDoes, servers, electionPath, std::to_string(sessionTimeout.count())};
    options.onLine = [this](const std::string& line) { Take(line); };
    process_.emplace(std::move(options));
}

LeadershipProcess::~LeadershipProcess()
{
    process_->Kill();
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (child_ != 0 && !childEnded_)
        {
            ::kill(child_, SIGKILL);
        }
    }
    // Waits for the end of what they write.
    process_.reset();
}

void LeadershipProcess::Take(const std::string& text)
{
    std::istringstream line(text);
    std::string what;
    line >> what;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (what == "asked")
    {
        std::string name;
        line >> name;
        Answers& answers = answers_[name];
        answers.asked = ReadTime(line);
        const BootClock::time_point from = ReadTime(line);
        const BootClock::time_point until = ReadTime(line);
        if (from != BootClock::time_point())
        {
            answers.lead = Lead{from, until};
        }
    }
    else if (what == "extended")
    {
        extended_ = ReadTime(line);
    }
    else if (what == "forked")
    {
        line >> child_;
    }
    else if (what == "child")
    {
        childEnded_ = true;
    }
}

LeadershipProcess::Answers LeadershipProcess::Of(const std::string& name) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = answers_.find(name);
    return found == answers_.end() ? Answers{} : found->second;
}

bool LeadershipProcess::ParentLeads() const
{
    const Answers answers = OfParent();
    return answers.lead && answers.lead->until == answers.asked;
}

BootClock::time_point LeadershipProcess::Extended() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return extended_;
}

void LeadershipProcess::Fork()
{
    process_->Signal(SIGUSR1);
    Await("the child asks", [this] { return OfChild().asked != BootClock::time_point(); });
}

bool LeadershipProcess::ChildEnded() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return childEnded_;
}

void ExpectApart(const std::optional<Lead>& first, const std::optional<Lead>& second)
{
    ASSERT_TRUE(first && second);
    const auto both = std::min(first->until, second->until) - std::max(first->from, second->from);
    EXPECT_LE(both.count(), 0) << "both led, for "
                               << std::chrono::duration_cast<std::chrono::milliseconds>(both).count() << " ms at least";
}

void Produce(const std::function<bool(const std::string& electionPath)>& attempt)
{
    constexpr int kAttempts = 5;
    for (int i = 1; i <= kAttempts; ++i)
    {
        if (attempt("/leadership-" + std::to_string(i)) || ::testing::Test::HasFatalFailure())
        {
            return;
        }
    }
    FAIL() << "the machine was too slow for what is tested, " << kAttempts << " times";
}

}  // namespace kx::velmor::testing_support
