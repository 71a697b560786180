#include "tests/cli/running_program.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kx::velmor::cli {

using testing_support::Await;

namespace {

/// A shell that becomes the program, so that the process started is the program's.
std::vector<std::string> Launcher(const std::vector<std::string>& command, const Surroundings& surroundings,
                                  const std::filesystem::path& output, const std::filesystem::path& errors)
{
    std::string script = "input=$1 output=$2 errors=$3; shift 3; unset NOTIFY_SOCKET WATCHDOG_USEC WATCHDOG_PID";
    for (const auto& [name, value] : surroundings.environment)
    {
        script += "; export " + name + "=\"" + value + "\"";
    }
    script += "; exec \"$@\" <\"$input\" >\"$output\" 2>\"$errors\"";
    std::vector<std::string> launcher{"/bin/sh", "-c",  script, "sh", surroundings.standardInput.string(),
                                      output,    errors};
    launcher.insert(launcher.end(), command.begin(), command.end());
    return launcher;
}

std::vector<pid_t> AllProcesses()
{
    std::vector<pid_t> processes;
    for (const auto& entry : std::filesystem::directory_iterator("/proc"))
    {
        const std::string name = entry.path().filename();
        if (std::all_of(name.begin(), name.end(), [](unsigned char digit) { return std::isdigit(digit) != 0; }))
        {
            processes.push_back(static_cast<pid_t>(std::stol(name)));
        }
    }
    return processes;
}

/// What /proc/<pid>/stat says; empty for a process that has gone.
struct Status
{
    std::string name;
    char state = 0;
    pid_t parent = 0;
};

Status StatusOf(pid_t process)
{
    const std::string text = ReadFile("/proc/" + std::to_string(process) + "/stat");
    const std::size_t begin = text.find('(');
    const std::size_t end = text.rfind(')');
    Status status;
    if (begin != std::string::npos && end != std::string::npos)
    {
        status.name = text.substr(begin + 1, end - begin - 1);
        std::istringstream(text.substr(end + 1)) >> status.state >> status.parent;
    }
    return status;
}

}  // namespace

RunningProgram::RunningProgram(const std::filesystem::path& directory, std::size_t number,
                               const std::vector<std::string>& command, const Surroundings& surroundings)
    : output_(directory / ("output-" + std::to_string(number))),
      errors_(directory / ("errors-" + std::to_string(number))),
      process_({Launcher(command, surroundings, output_, errors_), directory / "launcher", {}})
{}

int RunningProgram::AwaitExit(std::chrono::milliseconds deadline)
{
    const std::optional<int> code = process_.AwaitExit(deadline);
    if (!code)
    {
        throw std::runtime_error("still running after " + std::to_string(deadline.count()) + " ms; it said:\n" +
                                 Errors());
    }
    return *code;
}

std::string RunningProgram::Output() const
{
    return ReadFile(output_);
}

std::string RunningProgram::Errors() const
{
    return ReadFile(errors_);
}

void RunningProgram::AwaitErrors(const std::string& part)
{
    Await(
        "the program says \"" + part + "\"", [&] { return Errors().find(part) != std::string::npos; },
        testing_support::kPatience, [this] { return "it said:\n" + Errors(); });
}

std::vector<pid_t> RunningProgram::Children(const std::string& name) const
{
    std::vector<pid_t> children;
    for (const pid_t process : AllProcesses())
    {
        const Status status = StatusOf(process);
        if (status.parent == Pid() && status.name == name && status.state != 'Z')
        {
            children.push_back(process);
        }
    }
    return children;
}

pid_t RunningProgram::AwaitWarden() const
{
    std::vector<pid_t> wardens;
    Await(
        "there is a process velmor-warden",
        [&] {
            wardens = Children("velmor-warden");
            return !wardens.empty();
        },
        testing_support::kPatience, [this] { return "the program said:\n" + Errors(); });
    return wardens.front();
}

std::string ReadFile(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream content;
    content << stream.rdbuf();
    return content.str();
}

std::vector<pid_t> ProcessesWith(const std::string& name, const std::string& value)
{
    const std::string wanted = name + "=" + value;
    std::vector<pid_t> found;
    for (const pid_t process : AllProcesses())
    {
        std::istringstream entries(ReadFile("/proc/" + std::to_string(process) + "/environ"));
        for (std::string entry; std::getline(entries, entry, '\0');)
        {
            if (entry == wanted)
            {
                found.push_back(process);
                break;
            }
        }
    }
    return found;
}

bool Lives(pid_t process)
{
    const Status status = StatusOf(process);
    return status.state != 0 && status.state != 'Z' && status.state != 'X';
}

}  // namespace kx::velmor::cli
