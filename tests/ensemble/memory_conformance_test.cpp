// The service in memory says what a real server says: the same script on both, and the same transcript.

#include "tests/ensemble/session_fixture.h"

#include <kx/velmor/testing/memory_service.h>

#include <algorithm>
#include <sstream>

namespace kx::velmor::testing_support {
namespace {

using velmor::Operation;

/// What a session answered, a line each.
class Transcript
{
public:
    explicit Transcript(const ElectionSession& session) : session_(session) {}

    Transcript& Create(const std::string& path, int flags = 0, std::size_t room = 64)
    {
        std::string created(room, ' ');
        const int rc = session_.Create(path, "data", ZOO_OPEN_ACL_UNSAFE, flags, &created);
        return Note("create " + path, rc, rc == ZOK ? created : std::string());
    }

    Transcript& Delete(const std::string& path)
    {
        return Note("delete " + path, session_.GuaranteedDelete(path), std::string());
    }

    Transcript& Children(const std::string& path)
    {
        std::vector<std::string> names;
        const int rc = session_.GetChildren(path, names);
        std::sort(names.begin(), names.end());
        // Of the servers alone.
        names.erase(std::remove(names.begin(), names.end(), "zookeeper"), names.end());
        std::string text;
        for (const std::string& name : names)
        {
            text += name + " ";
        }
        return Note("children " + path, rc, text);
    }

    Transcript& Look(const std::string& path)
    {
        Stat seen{};
        const int there = session_.Exists(path, &seen);
        std::string data;
        Stat stat{};
        const int rc = session_.GetData(path, data, &stat);
        std::ostringstream text;
        text << there;
        if (rc == ZOK)
        {
            text << ", \"" << data << "\", version " << stat.version << ", bytes " << stat.dataLength << ", children "
                 << stat.numChildren << ", ours " << (stat.ephemeralOwner == session_.Status().sessionId)
                 << ", unchanged " << (stat.czxid == stat.mzxid) << ", alike " << (seen.czxid == stat.czxid);
        }
        return Note("look " + path, rc, text.str());
    }

    Transcript& Transact(const std::vector<Operation>& operations)
    {
        TransactionResult result;
        const int rc = session_.Transact(operations, result);
        return Tell("transaction", rc, result);
    }

    Transcript& TransactIn(std::int64_t sessionId, const std::vector<Operation>& operations)
    {
        TransactionResult result;
        const int rc = session_.TransactIn(sessionId, operations, result);
        return Tell("transaction in a session", rc, result);
    }

    const std::vector<std::string>& Lines() const { return lines_; }

private:
    Transcript& Tell(const std::string& what, int rc, const TransactionResult& result)
    {
        std::string text = result.refused ? "refused " + std::to_string(*result.refused) : "";
        for (const std::string& path : result.created)
        {
            text += "[" + path + "]";
        }
        return Note(what, rc, text);
    }

    Transcript& Note(const std::string& what, int rc, const std::string& result)
    {
        lines_.push_back(what + ": " + std::to_string(rc) + " " + result);
        return *this;
    }

