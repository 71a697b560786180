#include "tests/chaos/stage.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <utility>

namespace kx::velmor::chaos {

namespace {

using process::ChildProcess;
using process::ProcessOptions;
using testing_support::Proxy;

/// Built into the same directory.
std::filesystem::path MemberProgram()
{
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "velmor_chaos_member";
}

}  // namespace

Stage::Stage(Subject subject, std::size_t members, std::size_t servers, std::chrono::milliseconds sessionTimeout,
             std::filesystem::path directory)
    : subject_(subject),
      sessionTimeout_(sessionTimeout),
      directory_(std::move(directory)),
      servers_(servers),
      links_(members),
      processes_(members)
{
    for (std::size_t member = 0; member < members; ++member)
    {
        const std::filesystem::path history = directory_ / (NameOf(member) + ".jsonl");
        // Of an earlier run.
        std::filesystem::remove(history);
        std::filesystem::remove(directory_ / (NameOf(member) + ".log"));
        readers_.emplace_back(NameOf(member), history);
    }
}

void Stage::StartServers()
{
    servers_.Start();
    for (auto& links : links_)
    {
        for (std::size_t server = 0; server < servers_.Size(); ++server)
        {
            links.push_back(std::make_unique<Proxy>(servers_.Server(server).Address()));
        }
    }
}

void Stage::StartMember(std::size_t member)
{
    std::string addresses;
    for (const auto& link : links_.at(member))
    {
        addresses += (addresses.empty() ? "" : ",") + link->Address();
    }
    ProcessOptions options;
    options.command = {MemberProgram(),
                       "--with",
                       Name(subject_),
                       "--servers",
                       addresses,
                       "--path",
                       path_,
                       "--history",
                       directory_ / (NameOf(member) + ".jsonl"),
                       "--session-timeout",
                       std::to_string(sessionTimeout_.count())};
    options.output = directory_ / (NameOf(member) + ".log");
    processes_.at(member) = std::make_unique<ChildProcess>(std::move(options));
}

void Stage::RestartServers(const std::vector<std::size_t>& servers)
{
    for (const std::size_t server : servers)
    {
        servers_.Server(server).Launch();
    }
    for (const std::size_t server : servers)
    {
        servers_.Server(server).AwaitServing(kServersReturn);
    }
}

std::vector<Proxy*> Stage::Links(std::optional<std::size_t> member, std::optional<std::size_t> server)
{
    std::vector<Proxy*> chosen;
    for (std::size_t i = 0; i < links_.size(); ++i)
    {
        for (std::size_t j = 0; j < links_[i].size(); ++j)
        {
            if (i == member.value_or(i) && j == server.value_or(j))
            {
                chosen.push_back(links_[i][j].get());
            }
        }
    }
    return chosen;
}

std::optional<std::size_t> Stage::ServerOf(std::size_t member) const
{
    const auto& links = links_.at(member);
    const auto used =
        std::find_if(links.begin(), links.end(), [](const auto& link) { return link->Connections() > 0; });
    return used == links.end() ? std::nullopt : std::optional<std::size_t>(used - links.begin());
}

Stage::Lead Stage::LatestLead()
{
    Lead latest;
    for (std::size_t i = 0; i < Members(); ++i)
    {
        const std::optional<Interval> lead = LastLead(HistoryOf(i));
        if (lead && lead->end > latest.when.end)
        {
            latest = {i, *lead};
        }
    }
    return latest;
}

std::size_t Stage::Watches()
{
    const std::string label = "Total watches:";
    std::size_t watches = 0;
    for (std::size_t server = 0; server < servers_.Size(); ++server)
    {
        const std::string answer = servers_.Server(server).Ask("wchs");
        const std::size_t begin = answer.find(label);
        if (begin == std::string::npos)
        {
            throw std::runtime_error("a server tells of no watches: " + answer);
        }
        watches += std::stoul(answer.substr(begin + label.size()));
    }
    return watches;
}

}  // namespace kx::velmor::chaos
