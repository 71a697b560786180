// Plays random schedules of faults with real candidates on a simulated ensemble, in virtual time, and checks what came
// of them. What it finds is shortened and printed as a schedule that can be played again.

#include "tests/simulation/batches.h"
#include "tests/simulation/isolated_run.h"
#include "tests/simulation/schedule.h"
#include "tests/simulation/schedule_draw.h"
#include "tests/simulation/shrink.h"
#include "tests/simulation/simulation.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace kx::velmor::simulation;
using Clock = std::chrono::steady_clock;

constexpr int kExitUsage = 2;
constexpr std::chrono::seconds kProgressEvery{5};

struct Arguments
{
    BatchOptions batches{};
    std::vector<std::string> without{};
    std::string replay{};
    bool shorten = false;
    std::optional<std::uint64_t> draw{};
    std::string save{};
    std::size_t findings = 1;
    std::size_t shrinkRuns = 600;
};

/// Whether a schedule violates this check.
std::function<bool(const Schedule&)> FailsIn(const Arguments& arguments, Check check)
{
    return [&arguments, check](const Schedule& schedule) {
        const RunResult result = RunIsolated(schedule, arguments.batches.run);
        return result.violation && result.violation->check == check;
    };
}

double Seconds(Clock::duration duration)
{
    return std::chrono::duration<double>(duration).count();
}

/// The kinds of the faults: two findings with the same faults are likely to have one cause.
std::string Signature(const Violation& violation, const Schedule& schedule)
{
    std::string signature = Name(violation.check);
    std::set<std::string> kinds;
    for (const Fault& fault : schedule.faults)
    {
        kinds.insert(Name(fault.kind));
    }
    for (const std::string& kind : kinds)
    {
        signature += "+" + kind;
    }
    return signature + (schedule.ensemble.limits.answersAlone ? "+answers-alone" : "");
}

class Findings : public BatchListener
{
public:
    explicit Findings(const Arguments& arguments) : arguments_(arguments) {}

    void OnProgress(const Progress& progress) override
    {
        if (Clock::now() - told_ >= kProgressEvery)
        {
            told_ = Clock::now();
            PrintProgress(progress);
        }
    }

    bool OnViolation(std::uint64_t index, const Violation& violation, const Progress& progress) override
    {
        ++violations_;
        const std::uint64_t seed = ScheduleSeed(arguments_.batches.seed, index);
        std::cout << "VIOLATION in schedule " << index << " after " << progress.done << " schedules and "
                  << Seconds(Clock::now() - start_) << " s\n  " << Describe(violation) << "\n  as it was drawn: --draw "
                  << seed << std::endl;
        const Schedule shortened = Shorten(DrawSchedule(seed), violation);
        const std::string signature = Signature(violation, shortened);
        std::cout << "  " << signature << '\n' << Print(shortened) << std::endl;
        if (signatures_.insert(signature).second && !arguments_.save.empty())
        {
            Save(signature, index, violation, shortened);
        }
        return signatures_.size() < arguments_.findings;
    }

    void PrintProgress(const Progress& progress) const
    {
        const double minutes = Seconds(Clock::now() - start_) / 60;
        std::cout << progress.done << " schedules in " << minutes * 60 << " s, "
                  << static_cast<std::uint64_t>(static_cast<double>(progress.done) / minutes) << " per minute, "
                  << std::chrono::duration_cast<std::chrono::hours>(progress.virtualTime).count()
                  << " hours of virtual time, " << violations_ << " violations" << std::endl;
    }

    bool Any() const { return violations_ != 0; }

private:
    Schedule Shorten(const Schedule& drawn, const Violation& violation) const
    {
        if (violation.check != Check::Replay && !FailsIn(arguments_, violation.check)(drawn))
        {
            std::cout << "  does NOT happen again when the schedule is played alone" << std::endl;
            return drawn;
        }
        if (violation.check != Check::Crash)
        {
            const std::uint64_t first = RunIsolated(drawn, arguments_.batches.run).fingerprint;
            const std::uint64_t second = RunIsolated(Parse(Print(drawn)), arguments_.batches.run).fingerprint;
            std::cout << "  fingerprint " << first
                      << (first == second ? ", the same when it is played again"
                                          : ", but ANOTHER ONE when played again")
                      << std::endl;
        }
        return Shrink(drawn, FailsIn(arguments_, violation.check), arguments_.shrinkRuns);
    }

