#pragma once

// Child processes, under the names of tests.
#include "process/child_process.h"

namespace kx::velmor::testing_support {

using process::ChildProcess;
using process::ProcessOptions;

}  // namespace kx::velmor::testing_support
