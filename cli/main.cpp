// The program `velmor`.

#include "cli/front.h"

#include <algorithm>
#include <iostream>

int main(int argc, char** argv)
{
    kx::velmor::cli::Front front(std::cout, std::cerr);
    return front.Run({argv + std::min(argc, 1), argv + argc});
}
