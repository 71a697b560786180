#include "tests/chaos/run.h"

#include "tests/chaos/ending.h"
#include "tests/chaos/member_log.h"

#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace kx::velmor::chaos {

namespace {

using std::chrono::milliseconds;

/// For what takes some seconds.
constexpr milliseconds kRestDeadline{60'000};
constexpr milliseconds kLook{20};
constexpr milliseconds kLookWhileLeaving{5};

constexpr const char* kFaultsFile = "faults.jsonl";

bool EndSignalPending()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    const timespec now{0, 0};
    return ::sigtimedwait(&signals, nullptr, &now) > 0;
}

}  // namespace

Run::Run(RunOptions options)
    : options_(std::move(options)),
      stage_(options_.subject, options_.members, options_.servers, options_.sessionTimeout, options_.directory),
      injector_(stage_),
      plan_({options_.seed, options_.members, options_.servers, options_.sessionTimeout, options_.subject,
             options_.without}),
      history_{{Now(), Now()}, options_.sessionTimeout, options_.subject}
{
    // Of an earlier run.
    std::filesystem::remove(options_.directory / kFaultsFile);
}

History Run::Play()
{
    Start();
    const Instant end = Now() + options_.length;
    while (!Interrupted() && Now() < end && (options_.successions == 0 || CountSuccessions() < options_.successions))
    {
        DoFault(plan_.Next());
    }
    std::cout << Clock() << " all faults are healed, after " << CountSuccessions() << " successions" << std::endl;
    const Ending ending = AwaitRest(stage_, options_.subject, kRestDeadline, [this] {
        LookAfterMembers();
        return Interrupted();
    });
    if (!interrupted_)
    {
        history_.ending = ending;
    }
    LookAfterMembers();
    // What follows is leaving, and says nothing about elections.
    history_.whole.end = Now();
    Leave();
    for (std::size_t i = 0; i < stage_.Members(); ++i)
    {
        history_.members.push_back(stage_.HistoryOf(i));
    }
    return std::move(history_);
}

void Run::Start()
{
    history_.whole.begin = Now();
    Fault start;
    start.kind = "start";
    start.label = "start";
    start.when = {Now(), Now()};
    stage_.StartServers();
    for (std::size_t i = 0; i < stage_.Members(); ++i)
    {
        stage_.StartMember(i);
    }
    const Ending begin = AwaitRest(stage_, options_.subject, kRestDeadline, [this] { return Interrupted(); });
    if (!begin.unrest.empty() && !interrupted_)
    {
        throw std::runtime_error("the election does not begin: " + begin.unrest);
    }
    start.when.end = Now();
    Note(start);
}

void Run::DoFault(const PlannedFault& planned)
{
    killing_ = planned.kind == FaultKind::KillMember;
    Fault fault = injector_.Strike(planned);
    std::cout << Clock() << ' ' << fault.label;
    if (planned.duration.count() > 0)
    {
        std::cout << " for " << planned.duration.count() << " ms";
    }
    std::cout << std::endl;
    Pass(planned.duration, planned.leaving);
    injector_.Undo();
    killing_ = false;
    fault.when.end = Now();
    Note(fault);
    Pass(planned.pause, planned.leaving && planned.kind != FaultKind::LeaveInTurn);
}

void Run::Pass(milliseconds time, bool leaving)
{
    const milliseconds look = leaving ? kLookWhileLeaving : kLook;
    const Instant end = Now() + time;
    while (!Interrupted() && Now() < end)
    {
        if (!killing_)
        {
            LookAfterMembers();
        }
        if (leaving)
        {
            injector_.HaveLeaderLeave();
        }
        ShowProgress();
        const auto left = std::chrono::duration_cast<milliseconds>(end - Now());
        std::this_thread::sleep_for(std::clamp(left, milliseconds(1), look));
    }
}

std::size_t Run::CountSuccessions()
{
    std::vector<const Member*> members;
    for (std::size_t i = 0; i < stage_.Members(); ++i)
    {
        members.push_back(&stage_.HistoryOf(i));
    }
    return Successions(members);
}

bool Run::Interrupted()
{
    interrupted_ = interrupted_ || EndSignalPending();
    return interrupted_;
}

void Run::LookAfterMembers()
{
    for (std::size_t i = 0; i < stage_.Members(); ++i)
    {
        if (!stage_.Process(i).Running())
        {
            const int code = stage_.Process(i).AwaitExit(milliseconds(0)).value_or(0);
            history_.casualties.push_back(Stage::NameOf(i) + " has ended by itself, with " + std::to_string(code));
            std::cout << Clock() << ' ' << history_.casualties.back() << std::endl;
            stage_.StartMember(i);
        }
    }
}

void Run::ShowProgress()
{
    if (!options_.progress || Now() < nextProgress_)
    {
        return;
    }
    nextProgress_ = Now() + std::chrono::seconds(1);
    std::string line;
    for (std::size_t i = 0; i < stage_.Members(); ++i)
    {
        const Member& member = stage_.HistoryOf(i);
        line += " " + member.name + " " + (member.roles.empty() ? "-" : member.roles.back().role);
    }
    std::cout << Clock() << line << std::endl;
}

void Run::Leave()
{
    // From the back, or each would become leader before it goes.
    for (std::size_t i = stage_.Members(); i > 0; --i)
    {
        try
        {
            process::ChildProcess& process = stage_.Process(i - 1);
            process.Terminate(kRestDeadline);
            const int code = process.AwaitExit(milliseconds(0)).value_or(0);
            if (code != EXIT_SUCCESS)
            {
                history_.casualties.push_back(Stage::NameOf(i - 1) + " did not leave in order, but with " +
                                              std::to_string(code));
            }
        }
        catch (const std::runtime_error& error)
        {
            history_.casualties.push_back(Stage::NameOf(i - 1) + ": " + error.what());
        }
    }
}

void Run::Note(const Fault& fault)
{
    history_.faults.push_back(fault);
    std::ofstream(options_.directory / kFaultsFile, std::ios::app) << ToJson(fault) << '\n';
}

std::string Run::Clock() const
{
    char text[32];
    std::snprintf(text, sizeof(text), "%8.3f s", static_cast<double>((Now() - history_.whole.begin).count()) / 1e6);
    return text;
}

}  // namespace kx::velmor::chaos
