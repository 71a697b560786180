#pragma once

#include "tests/simulation/checks.h"
#include "tests/simulation/virtual_machine.h"

#include <kx/velmor/candidate.h>
#include <kx/velmor/session.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kx::velmor::simulation {

struct ParticipantOptions
{
    std::string servers;
    std::string electionPath;
    std::chrono::milliseconds sessionTimeout{};
    std::chrono::milliseconds maxRejoinDelay{};
};

/// One simulated process with a session and a candidate, from its start to its end.
///
/// Commands run one after the other on a thread of the process, and wait while the process is paused. They are given by
/// events of the machine.
class Participant
{
public:
    Participant(VirtualMachine& machine, Checks& checks, Checks::Participant number, std::size_t slot,
                ParticipantOptions options);
    /// The session must be closed.
    ~Participant() = default;
    Participant(const Participant&) = delete;
    Participant& operator=(const Participant&) = delete;

    // Commands.

    /// Opens the session and starts the candidate.
    void Open();
    /// Stops the candidate and starts it again after a while.
    void Resign(Time pause);
    /// Stops the candidate.
    void Stop();
    /// Starts the candidate.
    void Start();
    /// Destroys the candidate and closes the session.
    void Exit();
    /// The same for a killed process: the session first, since no server can be reached.
    void Discard();

    // What an event may do and ask.

    /// The process is stopped for ever and counts for no check any more.
    void Kill();
    void SlowDownNextLoss(Time duration) { nextLossTakes_ = duration; }
    /// By `IsLeader` or by the leadership that was told last.
    bool Leads() const noexcept;
    std::chrono::milliseconds LeaseLeft() const noexcept { return candidate_ ? candidate_->LeaseLeft() : kNoLease; }
    /// As the callbacks told it last.
    Role LastRole() const { return role_; }
    /// No command runs or waits.
    bool Idle() const { return !running_; }
    bool Killed() const { return killed_; }
    bool Exiting() const { return exiting_; }
    std::size_t Slot() const { return slot_; }
    Checks::Participant Number() const { return number_; }
    ProcessId Process() const { return process_; }

    enum class ForkFinding
    {
        None,
        Leads,
        HasLease,
        Stands,
    };
    // In a forked child of the simulation.

    ForkFinding CheckInForkedChild() const;
    /// Ends the objects.
    void EndInForkedChild();

private:
    static constexpr std::chrono::milliseconds kNoLease{0};

    void Enqueue(std::function<void()> command);
    void RunCommands();
    CandidateOptions MakeCandidateOptions();
    void Tell(Callback callback, const std::function<void()>& action = {});

    VirtualMachine& machine_;
    Checks& checks_;
    const Checks::Participant number_;
    const std::size_t slot_;
    const ParticipantOptions options_;
    const ProcessId process_;

    std::deque<std::function<void()>> commands_;
    bool running_ = false;
    bool killed_ = false;
    bool exiting_ = false;

    Time nextLossTakes_{};
    Role role_ = Role::Stopped;
    std::optional<Leadership> leadership_;
    std::shared_ptr<Session> session_;
    std::unique_ptr<Candidate> candidate_;
};

}  // namespace kx::velmor::simulation
