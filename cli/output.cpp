#include "cli/output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <system_error>

namespace kx::velmor::cli {

Written Write(int descriptor, std::string_view text, int interrupting)
{
    while (!text.empty())
    {
        // As much as a pipe takes without blocking once it is ready.
        std::array<pollfd, 2> ready{{{descriptor, POLLOUT, 0}, {interrupting, POLLIN, 0}}};
        if (poll(ready.data(), ready.size(), -1) < 0 && errno != EINTR)
        {
            throw std::system_error(errno, std::generic_category(), "poll");
        }
        if (ready[0].revents == 0)
        {
            if (ready[1].revents != 0)
            {
                return Written::Interrupted;
            }
            continue;
        }
        const ssize_t written = write(descriptor, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
        if (written >= 0)
        {
            text.remove_prefix(static_cast<std::size_t>(written));
        }
        else if (errno == EPIPE)
        {
            return Written::ReaderGone;
        }
        else if (errno != EINTR && errno != EAGAIN)
        {
            throw std::system_error(errno, std::generic_category(), "standard output cannot be written");
        }
    }
    return Written::All;
}

}  // namespace kx::velmor::cli
