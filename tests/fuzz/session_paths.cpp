// The input is a line each for the operation, a letter (see `Ask`), for the session's root, for the room that a
// creation gives, for what the service appends to the path of a sequential node, and for the number of characters that
// the path is to be made longer by; what is left is the path.

#include "tests/fuzz/fuzz_target.h"
#include "tests/support/journal.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_client_library.h"

#include <kx/velmor/session.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

namespace kx::velmor::testing_support {

namespace {

constexpr std::size_t kMiB = 1 << 20;
/// More than a request has besides its path.
constexpr std::size_t kAroundPath = 200;

struct Operation
{
    Sent sent;
    bool sequential;
    std::string root;
    std::string path;
    /// Empty: no out-string.
    std::optional<std::size_t> room;
    std::string suffix;
};

/// Which of the service's nodes an operation is about.
std::string FullPath(const Operation& operation)
{
    const bool isRoot = operation.path == "/" && !operation.sequential;
    return isRoot && !operation.root.empty() ? operation.root : operation.root + operation.path;
}

Operation Read(const std::string& input)
{
    InputLines lines(input);
    const std::string letter = lines.Line();
    Operation operation{Sent::Exists, letter == "s", "", "", std::nullopt, ""};
    const std::vector<std::pair<std::string, Sent>> letters = {{"c", Sent::Create},      {"s", Sent::Create},
                                                               {"d", Sent::Delete},      {"g", Sent::GetChildren},
                                                               {"w", Sent::WatchExists}, {"e", Sent::Exists}};
    for (const auto& [name, sent] : letters)
    {
        operation.sent = name == letter ? sent : operation.sent;
    }
    if (const auto root = ExpectedComponents(lines.Line()))
    {
        operation.root = "/" + Join("/", *root);
    }
    if (const auto room = lines.Number())
    {
        operation.room = static_cast<std::size_t>(std::clamp<std::int64_t>(*room, 0, 2 * kMiB));
    }
    const std::int64_t number = lines.Number().value_or(0);
    // Ten digits, and a sign where the service's counter has overflowed.
    const std::string digits = std::to_string(std::abs(number % 10'000'000'000));
    operation.suffix = (number < 0 ? "-" : "") + std::string(10 - digits.size(), '0') + digits;
    const auto longer = static_cast<std::size_t>(std::clamp<std::int64_t>(lines.Number().value_or(0), 0, 2 * kMiB));
    operation.path = lines.Rest() + std::string(longer, 'x');
    return operation;
}

struct Outcome
{
    int rc;
    std::string createdPath;
};

Outcome Ask(const Session& session, const Operation& operation)
{
    const std::string& path = operation.path;
    switch (operation.sent)
    {
        case Sent::Create: {
            std::string created(operation.room.value_or(0), '\0');
            const int flags = operation.sequential ? ZOO_SEQUENCE : 0;
            const int rc = session.Create(path, "", ZOO_OPEN_ACL_UNSAFE, flags, operation.room ? &created : nullptr);
            return {rc, created};
        }
        case Sent::Delete:
            return {session.GuaranteedDelete(path), ""};
        case Sent::GetChildren: {
            std::vector<std::string> children;
            return {session.GetChildren(path, children), ""};
        }
        case Sent::WatchExists:
            return {session
                        .Exists(
                            path, [](int, int, const std::string&) {}, nullptr)
                        .first,
                    ""};
        default:
            return {session.Exists(path, nullptr), ""};
    }
}

/// A session that takes requests of the operation's node, and a failure of the script for any other.
class ScriptedServer
{
public:
    explicit ScriptedServer(const Operation& operation)
    {
        Opening opening;
        opening.states = {ZOO_CONNECTED_STATE};
        library_.ExpectOpen(opening);
        SessionOptions options;
        options.servers = "127.0.0.1:2181";
        options.rootPath = operation.root;
        // Longer than anything here takes on a slow machine.
        options.sessionTimeout = options.connectTimeout = std::chrono::seconds(60);
        session_ = Session::Open(options);
        handle_ = library_.Handles();

        const std::string path = FullPath(operation);
        Reply reply;
        reply.always = true;
        reply.path = path + (operation.sequential ? operation.suffix : "");
        library_.Expect(operation.sent, path, reply);
        if (operation.sent == Sent::Create)
        {
            library_.Expect(Sent::Delete, reply.path, reply);
        }
    }

    ~ScriptedServer() { session_->Close(); }

    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    const Session& Opened() const { return *session_; }

    std::size_t TimesAsked(const std::string& request) const
    {
        return library_.Asked().Count(std::to_string(handle_) + " " + request);
    }

private:
    ScriptedClientLibrary library_;
    std::shared_ptr<Session> session_;
    int handle_ = 0;
};

const char* Name(Sent sent)
{
    return sent == Sent::Create        ? "create "
           : sent == Sent::Delete      ? "delete "
           : sent == Sent::GetChildren ? "children "
           : sent == Sent::WatchExists ? "watch "
                                       : "exists ";
}

void RequireCreated(const ScriptedServer& server, const Operation& operation, const Outcome& outcome)
{
    const std::string created = operation.path + (operation.sequential ? operation.suffix : "");
    const bool takenBack = server.TimesAsked("delete " + operation.root + created) > 0;
    if (!operation.room)
    {
        Require(outcome.rc == ZOK && !takenBack, "without an out-string there is nothing to fit");
        return;
    }
    const std::size_t room = *operation.room;
    // The session's root itself is "/" to its users.
    Require(outcome.rc == (created.size() <= room ? ZOK : ZBADARGUMENTS), "a node is made if its path fits the room");
    Require(takenBack == (outcome.rc != ZOK), "a node whose path nobody can know is taken back, and no other");
    Require(outcome.createdPath == (outcome.rc == ZOK ? created : std::string(room, '\0')),
            "the out-string is the path without the root, and untouched otherwise");
}

}  // namespace

void CheckInput(const std::string& input)
{
    // Outlives threads that still log when their session has gone.
    static auto& journal = *new Journal;
    journal.Take();
    const LogCapture log(journal);
    const Operation operation = Read(input);
    const std::string fullPath = FullPath(operation);
    const ScriptedServer server(operation);

    const Outcome outcome = Ask(server.Opened(), operation);
    Require(!::testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed(),
            "no other node than the one that was named is touched");
    const std::size_t asked = server.TimesAsked(Name(operation.sent) + fullPath);
    const bool named =
        !operation.path.empty() && operation.path.front() == '/' && operation.path.find('\0') == std::string::npos;
    const std::size_t digits = operation.sequential ? 10 : 0;
    const bool fits = operation.sent != Sent::Create || operation.path.size() + digits <= operation.room.value_or(kMiB);
    if (!named || !fits || fullPath.size() >= kMiB)
    {
        Require(outcome.rc == ZBADARGUMENTS && asked == 0, "what cannot be right is not sent");
        return;
    }
    if (fullPath.size() + kAroundPath < kMiB)
    {
        Require(asked == 1, "what may be right is sent once");
    }
    if (asked == 0)
    {
        Require(outcome.rc == ZBADARGUMENTS, "what is not sent is a bad argument");
    }
    else if (operation.sent == Sent::Create)
    {
        RequireCreated(server, operation, outcome);
    }
    else
    {
        Require(outcome.rc == ZOK, "the answer is the service's");
    }
}

}  // namespace kx::velmor::testing_support
