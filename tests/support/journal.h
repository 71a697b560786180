#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace kx::velmor::testing_support {

/// What happened, in order, a line each: service calls, log statements, role callbacks.
///
/// Threads: any.
class Journal
{
public:
    void Note(std::string line);

    std::vector<std::string> Lines() const;

    /// The lines so far, which are forgotten.
    std::vector<std::string> Take();

    std::size_t Count(const std::string& line) const;

    /// Blocks until the line has been noted `count` times. Throws `std::runtime_error` with all lines after
    /// `kPatience`.
    void Await(const std::string& line, std::size_t count = 1) const;

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable noted_;
    std::vector<std::string> lines_;
};

}  // namespace kx::velmor::testing_support
