// One contender, asked over standard input and answering on standard output, a line each:
//
//   handover     the leader leaves and joins again: "handover <nanoseconds>"
//   leave        the first half of that: "leave <nanoseconds>"
//   rejoin       the second: "rejoin"
//   join         with --outside: one joins, and leaves again: "join <nanoseconds>"
//   look         each node of the queue is asked for, with the client library alone: "look <nanoseconds>"
//   events <n>   how many events a session delivers per second, of as many: "events <per second>"
//   quit         as the end of input: everybody leaves
//
// "ready" comes first. With --standby, "leading <nanoseconds of CLOCK_MONOTONIC>" comes once it leads.

#include "benchmarks/drivers/driver.h"
#include "benchmarks/drivers/event_rate.h"

#include <kx/logging/default_library.h>

#include <CLI/CLI.hpp>
#include <signal.h>

#include <atomic>
#include <exception>
#include <iostream>
#include <map>
#include <sstream>
#include <string>

namespace {

using namespace kx::velmor::benchmarks;

std::atomic<bool> g_asked_to_end{false};

void OnEndSignal(int)
{
    g_asked_to_end = true;
}

/// Reading ends with an error then.
void EndOnSignals()
{
    struct sigaction action
    {};
    action.sa_handler = &OnEndSignal;
    for (const int signal : {SIGTERM, SIGINT, SIGHUP})
    {
        ::sigaction(signal, &action, nullptr);
    }
}

void Answer(const std::string& what, std::chrono::nanoseconds took)
{
    std::cout << what << ' ' << took.count() << std::endl;
}

using EventRate = double (*)(const Election&, std::size_t);

void Serve(Driver& driver, const Election& election, EventRate eventRate)
{
    for (std::string line; !g_asked_to_end && std::getline(std::cin, line);)
    {
        std::istringstream words(line);
        std::string verb;
        words >> verb;
        if (verb == "quit")
        {
            return;
        }
        if (verb == "handover")
        {
            const std::chrono::nanoseconds took = driver.Leave();
            driver.JoinAgain();
            Answer(verb, took);
        }
        else if (verb == "leave")
        {
            Answer(verb, driver.Leave());
        }
        else if (verb == "rejoin")
        {
            driver.JoinAgain();
            std::cout << verb << std::endl;
        }
        else if (verb == "join")
        {
            Answer(verb, driver.Join());
        }
        else if (verb == "look")
        {
            Answer(verb, driver.LookAtAll());
        }
        else if (std::size_t events = 0; verb == "events" && words >> events && events > 0)
        {
            std::cout << verb << ' ' << eventRate(election, events) << std::endl;
        }
        else
        {
            throw std::runtime_error("cannot be asked: " + line);
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    const std::map<std::string, MakeContender> makers{
        {"floor", &MakeFloor}, {"recipe", &MakeRecipe}, {"candidate", &MakeCandidate}};
    std::string contender;
    Election election;
    std::size_t candidates = 3;
    std::size_t fillers = 0;
    int timeout = 30'000;
    bool standby = false;
    bool outside = false;

    CLI::App app("One contender of a benchmark.");
    app.add_option("--contender", contender, "Who")->required()->check(CLI::IsMember({"floor", "recipe", "candidate"}));
    app.add_option("--servers", election.servers, "host:port,host:port")->required();
    app.add_option("--election", election.path, "The election's node")->required();
    app.add_option("--candidates", candidates, "How many candidates, with a session each");
    app.add_option("--fillers", fillers, "How many nodes stand in the queue before them and do nothing");
    app.add_option("--session-timeout", timeout, "In milliseconds");
    app.add_flag("--standby", standby, "Says when the first one leads");
    app.add_flag("--outside", outside, "Opens the sessions, and lets nobody join");
    CLI11_PARSE(app, argc, argv);
    election.sessionTimeout = std::chrono::milliseconds(timeout);

    try
    {
        kx::logging::SetMinLogLevel(kx::logging::LogLevel::Warning);
        EndOnSignals();
        Driver driver(makers.at(contender), election, candidates, fillers);
        if (standby)
        {
            driver.StandBy();
        }
        else if (!outside)
        {
            driver.JoinAll();
        }
        std::cout << "ready" << std::endl;
        Serve(driver, election, contender == "floor" ? &FloorEventsPerSecond : &SessionEventsPerSecond);
        return EXIT_SUCCESS;
    }
    catch (const std::exception& error)
    {
        std::cerr << "velmor_bench_driver: " << contender << ": " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
