#pragma once

#include "tests/support/journal.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_client_library.h"

#include <kx/velmor/error.h>
#include <kx/velmor/session.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor::testing_support {

/// Holds threads up until it is opened.
class Barrier
{
public:
    void Open();
    /// Fails the test when nobody opens it.
    void Pass();
    bool IsOpen() const;

private:
    mutable std::mutex mutex_;
    std::condition_variable opened_;
    bool open_ = false;
};

/// The replies of scripts, by what they say.
Reply Code(int rc);
Reply Refused(int rc);
Reply Held();
Reply Always(Reply reply);
Reply Created(const std::string& path);

/// The code of the `ZooError` that `act` throws; empty when nothing is thrown.
std::optional<int> ThrownCode(const std::function<void()>& act);

/// Sessions over a client library that follows a script. What it is asked is in `library.Asked()`, what watch callbacks
/// are told, and log statements, in `journal`.
class SessionScripted : public ::testing::Test
{
protected:
    SessionScripted();

    /// A session on a first handle that connects at once. Forgets the journal.
    std::shared_ptr<Session> OpenConnected();

    /// One write, and its answer.
    void Write(const Session& session, int rc = ZOK);
    /// Sends a write on the first connection that is not answered until the test says so.
    std::future<int> Writing(const Session& session);

    /// A callback that notes "<name> <event>", as in "a deleted /n" or "a session expired".
    Connection::WatchCallback Noting(const std::string& name);
    /// Arms a watch on `path`, which must work, with the callback of that name.
    Connection::WatchHandle Watch(const Session& session, const std::string& path, const std::string& name);

    /// The next handle connects at once. Where sessions are given up after a time that the machine may take to get so
    /// far, it may need further ones.
    void ExpectNext(int spare = 0);

    /// The session is over; the next finds no server, should it be opened before the test is through.
    void EndForGood(int handle);

    /// The connection is lost and a new one made, within the session.
    void Reconnect(int handle);

    /// Waits until all that has happened so far has been told to watch callbacks. The session must be connected, by
    /// this handle.
    void AwaitQuiet(const Session& session, int handle);

    /// What watch callbacks were told, in order. Forgets it.
    std::vector<std::string> Told();

    /// What the library was asked that mentions `text`, in order.
    std::vector<std::string> AskedWith(const std::string& text) const;

    /// The log statements of `source` that mention `text`.
    std::vector<std::string> Logged(const std::string& text, const std::string& source = "velmor.session") const;

    /// Outlives threads that still log when a test is over.
    Journal& journal;
    LogCapture log;
    ScriptedClientLibrary library;
    SessionOptions options;
};

}  // namespace kx::velmor::testing_support
