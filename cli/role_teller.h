#pragma once

#include "cli/owned_descriptor.h"

#include <functional>
#include <optional>
#include <string>

namespace kx::velmor::cli {

/// Takes in what is worth a line in the log. Does not throw.
using Complain = std::function<void(const std::string&)>;

/// Tells a command lines, through a pipe and in a file. Waits for neither reader nor room.
class RoleTeller
{
public:
    /// `file` may be empty. Throws `std::system_error` when there is no pipe to be had.
    RoleTeller(std::string file, Complain complain);
    /// Removes the file.
    ~RoleTeller();

    RoleTeller(const RoleTeller&) = delete;
    RoleTeller& operator=(const RoleTeller&) = delete;

    /// The end of the pipe that the command reads; to be closed when it has been started.
    OwnedDescriptor& ReadEnd() noexcept { return readEnd_; }

    /// Writes the line, if there is room, and keeps it otherwise, in place of a line that was kept. Then replaces the
    /// file, which takes as long as the file system takes.
    void Tell(const std::string& line);
    /// When it is writable, `Continue` is due. Empty when nothing is kept.
    std::optional<int> Awaited() const noexcept;
    void Continue();

private:
    void Replace(const std::string& text) const;

    const std::string file_;
    const Complain complain_;
    OwnedDescriptor readEnd_;
    /// None when nobody reads any more.
    OwnedDescriptor writeEnd_;
    /// What is left of a line of which a part has been written.
    std::string rest_;
    std::optional<std::string> next_;
};

}  // namespace kx::velmor::cli
