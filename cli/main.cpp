// The program `velmor`.

#include "cli/front.h"

#include <algorithm>
#include <iostream>

int main(int argc, char** argv)
{
    kx::velmor::cli::Front front(std::cout, std::cerr);
    for (const auto add : {kx::velmor::cli::AddDemo, kx::velmor::cli::AddDemoParticipant})
    {
        front.Add(add(front.Application()));
    }
    return front.Run({argv + std::min(argc, 1), argv + argc});
}
