#pragma once

#include "tests/chaos/fault_plan.h"
#include "tests/chaos/history.h"
#include "tests/chaos/injector.h"
#include "tests/chaos/stage.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>

namespace kx::velmor::chaos {

struct RunOptions
{
    Subject subject = Subject::Candidate;
    std::chrono::milliseconds sessionTimeout{1'000};
    std::chrono::seconds length{60};
    /// The run ends earlier when the lead has changed hands this often; 0: never.
    std::size_t successions = 0;
    std::uint64_t seed = 1;
    std::size_t members = 5;
    /// One or three.
    std::size_t servers = 3;
    /// Kinds of faults that do not happen.
    std::set<FaultKind> without{};
    /// Where histories go.
    std::filesystem::path directory;
    /// Besides a line for each fault, one for each second.
    bool progress = false;
};

/// One run: servers and members start, faults come and go, everything is healed and comes to rest.
///
/// SIGINT and SIGTERM, which must be blocked in all threads, end it early. Threads: one.
class Run
{
public:
    explicit Run(RunOptions options);

    /// What there is to judge afterwards. No process of the run is left. Throws `std::runtime_error` when the servers
    /// do not do as they are told.
    History Play();

private:
    void Start();
    void DoFault(const PlannedFault& planned);
    /// Sleeps, with a look at signals and processes; returns at once when interrupted.
    void Pass(std::chrono::milliseconds time, bool leaving);
    std::size_t CountSuccessions();
    bool Interrupted();
    /// Starts members anew that have ended by themselves.
    void LookAfterMembers();
    void ShowProgress();
    void Leave();
    void Note(const Fault& fault);
    std::string Clock() const;

    const RunOptions options_;
    Stage stage_;
    Injector injector_;
    FaultPlan plan_;
    History history_;
    /// A member is gone because a fault has killed it.
    bool killing_ = false;
    bool interrupted_ = false;
    Instant nextProgress_{0};
};

}  // namespace kx::velmor::chaos
