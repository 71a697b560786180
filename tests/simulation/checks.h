#pragma once

#include "tests/simulation/virtual_machine.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::simulation {

/// What a run is checked for. Each check can be left out.
enum class Check
{
    /// Two participants lead at one instant.
    Overlap,
    /// Epochs grow from one leadership to the next, and none comes twice.
    Epochs,
    /// Callbacks come in pairs, in order and one at a time.
    Callbacks,
    /// A participant that has stopped leading does not lead again before its callbacks have told of the loss.
    Flicker,
    /// There is a stable leader soon after the last fault.
    Leader,
    /// No nodes, sessions or threads stay behind.
    Leftovers,
    /// `Stop`, `Close` and destructors return.
    Hang,
    /// A forked child leads nothing, and ends its objects without waiting.
    Fork,
    /// The process that runs the simulation ends without a result.
    Crash,
    /// A run takes the same steps when it is repeated.
    Replay,
};

/// "overlap", "epochs", ...
const char* Name(Check check) noexcept;

/// Throws `std::invalid_argument` when no check has this name.
Check CheckNamed(const std::string& name);

struct Violation
{
    Check check{};
    Time at{};
    std::string text{};
};

enum class Callback
{
    Leader,
    LeaderLost,
    NextLeader,
    NextLeaderLost,
    RoleChange,
};

const char* Name(Callback callback) noexcept;

/// Judges what the participants of a run believe and what their callbacks tell. Keeps the first violation.
///
/// A participant is one process from its start to its end: a process that is started again is another participant.
class Checks
{
public:
    using Participant = std::size_t;
    /// One bit per participant.
    using Participants = std::uint64_t;
    static constexpr std::size_t kMaxParticipants = 64;

    explicit Checks(std::set<Check> without) : without_(std::move(without)) {}

    /// The participants that lead from now on, by their own word. Those in `unaware` may lead beside another one: no
    /// client in their place can know better.
    void Leading(Time now, Participants participants, Participants unaware = 0);

    /// A callback begins. `epoch` is the leadership's, for `Leader` only; `leads` tells whether the leadership that was
    /// told last still stands.
    void Begin(Time now, Participant participant, Callback callback, std::int64_t epoch, bool leads);
    /// It returns.
    void End(Time now, Participant participant, Callback callback);

    /// The participant was killed: it may have been in the middle of anything.
    void Killed(Participant participant);

    /// The participant's candidate was destroyed: no callback may be open, and none may follow.
    void Destroyed(Time now, Participant participant);

    void Report(Check check, Time now, const std::string& text);

    const std::optional<Violation>& Found() const { return found_; }
    Participants LeadingNow() const { return leading_; }

private:
    struct State
    {
        /// A leadership was seen or told of, and its end was not told of yet.
        bool leadership = false;
        /// The index of the leadership that was seen and not told of yet.
        std::optional<std::size_t> untold{};
        bool leaderOpen = false;
        bool nextOpen = false;
        bool destroyed = false;
        bool killed = false;
        std::optional<Callback> running{};
    };

    State& Of(Participant participant);
    void Rise(Time now, Participant participant);
    void TellEpoch(Time now, State& state, Participant participant, std::int64_t epoch);
    void CheckOrder(Time now, State& state, Participant participant, Callback callback, bool leads);

    const std::set<Check> without_;
    std::optional<Violation> found_;
    Participants leading_ = 0;
    std::vector<State> states_;
    /// In the order in which leaderships were first seen.
    std::vector<std::optional<std::int64_t>> epochs_;
    std::set<std::int64_t> allEpochs_;
};

}  // namespace kx::velmor::simulation
