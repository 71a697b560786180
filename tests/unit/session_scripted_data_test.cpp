#include "tests/unit/session_scripted_fixture.h"

#include <cstdint>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Optional;
using ::testing::SizeIs;

/// A server takes requests of up to this size.
constexpr std::size_t kMostRequestBytes = 0xfffff;

Reply Data(std::string data)
{
    Reply reply;
    reply.data = std::move(data);
    return reply;
}

/// Reads of data.
class DataOfASession : public SessionScripted
{
protected:
    /// The code, and what was read after `ZOK`.
    static std::pair<int, std::string> Read(const Session& session, const std::string& path)
    {
        std::string data;
        const int rc = session.GetData(path, data, nullptr);
        return {rc, data};
    }

    static std::pair<int, std::string> CodeAndData(int rc, const std::string& data) { return {rc, data}; }
};

TEST_F(DataOfASession, IsWhatTheServerGave)
{
    const auto session = OpenConnected();
    Reply reply = Data(std::string("a\0b", 3));
    reply.ephemeralOwner = 77;
    library.Expect(Sent::GetData, "/n", reply);
    std::string data = "old";
    Stat stat{};
    EXPECT_EQ(session->GetData("/n", data, &stat), ZOK);
    EXPECT_EQ(data, std::string("a\0b", 3));
    EXPECT_EQ(stat.ephemeralOwner, 77);

    library.Expect(Sent::GetData, "/n", Code(ZNONODE));
    EXPECT_EQ(session->GetData("/n", data, &stat), ZNONODE);
    EXPECT_THAT(data, SizeIs(3)) << "left alone";
    EXPECT_EQ(stat.ephemeralOwner, 77) << "left alone";
}

TEST_F(DataOfASession, IsEmptyWhereThereIsNone)
{
    const auto session = OpenConnected();
    library.Expect(Sent::GetData, "/n", Code(ZOK));
    std::string data = "old";
    EXPECT_EQ(session->GetData("/n", data, nullptr), ZOK);
    EXPECT_EQ(data, "");
    library.Expect(Sent::GetData, "/n", Data(""));
    data = "old";
    EXPECT_EQ(session->GetData("/n", data, nullptr), ZOK);
    EXPECT_EQ(data, "");
}

TEST_F(DataOfASession, IsReadBelowTheRoot)
{
    options.rootPath = "/apps/x";
    const auto session = OpenConnected();
    library.Expect(Sent::GetData, "/apps/x/n", Data("n"));
    EXPECT_EQ(Read(*session, "/n"), CodeAndData(ZOK, "n"));
    library.Expect(Sent::GetData, "/apps/x", Data("root"));
    EXPECT_EQ(Read(*session, "/"), CodeAndData(ZOK, "root"));
}

TEST_F(DataOfASession, IsNotAskedForWhereNoNodeCanBe)
{
    const auto session = OpenConnected();
    for (const std::string& path :
         {std::string(), std::string("n"), std::string("/a\0b", 4), "/" + std::string(kMostRequestBytes, 'p')})
    {
        EXPECT_EQ(Read(*session, path).first, ZBADARGUMENTS);
    }
    EXPECT_THAT(library.Asked().Lines(), SizeIs(1)) << "only the handle was asked for";
}

