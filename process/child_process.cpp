#include "process/child_process.h"

#include "process/spawner.h"

#include <boost/process/args.hpp>
#include <boost/process/child.hpp>
#include <boost/process/exe.hpp>
#include <boost/process/extend.hpp>
#include <boost/process/io.hpp>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace kx::velmor::process {

namespace {

namespace bp = boost::process;

struct FileCloser
{
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

[[noreturn]] void ThrowErrno(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

/// Boost.Process passes on streams it is given as they are; its own pipes would stay open in children started later.
std::pair<File, File> MakePipe()
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
    {
        ThrowErrno("pipe2");
    }
    return {File(::fdopen(ends[0], "r")), File(::fdopen(ends[1], "w"))};
}

File OpenToAppend(const std::filesystem::path& path)
{
    File file(std::fopen(path.c_str(), "ae"));
    if (!file)
    {
        ThrowErrno("cannot write " + path.string());
    }
    return file;
}

/// Where execvp would find it. (Boost's own search takes a library to be linked.)
std::string FindProgram(const std::string& name)
{
    if (name.find('/') != std::string::npos)
    {
        return name;
    }
    const char* const path = std::getenv("PATH");
    std::istringstream directories(path != nullptr ? path : "/bin:/usr/bin");
    for (std::string directory; std::getline(directories, directory, ':');)
    {
        const std::filesystem::path program = std::filesystem::path(directory.empty() ? "." : directory) / name;
        std::error_code error;
        if (std::filesystem::is_regular_file(program, error) && ::access(program.c_str(), X_OK) == 0)
        {
            return program.string();
        }
    }
    throw std::runtime_error("there is no program " + name + " in PATH (script/bootstrap installs what is missing)");
}

/// Runs in the child between fork and exec: nothing but plain system calls.
void PrepareChild(pid_t parent)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent)
    {
        // The parent ended before the request was in place.
        ::_exit(EXIT_FAILURE);
    }
    // Or the child would keep the proxies' sockets, and the other side of a connection that is cut would never hear.
    constexpr unsigned kFirstOther = STDERR_FILENO + 1;
    ::close_range(kFirstOther, ~0U, CLOSE_RANGE_CLOEXEC);
    ::setpgid(0, 0);
    ::signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace

class ChildProcess::Impl
{
public:
    explicit Impl(ProcessOptions options) : name_(options.command.at(0)), onLine_(std::move(options.onLine))
    {
        const std::string program = FindProgram(name_);
        const std::vector<std::string> arguments(options.command.begin() + 1, options.command.end());
        const File log = OpenToAppend(options.output.empty() ? "/dev/stderr" : options.output);
        File reading;
        File writing;
        if (onLine_)
        {
            std::tie(reading, writing) = MakePipe();
        }
        std::FILE* const standardOutput = onLine_ ? writing.get() : options.output.empty() ? stdout : log.get();
        std::FILE* const standardError = options.output.empty() ? stderr : log.get();

        const pid_t parent = ::getpid();
        // Not an exception, which both threads would hold on to.
        std::error_code failure;
        RunOnSpawner([&] {
            child_ = bp::child(
                bp::exe = program, bp::args = arguments, (bp::std_in < bp::null), (bp::std_out > standardOutput),
                (bp::std_err > standardError), failure,
                bp::extend::on_exec_setup = [parent](auto&) { PrepareChild(parent); });
        });
        if (failure)
        {
            throw std::runtime_error("cannot run " + program + ": " + failure.message());
        }
        if (onLine_)
        {
            reader_ = std::thread([this, file = std::move(reading)]() mutable { ReadLines(std::move(file)); });
        }
    }

    ~Impl()
    {
        Kill();
        if (reader_.joinable())
        {
            reader_.join();
        }
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    pid_t Pid() const { return child_.id(); }

    bool Running() { return child_.running(); }

    void Signal(int signal)
    {
        // An ended child that has not been waited for still takes signals; one that has been must not be signalled, its
        // number may belong to somebody else.
        if (!Running())
        {
            throw std::runtime_error(name_ + " has ended, cannot send it signal " + std::to_string(signal));
        }
        if (::kill(Pid(), signal) != 0)
        {
            ThrowErrno("kill " + name_);
        }
    }

    void Pause()
    {
        Signal(SIGSTOP);
        // WNOWAIT leaves the news in place for whoever waits for the end.
        siginfo_t info{};
        if (::waitid(P_PID, static_cast<id_t>(Pid()), &info, WSTOPPED | WEXITED | WNOWAIT) != 0)
        {
            ThrowErrno("waitid " + name_);
        }
        if (info.si_code != CLD_STOPPED)
        {
            throw std::runtime_error(name_ + " ended when it was to be paused");
        }
    }

    void Kill()
    {
        if (Running())
        {
            ::kill(Pid(), SIGKILL);
            child_.wait();
        }
    }

    std::optional<int> AwaitExit(std::chrono::milliseconds deadline)
    {
        const auto end = std::chrono::steady_clock::now() + deadline;
        while (Running())
        {
            if (std::chrono::steady_clock::now() >= end)
            {
                return std::nullopt;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        const int status = child_.native_exit_code();
        return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    }

    const std::string& Name() const { return name_; }

private:
    void ReadLines(File file)
    {
        char* line = nullptr;
        std::size_t room = 0;
        while (true)
        {
            const ssize_t length = ::getline(&line, &room, file.get());
            if (length < 0)
            {
                break;
            }
            std::string text(line, static_cast<std::size_t>(length));
            if (!text.empty() && text.back() == '\n')
            {
                text.pop_back();
            }
            onLine_(text);
        }
        std::free(line);
    }

    const std::string name_;
    const std::function<void(const std::string&)> onLine_;
    bp::child child_;
    std::thread reader_;
};

ChildProcess::ChildProcess(ProcessOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

ChildProcess::~ChildProcess() = default;

pid_t ChildProcess::Pid() const
{
    return impl_->Pid();
}

bool ChildProcess::Running()
{
    return impl_->Running();
}

void ChildProcess::Signal(int signal)
{
    impl_->Signal(signal);
}

void ChildProcess::Pause()
{
    impl_->Pause();
}

void ChildProcess::Continue()
{
    impl_->Signal(SIGCONT);
}

void ChildProcess::Kill()
{
    impl_->Kill();
}

void ChildProcess::Terminate(std::chrono::milliseconds deadline)
{
    impl_->Signal(SIGTERM);
    // A paused process takes the signal only when it goes on.
    if (impl_->Running())
    {
        impl_->Signal(SIGCONT);
    }
    if (!impl_->AwaitExit(deadline))
    {
        throw std::runtime_error(impl_->Name() + " did not end within " + std::to_string(deadline.count()) +
                                 " ms of SIGTERM");
    }
}

std::optional<int> ChildProcess::AwaitExit(std::chrono::milliseconds deadline)
{
    return impl_->AwaitExit(deadline);
}

}  // namespace kx::velmor::process
