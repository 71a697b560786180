// A process that has a child and a directory and never gets to clean up, because support_test kills it.
#include "process/child_process.h"
#include "tests/support/await.h"
#include "tests/support/temporary_directory.h"

#include <cstdlib>
#include <iostream>

int main()
{
    namespace process = kx::velmor::process;
    namespace support = kx::velmor::testing_support;
    const support::TemporaryDirectory directory;
    process::ProcessOptions options;
    options.command = {"sleep", "1000"};
    // Or it would keep the pipe open from which the test reads.
    options.output = "/dev/null";
    process::ChildProcess child(options);
    std::cout << child.Pid() << ' ' << directory.Path().string() << std::endl;
    child.AwaitExit(support::kPatience);
    std::cerr << "nobody killed this process\n";
    return EXIT_FAILURE;
}
