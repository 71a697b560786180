#include "cli/process_tree.h"

#include "cli/owned_descriptor.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

namespace kx::velmor::cli {

namespace {

/// A file of /proc in one piece, "" when it is not there any more, nothing when it cannot be read now. (A stream would
/// throw when the process ends meanwhile.)
std::optional<std::string> ReadAtOnce(const std::string& path)
{
    constexpr std::size_t kRoom = 4096;
    std::string text(kRoom, '\0');
    const OwnedDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const ssize_t size = file ? ::read(file.Get(), text.data(), text.size()) : -1;
    if (size < 0 && errno != ENOENT && errno != ESRCH)
    {
        return std::nullopt;
    }
    text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return text;
}

/// Empty when there is no such process any more.
std::optional<ProcessEntry> Parse(pid_t pid, const std::string& text)
{
    // The second field is the name in parentheses, which may itself hold parentheses and blanks.
    const std::size_t nameEnd = text.rfind(')');
    if (nameEnd == std::string::npos)
    {
        return std::nullopt;
    }
    std::istringstream fields(text.substr(nameEnd + 1));
    ProcessEntry entry;
    entry.pid = pid;
    char state = 0;
    fields >> state >> entry.parent >> entry.group;
    constexpr int kBetweenGroupAndStartTime = 16;
    std::string other;
    for (int i = 0; i < kBetweenGroupAndStartTime; ++i)
    {
        fields >> other;
    }
    fields >> entry.startTime;
    return fields ? std::optional<ProcessEntry>(entry) : std::nullopt;
}

std::string StatusFile(pid_t pid)
{
    return "/proc/" + std::to_string(pid) + "/stat";
}

/// Empty when not all can be read now.
std::optional<std::map<pid_t, ProcessEntry>> ReadAll()
{
    std::map<pid_t, ProcessEntry> all;
    const auto close = [](DIR* directory) { ::closedir(directory); };
    const std::unique_ptr<DIR, decltype(close)> directory(::opendir("/proc"), close);
    if (!directory)
    {
        return std::nullopt;
    }
    while (const dirent* const item = ::readdir(directory.get()))
    {
        const auto pid = static_cast<pid_t>(std::strtol(item->d_name, nullptr, 10));
        if (pid <= 0)
        {
            continue;
        }
        const std::optional<std::string> text = ReadAtOnce(StatusFile(pid));
        if (!text)
        {
            return std::nullopt;
        }
        if (const std::optional<ProcessEntry> entry = Parse(pid, *text))
        {
            all.emplace(pid, *entry);
        }
    }
    return all;
}

/// 0 when it does not descend from `root`.
pid_t TopBelow(pid_t root, const ProcessEntry& process, const std::map<pid_t, ProcessEntry>& all)
{
    const ProcessEntry* current = &process;
    // Read at different moments, parents may seem to go round in a circle.
    for (std::size_t steps = 0; steps <= all.size(); ++steps)
    {
        if (current->parent == root)
        {
            return current->pid;
        }
        const auto parent = all.find(current->parent);
        if (parent == all.end())
        {
            return 0;
        }
        current = &parent->second;
    }
    return 0;
}

}  // namespace

std::optional<std::vector<ProcessEntry>> Descendants(pid_t root)
{
    const std::optional<std::map<pid_t, ProcessEntry>> all = ReadAll();
    if (!all)
    {
        return std::nullopt;
    }
    std::vector<ProcessEntry> found;
    for (const auto& [pid, entry] : *all)
    {
        if (const pid_t top = TopBelow(root, entry, *all))
        {
            found.push_back(entry);
            found.back().top = top;
        }
    }
    return found;
}

bool SignalProcess(const ProcessEntry& process, int signal)
{
    // By number: the C library's own declarations of these two are not made for C++.
    const OwnedDescriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, process.pid, 0)));
    const bool open = static_cast<bool>(handle);
    if (!open && errno == ESRCH)
    {
        return true;
    }
    const std::optional<std::string> text = ReadAtOnce(StatusFile(process.pid));
    const std::optional<ProcessEntry> now = text ? Parse(process.pid, *text) : std::nullopt;
    if (!now || now->startTime != process.startTime)
    {
        // Also when that cannot be read now: whoever has to be sure looks again.
        return true;
    }
    // Out of descriptors, or on a kernel without these handles, the look just taken has to do.
    const auto sent = open ? ::syscall(SYS_pidfd_send_signal, handle.Get(), signal, nullptr, 0)
                           : static_cast<long>(::kill(process.pid, signal));
    return sent == 0 || errno != EPERM;
}

}  // namespace kx::velmor::cli
