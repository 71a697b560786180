// A random fault run: five processes elect a leader on three servers, or on one, all manner of things befall them for
// some minutes, and what they wrote down is judged afterwards. The same seed does the same things in the same order,
// whether the processes take part with the bare recipe or with a Candidate.

#include "tests/chaos/checker.h"
#include "tests/chaos/run.h"
#include "tests/chaos/timeline.h"

#include <kx/logging/default_library.h>

#include <CLI/CLI.hpp>
#include <signal.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace {

using kx::velmor::chaos::Bounds;
using kx::velmor::chaos::FaultKind;
using kx::velmor::chaos::FaultKindsByName;
using kx::velmor::chaos::History;
using kx::velmor::chaos::Report;
using kx::velmor::chaos::Run;
using kx::velmor::chaos::RunOptions;
using kx::velmor::chaos::Violation;

constexpr int kExitUsage = 2;
constexpr std::chrono::minutes kUsualLength{1};
constexpr std::chrono::hours kNoLimit{24 * 365};

std::set<FaultKind> KindsOf(const std::vector<std::string>& names)
{
    std::set<FaultKind> kinds;
    for (const std::string& name : names)
    {
        kinds.insert(FaultKindsByName().at(name));
    }
    return kinds;
}

int Judge(const History& history, const RunOptions& options, std::chrono::milliseconds leaderless)
{
    Bounds bounds(history.sessionTimeout);
    bounds.leaderless = leaderless;
    const Report report = Check(history, bounds);
    const std::string title = std::string("Elections with the ") + Name(options.subject) + " under faults, seed " +
                              std::to_string(options.seed);
    std::ofstream(options.directory / "timeline.svg") << DrawTimeline(history, report.violations, title);
    std::ofstream(options.directory / "summary.json") << ToJson(history, report) << '\n';
    for (const Violation& violation : report.violations)
    {
        const auto at = (violation.at - history.whole.begin).count();
        std::cout << "VIOLATION at " << static_cast<double>(at) / 1e6 << " s (" << violation.rule
                  << "): " << violation.text << '\n'
                  << Around(history, violation.at);
    }
    std::cout << Summary(history, report) << "histories, summary.json and timeline.svg: " << options.directory.string()
              << std::endl;
    return report.violations.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv)
{
    RunOptions options;
    CLI::App app("Elections on throwaway servers under random faults, and what came of them.");
    std::optional<std::chrono::seconds> length;
    app.add_option_function<int>(
           "--minutes", [&](int minutes) { length = std::chrono::minutes(minutes); },
           "For how long faults happen (default: 1, or until there have been as many successions as are asked for)")
        ->check(CLI::Range(1, 100'000));
    app.add_option_function<int>(
           "--seconds", [&](int seconds) { length = std::chrono::seconds(seconds); }, "The same in seconds")
        ->excludes("--minutes");
    app.add_option("--with", options.subject, "What the members take part with: the bare recipe, or a Candidate")
        ->transform(CLI::Transformer(kx::velmor::chaos::SubjectsByName()))
        ->default_str(Name(options.subject));
    app.add_option("--successions", options.successions,
                   "Ends when the lead has changed hands this often, or after the time if that is given, too")
        ->check(CLI::PositiveNumber);
    app.add_option_function<int>(
           "--session-timeout", [&](int timeout) { options.sessionTimeout = std::chrono::milliseconds(timeout); },
           "Of the members, in milliseconds (default: 1000)")
        ->check(CLI::Range(500, 60'000));
    app.add_option("--seed", options.seed, "What the sequence of faults derives from")->capture_default_str();
    app.add_option("--members", options.members, "Processes that take part")
        ->check(CLI::Range(1, 50))
        ->capture_default_str();
    app.add_option("--servers", options.servers, "ZooKeeper servers: an ensemble of three, or one")
        ->check(CLI::IsMember({1, 3}))
        ->capture_default_str();
    app.add_option_function<std::vector<std::string>>(
           "--without", [&](const std::vector<std::string>& names) { options.without = KindsOf(names); },
           "Kinds of faults that do not happen, separated by commas")
        ->delimiter(',')
        ->check(CLI::IsMember(FaultKindsByName()));
    std::string directory;
    app.add_option("--out", directory, "Where histories and results go (default: velmor-chaos-<seed> in $TMPDIR)");
    std::int64_t leaderless = 1'000;
    app.add_option(
           "--leaderless", leaderless,
           "How many milliseconds at a stretch may pass without a leader that no fault accounts for; more for a "
           "machine that is busy with other things")
        ->capture_default_str();
    app.add_flag("--progress", options.progress, "A line each second, besides the one for each fault");
    app.footer("Exit status: 0 when nothing was violated, 1 when something was, 2 usage. Ctrl-C ends a run early.");
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& error)
    {
        return app.exit(error) == EXIT_SUCCESS ? EXIT_SUCCESS : kExitUsage;
    }

    options.length = length.value_or(options.successions == 0 ? kUsualLength : kNoLimit);

    // The run's own sessions fail as they are meant to.
    kx::logging::SetMinLogLevel(kx::logging::kLogLevelOff);
    // Before any thread starts, since threads take over what is blocked.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    try
    {
        options.directory = directory.empty() ? std::filesystem::temp_directory_path() /
                                                    ("velmor-chaos-" + std::to_string(options.seed))
                                              : std::filesystem::path(directory);
        std::filesystem::create_directories(options.directory);
        return Judge(Run(options).Play(), options, std::chrono::milliseconds(leaderless));
    }
    catch (const std::exception& error)
    {
        std::cerr << "chaos: FAILED: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
