#pragma once

#include <string>

namespace kx::velmor::demo {

/// A file that nobody finds unless told its path, and that needs no tidying up: it is gone with this object, or with
/// the process. Threads: any, for `Path` and `Text`.
class MemoryFile
{
public:
    /// Throws `std::system_error`.
    explicit MemoryFile(const std::string& text = {});
    ~MemoryFile();

    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    /// Opens it in any process of this user, for as long as this object lives.
    const std::string& Path() const { return path_; }
    std::string Text() const;

private:
    const int descriptor_;
    const std::string path_;
};

}  // namespace kx::velmor::demo
