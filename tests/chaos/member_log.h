#pragma once

#include "tests/chaos/history.h"

#include <kx/velmor/boot_clock.h>
#include <kx/velmor/session_status.h>

#include <zookeeper/zookeeper.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>

namespace kx::velmor::chaos {

inline Instant ToInstant(BootClock::time_point time)
{
    return std::chrono::duration_cast<Instant>(time.time_since_epoch());
}

inline Instant Now()
{
    return ToInstant(BootClock::now());
}

enum class View
{
    Flag,
    Session
};

/// What a member writes down of itself: a line of JSON for each thing that happens, out of the process at once.
/// `ReadMember` is its reader.
///
/// Threads: any.
class MemberLog
{
public:
    /// Appends. Throws `std::runtime_error` when the file cannot be written.
    explicit MemberLog(const std::filesystem::path& file);

    void Started();
    /// `id` is the session's, if it has one.
    void Session(const SessionStatus& status, const clientid_t* id);
    /// A stay begins. Stays are numbered from 1 by the caller.
    void Joining(int stay, std::int64_t session);
    void Role(int stay, const std::string& role);
    /// The stay's node, when it has been made and found.
    void Node(int stay, const std::string& name, std::int64_t created);
    /// The servers told that the node is there. `asked` is before they were asked.
    void Queued(int stay, Instant asked);
    /// A sign of life of the thread that owns the candidate.
    void Turn();
    /// A stretch of leadership, begun at `begin` and seen to last until `seen`. Written again and again as it grows.
    void Leads(View view, int stay, Instant begin, Instant seen);
    /// What a candidate was asked, and what it told. Tenures are written again and again as they grow.
    void Tenure(const chaos::Tenure& tenure);
    void Gained(std::int64_t epoch);
    void LostLead(const std::string& reason);
    void Next();
    void NextLost();
    void Consumption(const Resources& resources);
    void Trouble(const std::string& what);

private:
    void Write(const std::string& line);

    std::mutex mutex_;
    std::ofstream file_;
};

}  // namespace kx::velmor::chaos
