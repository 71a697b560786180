#pragma once

#include "tests/simulation/ensemble_model.h"
#include "tests/simulation/virtual_machine.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor::simulation {

enum class FaultKind
{
    // Of a process.
    Pause,
    /// In the middle of something: see `VirtualMachine::PauseInside`.
    PauseInside,
    Kill,
    Exit,
    Resign,
    SlowLoss,
    Fork,
    // Of the links of a process.
    Cut,
    Silence,
    Refuse,
    Delay,
    LoseAnswer,
    LoseHandshake,
    LoseRequest,
    // Of a server.
    FreezeServer,
    KillServer,
    PartServer,
    Limits,
    // Of an operator.
    DeleteNode,
    DeletePath,
};

constexpr std::size_t kFaultKinds = 20;

const char* Name(FaultKind kind) noexcept;

/// The process that a fault hits, chosen when the fault happens.
struct ProcessTarget
{
    enum class Kind
    {
        /// The process that leads; while none does, the one that led last.
        Leader,
        /// The next leader.
        Next,
        /// The process that the fault before this one hit.
        Same,
        /// The process in slot `slot`.
        Slot,
    };

    Kind kind = Kind::Leader;
    std::size_t slot = 0;
};

/// The server that a fault hits, chosen when the fault happens.
struct ServerTarget
{
    enum class Kind
    {
        All,
        Index,
        /// The server to which a process is connected, or was last.
        OfLeader,
        OfNext,
        OfSame,
        OfSlot,
        EnsembleLeader,
        /// The first server that does not lead the ensemble.
        Follower,
        /// The server that the fault before this one hit.
        Same,
        /// As many servers as it takes to leave no quorum; the ensemble's leader stays.
        Quorum,
    };

    Kind kind = Kind::All;
    /// A server, or the slot of a process.
    std::size_t index = 0;
};

struct Fault
{
    /// Since the start of the simulation.
    Time at{};
    FaultKind kind = FaultKind::Pause;
    ProcessTarget process{};
    ServerTarget server{};
    EnsembleModel::Direction direction = EnsembleModel::Direction::Both;
    /// How long the fault lasts. For `Kill`, `Exit` and `Resign`: until the process starts again or takes part again.
    Time duration{};
    /// `Delay`: how much longer each message takes. `SlowLoss`: how long the next `onLeaderLost` takes.
    Time amount{};
    /// `Limits` only.
    std::chrono::milliseconds minSessionTimeout{};
    std::chrono::milliseconds maxSessionTimeout{};
    /// `Limits`: 1 when the server restarts to change them. `DeleteNode`: the place in the queue. `PauseInside`: the
    /// number of calls.
    std::size_t number = 0;
};

/// The fields of a fault that mean something for its kind.
struct FaultFields
{
    bool process = false;
    bool server = false;
    bool direction = false;
    bool duration = false;
    bool amount = false;
    bool limits = false;
    /// The name under which the number is written; null for none.
    const char* number = nullptr;
};

FaultFields FieldsOf(FaultKind kind) noexcept;

/// A simulated ensemble, its clients and the faults that happen to them. With the code under test, it determines every
/// step of a run.
struct Schedule
{
    /// Of the machine.
    std::uint64_t seed = 0;
    EnsembleOptions ensemble{};
    std::size_t processes = 5;
    /// What the processes ask for.
    std::chrono::milliseconds sessionTimeout{2000};
    std::chrono::milliseconds maxRejoinDelay{1000};
    /// In order of time.
    std::vector<Fault> faults{};
};

/// The largest session timeout that a server can grant in this schedule.
std::chrono::milliseconds MaxTimeout(const Schedule& schedule);

/// One line for the ensemble, then one line per fault. `Parse` reads it.
std::string Print(const Schedule& schedule);

/// As in "2500ms pause process=leader for=580ms".
std::string Print(const Fault& fault);

/// Ignores empty lines and lines that begin with "#". Throws `std::invalid_argument` with the line's number and what is
/// wrong with it.
Schedule Parse(const std::string& text);

}  // namespace kx::velmor::simulation
