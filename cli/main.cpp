// The program `velmor`.

#include "cli/front.h"

#include <algorithm>
#include <iostream>

int main(int argc, char** argv)
{
    using namespace kx::velmor::cli;  // NOLINT(google-build-using-namespace)
    Front front(std::cout, std::cerr);
    for (const auto add : {AddRun, AddDemo, AddDemoParticipant})
    {
        front.Add(add(front.Application()));
    }
    return front.Run({argv + std::min(argc, 1), argv + argc});
}
