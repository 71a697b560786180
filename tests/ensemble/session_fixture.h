#pragma once

#include "tests/support/await.h"
#include "tests/support/journal.h"
#include "tests/support/log_capture.h"
#include "tests/support/proxy.h"
#include "tests/support/raw_client.h"
#include "tests/support/zookeeper_server.h"

#include <kx/velmor/connection.h>
#include <kx/velmor/session.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::testing_support {

/// What a call may take beyond its deadline on a machine that is busy with other things. Less than what a call may take
/// that has no deadline of its own, so that one which waits for that is told from one that does not.
constexpr std::chrono::milliseconds kSlack{8'000};

/// What a watch callback was called with.
struct Event
{
    int type;
    int state;
    std::string path;
};

bool operator==(const Event& left, const Event& right);
std::ostream& operator<<(std::ostream& stream, const Event& event);

/// An event of the session: "connected", "connecting", "expired".
Event SessionEvent(int state);
/// An event of a node, as it arrives while connected.
Event NodeEvent(int type, std::string path);

/// What watch callbacks were told, in order. Copies share it.
///
/// Threads: any.
class EventRecorder
{
public:
    EventRecorder();

    /// A callback that records. Outlives the recorder.
    Connection::WatchCallback Callback() const;

    std::vector<Event> Events() const;
    /// How many of the callbacks still exist, copies counted.
    std::size_t Callbacks() const;

    void Await(const Event& event) const;
    void AwaitCount(std::size_t count) const;

private:
    struct Data;
    std::shared_ptr<Data> data_;
};

/// One operation of a session, in its shortest form.
struct Operation
{
    std::string name;
    /// The request that it sends.
    Request request;
    std::function<int(const Session& session, const std::string& path)> call;
};

/// All that send a request.
const std::vector<Operation>& Operations();

/// Whether a code says what has happened; otherwise only that no answer came in time.
bool Answered(int rc);
/// Calls until there is an answer, which is returned.
int AwaitAnswer(const std::function<int()>& call);

/// Creates a node. `room` is what the caller grants the created path, which comes back with the code.
std::pair<int, std::string> Create(const Session& session, const std::string& path, int flags = 0,
                                   std::size_t room = 256);

/// Gives nodes new data, and so new versions.
///
/// Threads: one at a time. Throws `std::runtime_error` with the client library's text.
class DataWriter
{
public:
    explicit DataWriter(const std::string& server);
    ~DataWriter();

    DataWriter(const DataWriter&) = delete;
    DataWriter& operator=(const DataWriter&) = delete;

    void Set(const std::string& path, const std::string& data);

private:
    zhandle_t* const handle_;
};

std::chrono::milliseconds Since(std::chrono::steady_clock::time_point begin);

/// Threads and open descriptors of this process.
struct Resources
{
    std::size_t threads;
    std::size_t descriptors;
};
Resources ResourcesInUse();
/// Waits until no more are in use than there were: threads take a moment to go.
void AwaitResources(const Resources& before);

/// A server, the network in front of it, and sessions that reach it through that.
class SessionFixture : public ::testing::Test
{
protected:
    /// Log statements from `minLogLevel` on are kept, and printed when the test fails.
    explicit SessionFixture(std::int32_t minLogLevel = 10);
    ~SessionFixture() override;

    /// For a session through the proxy that nothing but the test's own doing ends.
    SessionOptions Options() const;
    std::shared_ptr<Session> Open() const { return Session::Open(Options()); }

    /// Ends the session at the server; its nodes are gone, and the session is about to learn of it.
    void Expire(const Session& session);
    /// As above, for a session that is opened and closed by others at the same time.
    void Expire(const clientid_t& session);

    /// Cuts the connection, and keeps new ones away.
    void Disconnect();
    void Reconnect() { proxy_.Accept(); }

    /// Begins every one of `Operations` on "/n". Returns when the server has got them all, whose answers are held back
    /// until `proxy_` heals. `session` must outlive the calls.
    std::vector<std::future<int>> CallAllUnanswered(const Session& session);

    /// Whether some log statement's text contains `part`.
    bool Logged(const std::string& part) const;

    Journal journal_;
    LogCapture log_;
    const std::unique_ptr<ZooKeeperServer> server_;
    Proxy proxy_;
    /// These see and change the tree past the proxy.
    RawClient observer_;
    DataWriter writer_;
};

}  // namespace kx::velmor::testing_support
