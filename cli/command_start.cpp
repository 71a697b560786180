#include "cli/command_start.h"

#include "cli/terminal_foreground.h"

#include <boost/process/args.hpp>
#include <boost/process/child.hpp>
#include <boost/process/error.hpp>
#include <boost/process/exe.hpp>
#include <boost/process/extend.hpp>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <system_error>
#include <vector>

namespace kx::velmor::cli {

namespace {

namespace bp = boost::process;

constexpr int kRoleDescriptor = 3;

/// This process's environment with the changes that `launch` asks for, as "NAME=value".
std::vector<std::string> EnvironmentFor(const Launch& launch)
{
    std::map<std::string, std::string> variables;
    for (char** item = ::environ; item != nullptr && *item != nullptr; ++item)
    {
        const std::string text = *item;
        const std::size_t equals = text.find('=');
        if (equals != std::string::npos)
        {
            variables.emplace(text.substr(0, equals), text.substr(equals + 1));
        }
    }
    for (const std::string& name : launch.hidden)
    {
        variables.erase(name);
    }
    for (const auto& [name, value] : launch.environment)
    {
        variables.insert_or_assign(name, value);
    }
    if (launch.hearsRoles)
    {
        variables.insert_or_assign("VELMOR_ROLE_FD", std::to_string(kRoleDescriptor));
    }
    std::vector<std::string> texts;
    texts.reserve(variables.size());
    for (const auto& [name, value] : variables)
    {
        texts.push_back(name);
        texts.back().append("=").append(value);
    }
    return texts;
}

std::vector<char*> PointersTo(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts)
    {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

struct Program
{
    /// Empty when there is none, and then why.
    std::string path{};
    int code = 0;
};

/// Where execvp would find it.
Program FindProgram(const std::string& name)
{
    if (name.find('/') != std::string::npos)
    {
        return {name, 0};
    }
    const char* const path = std::getenv("PATH");
    std::istringstream directories(path != nullptr ? path : "/bin:/usr/bin");
    int code = ENOENT;
    for (std::string directory; std::getline(directories, directory, ':');)
    {
        const std::filesystem::path program = std::filesystem::path(directory.empty() ? "." : directory) / name;
        std::error_code error;
        if (std::filesystem::is_regular_file(program, error))
        {
            if (::access(program.c_str(), X_OK) == 0)
            {
                return {program.string(), 0};
            }
            code = EACCES;
        }
    }
    return {{}, code};
}

/// Runs in the child between fork and exec.
void PrepareChild(pid_t warden, const Launch& launch, const StartSurroundings& surroundings)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != warden)
    {
        // The warden ended before the request was in place.
        ::_exit(EXIT_FAILURE);
    }
    ::setpgid(0, 0);
    if (surroundings.foreground)
    {
        TerminalForeground::Take();
    }
    if (surroundings.rolePipe >= 0)
    {
        ::dup2(surroundings.rolePipe, kRoleDescriptor);
    }
    if (launch.kind == Launch::Kind::Hook)
    {
        ::dup2(surroundings.null, STDIN_FILENO);
    }
    ::signal(SIGPIPE, SIG_DFL);
    ::signal(SIGCHLD, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

}  // namespace

StartResult StartCommand(const Launch& launch, const StartSurroundings& surroundings)
{
    const std::string& name = launch.command.at(0);
    const auto [program, code] = FindProgram(name);
    if (program.empty())
    {
        return {0, code, "cannot find " + name + " in PATH: " + std::generic_category().message(code)};
    }
    const std::vector<std::string> arguments(launch.command.begin() + 1, launch.command.end());
    std::vector<std::string> texts = EnvironmentFor(launch);
    std::vector<char*> environment = PointersTo(texts);
    const pid_t warden = ::getpid();
    std::error_code error;
    errno = 0;
    bp::child child(
        bp::exe = program, bp::args = arguments, error,
        bp::extend::on_setup = [&](auto& executor) { executor.env = environment.data(); },
        bp::extend::on_exec_setup = [&](auto&) { PrepareChild(warden, launch, surroundings); },
        bp::extend::on_error =
            [](auto& executor, const std::error_code&) {
                // Nobody else knows of the process that could not become the program.
                if (executor.pid > 0)
                {
                    ::waitpid(executor.pid, nullptr, 0);
                }
            });
    const pid_t pid = child.id();
    if (!error && pid <= 0)
    {
        // Boost.Process says nothing when it cannot make the pipe through which it would learn more.
        error.assign(errno != 0 ? errno : EAGAIN, std::generic_category());
    }
    if (error)
    {
        return {0, error.value(), "cannot run " + program + ": " + error.message()};
    }
    // Whoever started this waits for it.
    child.detach();
    return {pid, 0, {}};
}

}  // namespace kx::velmor::cli
