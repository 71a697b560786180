#pragma once

#include "tests/chaos/history.h"

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor::chaos {

/// What is still in order. Everything that takes longer or grows further is a violation.
struct Bounds
{
    explicit Bounds(std::chrono::milliseconds timeout) : sessionTimeout(timeout) {}

    /// For how long after its end a fault accounts for there being no leader: a session that it killed may have to
    /// expire, and the one that was to succeed may have had to reconnect first.
    std::chrono::milliseconds Aftermath(const Fault& fault) const
    {
        // What hits all may have hit the servers.
        return 2 * sessionTimeout + reconnection + (fault.members.empty() ? serversElection : serversElection.zero());
    }

    /// For how long after somebody else took its node away a leader may not know it yet.
    std::chrono::milliseconds Unawares() const { return sessionTimeout + reconnection; }

    std::chrono::milliseconds sessionTimeout;
    std::chrono::milliseconds reconnection{1'000};
    std::chrono::milliseconds serversElection{2'000};
    /// At a stretch, beyond what faults account for.
    std::chrono::milliseconds leaderless{1'000};
    /// A member that nobody let run for a moment did not stop leading.
    std::chrono::milliseconds unseen{250};
    /// Between signs of life of the thread that owns the candidate: a `Start` makes about a dozen calls, each of which
    /// may take a session timeout.
    std::chrono::milliseconds ownerSilence{30'000};
    /// Between signs of life of the thread that looks at it and never waits for anything.
    std::chrono::milliseconds watcherSilence{5'000};
    /// From the first half of a process's life to the second, medians of each.
    std::int64_t rssGrowthKilobytes = 4'096;
    std::int64_t threadGrowth = 2;
    std::int64_t descriptorGrowth = 3;
    /// A life with fewer measurements is too short to see anything grow.
    std::size_t fewestMeasurements = 20;
};

struct Violation
{
    /// As in "overlap"; what tests and readers go by.
    std::string rule;
    std::string text;
    /// Where in the history to look.
    Instant at;
};

/// Instants at which two or more led.
struct Overlaps
{
    std::size_t count = 0;
    Instant total{0};
    /// Of the total: an operator deleted the node of a leader or closed its session, which it cannot know at once.
    Instant byOperator{0};
};

struct Leaderless
{
    Instant total{0};
    Instant explained{0};
    Instant Unexplained() const { return total - explained; }
    Instant longestUnexplained{0};
};

/// What one view of who leads comes to.
struct ViewReport
{
    Overlaps overlaps;
    Leaderless leaderless;
};

/// What candidates asked and told come to.
struct CandidateReport
{
    /// Leaderships that were told, or proven.
    std::size_t leaderships = 0;
    std::size_t Successions() const { return leaderships == 0 ? 0 : leaderships - 1; }
    /// By what they ended with, as in "left"; "killed" for those that nobody was left to tell of.
    std::map<std::string, std::size_t> losses{};
    /// Stays in second place.
    std::size_t stays = 0;
    /// Instants at which two or more led for certain.
    Overlaps overlaps;
    Leaderless leaderless;
    /// Of members' processes, each of which asked whether it leads.
    std::size_t forkedChildren = 0;
};

struct Report
{
    /// Of a history of candidates, which has nothing of what is told of the recipe below.
    std::optional<CandidateReport> candidates{};
    ViewReport byFlag;
    ViewReport bySession;
    std::size_t leaderships = 0;
    std::size_t orphans = 0;
    std::size_t hangs = 0;
    std::size_t growths = 0;
    std::vector<Violation> violations{};
};

Report Check(const History& history, const Bounds& bounds);

/// What was written around an instant, by whom: some lines, for whoever wants to know why.
std::string Around(const History& history, Instant at);

/// A paragraph, and JSON.
std::string Summary(const History& history, const Report& report);
std::string ToJson(const History& history, const Report& report);

}  // namespace kx::velmor::chaos
