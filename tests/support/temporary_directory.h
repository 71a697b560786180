#pragma once

#include <filesystem>

namespace kx::velmor::testing_support {

/// A fresh directory that goes with everything in it: when this object is destroyed, and also when the process ends
/// without getting there, by a signal or a crash.
///
/// Threads: any. Throws `std::system_error` when the directory cannot be made.
class TemporaryDirectory
{
public:
    TemporaryDirectory();
    ~TemporaryDirectory();

    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& Path() const { return path_; }

private:
    const std::filesystem::path path_;
};

}  // namespace kx::velmor::testing_support
