#include "tests/simulation/injector.h"

#include "tests/simulation/trace.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace kx::velmor::simulation {

namespace {

// What a forked child ends with.
constexpr int kChildIsRight = 0;
constexpr int kChildLeads = 61;
constexpr int kChildHasLease = 62;
constexpr int kChildStands = 63;
constexpr int kChildWaited = 64;
constexpr unsigned kChildMaxSeconds = 10;

int StatusOf(Participant::ForkFinding finding)
{
    switch (finding)
    {
        case Participant::ForkFinding::None:
            return kChildIsRight;
        case Participant::ForkFinding::Leads:
            return kChildLeads;
        case Participant::ForkFinding::HasLease:
            return kChildHasLease;
        case Participant::ForkFinding::Stands:
            return kChildStands;
    }
    return -1;
}

std::string Describe(int waitStatus)
{
    if (WIFSIGNALED(waitStatus))
    {
        return "ended by signal " + std::to_string(WTERMSIG(waitStatus));
    }
    switch (WEXITSTATUS(waitStatus))
    {
        case kChildLeads:
            return "IsLeader is true";
        case kChildHasLease:
            return "LeaseLeft is not 0";
        case kChildStands:
            return "Leadership::Stands is true";
        case kChildWaited:
            return "Stop, Close or a destructor waits";
        default:
            return "ended with status " + std::to_string(WEXITSTATUS(waitStatus));
    }
}

}  // namespace

Injector::Injector(VirtualMachine& machine, EnsembleModel& ensemble, Checks& checks, Participants& participants,
                   std::string electionPath, ServerLimits limits, bool trace)
    : machine_(machine),
      ensemble_(ensemble),
      checks_(checks),
      participants_(participants),
      electionPath_(std::move(electionPath)),
      limits_(limits),
      trace_(trace),
      lastServerOfSlot_(participants.slots.size()),
      servers_(ensemble.Servers()),
      pausedUntil_(Checks::kMaxParticipants)
{}

void Injector::Leads(const Participant& leader)
{
    leaderSlot_ = leader.Slot();
}

Participant* Injector::Resolve(const ProcessTarget& target) const
{
    switch (target.kind)
    {
        case ProcessTarget::Kind::Leader:
            return InSlot(leaderSlot_.value_or(0));
        case ProcessTarget::Kind::Same:
            return InSlot(lastSlot_.value_or(0));
        case ProcessTarget::Kind::Slot:
            return InSlot(target.slot);
        case ProcessTarget::Kind::Next:
            break;
    }
    for (Participant* const each : participants_.slots)
    {
        if (each != nullptr && each->LastRole() == Role::NextLeader)
        {
            return each;
        }
    }
    return InSlot(leaderSlot_.value_or(0) + 1);
}

std::size_t Injector::ServerOf(const Participant* target)
{
    if (target == nullptr)
    {
        return 0;
    }
    std::size_t& last = lastServerOfSlot_[target->Slot()];
    last = ensemble_.ConnectedServer(target->Process()).value_or(last);
    return last;
}

std::vector<std::size_t> Injector::Resolve(const ServerTarget& target)
{
    using Kind = ServerTarget::Kind;
    const std::size_t leader = ensemble_.Leader().value_or(0);
    // The ensemble's leader last.
    std::vector<std::size_t> all;
    for (std::size_t each = 1; each <= ensemble_.Servers(); ++each)
    {
        all.push_back((leader + each) % ensemble_.Servers());
    }
    switch (target.kind)
    {
        case Kind::All:
            return all;
        case Kind::Index:
            return {target.index % ensemble_.Servers()};
        case Kind::OfLeader:
            return {ServerOf(Resolve({ProcessTarget::Kind::Leader, 0}))};
        case Kind::OfNext:
            return {ServerOf(Resolve({ProcessTarget::Kind::Next, 0}))};
        case Kind::OfSame:
            return {ServerOf(Resolve({ProcessTarget::Kind::Same, 0}))};
        case Kind::OfSlot:
            return {ServerOf(InSlot(target.index))};
        case Kind::EnsembleLeader:
            return {leader};
        case Kind::Follower:
            return {all.front()};
        case Kind::Same:
            return lastServers_.empty() ? std::vector<std::size_t>{all.front()} : lastServers_;
        case Kind::Quorum:
            all.resize(all.size() - all.size() / 2);
            return all;
    }
    return {};
}

