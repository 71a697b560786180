// A process that has a child and a directory and never gets to clean up, because support_test kills it.
#include "tests/support/await.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

#include <cstdlib>
#include <iostream>

int main()
{
    namespace support = kx::velmor::testing_support;
    const support::TemporaryDirectory directory;
    support::ProcessOptions options;
    options.command = {"sleep", "1000"};
    // Or it would keep the pipe open from which the test reads.
    options.output = "/dev/null";
    support::ChildProcess child(options);
    std::cout << child.Pid() << ' ' << directory.Path().string() << std::endl;
    child.AwaitExit(support::kPatience);
    std::cerr << "nobody killed this process\n";
    return EXIT_FAILURE;
}
