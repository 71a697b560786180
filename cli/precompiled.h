#pragma once

// What takes compilers longest, parsed once. A file still includes what it needs: the build that counts lines goes
// without this header.

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>