void Injector::Inject(const Fault& fault)
{
    if (trace_)
    {
        Trace(Print(fault));
    }
    const FaultFields fields = FieldsOf(fault.kind);
    if (fields.process)
    {
        Participant* const target = Resolve(fault.process);
        if (target == nullptr || target->Exiting())
        {
            return;
        }
        // What the servers of this fault refer to, too.
        lastSlot_ = target->Slot();
        fields.server ? InjectIntoLinks(fault, *target) : InjectIntoProcess(fault, *target);
    }
    else if (fields.server)
    {
        lastServers_ = Resolve(fault.server);
        for (const std::size_t server : lastServers_)
        {
            InjectIntoServer(fault, server);
        }
    }
    else if (fault.kind == FaultKind::DeleteNode)
    {
        std::vector<std::string> nodes = ensemble_.Children(electionPath_);
        std::sort(nodes.begin(), nodes.end());
        if (fault.number < nodes.size())
        {
            ensemble_.Delete(electionPath_ + "/" + nodes[fault.number]);
        }
    }
    else
    {
        ensemble_.Delete(electionPath_);
    }
}

void Injector::InjectIntoProcess(const Fault& fault, Participant& target)
{
    switch (fault.kind)
    {
        case FaultKind::Pause:
            machine_.Pause(target.Process());
            ContinueAfter(target, fault.duration);
            return;
        case FaultKind::PauseInside:
            machine_.PauseInside(target.Process(), fault.number);
            ContinueAfter(target, fault.duration);
            return;
        case FaultKind::Kill:
            target.Kill();
            ensemble_.Disconnect(target.Process());
            StartLater(target.Slot(), fault.duration);
            return;
        case FaultKind::Exit:
            target.Exit();
            StartLater(target.Slot(), fault.duration);
            return;
        case FaultKind::Resign:
            // Takes effect once the process has started.
            target.Resign(fault.duration);
            return;
        case FaultKind::SlowLoss:
            target.SlowDownNextLoss(fault.amount);
            return;
        case FaultKind::Fork:
            Fork();
            return;
        case FaultKind::LoseAnswer:
            ensemble_.LoseNextAnswer(target.Process(), false);
            return;
        case FaultKind::LoseHandshake:
            ensemble_.LoseNextAnswer(target.Process(), true);
            return;
        case FaultKind::LoseRequest:
            ensemble_.LoseNextRequest(target.Process());
            return;
        default:
            return;
    }
}

void Injector::ContinueAfter(Participant& target, Time duration)
{
    Time& until = pausedUntil_[target.Number()];
    until = std::max(until, machine_.Now() + duration);
    machine_.At(until, [this, &target] {
        if (!target.Killed() && machine_.Now() >= pausedUntil_[target.Number()])
        {
            machine_.Continue(target.Process());
        }
    });
}

void Injector::StartLater(std::size_t slot, Time delay)
{
    participants_.slots[slot] = nullptr;
    machine_.At(machine_.Now() + delay, [this, slot] {
        if (participants_.slots[slot] == nullptr)
        {
            participants_.start(slot);
        }
    });
}

void Injector::Fork()
{
    const pid_t child = ::fork();
    if (child == 0)
    {
        ::alarm(kChildMaxSeconds);
        machine_.ForbidWaiting(kChildWaited);
        for (Participant* const each : participants_.slots)
        {
            if (each != nullptr && !each->Exiting())
            {
                if (const int status = StatusOf(each->CheckInForkedChild()); status != kChildIsRight)
                {
                    ::_exit(status);
                }
            }
        }
        for (Participant* const each : participants_.slots)
        {
            if (each != nullptr && !each->Exiting())
            {
                each->EndInForkedChild();
            }
        }
        ::_exit(kChildIsRight);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child)
    {
        checks_.Report(Check::Fork, machine_.Now(), "fork failed");
        return;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != kChildIsRight)
    {
        checks_.Report(Check::Fork, machine_.Now(), "in a forked child: " + Describe(status));
    }
}

void Injector::InjectIntoLinks(const Fault& fault, Participant& target)
{
    const ProcessId process = target.Process();
    std::vector<std::optional<std::size_t>> servers;
    if (fault.server.kind == ServerTarget::Kind::All)
    {
        servers.emplace_back();
    }
    else
    {
        for (const std::size_t server : Resolve(fault.server))
        {
            servers.emplace_back(server);
        }
    }
    for (const std::optional<std::size_t> server : servers)
    {
        switch (fault.kind)
        {
            case FaultKind::Cut:
                ensemble_.Cut(process, server);
                continue;
            case FaultKind::Silence:
                ensemble_.Silence(process, server, fault.direction);
                break;
            case FaultKind::Refuse:
                ensemble_.Refuse(process, server);
                break;
            case FaultKind::Delay:
                ensemble_.Delay(process, server, fault.direction, fault.amount);
                machine_.At(machine_.Now() + fault.duration, [this, process, server, direction = fault.direction] {
                    ensemble_.Delay(process, server, direction, Time());
                });
                continue;
            default:
                continue;
        }
        machine_.At(machine_.Now() + fault.duration, [this, process, server, &target] {
            if (!target.Killed())
            {
                ensemble_.Heal(process, server);
            }
        });
    }
}

}  // namespace kx::velmor::simulation
