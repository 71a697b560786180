#include "tests/chaos/forked_observer.h"

#include "tests/chaos/member_log.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <system_error>

namespace kx::velmor::chaos {

namespace {

/// How often a child that leads writes that it still does.
constexpr std::chrono::milliseconds kTellEvery{10};

/// `MemberLog` takes a lock and has a buffer, both of which may have been in use when the process forked.
void Tell(int file, Instant at, bool leads)
{
    char line[160];
    const int length =
        std::snprintf(line, sizeof line,
                      R"({"t":%lld,"is":"forked child","pid":%d,"leads":%s})"
                      "\n",
                      static_cast<long long>(at.count()), static_cast<int>(::getpid()), leads ? "true" : "false");
    // One write for the whole line, so that lines of the parent are not mixed into it.
    if (::write(file, line, static_cast<std::size_t>(length)) != length)
    {
        ::_exit(EXIT_FAILURE);
    }
}

[[noreturn]] void Observe(const std::function<bool()>& leads, int file, std::chrono::milliseconds time)
{
    const Instant begin = Now();
    std::optional<bool> told;
    Instant toldAt{};
    for (Instant now = begin; now < begin + time; now = Now())
    {
        const bool answer = leads();
        if (answer != told || (answer && now - toldAt >= kTellEvery))
        {
            told = answer;
            toldAt = now;
            Tell(file, now, answer);
        }
        constexpr timespec kPause{0, 100'000};
        ::nanosleep(&kPause, nullptr);
    }
    ::_exit(EXIT_SUCCESS);
}

}  // namespace

pid_t ForkObserver(const std::function<bool()>& leads, const std::filesystem::path& history,
                   std::chrono::milliseconds time)
{
    const int file = ::open(history.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (file < 0)
    {
        throw std::system_error(errno, std::generic_category(), "cannot write " + history.string());
    }
    const pid_t child = ::fork();
    if (child == 0)
    {
        Observe(leads, file, time);
    }
    const int error = errno;
    ::close(file);
    if (child < 0)
    {
        throw std::system_error(error, std::generic_category(), "fork");
    }
    return child;
}

void AwaitObservers()
{
    while (::wait(nullptr) >= 0 || errno == EINTR)
    {}
}

}  // namespace kx::velmor::chaos