TEST_F(DataOfASession, IsAskedForAgainAfterALostReply)
{
    options.sessionTimeout = milliseconds(1'000);
    const auto session = OpenConnected();
    library.Expect(Sent::GetData, "/n", Code(ZCONNECTIONLOSS));
    library.Expect(Sent::GetData, "/n", Code(ZOPERATIONTIMEOUT));
    library.Expect(Sent::GetData, "/n", Data("new"));
    EXPECT_EQ(Read(*session, "/n"), CodeAndData(ZOK, "new"));
}

TEST_F(DataOfASession, IsSynchronisedAfterAReconnection)
{
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/lost", "lost");
    Reconnect(1);
    journal.Await("lost session connected");
    library.Expect(Sent::Sync, "/n");
    library.Expect(Sent::GetData, "/n", Data("new"));
    EXPECT_EQ(Read(*session, "/n"), CodeAndData(ZOK, "new"));
    EXPECT_THAT(AskedWith(" /n"), ElementsAre("1 sync /n", "1 data /n"));
}

TEST_F(DataOfASession, EndsWithItsSession)
{
    auto session = OpenConnected();
    library.Expect(Sent::GetData, "/n", Held());
    auto expired = std::async(std::launch::async, [&] { return Read(*session, "/n"); });
    library.Asked().Await("1 data /n");
    ExpectNext();
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    EXPECT_EQ(expired.get(), CodeAndData(ZSESSIONEXPIRED, ""));

    library.Asked().Await("2 open 127.0.0.1:2181");
    library.Expect(Sent::Sync, "/n");
    library.Expect(Sent::GetData, "/n", Held());
    auto closed = std::async(std::launch::async, [&] { return Read(*session, "/n"); });
    library.Asked().Await("2 data /n");
    session->Close();
    EXPECT_EQ(closed.get(), CodeAndData(ZCLOSING, ""));
    EXPECT_EQ(Read(*session, "/n"), CodeAndData(ZCLOSING, ""));
}

/// All or nothing.
class TransactionsOfASession : public SessionScripted
{
protected:
    struct Outcome
    {
        int rc;
        TransactionResult result;
    };

    static Reply Paths(std::vector<std::string> created)
    {
        Reply reply;
        reply.created = std::move(created);
        return reply;
    }

    static Reply RefusedAt(std::size_t index, int rc)
    {
        Reply reply;
        reply.rc = rc;
        reply.refused = index;
        return reply;
    }

    static Outcome Transact(const Session& session, const std::vector<Operation>& operations)
    {
        Outcome outcome{};
        outcome.result.refused = 99;
        outcome.result.created = {"old"};
        outcome.rc = session.Transact(operations, outcome.result);
        return outcome;
    }

    /// Nothing is known but the code.
    static void ExpectBare(const Outcome& outcome, int rc)
    {
        EXPECT_EQ(outcome.rc, rc);
        EXPECT_EQ(outcome.result.refused, std::nullopt) << zerror(rc);
        EXPECT_THAT(outcome.result.created, IsEmpty()) << zerror(rc);
    }

    static void ExpectRefused(const Outcome& outcome, int rc, std::size_t index)
    {
        EXPECT_EQ(outcome.rc, rc);
        EXPECT_THAT(outcome.result.refused, Optional(index)) << zerror(rc);
        EXPECT_THAT(outcome.result.created, IsEmpty()) << zerror(rc);
    }

    /// Sends `kTwo`, which is not answered until the test says so.
    std::future<Outcome> Transacting(const Session& session)
    {
        library.Expect(Sent::Transact, kTwoSent, Held());
        auto outcome = std::async(std::launch::async, [this, &session] { return Transact(session, kTwo); });
        library.Asked().Await("1 transact " + kTwoSent);
        return outcome;
    }

    const std::vector<Operation> kTwo{Operation::Create("/a", "x"), Operation::Check("/b")};
    const std::string kTwoSent = "create /a=x, check /b";
};

TEST_F(TransactionsOfASession, HandOverAllOperationsAndGiveTheCreatedPaths)
{
    const auto session = OpenConnected();
    library.Expect(Sent::Transact,
                   "create /p=, create /e=x ephemeral, create /s=x sequential, create /b=x ephemeral sequential, "
                   "set /v=y v3, set /w=y, delete /d v4, delete /f, check /c v0, check /g",
                   Paths({"/p", "/e", "/s0000000007", "/b-2147483648"}));
    const Outcome outcome =
        Transact(*session, {Operation::Create("/p", ""), Operation::Create("/e", "x", NodeMode::Ephemeral),
                            Operation::Create("/s", "x", NodeMode::PersistentSequential),
                            Operation::Create("/b", "x", NodeMode::EphemeralSequential), Operation::Set("/v", "y", 3),
                            Operation::Set("/w", "y"), Operation::Delete("/d", 4), Operation::Delete("/f"),
                            Operation::Check("/c", 0), Operation::Check("/g")});
    EXPECT_EQ(outcome.rc, ZOK);
    EXPECT_EQ(outcome.result.refused, std::nullopt);
    EXPECT_THAT(outcome.result.created,
                ElementsAre("/p", "/e", "/s0000000007", "/b-2147483648", "", "", "", "", "", ""));
}

TEST_F(TransactionsOfASession, TellWhichOperationWasRefused)
{
    const auto session = OpenConnected();
    for (const int rc : {ZNONODE, ZNODEEXISTS, ZBADVERSION, ZNOTEMPTY, ZNOAUTH, ZBADARGUMENTS, ZINVALIDACL})
    {
        for (std::size_t index = 0; index < 3; ++index)
        {
            library.Expect(Sent::Transact, "check /a, check /b, check /c", RefusedAt(index, rc));
            ExpectRefused(Transact(*session, {Operation::Check("/a"), Operation::Check("/b"), Operation::Check("/c")}),
                          rc, index);
        }
    }
}

TEST_F(TransactionsOfASession, NameNoOperationWhenAllHaveTheCode)
{
    const auto session = OpenConnected();
    for (const int rc : {ZCONNECTIONLOSS, ZOPERATIONTIMEOUT, ZSESSIONMOVED, ZNOTREADONLY, ZMARSHALLINGERROR})
    {
        library.Expect(Sent::Transact, kTwoSent, Code(rc));
        ExpectBare(Transact(*session, kTwo), rc);
        library.Expect(Sent::Transact, "check /b", Code(rc));
        if (rc != ZNOTREADONLY)
        {
            ExpectBare(Transact(*session, {Operation::Check("/b")}), rc);
        }
        else
        {
            ExpectRefused(Transact(*session, {Operation::Check("/b")}), rc, 0);
        }
    }
    library.Expect(Sent::Transact, kTwoSent, RefusedAt(0, ZSESSIONEXPIRED));
    ExpectBare(Transact(*session, kTwo), ZSESSIONEXPIRED);
    library.Expect(Sent::Transact, kTwoSent, Refused(ZMARSHALLINGERROR));
    ExpectBare(Transact(*session, kTwo), ZMARSHALLINGERROR);
}

TEST_F(TransactionsOfASession, AreNeverRepeated)
{
    const auto session = OpenConnected();
    library.Expect(Sent::Transact, kTwoSent, Code(ZCONNECTIONLOSS));
    ExpectBare(Transact(*session, kTwo), ZCONNECTIONLOSS);
    EXPECT_THAT(AskedWith("transact"), SizeIs(1));
}

TEST_F(TransactionsOfASession, AnsweredAfterTheirDeadlineFindNobody)
{
    options.operationTimeout = milliseconds(100);
    const auto session = OpenConnected();
    library.Expect(Sent::Transact, kTwoSent, Held());
    ExpectBare(Transact(*session, kTwo), ZOPERATIONTIMEOUT);
    // The library writes where it was told to, though the caller has gone.
    library.Answer(1, Sent::Transact, kTwoSent, Paths({"/a"}));
    library.AwaitArrivals(1);
    EXPECT_TRUE(session->Status().lastHeard);
}

TEST_F(TransactionsOfASession, WaitForTheConnectionToComeBack)
{
    const auto session = OpenConnected();
    const auto watch = Watch(*session, "/w", "w");
    library.Report(1, ZOO_CONNECTING_STATE);
    journal.Await("w session connecting");
    library.Expect(Sent::Transact, kTwoSent, Paths({"/a"}));
    auto outcome = std::async(std::launch::async, [&] { return Transact(*session, kTwo).rc; });
    EXPECT_EQ(outcome.wait_for(milliseconds(20)), std::future_status::timeout);
    EXPECT_THAT(AskedWith("transact"), IsEmpty());
    library.Report(1, ZOO_CONNECTED_STATE);
    EXPECT_EQ(outcome.get(), ZOK);
}

TEST_F(TransactionsOfASession, EndWithTheirSession)
{
    const auto session = OpenConnected();
    auto outcome = Transacting(*session);
    EndForGood(1);
    ExpectBare(outcome.get(), ZSESSIONEXPIRED);
}

TEST_F(TransactionsOfASession, EndWithASessionWhoseEndIsKnownToTheLibraryAlone)
{
    const auto session = OpenConnected();
    library.Break(1);
    ExpectBare(Transact(*session, kTwo), ZSESSIONEXPIRED);
    EXPECT_THAT(AskedWith("transact"), IsEmpty()) << "the library would lose memory over it";
    EndForGood(1);
}

TEST_F(TransactionsOfASession, EndWhenTheSessionIsClosed)
{
    const auto session = OpenConnected();
    auto outcome = Transacting(*session);
    session->Close();
    ExpectBare(outcome.get(), ZCLOSING);
    ExpectBare(Transact(*session, kTwo), ZCLOSING);
}

TEST_F(TransactionsOfASession, EndWhenTheSessionIsClosedAndTheLibraryNeverAnswers)
{
    library.LoseAnswersAtClose();
    const auto session = OpenConnected();
    auto outcome = Transacting(*session);
    session->Close();
    ExpectBare(outcome.get(), ZCLOSING);
}

TEST_F(TransactionsOfASession, AreAnsweredWhileTheSessionIsBeingClosed)
{
    const auto session = OpenConnected();
    auto outcome = Transacting(*session);
    // The room for the results is there until the library is through with the handle.
    library.WhenClosed(1, [this] {
        library.Answer(1, Sent::Transact, kTwoSent, Paths({"/a"}));
        library.AwaitArrivals(1);
    });
    session->Close();
    ExpectBare(outcome.get(), ZCLOSING);
}

TEST_F(TransactionsOfASession, AreRefusedWhenThereIsNothingToDo)
{
    const auto session = OpenConnected();
    ExpectBare(Transact(*session, {}), ZBADARGUMENTS);
    EXPECT_THAT(library.Asked().Lines(), SizeIs(1)) << "only the handle was asked for";
}

TEST_F(TransactionsOfASession, AreRefusedWhenOnePathNamesNoNode)
{
    const auto session = OpenConnected();
    for (const std::string& path :
         {std::string(), std::string("n"), std::string("/a\0b", 4), std::string("/a/"), std::string("//a"),
          std::string("/a//b"), std::string("//"), std::string("/."), std::string("/.."), std::string("/a/./b"),
          std::string("/a/.."), std::string("/../a"), std::string("/a\x01"), std::string("/a\x1f/b")})
    {
        for (const Operation& bad :
             {Operation::Create(path, ""), Operation::Set(path, ""), Operation::Delete(path), Operation::Check(path)})
        {
            ExpectBare(Transact(*session, {Operation::Check("/a"), bad}), ZBADARGUMENTS);
        }
    }
    ExpectBare(Transact(*session, {Operation::Create("/a//", "", NodeMode::PersistentSequential)}), ZBADARGUMENTS);
    EXPECT_THAT(library.Asked().Lines(), SizeIs(1)) << "only the handle was asked for";
}

TEST_F(TransactionsOfASession, TakeStrangeNamesForWhatTheyAre)
{
    const auto session = OpenConnected();
    for (const std::string path : {"/", "/...", "/.a", "/a.", "/..a/b..", "/a/.b/c", "/\xc3\xa9", "/a b"})
    {
        library.Expect(Sent::Transact, "check " + path);
        EXPECT_EQ(Transact(*session, {Operation::Check(path)}).rc, ZOK) << path;
    }
    for (const std::string path : {"/", "/a/", "/a/.", "/.."})
    {
        library.Expect(Sent::Transact, "create " + path + "= sequential", Paths({path + "0000000001"}));
        EXPECT_EQ(Transact(*session, {Operation::Create(path, "", NodeMode::PersistentSequential)}).rc, ZOK) << path;
    }
}

TEST_F(TransactionsOfASession, ThatNoServerTakesForTheirSizeAreNotSent)
{
    options.rootPath = "/x";
    const auto session = OpenConnected();
    // The header; of each operation kind, end mark, code and path; the data, the rights of everybody and the flags of a
    // creation; the version of a check; and the end.
    const std::size_t around = 8 + (9 + 4 + 4) + 4 + (4 + 4 + 4 + 5 + 4 + 6) + 4 + (9 + 4 + 4 + 4) + 9;
    const std::string largest(kMostRequestBytes - around, 'd');
    library.Expect(Sent::Transact, "create /x/a=" + largest + ", check /x/b", Paths({"/x/a"}));
    EXPECT_EQ(Transact(*session, {Operation::Create("/a", largest), Operation::Check("/b")}).rc, ZOK);
    ExpectBare(Transact(*session, {Operation::Create("/a", largest + "d"), Operation::Check("/b")}), ZBADARGUMENTS);
    EXPECT_THAT(Logged("A request of 1048576 bytes was not sent, since servers take 1048575: /x/a"), SizeIs(1));

    // Together they are too much.
    const std::string half(kMostRequestBytes / 2, 'd');
    ExpectBare(Transact(*session, {Operation::Set("/a", half), Operation::Set("/b", half)}), ZBADARGUMENTS);
    ExpectBare(Transact(*session, std::vector<Operation>(60'000, Operation::Delete("/n"))), ZBADARGUMENTS);
}

TEST_F(TransactionsOfASession, LiveBelowTheRoot)
{
    options.rootPath = "/apps/x";
    const auto session = OpenConnected();
    library.Expect(Sent::Transact,
                   "create /apps/x/a=, create /apps/x/= sequential, set /apps/x/b=, delete /apps/x/c, check /apps/x",
                   Paths({"/apps/x/a", "/apps/x/0000000001"}));
    EXPECT_THAT(
        Transact(*session, {Operation::Create("/a", ""), Operation::Create("/", "", NodeMode::PersistentSequential),
                            Operation::Set("/b", ""), Operation::Delete("/c"), Operation::Check("/")})
            .result.created,
        ElementsAre("/a", "/0000000001", "", "", ""));
    library.Expect(Sent::Transact, "create /apps/x=", Paths({"/apps/x"}));
    EXPECT_THAT(Transact(*session, {Operation::Create("/", "")}).result.created, ElementsAre("/"));
}

TEST_F(TransactionsOfASession, MakeTheRootForACreationThatMissesIt)
{
    options.rootPath = "/apps/x";
    const auto session = OpenConnected();
    library.Expect(Sent::Transact, "create /apps/x/a=, create /apps/x/a/b=", RefusedAt(0, ZNONODE));
    library.Expect(Sent::Exists, "/apps/x", Code(ZNONODE));
    library.Expect(Sent::Exists, "/apps", Code(ZOK));
    library.Expect(Sent::Create, "/apps/x", Created("/apps/x"));
    library.Expect(Sent::Transact, "create /apps/x/a=, create /apps/x/a/b=", Paths({"/apps/x/a", "/apps/x/a/b"}));
    const Outcome outcome = Transact(*session, {Operation::Create("/a", ""), Operation::Create("/a/b", "")});
    EXPECT_EQ(outcome.rc, ZOK);
    EXPECT_EQ(outcome.result.refused, std::nullopt);
    EXPECT_THAT(outcome.result.created, ElementsAre("/a", "/a/b"));
}

TEST_F(TransactionsOfASession, MakeTheRootForNothingElse)
{
    options.rootPath = "/apps/x";
    const auto session = OpenConnected();
    library.Expect(Sent::Transact, "check /apps/x/a, create /apps/x/b=", RefusedAt(0, ZNONODE));
    ExpectRefused(Transact(*session, {Operation::Check("/a"), Operation::Create("/b", "")}), ZNONODE, 0);
    library.Expect(Sent::Transact, "create /apps/x/a/b=", RefusedAt(0, ZNONODE));
    ExpectRefused(Transact(*session, {Operation::Create("/a/b", "")}), ZNONODE, 0);
}

TEST_F(TransactionsOfASession, TellOfARootThatCannotBeMade)
{
    options.rootPath = "/x";
    const auto session = OpenConnected();
    const std::vector<Operation> operations{Operation::Check("/"), Operation::Create("/a", "")};
    library.Expect(Sent::Exists, "/x", Always(Code(ZNONODE)));
    for (const int rc : {ZNOAUTH, ZCONNECTIONLOSS})
    {
        library.Expect(Sent::Transact, "check /x, create /x/a=", RefusedAt(1, ZNONODE));
        // One that may have happened is looked after, and tried again.
        library.Expect(Sent::Create, "/x", rc == ZNOAUTH ? Code(rc) : Always(Code(rc)));
        const Outcome outcome = Transact(*session, operations);
        if (rc == ZNOAUTH)
        {
            ExpectRefused(outcome, rc, 1);
        }
        else
        {
            ExpectBare(outcome, rc);
        }
    }
}

TEST_F(TransactionsOfASession, LeaveTheRootToOthersWhenToldSo)
{
    options.rootPath = "/x";
    options.createRoot = false;
    const auto session = OpenConnected();
    library.Expect(Sent::Transact, "create /x/a=", RefusedAt(0, ZNONODE));
    ExpectRefused(Transact(*session, {Operation::Create("/a", "")}), ZNONODE, 0);
}

TEST_F(TransactionsOfASession, GiveNodesTheAccessListOfTheSession)
{
    options.accessList = {{ZOO_PERM_ALL, "auth", ""}, {ZOO_PERM_READ, "digest", "u:h"}};
    const auto session = OpenConnected();
    library.Expect(Sent::Transact, "create /a=x acl 31 auth: acl 1 digest:u:h, set /b=y", Paths({"/a"}));
    EXPECT_EQ(Transact(*session, {Operation::Create("/a", "x"), Operation::Set("/b", "y")}).rc, ZOK);
}

TEST_F(TransactionsOfASession, ComeAfterDeletionsThatArePending)
{
    const auto session = OpenConnected();
    library.Expect(Sent::Delete, "/a", Code(ZCONNECTIONLOSS));
    library.Expect(Sent::Delete, "/a");
    auto deleting = std::async(std::launch::async, [&] { return session->GuaranteedDelete("/a"); });
    library.Asked().Await("1 delete /a");
    library.AwaitArrivals(1);
    library.Expect(Sent::Transact, kTwoSent, Paths({"/a"}));
    EXPECT_EQ(Transact(*session, kTwo).rc, ZOK);
    EXPECT_THAT(AskedWith(" /a"), ElementsAre("1 delete /a", "1 delete /a", "1 transact " + kTwoSent));
    EXPECT_EQ(deleting.get(), ZOK);
}

}  // namespace
}  // namespace kx::velmor::testing_support
