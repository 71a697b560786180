#include "cli/demo/scoreboard.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace kx::velmor::demo {

namespace {

using Clock = std::chrono::steady_clock;

/// The value of "key=value"; empty for anything else.
std::string ValueOf(const std::string& key, const std::string& word)
{
    return word.rfind(key + "=", 0) == 0 ? word.substr(key.size() + 1) : std::string();
}

std::string InWords(const std::string& name, const std::string& role)
{
    static const std::map<std::string, std::string> words{{"joining", "joins"}, {"follower", "follows"},
                                                          {"next", "is next"},  {"leader", "LEADS"},
                                                          {"left", "has left"}, {"lost", "has lost its session"}};
    const auto found = words.find(role);
    return found == words.end() ? std::string() : name + " " + found->second;
}

}  // namespace

const char* Word(Role role) noexcept
{
    return role == Role::NextLeader ? "next" : ToString(role);
}

std::string Joined(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names)
    {
        text += (text.empty() ? "" : " ") + name;
    }
    return text.empty() ? "-" : text;
}

Scoreboard::Scoreboard()
{
    std::printf("%10s  %-32s %-7s %-7s %-13s %s\n", "seconds", "what happens", "leader", "next", "followers", "away");
}

void Scoreboard::OnLine(const std::string& line)
{
    std::istringstream words(line);
    double seconds = 0;
    std::string name;
    std::string role;
    std::string node;
    std::string session;
    words >> seconds >> name >> role >> node >> session;
    const std::string event = InWords(name, role);

    const std::lock_guard<std::mutex> lock(mutex_);
    if (!words || event.empty())
    {
        problem_ = "a participant says what nobody understands: " + line;
        return;
    }
    Entry& entry = entries_[name];
    entry.role = role;
    entry.node = ValueOf("node", node);
    entry.session = ValueOf("session", session);
    entry.since =
        Clock::time_point(std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds)));
    if (role == "lost")
    {
        entry.away.clear();
    }
    Print(event);

    const std::vector<std::string> leaders = Select("leader");
    if (leaders.size() > 1)
    {
        problem_ = "there are two leaders at a time: " + Joined(leaders);
    }
}

void Scoreboard::SetAway(const std::string& name, const std::string& why, const std::string& event)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    entries_[name].away = why;
    Print(event);
}

void Scoreboard::Tell(const std::string& event)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    Print(event);
}

Scoreboard::Entries Scoreboard::Now() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
}

std::vector<std::string> Scoreboard::WithRole(const std::string& role) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return Select(role);
}

std::string Scoreboard::Problem() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return problem_;
}

std::vector<std::string> Scoreboard::Select(const std::string& role) const
{
    std::vector<std::string> names;
    for (const auto& [name, entry] : entries_)
    {
        if (entry.away.empty() && entry.role == role)
        {
            names.push_back(name);
        }
    }
    return names;
}

void Scoreboard::Print(const std::string& event) const
{
    std::vector<std::string> away;
    for (const auto& [name, entry] : entries_)
    {
        if (!entry.away.empty())
        {
            away.push_back(name + " (" + entry.away + ")");
        }
    }
    const std::chrono::duration<double> now = Clock::now() - begin_;
    std::printf("%10.3f  %-32s %-7s %-7s %-13s %s\n", now.count(), event.c_str(), Joined(Select("leader")).c_str(),
                Joined(Select("next")).c_str(), Joined(Select("follower")).c_str(), Joined(away).c_str());
    std::fflush(stdout);
}

}  // namespace kx::velmor::demo
