#include "tests/simulation/checks.h"

#include <array>
#include <stdexcept>

namespace kx::velmor::simulation {

namespace {

constexpr std::array<Check, 10> kChecks{Check::Overlap, Check::Epochs,    Check::Callbacks, Check::Flicker,
                                        Check::Leader,  Check::Leftovers, Check::Hang,      Check::Fork,
                                        Check::Crash,   Check::Replay};

std::string NameOf(Checks::Participant participant)
{
    return "participant " + std::to_string(participant);
}

}  // namespace

const char* Name(Check check) noexcept
{
    switch (check)
    {
        case Check::Overlap:
            return "overlap";
        case Check::Epochs:
            return "epochs";
        case Check::Callbacks:
            return "callbacks";
        case Check::Flicker:
            return "flicker";
        case Check::Leader:
            return "leader";
        case Check::Leftovers:
            return "leftovers";
        case Check::Hang:
            return "hang";
        case Check::Fork:
            return "fork";
        case Check::Crash:
            return "crash";
        case Check::Replay:
            return "replay";
    }
    return "?";
}

Check CheckNamed(const std::string& name)
{
    for (const Check check : kChecks)
    {
        if (name == Name(check))
        {
            return check;
        }
    }
    throw std::invalid_argument("\"" + name + "\" is not a check");
}

const char* Name(Callback callback) noexcept
{
    switch (callback)
    {
        case Callback::Leader:
            return "onLeader";
        case Callback::LeaderLost:
            return "onLeaderLost";
        case Callback::NextLeader:
            return "onNextLeader";
        case Callback::NextLeaderLost:
            return "onNextLeaderLost";
        case Callback::RoleChange:
            return "onRoleChange";
    }
    return "?";
}

Checks::State& Checks::Of(Participant participant)
{
    if (participant >= states_.size())
    {
        states_.resize(participant + 1);
    }
    return states_[participant];
}

void Checks::Report(Check check, Time now, const std::string& text)
{
    if (!found_ && without_.count(check) == 0)
    {
        found_ = Violation{check, now, text};
    }
}

void Checks::Leading(Time now, Participants participants, Participants unaware)
{
    const Participants risen = participants & ~leading_;
    leading_ = participants;
    for (Participant each = 0; risen >> each != 0 && each < kMaxParticipants; ++each)
    {
        if ((risen >> each & 1) != 0)
        {
            Rise(now, each);
        }
    }
    const Participants aware = participants & ~unaware;
    if ((aware & (aware - 1)) != 0)
    {
        std::string text = "more than one leads:";
        for (Participant each = 0; each < kMaxParticipants; ++each)
        {
            text += (participants >> each & 1) != 0 ? " " + NameOf(each) : std::string();
        }
        Report(Check::Overlap, now, text);
    }
}

void Checks::Rise(Time now, Participant participant)
{
    State& state = Of(participant);
    if (state.leadership)
    {
        Report(Check::Flicker, now, NameOf(participant) + " leads again before its callbacks have told of the loss");
    }
    state.leadership = true;
    state.untold = epochs_.size();
    epochs_.emplace_back();
}

void Checks::Begin(Time now, Participant participant, Callback callback, std::int64_t epoch, bool leads)
{
    State& state = Of(participant);
    if (state.killed)
    {
        return;
    }
    if (state.destroyed)
    {
        Report(Check::Callbacks, now, NameOf(participant) + ": " + Name(callback) + " after the destructor");
    }
    if (state.running)
    {
        Report(Check::Callbacks, now,
               NameOf(participant) + ": " + Name(callback) + " while " + Name(*state.running) + " runs");
    }
    state.running = callback;
    CheckOrder(now, state, participant, callback, leads);
    if (callback == Callback::Leader)
    {
        TellEpoch(now, state, participant, epoch);
    }
}

void Checks::CheckOrder(Time now, State& state, Participant participant, Callback callback, bool leads)
{
    const auto require = [&](bool right, const char* text) {
        if (!right)
        {
            Report(Check::Callbacks, now, NameOf(participant) + ": " + Name(callback) + " " + text);
        }
    };
    switch (callback)
    {
        case Callback::Leader:
            require(!state.leaderOpen, "without onLeaderLost for the one before");
            require(!state.nextOpen, "without onNextLeaderLost");
            state.leaderOpen = true;
            state.leadership = true;
            break;
        case Callback::LeaderLost:
            require(state.leaderOpen, "without onLeader");
            require(!leads, "while the leadership stands");
            break;
        case Callback::NextLeader:
            require(!state.nextOpen, "without onNextLeaderLost for the one before");
            require(!state.leaderOpen, "without onLeaderLost");
            state.nextOpen = true;
            break;
        case Callback::NextLeaderLost:
            require(state.nextOpen, "without onNextLeader");
            state.nextOpen = false;
            break;
        case Callback::RoleChange:
            break;
    }
}

void Checks::TellEpoch(Time now, State& state, Participant participant, std::int64_t epoch)
{
    const std::string who = NameOf(participant) + ": epoch " + std::to_string(epoch);
    if (!allEpochs_.insert(epoch).second)
    {
        Report(Check::Epochs, now, who + " comes a second time");
    }
    if (!state.untold)
    {
        // The leadership ended before it was seen.
        return;
    }
    for (std::size_t each = 0; each < epochs_.size(); ++each)
    {
        if (!epochs_[each] || each == *state.untold)
        {
            continue;
        }
        if ((each < *state.untold) != (*epochs_[each] < epoch))
        {
            Report(Check::Epochs, now,
                   who + (each < *state.untold ? " comes after " : " comes before ") + std::to_string(*epochs_[each]));
        }
    }
    epochs_[*state.untold] = epoch;
    state.untold.reset();
}

void Checks::End(Time now, Participant participant, Callback callback)
{
    State& state = Of(participant);
    if (state.killed)
    {
        return;
    }
    if (state.running != callback)
    {
        Report(Check::Callbacks, now, NameOf(participant) + ": " + Name(callback) + " returns and was not called");
    }
    state.running.reset();
    if (callback == Callback::LeaderLost)
    {
        state.leaderOpen = false;
        state.leadership = false;
        if (state.untold)
        {
            Report(Check::Callbacks, now, NameOf(participant) + ": led, and onLeader did not tell");
            state.untold.reset();
        }
    }
}

void Checks::Killed(Participant participant)
{
    Of(participant).killed = true;
}

void Checks::Destroyed(Time now, Participant participant)
{
    State& state = Of(participant);
    if (state.killed)
    {
        return;
    }
    if (state.running || state.leaderOpen || state.nextOpen || state.untold)
    {
        Report(Check::Callbacks, now, NameOf(participant) + ": the destructor has returned before the last callback");
    }
    state.destroyed = true;
}

}  // namespace kx::velmor::simulation
