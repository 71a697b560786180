#include "tests/support/forked_child.h"

#include "tests/support/await.h"

#include <kx/logging/logger.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <limits>
#include <stdexcept>
#include <thread>

namespace kx::velmor::testing_support {

namespace {

std::string Check(const std::function<void(Findings&)>& check)
{
    Findings findings;
    try
    {
        check(findings);
    }
    catch (const std::exception& error)
    {
        findings.Expect(false, std::string("thrown: ") + error.what());
    }
    return findings.Text();
}

/// Until the end of the stream.
bool ReadAll(int descriptor, std::string& text)
{
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    for (;;)
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd ready{descriptor, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) == 0)
        {
            return false;
        }
        char part[512];
        const ssize_t size = ::read(descriptor, part, sizeof(part));
        if (size == 0)
        {
            return true;
        }
        if (size > 0)
        {
            text.append(part, static_cast<std::size_t>(size));
        }
    }
}

}  // namespace

int AwaitEndOf(pid_t child)
{
    int status = 0;
    const auto ended = [&] { return ::waitpid(child, &status, WNOHANG) == child; };
    try
    {
        Await("the end of a child", ended);
    }
    catch (const std::runtime_error&)
    {
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string FindInChild(const std::function<void(Findings&)>& check)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
    {
        throw std::runtime_error("pipe2");
    }
    const pid_t child = ::fork();
    if (child < 0)
    {
        throw std::runtime_error("fork");
    }
    if (child == 0)
    {
        ::close(ends[0]);
        logging::g_minLogLevel = std::numeric_limits<std::int32_t>::max();
        const std::string found = Check(check);
        const bool told = ::write(ends[1], found.data(), found.size()) == static_cast<ssize_t>(found.size());
        ::_exit(told ? EXIT_SUCCESS : EXIT_FAILURE);
    }
    ::close(ends[1]);
    std::string found;
    const bool inTime = ReadAll(ends[0], found);
    ::close(ends[0]);
    if (!inTime)
    {
        ::kill(child, SIGKILL);
    }
    const int code = AwaitEndOf(child);
    if (!inTime)
    {
        return "hangs";
    }
    return code == EXIT_SUCCESS ? found : found + ", ended with " + std::to_string(code);
}

}  // namespace kx::velmor::testing_support
