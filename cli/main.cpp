// The program `velmor`.

#include "cli/front.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>

namespace {

/// Where a standard stream is closed the next file that is opened, a connection to a server for one, would be it, and
/// be given the log.
void OccupyStandardStreams()
{
    int number = 0;
    do
    {
        number = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    } while (number >= 0 && number <= STDERR_FILENO);
    ::close(number);
}

}  // namespace

int main(int argc, char** argv)
{
    OccupyStandardStreams();
    using namespace kx::velmor::cli;  // NOLINT(google-build-using-namespace)
    Front front(std::cout, std::cerr);
    for (const auto add : {AddRun, AddStatus, AddWatch, AddDemo, AddDemoParticipant})
    {
        front.Add(add(front.Application()));
    }
    return front.Run({argv + std::min(argc, 1), argv + argc});
}
