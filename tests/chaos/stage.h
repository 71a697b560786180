#pragma once

#include "process/child_process.h"
#include "tests/chaos/fault_plan.h"
#include "tests/chaos/history.h"
#include "tests/chaos/member_reader.h"
#include "tests/support/ensemble.h"
#include "tests/support/proxy.h"

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor::chaos {

/// The servers, the members, and a proxy between each member and each server.
///
/// Threads: one. Verbs throw `std::runtime_error` when the world outside does not do as it is told.
class Stage
{
public:
    /// Within this time servers are expected to serve again, on a machine that is busy with other things, too.
    static constexpr std::chrono::seconds kServersReturn{90};

    Stage(Subject subject, std::size_t members, std::size_t servers, std::chrono::milliseconds sessionTimeout,
          std::filesystem::path directory);
    /// No process stays behind.
    ~Stage() = default;

    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    void StartServers();
    void StartMember(std::size_t member);
    /// Starts servers that are down, and waits until they serve.
    void RestartServers(const std::vector<std::size_t>& servers);

    std::size_t Members() const { return processes_.size(); }
    static std::string NameOf(std::size_t member) { return "m" + std::to_string(member + 1); }

    testing_support::Ensemble& Servers() { return servers_; }
    process::ChildProcess& Process(std::size_t member) { return *processes_.at(member); }
    /// The links of one member, or of all; to one server, or to all.
    std::vector<testing_support::Proxy*> Links(std::optional<std::size_t> member, std::optional<std::size_t> server);
    /// The server that the member is connected to; empty when it is between two connections.
    std::optional<std::size_t> ServerOf(std::size_t member) const;

    /// The member's history up to now.
    const Member& HistoryOf(std::size_t member) { return readers_.at(member).Update(); }
    /// Who was the last to be sure that it leads, and when that began and was last seen.
    struct Lead
    {
        /// The first member when nobody ever was.
        std::size_t member = 0;
        Interval when{};
    };
    Lead LatestLead();
    std::size_t Leader() { return LatestLead().member; }

    /// How many watches the servers keep. Only while all of them serve.
    std::size_t Watches();

    const std::string& Path() const { return path_; }
    std::string Addresses() const { return servers_.Addresses(); }

private:
    const Subject subject_;
    const std::chrono::milliseconds sessionTimeout_;
    const std::filesystem::path directory_;
    const std::string path_ = "/chaos/election";
    testing_support::Ensemble servers_;
    /// By member, then by server.
    std::vector<std::vector<std::unique_ptr<testing_support::Proxy>>> links_;
    std::vector<std::unique_ptr<process::ChildProcess>> processes_;
    std::vector<MemberReader> readers_;
};

}  // namespace kx::velmor::chaos
