#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor::chaos {

/// A time of CLOCK_BOOTTIME, which all processes of a machine share.
using Instant = std::chrono::microseconds;

struct Interval
{
    Instant begin;
    Instant end;
};

inline Instant Length(const Interval& interval)
{
    return interval.end - interval.begin;
}

/// One attempt to take part in the election: from the candidate's `Start` to its `Stop`, or to the end of its process.
struct Stay
{
    Instant begin{};
    /// Empty until the node is known.
    std::string node{};
    std::int64_t session = 0;
    /// The transaction that made the node: unlike sequence numbers, these never begin anew.
    std::int64_t created = 0;
    /// When the servers last told that the node is there and this session's; 0: never.
    Instant lastQueued{};
};

/// A stretch of time through which a member took itself for the leader, whenever it looked.
struct Leadership
{
    /// Index into the member's stays.
    std::size_t stay;
    Interval when;
};

struct RoleChange
{
    Instant at;
    /// "joining", "leader", "next", "follower", "lost", "left".
    std::string role;
};

struct Resources
{
    Instant at;
    std::int64_t rssKilobytes;
    std::int64_t threads;
    std::int64_t descriptors;
};

/// One process of a member.
struct Life
{
    Instant begin;
    /// When anything of it was last heard.
    Instant end;
    /// When its two threads of its own last wrote something: the one that owns the candidate, and the one that looks
    /// at it.
    std::vector<Instant> ownerSigns{};
    std::vector<Instant> watcherSigns{};
    std::vector<Resources> resources{};
};

/// What it takes to speak for a session.
struct SessionKey
{
    std::int64_t id = 0;
    /// In hexadecimal.
    std::string password{};
};

struct Line
{
    Instant at;
    std::string text;
};

struct Member
{
    std::string name;
    std::vector<Life> lives{};
    std::vector<Stay> stays{};
    std::vector<RoleChange> roles{};
    /// The one it had last.
    SessionKey session{};
    /// By the candidate's flag alone.
    std::vector<Leadership> byFlag{};
    /// By the session's view: the flag, a connection, and an answer that is younger than the session timeout.
    std::vector<Leadership> bySession{};
    /// As they were written.
    std::vector<Line> lines{};
};

/// Something that was done to the election, and undone.
struct Fault
{
    /// As in "kill member".
    std::string kind;
    std::string label;
    Interval when;
    /// Names of those it was done to; empty: all.
    std::vector<std::string> members{};
    /// Their processes stood still or were no more, from begin to end.
    bool silences = false;
    /// Somebody else deleted nodes of living sessions, or closed sessions, which their owners cannot know at once.
    bool takesNodes = false;
};

/// A node of the queue when all faults had been healed.
struct QueueNode
{
    std::string name;
    std::int64_t owner;
};

/// What the servers and the members said in the end.
struct Ending
{
    Instant at{};
    /// Why the election did not come to rest; empty when it did.
    std::string unrest{};
    std::vector<QueueNode> queue{};
    /// Sessions of the members that lived then.
    std::vector<std::int64_t> sessions{};
    /// How many the servers keep for all of them.
    std::size_t watches = 0;
};

struct History
{
    Interval whole;
    std::chrono::milliseconds sessionTimeout;
    std::vector<Member> members{};
    std::vector<Fault> faults{};
    /// Members that ended by themselves, each with what is known of it.
    std::vector<std::string> casualties{};
    /// Empty when the run was interrupted before it came to its end.
    std::optional<Ending> ending{};
};

/// As a line of JSON.
std::string ToJson(const Fault& fault);

}  // namespace kx::velmor::chaos
