#include "source/thread_state.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string_view>

namespace kx::velmor {

bool Asleep(pid_t thread) noexcept
{
    char name[64];
    std::snprintf(name, sizeof(name), "/proc/self/task/%d/stat", static_cast<int>(thread));
    const int file = open(name, O_RDONLY | O_CLOEXEC);
    if (file < 0)
    {
        return false;
    }
    char text[256];
    const ssize_t size = read(file, text, sizeof(text));
    close(file);
    // "<id> (<name>) <state> ...", and names may have brackets of their own.
    const std::string_view line(text, size > 0 ? static_cast<std::size_t>(size) : 0);
    const std::size_t end = line.rfind(") ");
    return end != std::string_view::npos && line.substr(end + 2, 1) == "S";
}

}  // namespace kx::velmor
