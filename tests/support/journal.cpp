#include "tests/support/journal.h"

#include "tests/support/await.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace kx::velmor::testing_support {

namespace {

std::size_t CountIn(const std::vector<std::string>& lines, const std::string& line)
{
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line));
}

}  // namespace

void Journal::Note(std::string line)
{
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(std::move(line));
    }
    noted_.notify_all();
}

std::vector<std::string> Journal::Lines() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

std::vector<std::string> Journal::Take()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(lines_, {});
}

std::size_t Journal::Count(const std::string& line) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return CountIn(lines_, line);
}

void Journal::Await(const std::string& line, std::size_t count) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!noted_.wait_for(lock, kPatience, [&] { return CountIn(lines_, line) >= count; }))
    {
        std::string all;
        for (const std::string& noted : lines_)
        {
            all += "\n  " + noted;
        }
        throw std::runtime_error("\"" + line + "\" was not noted " + std::to_string(count) + " times in" + all);
    }
}

}  // namespace kx::velmor::testing_support