    const ElectionSession& session_;
    std::vector<std::string> lines_;
};

void Nodes(const ElectionSession& session, Transcript& transcript)
{
    transcript.Create("/a").Create("/a").Create("/b/c").Create("/a/").Create("a").Create("").Create("/a//b");
    transcript.Create("/a/s-", ZOO_SEQUENCE)
        .Create("/a/e", ZOO_EPHEMERAL)
        .Create("/a/t-", ZOO_EPHEMERAL | ZOO_SEQUENCE);
    transcript.Create("/a/e/f").Create("/a/e/s-", ZOO_SEQUENCE);
    // Room that fits, and room that does not.
    transcript.Create("/a/s-", ZOO_SEQUENCE, 15).Create("/a/s-", ZOO_SEQUENCE, 14).Create("/a/x", 0, 4);
    transcript.Create("/a/x", 0, 3).Children("/a").Children("/b").Children("/").Children("/a/e");
    transcript.Look("/a").Look("/a/e").Look("/b").Delete("/a").Delete("/b").Delete("/a/e").Look("/a/e");
    // Numbers count all that were ever made.
    transcript.Create("/a/s-", ZOO_SEQUENCE).Children("/a").Look("/a");
    EXPECT_EQ(session.Status().state, SessionState::Connected);
}

void Transactions(const ElectionSession& session, Transcript& transcript)
{
    transcript.Transact({}).Transact({Operation::Check("/")}).Transact({Operation::Check("/n")});
    transcript.Transact({Operation::Create("/t", "1"), Operation::Create("/t/s-", "2", NodeMode::PersistentSequential),
                         Operation::Create("/t/e", "3", NodeMode::Ephemeral),
                         Operation::Create("/t/s-", "4", NodeMode::EphemeralSequential), Operation::Set("/t", "5"),
                         Operation::Check("/t", 1), Operation::Delete("/t/e")});
    transcript.Children("/t").Look("/t");
    // Nothing of these is applied.
    transcript.Transact({Operation::Set("/t", "6"), Operation::Check("/t", 7)});
    transcript.Transact({Operation::Set("/t", "6", 0)}).Transact({Operation::Set("/t", "6"), Operation::Delete("/t")});
    transcript.Transact({Operation::Delete("/n"), Operation::Set("/t", "6")});
    transcript.Transact({Operation::Create("/t", ""), Operation::Create("/u", "")});
    transcript.Transact({Operation::Create("/u/v", ""), Operation::Create("/u", "")});
    transcript.Transact({Operation::Set("/t", "6"), Operation::Set("t", "7")});
    transcript.Look("/t").Children("/");
    // What an earlier one makes, a later one finds.
    transcript.Transact({Operation::Create("/u", ""), Operation::Create("/u/v", ""), Operation::Delete("/u/v"),
                         Operation::Check("/u", 0)});
    const std::int64_t present = session.Status().sessionId;
    transcript.TransactIn(present, {Operation::Set("/u", "7")});
    transcript.TransactIn(present + 1, {Operation::Set("/u", "8")}).Look("/u");
}

using Script = void (*)(const ElectionSession&, Transcript&);

class MemoryConformanceTest : public SessionFixture, public ::testing::WithParamInterface<Script>
{};

TEST_P(MemoryConformanceTest, SaysWhatAServerSays)
{
    for (const char* const root : {"", "/apps/x"})
    {
        SessionOptions options = Options();
        options.rootPath = root;
        const auto real = Session::Open(options);
        testing::MemoryService service;
        testing::MemorySessionOptions memoryOptions;
        memoryOptions.rootPath = root;
        const auto memory = service.Open(memoryOptions);

        Transcript expected(*real);
        GetParam()(*real, expected);
        Transcript actual(*memory);
        GetParam()(*memory, actual);

        EXPECT_GT(expected.Lines().size(), 10U);
        EXPECT_EQ(actual.Lines(), expected.Lines()) << "with the root \"" << root << "\"";
        observer_.DeleteAll("/apps");
        for (const std::string& name : observer_.List("/"))
        {
            if (name != "zookeeper" && name != "apps")
            {
                observer_.DeleteAll("/" + name);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(With, MemoryConformanceTest, ::testing::Values(&Nodes, &Transactions),
                         [](const ::testing::TestParamInfo<Script>& script) {
                             return script.param == &Nodes ? "Nodes" : "Transactions";
                         });

class MemoryWatchesTest : public SessionFixture
{};

TEST_F(MemoryWatchesTest, TellWhatAServersTell)
{
    const auto real = Open();
    testing::MemoryService service;
    const auto memory = service.Open();
    std::vector<std::vector<Event>> told;
    for (const ElectionSession* const session :
         {static_cast<const ElectionSession*>(real.get()), static_cast<const ElectionSession*>(memory.get())})
    {
        EventRecorder recorder;
        auto missing = session->Exists("/w", recorder.Callback(), nullptr);
        EXPECT_EQ(missing.first, ZNONODE);
        EXPECT_EQ(session->Create("/w", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZOK);
        recorder.AwaitCount(1);
        auto changed = session->Exists("/w", recorder.Callback(), nullptr);
        TransactionResult result;
        EXPECT_EQ(session->Transact({Operation::Set("/w", "x")}, result), ZOK);
        recorder.AwaitCount(2);
        auto gone = session->Exists("/w", recorder.Callback(), nullptr);
        EXPECT_EQ(session->GuaranteedDelete("/w"), ZOK);
        recorder.AwaitCount(3);
        told.push_back(recorder.Events());
    }
    EXPECT_EQ(told[0], told[1]);
    EXPECT_EQ(told[1].size(), 3U);
}

}  // namespace
}  // namespace kx::velmor::testing_support