    void Save(const std::string& signature, std::uint64_t index, const Violation& violation,
              const Schedule& shortened) const
    {
        std::filesystem::create_directories(arguments_.save);
        std::ofstream file(std::filesystem::path(arguments_.save) / (signature + ".schedule"));
        file << "# Seed " << arguments_.batches.seed << ", schedule " << index << ".\n# " << Describe(violation) << '\n'
             << Print(shortened);
        if (!file.flush())
        {
            throw std::runtime_error("cannot write to " + arguments_.save);
        }
    }

    const Arguments& arguments_;
    const Clock::time_point start_ = Clock::now();
    Clock::time_point told_ = start_;
    std::size_t violations_ = 0;
    std::set<std::string> signatures_;
};

int Replay(const Arguments& arguments)
{
    std::ifstream file(arguments.replay);
    std::ostringstream text;
    text << file.rdbuf();
    if (!file)
    {
        throw std::runtime_error("cannot read " + arguments.replay);
    }
    const Schedule schedule = Parse(text.str());
    const RunResult result = RunIsolated(schedule, arguments.batches.run);
    std::cout << "fingerprint " << result.fingerprint << ", "
              << std::chrono::duration_cast<std::chrono::milliseconds>(result.length).count() << " ms of virtual time\n"
              << (result.violation ? "VIOLATION: " + Describe(*result.violation) : "no violation") << std::endl;
    if (arguments.shorten && result.violation)
    {
        std::cout << Print(Shrink(schedule, FailsIn(arguments, result.violation->check), arguments.shrinkRuns));
    }
    return result.violation ? EXIT_FAILURE : EXIT_SUCCESS;
}

int Simulate(const Arguments& arguments)
{
    Findings findings(arguments);
    const Progress progress = RunBatches(arguments.batches, findings);
    findings.PrintProgress(progress);
    return findings.Any() ? EXIT_FAILURE : EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv)
{
    Arguments arguments;
    CLI::App app("Elections on a simulated ensemble under random faults, in virtual time.");
    app.add_option("--schedules", arguments.batches.schedules, "How many schedules to play")->capture_default_str();
    app.add_option("--seed", arguments.batches.seed, "What all schedules derive from")->capture_default_str();
    app.add_option_function<double>(
           "--minutes",
           [&](double minutes) {
               arguments.batches.maxRealTime =
                   std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(minutes * 60));
           },
           "Stop after this time, too")
        ->check(CLI::PositiveNumber);
    app.add_option("--jobs", arguments.batches.jobs, "Processes that play schedules at the same time")
        ->check(CLI::Range(1, 256))
        ->capture_default_str();
    app.add_option("--without", arguments.without,
                   "Leave out a check: overlap, epochs, callbacks, flicker, leader, leftovers, hang, fork, replay");
    app.add_option("--findings", arguments.findings, "Stop when this many different violations are found")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    app.add_option("--save", arguments.save, "Write shortened schedules into this directory");
    app.add_option("--shrink-runs", arguments.shrinkRuns, "How many runs to spend on shortening a schedule")
        ->capture_default_str();
    app.add_option("--replay", arguments.replay, "Play the schedule in this file, and nothing else");
    app.add_flag("--shorten", arguments.shorten, "With --replay: shorten the schedule and print it");
    app.add_option("--draw", arguments.draw, "Print the schedule that this seed gives, and do nothing else");
    app.add_flag("--trace", arguments.batches.run.trace, "Print log, faults and leaders to stderr, in virtual time");
    app.footer("Exit status: 0 when nothing was violated, 1 when something was, 2 usage.");
    try
    {
        app.parse(argc, argv);
        for (const std::string& name : arguments.without)
        {
            arguments.batches.run.without.insert(CheckNamed(name));
        }
    }
    catch (const CLI::ParseError& error)
    {
        return app.exit(error) == EXIT_SUCCESS ? EXIT_SUCCESS : kExitUsage;
    }
    catch (const std::invalid_argument& error)
    {
        std::cerr << "simulate: " << error.what() << '\n';
        return kExitUsage;
    }
    try
    {
        if (arguments.draw)
        {
            std::cout << Print(DrawSchedule(*arguments.draw));
            return EXIT_SUCCESS;
        }
        return arguments.replay.empty() ? Simulate(arguments) : Replay(arguments);
    }
    catch (const std::exception& error)
    {
        std::cerr << "simulate: FAILED: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
