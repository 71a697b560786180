#include "tests/simulation/batches.h"

#include "tests/simulation/isolated_run.h"
#include "tests/simulation/schedule_draw.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace kx::velmor::simulation {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kBatch = 300;
constexpr std::uint64_t kReplayEvery = 50;
constexpr std::chrono::seconds kProgressEvery{1};

struct Range
{
    std::uint64_t begin;
    std::uint64_t end;
};

RunResult RunAndReplay(const Schedule& schedule, const RunOptions& options)
{
    const RunResult first = Run(schedule, options);
    if (!first.reusable)
    {
        return first;
    }
    RunResult second = Run(Parse(Print(schedule)), options);
    if (!second.violation && second.fingerprint != first.fingerprint && options.without.count(Check::Replay) == 0)
    {
        second.violation = Violation{Check::Replay, second.length, "the second run took other steps than the first"};
    }
    return second;
}

[[noreturn]] void Work(int descriptor, const BatchOptions& options, Range range)
{
    // With the process that reads.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (std::uint64_t index = range.begin; index < range.end; ++index)
    {
        const Schedule schedule = DrawSchedule(ScheduleSeed(options.seed, index));
        const RunResult result =
            index % kReplayEvery == 0 ? RunAndReplay(schedule, options.run) : Run(schedule, options.run);
        const std::string line = Print(result);
        if (::write(descriptor, line.data(), line.size()) != static_cast<ssize_t>(line.size()) || result.violation ||
            !result.reusable)
        {
            break;
        }
    }
    // The last simulation may not have ended: nothing of it may be destroyed.
    ::_exit(0);
}

/// One process that plays a range of schedules, one after the other, and writes a line about each.
class Worker
{
public:
    Worker(const BatchOptions& options, Range range) : range_(range)
    {
        int ends[2];
        if (::pipe(ends) != 0)
        {
            throw std::system_error(errno, std::generic_category(), "pipe");
        }
        process_ = ::fork();
        if (process_ < 0)
        {
            throw std::system_error(errno, std::generic_category(), "fork");
        }
        if (process_ == 0)
        {
            ::close(ends[0]);
            Work(ends[1], options, range);
        }
        ::close(ends[1]);
        descriptor_ = ends[0];
    }
    ~Worker()
    {
        ::close(descriptor_);
        if (process_ > 0)
        {
            ::kill(process_, SIGKILL);
            Wait();
        }
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    int Descriptor() const { return descriptor_; }

    /// Takes what there is to read. False at the end.
    bool Read()
    {
        char buffer[4096];
        const ssize_t length = ::read(descriptor_, buffer, sizeof(buffer));
        if (length > 0)
        {
            text_.append(buffer, static_cast<std::size_t>(length));
        }
        return length > 0 || (length < 0 && errno == EINTR);
    }

    std::optional<RunResult> NextResult()
    {
        const std::size_t end = text_.find('\n');
        if (end == std::string::npos)
        {
            return std::nullopt;
        }
        const RunResult result = ParseResult(text_.substr(0, end));
        text_.erase(0, end + 1);
        ++range_.begin;
        heard_ = Clock::now();
        return result;
    }

    bool Hangs() const { return Clock::now() - heard_ > kMaxRealTime; }

    /// What it has not told of.
    Range Left() const { return range_; }

    /// After the end of what it writes. Empty when it ended as it should.
    std::string Wait()
    {
        int status = 0;
        while (::waitpid(process_, &status, 0) < 0 && errno == EINTR)
        {}
        process_ = 0;
        if (WIFSIGNALED(status))
        {
            return "ended by signal " + std::to_string(WTERMSIG(status));
        }
        return WEXITSTATUS(status) == 0 ? std::string() : "ended with status " + std::to_string(WEXITSTATUS(status));
    }

private:
    Range range_;
    pid_t process_ = 0;
    int descriptor_ = -1;
    std::string text_;
    Clock::time_point heard_ = Clock::now();
};

class Batches
{
public:
    Batches(const BatchOptions& options, BatchListener& listener) : options_(options), listener_(listener) {}

    Progress Run()
    {
        const Clock::time_point start = Clock::now();
        for (Clock::time_point told = start; !stopped_;)
        {
            StartWorkers();
            if (workers_.empty())
            {
                break;
            }
            Poll();
            if (Clock::now() - told >= kProgressEvery)
            {
                told = Clock::now();
                listener_.OnProgress(progress_);
            }
            stopped_ = stopped_ || (options_.maxRealTime && Clock::now() - start >= *options_.maxRealTime);
        }
        return progress_;
    }

private:
    void StartWorkers()
    {
        while (workers_.size() < options_.jobs && (!left_.empty() || next_ < options_.schedules))
        {
            if (left_.empty())
            {
                left_.push_back({next_, std::min(next_ + kBatch, options_.schedules)});
                next_ = left_.back().end;
            }
            workers_.push_back(std::make_unique<Worker>(options_, left_.front()));
            left_.pop_front();
        }
    }

    void Poll()
    {
        std::vector<pollfd> ready;
        for (const auto& worker : workers_)
        {
            ready.push_back({worker->Descriptor(), POLLIN, 0});
        }
        constexpr int kTimeout = 200;
        ::poll(ready.data(), ready.size(), kTimeout);
        for (std::size_t each = workers_.size(); each > 0 && !stopped_; --each)
        {
            const bool ended = ready[each - 1].revents != 0 && !workers_[each - 1]->Read();
            if (!Take(*workers_[each - 1], ended))
            {
                workers_.erase(workers_.begin() + static_cast<std::ptrdiff_t>(each - 1));
            }
        }
    }

    /// False when this worker has come to its end.
    bool Take(Worker& worker, bool ended)
    {
        while (const std::optional<RunResult> result = worker.NextResult())
        {
            ++progress_.done;
            progress_.virtualTime += result->length;
            if (result->violation)
            {
                Tell(worker.Left().begin - 1, *result->violation);
            }
        }
        const bool hangs = !ended && worker.Hangs();
        if (!ended && !hangs)
        {
            return true;
        }
        const std::string crash = hangs ? "does not end" : worker.Wait();
        Range left = worker.Left();
        if (!crash.empty())
        {
            ++progress_.done;
            Tell(left.begin++, Violation{Check::Crash, Time(), "the process that plays the schedule " + crash});
        }
        if (left.begin < left.end)
        {
            left_.push_back(left);
        }
        return false;
    }

    void Tell(std::uint64_t index, const Violation& violation)
    {
        stopped_ = !listener_.OnViolation(index, violation, progress_) || stopped_;
    }

    const BatchOptions& options_;
    BatchListener& listener_;
    Progress progress_;
    std::vector<std::unique_ptr<Worker>> workers_;
    std::deque<Range> left_;
    std::uint64_t next_ = 0;
    bool stopped_ = false;
};

}  // namespace

std::uint64_t ScheduleSeed(std::uint64_t seed, std::uint64_t index)
{
    // SplitMix64: neighbouring numbers give unrelated ones.
    std::uint64_t mixed = seed * 0x2545F4914F6CDD1DU + (index + 1) * 0x9E3779B97F4A7C15U;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9U;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBU;
    return mixed ^ (mixed >> 31);
}

Progress RunBatches(const BatchOptions& options, BatchListener& listener)
{
    return Batches(options, listener).Run();
}

}  // namespace kx::velmor::simulation
