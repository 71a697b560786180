#include "tests/simulation/schedule_draw.h"

#include <algorithm>
#include <array>
#include <random>

namespace kx::velmor::simulation {

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

class Drawer
{
public:
    explicit Drawer(std::uint64_t seed) : engine_(seed) { schedule_.seed = seed; }

    Schedule Draw()
    {
        DrawEnsemble();
        now_ = milliseconds(300) + Between(milliseconds(0), timeout_);
        for (std::size_t left = 1 + Below(3) + (OneIn(3) ? Below(5) : 0); left > 0; --left)
        {
            DrawAttack();
            now_ += Gap();
        }
        // As it is read: in order, and without what does not belong to a fault.
        return Parse(Print(schedule_));
    }

private:
    /// The same with every standard library, unlike its distributions.
    std::size_t Below(std::size_t limit) { return static_cast<std::size_t>(engine_() % limit); }
    bool OneIn(std::size_t n) { return Below(n) == 0; }
    template <typename Value, std::size_t n>
    Value OneOf(const std::array<Value, n>& values)
    {
        return values[Below(n)];
    }

    /// Whole microseconds.
    Time Between(Time low, Time high)
    {
        const auto range = (high - low) / microseconds(1);
        return low + microseconds(range <= 0 ? 0 : static_cast<std::int64_t>(Below(static_cast<std::size_t>(range))));
    }
    /// A part of the session timeout, in percent.
    Time Part(int low, int high) { return Between(timeout_ * low / 100, timeout_ * high / 100); }
    /// From tens of microseconds to tens of milliseconds, each order of magnitude as often.
    Time Moment()
    {
        return Between(microseconds(10),
                       OneOf<milliseconds, 3>({{milliseconds(1), milliseconds(5), milliseconds(50)}}));
    }

    Time Gap()
    {
        switch (Below(5))
        {
            case 0:
                return Moment();
            case 1:
                return Part(0, 20);
            case 2:
            case 3:
                return Part(10, 100);
            default:
                return Part(100, 250);
        }
    }

    /// Around the lengths at which something ends: a lease, a session.
    Time Outage()
    {
        switch (Below(6))
        {
            case 0:
                return Part(1, 33);
            case 1:
            case 2:
                return Part(33, 75);
            case 3:
                return Part(60, 110);
            default:
                return Part(100, 220);
        }
    }

    void DrawEnsemble()
    {
        schedule_.ensemble.servers = OneOf<std::size_t, 10>({{3, 3, 3, 3, 3, 3, 3, 3, 1, 5}});
        const milliseconds tick = OneOf<milliseconds, 5>(
            {{milliseconds(100), milliseconds(200), milliseconds(250), milliseconds(500), milliseconds(1000)}});
        const int ticks = OneOf<int, 9>({{2, 3, 4, 5, 6, 8, 10, 15, 20}});
        schedule_.ensemble.limits = {tick, 2 * tick, 20 * tick, OneIn(10)};
        schedule_.ensemble.syncLimit = OneOf<int, 3>({{2, 5, 10}});
        schedule_.sessionTimeout = tick * ticks + (OneIn(4) ? milliseconds(Below(100)) : milliseconds(0));
        schedule_.maxRejoinDelay = OneOf<milliseconds, 2>({{milliseconds(200), milliseconds(1000)}});
        timeout_ = std::min(schedule_.sessionTimeout, schedule_.ensemble.limits.maxSessionTimeout);
    }

    Fault& Add(FaultKind kind)
    {
        Fault& fault = schedule_.faults.emplace_back();
        fault.at = now_;
        fault.kind = kind;
        return fault;
    }
    Fault& AddToProcess(FaultKind kind, ProcessTarget process, Time duration = Time())
    {
        Fault& fault = Add(kind);
        fault.process = process;
        fault.duration = duration;
        return fault;
    }
    Fault& AddToServer(FaultKind kind, ServerTarget server, Time duration)
    {
        Fault& fault = Add(kind);
        fault.server = server;
        fault.duration = duration;
        return fault;
    }

