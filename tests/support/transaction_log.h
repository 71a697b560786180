#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace kx::velmor::testing_support {

/// Adds to what a server will read when it starts: that a plain node was created when its parent had numbered `counter`
/// children. It comes after all that the server did in its first four billion transactions.
///
/// Two billion creations would take a server days. Throws `std::runtime_error` when the file cannot be written.
void RecordCreation(const std::filesystem::path& dataDirectory, const std::string& path, std::int32_t counter);

}  // namespace kx::velmor::testing_support
