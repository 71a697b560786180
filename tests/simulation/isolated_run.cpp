#include "tests/simulation/isolated_run.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace kx::velmor::simulation {

namespace {

using Clock = std::chrono::steady_clock;

/// Reads until the other end is closed or the time is over; false for the latter.
bool ReadAll(int descriptor, Clock::time_point deadline, std::string& text)
{
    for (;;)
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd ready{descriptor, POLLIN, 0};
        const int count = left.count() <= 0 ? 0 : ::poll(&ready, 1, static_cast<int>(left.count()));
        if (count == 0)
        {
            return false;
        }
        char buffer[4096];
        const ssize_t length = count < 0 ? -1 : ::read(descriptor, buffer, sizeof(buffer));
        if (length == 0)
        {
            return true;
        }
        if (length > 0)
        {
            text.append(buffer, static_cast<std::size_t>(length));
        }
        else if (errno != EINTR)
        {
            throw std::system_error(errno, std::generic_category(), "reading from a simulation");
        }
    }
}

[[noreturn]] void RunInChild(int descriptor, const Schedule& schedule, const RunOptions& options)
{
    const std::string line = Print(Run(schedule, options));
    const bool written = ::write(descriptor, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    // The simulation may not have ended: nothing of it may be destroyed.
    ::_exit(written ? 0 : 1);
}

RunResult Crashed(const std::string& text)
{
    RunResult result;
    result.violation = Violation{Check::Crash, Time(), text};
    return result;
}

}  // namespace

RunResult RunIsolated(const Schedule& schedule, const RunOptions& options)
{
    int ends[2];
    if (::pipe(ends) != 0)
    {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    const pid_t child = ::fork();
    if (child < 0)
    {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0)
    {
        ::close(ends[0]);
        RunInChild(ends[1], schedule, options);
    }
    ::close(ends[1]);
    std::string line;
    const bool ended = ReadAll(ends[0], Clock::now() + kMaxRealTime, line);
    ::close(ends[0]);
    if (!ended)
    {
        ::kill(child, SIGKILL);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR)
    {}
    if (!ended)
    {
        return Crashed("the run did not end within " + std::to_string(kMaxRealTime.count()) + " s");
    }
    if (WIFSIGNALED(status))
    {
        return Crashed("the run was ended by signal " + std::to_string(WTERMSIG(status)));
    }
    if (WEXITSTATUS(status) != 0)
    {
        return Crashed("the run ended with status " + std::to_string(WEXITSTATUS(status)));
    }
    return ParseResult(line);
}

std::string Print(const RunResult& result)
{
    std::ostringstream line;
    line << result.fingerprint << ' ' << result.length.count() << ' ' << (result.reusable ? 1 : 0);
    if (result.violation)
    {
        line << ' ' << Name(result.violation->check) << ' ' << result.violation->at.count() << ' '
             << result.violation->text;
    }
    line << '\n';
    return line.str();
}

RunResult ParseResult(const std::string& line)
{
    std::istringstream words(line);
    RunResult result;
    Time::rep length = 0;
    if (!(words >> result.fingerprint >> length >> result.reusable))
    {
        throw std::invalid_argument("\"" + line + "\" is not the result of a run");
    }
    result.length = Time(length);
    std::string check;
    if (words >> check)
    {
        Violation violation;
        violation.check = CheckNamed(check);
        Time::rep at = 0;
        if (!(words >> at >> std::ws) || !std::getline(words, violation.text))
        {
            throw std::invalid_argument("\"" + line + "\" is not the result of a run");
        }
        violation.at = Time(at);
        result.violation = violation;
    }
    return result;
}

std::string Describe(const Violation& violation)
{
    char time[64];
    std::snprintf(time, sizeof(time), "%lld.%06lld ms", static_cast<long long>(violation.at.count() / 1'000'000),
                  static_cast<long long>(violation.at.count() % 1'000'000));
    return std::string(Name(violation.check)) + " at " + time + ": " + violation.text;
}

}  // namespace kx::velmor::simulation