    static constexpr ProcessTarget kLeader{ProcessTarget::Kind::Leader, 0};
    static constexpr ProcessTarget kSame{ProcessTarget::Kind::Same, 0};
    static constexpr ServerTarget kAll{ServerTarget::Kind::All, 0};
    static constexpr ServerTarget kOfLeader{ServerTarget::Kind::OfLeader, 0};
    static constexpr ServerTarget kOfSame{ServerTarget::Kind::OfSame, 0};

    /// Mostly the leader.
    ProcessTarget SomeProcess()
    {
        switch (Below(6))
        {
            case 0:
                return {ProcessTarget::Kind::Next, 0};
            case 1:
                return {ProcessTarget::Kind::Slot, Below(schedule_.processes)};
            case 2:
                return kSame;
            default:
                return kLeader;
        }
    }

    ServerTarget SomeServer()
    {
        using Kind = ServerTarget::Kind;
        switch (Below(8))
        {
            case 0:
            case 1:
                return {Kind::EnsembleLeader, 0};
            case 2:
                return {Kind::Follower, 0};
            case 3:
                return {Kind::Index, Below(schedule_.ensemble.servers)};
            case 4:
                return {Kind::Quorum, 0};
            case 5:
                return {Kind::OfNext, 0};
            default:
                return kOfLeader;
        }
    }

    /// Of a link: all servers, or the one at hand.
    ServerTarget SomeLink() { return OneIn(3) ? kOfSame : kAll; }

    EnsembleModel::Direction SomeDirection()
    {
        using Direction = EnsembleModel::Direction;
        return OneOf<Direction, 4>({{Direction::Both, Direction::Both, Direction::ToServer, Direction::ToClient}});
    }

    void DrawAttack()
    {
        switch (Below(12))
        {
            case 0:
            case 1:
                PauseThenLoseServer();
                return;
            case 2:
            case 3:
                RenegotiateThenIsolate();
                return;
            case 4:
                PauseAndFork();
                return;
            case 5:
                ResignWithLoss();
                return;
            case 6:
                DisturbEnsembleLeader();
                return;
            case 7:
                DeleteUnderLeader();
                return;
            default:
                for (std::size_t left = 1 + Below(3); left > 0; --left)
                {
                    DrawSingle();
                    now_ += OneIn(2) ? Moment() : Part(0, 60);
                }
                return;
        }
    }

    /// The leader's process stops for a while; its server, which heard it again, fails just after it goes on.
    void PauseThenLoseServer()
    {
        const Time pause = Part(33, 100);
        AddToProcess(OneIn(4) ? FaultKind::PauseInside : FaultKind::Pause, kLeader, pause).number = 1 + Below(60);
        now_ += pause + (OneIn(4) ? Part(0, 40) : Moment());
        LoseServer(kOfSame);
    }

    void LoseServer(ServerTarget server)
    {
        const FaultKind kind = OneOf<FaultKind, 4>(
            {{FaultKind::FreezeServer, FaultKind::FreezeServer, FaultKind::KillServer, FaultKind::PartServer}});
        AddToServer(kind, server, Outage());
    }

    /// Servers grant less, or more, than before; the leader reconnects, and is cut off then.
    void RenegotiateThenIsolate()
    {
        ChangeLimits();
        now_ += OneIn(2) ? Moment() : Part(0, 50);
        if (OneIn(4))
        {
            AddToProcess(FaultKind::LoseHandshake, kLeader);
        }
        Fault& cut = AddToProcess(OneIn(3) ? FaultKind::Refuse : FaultKind::Cut, kLeader, Part(50, 200));
        cut.server = OneIn(2) ? kOfSame : kAll;
        if (cut.kind == FaultKind::Refuse)
        {
            cut.server = kOfSame;
        }
        now_ += OneIn(2) ? Moment() : Part(0, 60);
        Isolate(kSame);
    }

    void ChangeLimits()
    {
        const milliseconds tick = schedule_.ensemble.limits.tick;
        const int ticks = OneOf<int, 6>({{2, 3, 4, 6, 10, 20}});
        Fault& limits = Add(FaultKind::Limits);
        limits.server = OneIn(2) ? kAll : SomeServer();
        limits.number = OneIn(4) ? 1 : 0;
        limits.minSessionTimeout = OneIn(4) ? tick * ticks : 2 * tick;
        limits.maxSessionTimeout = std::max(limits.minSessionTimeout, tick * ticks);
    }

