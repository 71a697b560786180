#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
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

/// With what the members take part.
enum class Subject
{
    /// The bare recipe, `CandidateImpl`, whose owner joins again.
    Recipe,
    /// `Candidate`.
    Candidate,
};

/// "recipe", "candidate".
const char* Name(Subject subject);
/// As the command line takes them.
const std::map<std::string, Subject>& SubjectsByName();

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

/// What `Candidate::IsLeader` proves of one leadership, when a clock is read before and after each call.
///
/// A call that says true says so of some instant between the two readings. The leadership had thus begun at `from`,
/// when the first such call had returned, and had not ended at `until`, before the last one: `from` may be the later of
/// the two when there was but one call. In between it led, since a leadership that is lost does not come back.
struct Tenure
{
    /// 0 when the leadership was over before it could be asked.
    std::int64_t epoch = 0;
    Instant from{};
    Instant until{};
};

/// What a candidate's callback told.
struct Notice
{
    enum class Kind
    {
        Gained,
        Lost,
        Next,
        NextLost,
    };

    Instant at;
    Kind kind;
    /// Index into the member's lives.
    std::size_t life;
    /// Of a gain.
    std::int64_t epoch = 0;
    /// Of a loss, as in "lease ran out".
    std::string reason{};
};

/// A forked child of a member's process, and what it was answered when it asked the candidate it inherited.
struct ForkedChild
{
    std::int64_t pid = 0;
    /// When it first asked.
    Instant begin{};
    /// When it was first and last told that it leads; empty when it never was.
    std::optional<Interval> led{};
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
    /// What the servers granted it.
    std::chrono::milliseconds sessionTimeout{0};
    /// By the candidate's flag alone.
    std::vector<Leadership> byFlag{};
    /// By the session's view: the flag, a connection, and an answer that is younger than the session timeout.
    std::vector<Leadership> bySession{};
    /// Of candidates: what they were asked, and what they told.
    std::vector<Tenure> tenures{};
    std::vector<Notice> notices{};
    std::vector<ForkedChild> children{};
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
    /// Meanwhile whoever led left: it may have delayed anybody's turn.
    bool leaving = false;
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
    /// What else candidates keep there, the claim to the lead included.
    std::vector<QueueNode> besides{};
    /// Sessions of the members that lived then.
    std::vector<std::int64_t> sessions{};
    /// How many the servers keep for all of them.
    std::size_t watches = 0;
};

struct History
{
    Interval whole;
    std::chrono::milliseconds sessionTimeout;
    Subject subject = Subject::Recipe;
    std::vector<Member> members{};
    std::vector<Fault> faults{};
    /// Members that ended by themselves, each with what is known of it.
    std::vector<std::string> casualties{};
    /// Empty when the run was interrupted before it came to its end.
    std::optional<Ending> ending{};
};

/// The last stretch of time through which the member is known to have led, by the session's view or by `IsLeader`.
std::optional<Interval> LastLead(const Member& member);

/// From one leader to the next, up to now.
std::size_t Successions(const std::vector<const Member*>& members);

/// As a line of JSON.
std::string ToJson(const Fault& fault);

}  // namespace kx::velmor::chaos
