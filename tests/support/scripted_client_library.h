#pragma once

#include "tests/support/journal.h"

#include <zookeeper/zookeeper.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

// The ZooKeeper client library and the name service as a test wants them. Linking this defines the functions of both
// that a session calls, in place of the real ones; constants and texts stay the real library's.

namespace kx::velmor::testing_support {

/// What one attempt to make a handle comes to.
struct Opening
{
    /// What the handle reports from the start.
    std::vector<int> states{};
    /// Whether these reports arrive before the handle's maker has it. One that ends the session is on its way then:
    /// the thread that brings it does not come back before the handle is being closed.
    bool early = false;
    /// `errno` when there is no handle to be had.
    int error = 0;
    /// Whether it is as well when nobody asks.
    bool optional = false;
    /// Runs on the thread that makes the handle, before it is returned.
    std::function<void()> during{};
    /// As `ScriptedClientLibrary::WhenClosed`, for this handle.
    std::function<void()> whenClosed{};
};

/// The requests that a handle is asked to send.
enum class Sent
{
    Create,
    GetChildren,
    GetData,
    Exists,
    WatchExists,
    Delete,
    Sync,
    /// In place of a path it has all operations, as in "create /a=data ephemeral sequential, set /b=data v3, delete /c,
    /// check /d v0". A creation with other rights than everybody's has them behind it: "acl 31 auth:".
    Transact,
};

/// What one request comes to.
struct Reply
{
    int rc = ZOK;
    /// What `Sent::Create` gives.
    std::string path{};
    /// What `Sent::GetChildren` gives.
    std::vector<std::string> children{};
    /// What `Sent::GetData` gives; nothing for a node that was made without data.
    std::optional<std::string> data{};
    /// What `Sent::Exists`, `Sent::WatchExists` and `Sent::GetData` give in the record.
    std::int64_t ephemeralOwner = 0;
    /// What `Sent::Transact` gives: a path for each of its creations.
    std::vector<std::string> created{};
    /// The operation for which `Sent::Transact` is refused with `rc`. Without it the code is that of all operations, as
    /// when there is no answer.
    std::optional<std::size_t> refused{};
    /// When not `ZOK`, the request is refused with it and never answered.
    int refusal = ZOK;
    /// Not answered until `Answer`, or until its handle is closed.
    bool held = false;
    /// Holds for every such request, however many there are, if any.
    bool always = false;
    /// Runs on the requesting thread, inside the call and before the request counts as sent.
    std::function<void()> during{};
};

/// The client library, in which nothing happens but what the test says. One at a time.
///
/// Handles are known by the order in which they were asked for, from 1. Reports, events and answers of all handles
/// arrive one after the other, in the order in which the test made them happen, on one thread of the library's own. A
/// node event, or a watch that an answer arms, takes effect in the library's table of watches at once, as in the real
/// library, whose table runs ahead of what it has told.
///
/// Everything that is asked of the library is in its journal: "1 open <addresses>", "1 exists /a", "1 forget /a",
/// "1 close". The heartbeats of a session, which ask for an access list, are answered without a script and are not in
/// the journal.
///
/// The test fails when something is asked that was not expected, when something expected is not asked, when a handle is
/// left open or used after it was closed, when a handle is closed under the feet of a call, by a thread of the library
/// or twice, when the library's thread comes back from reporting the end of a session before the handle is being
/// closed, when a watcher is registered that is not the handle's own, or when watches are removed over the network.
///
/// Threads: any.
class ScriptedClientLibrary
{
public:
    ScriptedClientLibrary();
    /// Waits for handles to be closed. Afterwards the process must not call the library.
    ~ScriptedClientLibrary();
    ScriptedClientLibrary(const ScriptedClientLibrary&) = delete;
    ScriptedClientLibrary& operator=(const ScriptedClientLibrary&) = delete;

    // The script. What was said first for the same request comes first.

    void ExpectOpen(Opening opening);
    void Expect(Sent sent, const std::string& path, Reply reply = {});
    /// Runs `act` on the closing thread as soon as it is inside `zookeeper_close`, when everything may still happen to
    /// the handle.
    void WhenClosed(int handle, std::function<void()> act);
    /// Requests that are under way when a handle is closed are never answered; otherwise they get `ZCLOSING`.
    void LoseAnswersAtClose();

    // What happens. These throw `std::logic_error` for a handle that is closed or was never there.

    /// A session event.
    void Report(int handle, int state);
    /// The session is over, and the library has not said so yet.
    void Break(int handle);
    /// What servers grant from the next report that says "connected" on.
    void GrantTimeout(int handle, int milliseconds);
    /// A node event, of a watch that is armed or was once.
    void Fire(int handle, int type, const std::string& path);
    /// Answers the oldest request of this kind that is held.
    void Answer(int handle, Sent sent, const std::string& path, Reply reply = {});
    /// What happens between the two arrives without a pause. `Resume` before handles are closed.
    void Pause();
    void Resume();
    /// Waits until all that has happened to the handle has arrived.
    void AwaitArrivals(int handle);
    /// The library writes a line of its log, on the calling thread.
    void Write(int handle, const std::string& line);

    // What was asked.

    const Journal& Asked() const { return asked_; }
    /// How many handles were made.
    int Handles() const;
    /// The paths on which a handle has armed watches.
    std::set<std::string> Armed(int handle) const;
    /// What `ClientId` is to give for a handle that is connected.
    std::int64_t Identity(int handle) const;
    std::string Addresses(int handle) const;
    int SessionTimeout(int handle) const;
    std::size_t Heartbeats(int handle) const;
    /// What the handle was told about looking its servers up: milliseconds, 0 unless told.
    int ResolutionDelay(int handle) const;
    /// The level of the library's own log, of the whole process.
    static int LogLevel();

    class Core;

private:
    Journal asked_;
    const std::unique_ptr<Core> core_;
};

/// The name service. While there is one, it alone answers for host names; addresses are looked up as ever. One at a
/// time.
///
/// The test fails when a name is looked up for which there is no answer, or when there are answers left.
///
/// Threads: any.
class ScriptedNameService
{
public:
    ScriptedNameService();
    ~ScriptedNameService();
    ScriptedNameService(const ScriptedNameService&) = delete;
    ScriptedNameService& operator=(const ScriptedNameService&) = delete;

    /// The next look-up of `host` gives these addresses.
    void Expect(const std::string& host, std::vector<std::string> addresses);
    /// The next look-up of `host` fails with an `EAI_` code.
    void ExpectFailure(const std::string& host, int error);
    /// The next look-up of `host` does not return before `Release`.
    void ExpectHanging(const std::string& host);
    /// Lets what hangs fail, and waits until it has.
    void Release();

    class Core;

private:
    const std::unique_ptr<Core> core_;
};

}  // namespace kx::velmor::testing_support