    void Isolate(ProcessTarget target)
    {
        switch (Below(4))
        {
            case 0:
                AddToProcess(FaultKind::Refuse, target, Outage()).server = SomeLink();
                return;
            case 1:
                AddToProcess(FaultKind::Pause, target, Outage());
                return;
            case 2:
                LoseServer(kOfSame);
                return;
            default: {
                Fault& silence = AddToProcess(FaultKind::Silence, target, Outage());
                silence.server = SomeLink();
                silence.direction = SomeDirection();
                return;
            }
        }
    }

    void PauseAndFork()
    {
        if (OneIn(2))
        {
            const Time pause = Outage();
            AddToProcess(FaultKind::PauseInside, kLeader, pause).number = 1 + Below(200);
            now_ += OneIn(2) ? Part(0, 20) : pause;
        }
        if (OneIn(3))
        {
            AddToProcess(FaultKind::Fork, SomeProcess());
        }
        else
        {
            Isolate(SomeProcess());
        }
    }

    void ResignWithLoss()
    {
        const ProcessTarget target = SomeProcess();
        if (OneIn(3))
        {
            AddToProcess(FaultKind::SlowLoss, target).amount = Part(5, 150);
        }
        if (OneIn(2))
        {
            AddToProcess(
                OneOf<FaultKind, 3>({{FaultKind::LoseAnswer, FaultKind::LoseRequest, FaultKind::LoseHandshake}}),
                target);
        }
        AddToProcess(OneIn(4) ? FaultKind::Exit : FaultKind::Resign, target, OneIn(2) ? Moment() : Part(0, 150));
        now_ += Moment();
        if (OneIn(2))
        {
            Isolate(kSame);
        }
    }

    void DisturbEnsembleLeader()
    {
        const ServerTarget leader{ServerTarget::Kind::EnsembleLeader, 0};
        if (OneIn(2))
        {
            Isolate(kLeader);
            now_ += OneIn(2) ? Moment() : Part(0, 100);
        }
        LoseServer(OneIn(4) ? ServerTarget{ServerTarget::Kind::Quorum, 0} : leader);
        if (OneIn(2))
        {
            now_ += OneIn(2) ? Moment() : Part(0, 100);
            LoseServer(SomeServer());
        }
    }

    void DeleteUnderLeader()
    {
        if (OneIn(2))
        {
            Isolate(kLeader);
            now_ += OneIn(2) ? Moment() : Part(0, 50);
        }
        Add(OneIn(2) ? FaultKind::DeletePath : FaultKind::DeleteNode).number = Below(3);
        now_ += Moment();
        if (OneIn(3))
        {
            Isolate(SomeProcess());
        }
    }

    void DrawSingle()
    {
        static constexpr std::array<FaultKind, 18> kSingles{
            FaultKind::Pause,       FaultKind::PauseInside, FaultKind::Kill,         FaultKind::Exit,
            FaultKind::Resign,      FaultKind::SlowLoss,    FaultKind::Cut,          FaultKind::Silence,
            FaultKind::Refuse,      FaultKind::Delay,       FaultKind::LoseAnswer,   FaultKind::LoseHandshake,
            FaultKind::LoseRequest, FaultKind::Limits,      FaultKind::FreezeServer, FaultKind::KillServer,
            FaultKind::PartServer,  FaultKind::DeleteNode};
        const FaultKind kind = OneOf(kSingles);
        if (kind == FaultKind::Limits)
        {
            ChangeLimits();
            return;
        }
        Fault& fault = AddToProcess(kind, SomeProcess(), Outage());
        const FaultFields fields = FieldsOf(kind);
        fault.server = fields.process ? SomeLink() : SomeServer();
        fault.direction = SomeDirection();
        fault.amount = kind == FaultKind::SlowLoss ? Part(5, 150) : Part(0, 40);
        fault.number = kind == FaultKind::PauseInside ? 1 + Below(200) : Below(3);
    }

    std::mt19937_64 engine_;
    Schedule schedule_;
    /// What servers grant at first.
    Time timeout_{};
    Time now_{};
};

}  // namespace

Schedule DrawSchedule(std::uint64_t seed)
{
    return Drawer(seed).Draw();
}

}  // namespace kx::velmor::simulation
