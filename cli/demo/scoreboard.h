#pragma once

#include <kx/velmor/candidate.h>

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace kx::velmor::demo {

/// A role in one word, as participants tell it.
const char* Word(Role role) noexcept;

/// What one participant has told last.
struct Entry
{
    /// As in the participant's lines: "joining", "follower", "next", "leader", "lost", "left".
    std::string role;
    std::string node;
    /// As in "0x100028e7a500003".
    std::string session;
    /// When it changed to this role, by its own word. All processes of a machine share this clock.
    std::chrono::steady_clock::time_point since;
    /// Why nothing is to be expected of it, as in "killed"; empty for who takes part.
    std::string away;
};

/// Who leads, who is next, who follows: collects the lines of all participants and prints one for each change.
///
/// Threads: any.
class Scoreboard
{
public:
    using Entries = std::map<std::string, Entry>;

    /// Prints a heading.
    Scoreboard();

    /// Takes in one line of a participant.
    void OnLine(const std::string& line);
    /// From now on nothing is expected of `name`, until it says that it has lost its session and is back.
    void SetAway(const std::string& name, const std::string& why, const std::string& event);
    /// Prints an event that changes nothing by itself.
    void Tell(const std::string& event);

    Entries Now() const;
    /// Those who take part and have that role.
    std::vector<std::string> WithRole(const std::string& role) const;
    /// What has gone wrong, such as two leaders at a time; empty while all is well.
    std::string Problem() const;

private:
    std::vector<std::string> Select(const std::string& role) const;
    void Print(const std::string& event) const;

    const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    mutable std::mutex mutex_;
    Entries entries_;
    std::string problem_;
};

/// "a b c", or "-" when there is none.
std::string Joined(const std::vector<std::string>& names);

}  // namespace kx::velmor::demo
