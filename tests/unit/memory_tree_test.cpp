// The nodes of a service in memory, as its sessions see them.

#include "tests/unit/memory_fixture.h"

#include <kx/velmor/error.h>

namespace kx::velmor {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

using MemoryTree = MemoryTest;

TEST_F(MemoryTree, SequenceIsPerParentAndCountsAllChildrenEverCreated)
{
    service.Add("/e/plain");
    EXPECT_THAT(Create(*session, "/e/c-", ZOO_SEQUENCE), Pair(ZOK, "/e/c-0000000001"));
    service.Delete("/e/c-0000000001");
    EXPECT_THAT(Create(*other, "/e/other-", ZOO_SEQUENCE), Pair(ZOK, "/e/other-0000000002"));
    EXPECT_THAT(Create(*session, "/e/", ZOO_SEQUENCE), Pair(ZOK, "/e/0000000003"));
    EXPECT_THAT(service.Children("/e"), ElementsAre("0000000003", "other-0000000002", "plain"));
}

TEST_F(MemoryTree, CreationFailsAsTheServiceWouldHaveIt)
{
    service.Add("/there");
    EXPECT_EQ(ZOK, Create(*session, "/mine", ZOO_EPHEMERAL).first);

    EXPECT_EQ(ZNODEEXISTS, Create(*session, "/there").first);
    EXPECT_EQ(ZNODEEXISTS, Create(*session, "/").first);
    EXPECT_EQ(ZNONODE, Create(*session, "/missing/child").first);
    EXPECT_EQ(ZNOCHILDRENFOREPHEMERALS, Create(*session, "/mine/child").first);
    EXPECT_EQ(ZBADARGUMENTS, Create(*session, "/a", ZOO_CONTAINER).first);
    EXPECT_EQ(ZINVALIDACL, session->Create("/a", "", ACL_vector{0, nullptr}, 0, nullptr));
    EXPECT_FALSE(service.Has("/a"));
    for (const char* path : {"", "a", "/a/", "//a", "/a//b", "/.", "/a/..", "/a\n"})
    {
        EXPECT_EQ(ZBADARGUMENTS, Create(*session, path).first) << path;
    }
}

TEST_F(MemoryTree, CreatedPathNeedsRoomOrNothingIsMade)
{
    std::string room(std::string("/c-0000000000").size() - 1, ' ');
    EXPECT_EQ(ZBADARGUMENTS, session->Create("/c-", "", ZOO_OPEN_ACL_UNSAFE, ZOO_SEQUENCE, &room));
    EXPECT_THAT(service.Children("/"), IsEmpty());

    room += ' ';
    EXPECT_EQ(ZOK, session->Create("/c-", "", ZOO_OPEN_ACL_UNSAFE, ZOO_SEQUENCE, &room));
    EXPECT_EQ("/c-0000000000", room);
    EXPECT_EQ(ZOK, session->Create("/c", "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr));
    EXPECT_THAT(service.Children("/"), ElementsAre("c", "c-0000000000"));
}

TEST_F(MemoryTree, ChildrenAreNotSorted)
{
    service.Add("/e/a");
    service.Add("/e/b");
    service.Add("/e/b/deeper");
    std::vector<std::string> children{"what was there before"};
    EXPECT_EQ(ZOK, session->GetChildren("/e", children));
    EXPECT_THAT(children, ElementsAre("b", "a"));
    EXPECT_EQ(ZOK, session->GetChildren("/e/a", children));
    EXPECT_THAT(children, IsEmpty());
    EXPECT_EQ(ZNONODE, session->GetChildren("/missing", children));
    EXPECT_EQ(ZBADARGUMENTS, session->GetChildren("e", children));
}

TEST_F(MemoryTree, StatTellsAllOfANode)
{
    EXPECT_EQ(ZOK, Create(*session, "/mine", ZOO_EPHEMERAL, "four").first);
    const Stat mine = *StatOfNode(*other, "/mine");
    EXPECT_EQ(session->Status().sessionId, mine.ephemeralOwner);
    EXPECT_EQ(4, mine.dataLength);
    EXPECT_EQ(0, mine.version);
    EXPECT_EQ(mine.czxid, mine.mzxid);

    service.Add("/e");
    service.Advance(5s);
    service.Set("/e", "longer");
    service.Add("/e/a");
    service.Add("/e/b");
    service.Delete("/e/a");
    const Stat stat = *StatOfNode(*session, "/e");
    EXPECT_EQ(0, stat.ephemeralOwner);
    EXPECT_GT(stat.czxid, mine.czxid);
    EXPECT_GT(stat.mzxid, stat.czxid);
    EXPECT_GT(stat.pzxid, stat.mzxid);
    EXPECT_EQ(5'000, stat.mtime - stat.ctime);
    EXPECT_EQ(1, stat.version);
    EXPECT_EQ(3, stat.cversion);
    EXPECT_EQ(6, stat.dataLength);
    EXPECT_EQ(1, stat.numChildren);
    EXPECT_EQ(ZBADARGUMENTS, session->Exists("/e/", nullptr));
}

TEST_F(MemoryTree, DataIsReadWithItsStat)
{
    service.Add("/e", "text");
    std::string data = "before";
    Stat stat{};
    EXPECT_EQ(ZNONODE, session->GetData("/missing", data, &stat));
    EXPECT_EQ("before", data);
    EXPECT_EQ(ZOK, session->GetData("/e", data, &stat));
    EXPECT_EQ("text", data);
    EXPECT_EQ(4, stat.dataLength);
    service.Set("/e", "");
    EXPECT_EQ(ZOK, session->GetData("/e", data, nullptr));
    EXPECT_EQ("", data);
    EXPECT_EQ(ZBADARGUMENTS, session->GetData("e", data, nullptr));
}

TEST_F(MemoryTree, DeletionFailsAsTheServiceWouldHaveIt)
{
    service.Add("/e/a");
    EXPECT_EQ(ZNOTEMPTY, session->GuaranteedDelete("/e"));
    EXPECT_EQ(ZOK, session->GuaranteedDelete("/e/a"));
    EXPECT_EQ(ZNONODE, session->GuaranteedDelete("/e/a"));
    EXPECT_EQ(ZOK, session->GuaranteedDelete("/e"));
    EXPECT_EQ(ZBADARGUMENTS, session->GuaranteedDelete("/"));
    EXPECT_EQ(ZBADARGUMENTS, session->GuaranteedDelete("e"));
}

TEST_F(MemoryTree, PathsAreRelativeToTheRootWhichIsMadeOnDemand)
{
    const auto rooted = service.Open({"/apps/x"});
    EXPECT_EQ("/apps/x", rooted->RootPath());
    EXPECT_EQ(ZNONODE, rooted->Exists("/", nullptr));
    EXPECT_EQ(ZNONODE, Create(*rooted, "/missing/child").first);
    EXPECT_FALSE(service.Has("/apps"));

    EXPECT_THAT(Create(*rooted, "/c-", ZOO_SEQUENCE), Pair(ZOK, "/c-0000000000"));
    EXPECT_TRUE(service.Has("/apps/x/c-0000000000"));
    EXPECT_EQ(ZOK, rooted->Exists("/", nullptr));
    EXPECT_THAT(Create(*rooted, "/", ZOO_SEQUENCE), Pair(ZOK, "/0000000001"));
    EXPECT_THAT(Create(*service.Open({"/apps/y"}), "/"), Pair(ZOK, "/"));
    EXPECT_TRUE(service.Has("/apps/y"));
}

TEST_F(MemoryTree, RootIsNotMadeForWhoDoesNotWantThat)
{
    const auto rooted = service.Open({"/apps/x", kTimeout, false});
    EXPECT_EQ(ZNONODE, Create(*rooted, "/c").first);
    EXPECT_FALSE(service.Has("/apps"));
}

TEST_F(MemoryTree, RefusedPathFailsWithAllBelowIt)
{
    service.Add("/e/a");
    service.Refuse("/e", ZNOAUTH);
    std::vector<std::string> children;
    std::string data;
    TransactionResult result;
    for (const std::string path : {"/e", "/e/a"})
    {
        EXPECT_EQ(ZNOAUTH, Create(*session, path + "/c-", ZOO_SEQUENCE).first);
        EXPECT_EQ(ZNOAUTH, session->GetChildren(path, children));
        EXPECT_EQ(ZNOAUTH, session->Exists(path, nullptr));
        EXPECT_EQ(ZNOAUTH, Watch(*session, path).first);
        EXPECT_EQ(ZNOAUTH, session->GetData(path, data, nullptr));
        EXPECT_EQ(ZNOAUTH, session->GuaranteedDelete(path));
        EXPECT_EQ(ZNOAUTH, session->Transact({Operation::Check("/"), Operation::Check(path)}, result));
        EXPECT_EQ(1U, result.refused);
    }
    EXPECT_EQ(ZOK, Create(*session, "/eleven").first);
    service.Refuse("/e/a", ZINVALIDACL);
    EXPECT_EQ(ZINVALIDACL, session->GuaranteedDelete("/e/a"));
    service.Refuse("/e/a", ZOK);
    service.Refuse("/e", ZOK);
    EXPECT_EQ(ZOK, session->GuaranteedDelete("/e/a"));

    service.Refuse("/", ZNOAUTH);
    EXPECT_EQ(ZNOAUTH, Create(*session, "/new").first);
    EXPECT_EQ(ZNOAUTH, Create(*service.Open({"/apps/x"}), "/new").first);
    service.Add("/new");
    EXPECT_THROW(service.Refuse("new", ZNOAUTH), ZooError);
}

TEST_F(MemoryTree, WhatTheTestItselfDoesIsRefusedWithTheServicesCode)
{
    const auto code = [](const std::function<void()>& act) {
        try
        {
            act();
        }
        catch (const ZooError& error)
        {
            return error.Code();
        }
        return static_cast<int>(ZOK);
    };
    service.Add("/a/b", "text");
    EXPECT_EQ("text", service.Data("/a/b"));
    EXPECT_EQ("", service.Data("/a"));
    EXPECT_EQ(ZNODEEXISTS, code([&] { service.Add("/a"); }));
    EXPECT_EQ(ZBADARGUMENTS, code([&] { service.Add("a"); }));
    EXPECT_EQ(ZNOTEMPTY, code([&] { service.Delete("/a"); }));
    EXPECT_EQ(ZNONODE, code([&] { service.Delete("/c"); }));
    EXPECT_EQ(ZNONODE, code([&] { service.Set("/c", ""); }));
    EXPECT_EQ(ZNONODE, code([&] { service.Data("/c"); }));
    EXPECT_EQ(ZNONODE, code([&] { service.Children("/c"); }));
    EXPECT_EQ(ZOK, Create(*session, "/mine", ZOO_EPHEMERAL).first);
    EXPECT_EQ(ZNOCHILDRENFOREPHEMERALS, code([&] { service.Add("/mine/b/c"); }));
}

TEST_F(MemoryTree, TransactionAppliesAllOperations)
{
    service.Add("/e/old");
    service.Add("/e/set");
    TransactionResult result;
    EXPECT_EQ(ZOK, session->Transact(
                       {
                           Operation::Check("/e/set", 0),
                           Operation::Create("/e/c-", "1", NodeMode::EphemeralSequential),
                           Operation::Create("/e/p-", "2", NodeMode::PersistentSequential),
                           Operation::Create("/e/e", "3", NodeMode::Ephemeral),
                           Operation::Create("/e/p", "4"),
                           Operation::Create("/e/p/below", "5"),
                           Operation::Set("/e/set", "new", 0),
                           Operation::Check("/e/set", 1),
                           Operation::Delete("/e/old", 0),
                       },
                       result));
    EXPECT_FALSE(result.refused);
    EXPECT_THAT(result.created,
                ElementsAre("", "/e/c-0000000002", "/e/p-0000000003", "/e/e", "/e/p", "/e/p/below", "", "", ""));
    EXPECT_THAT(service.Children("/e"), ElementsAre("c-0000000002", "e", "p", "p-0000000003", "set"));
    EXPECT_EQ("new", service.Data("/e/set"));
    EXPECT_EQ("1", service.Data("/e/c-0000000002"));
    const Stat sequential = *StatOfNode(*session, "/e/c-0000000002");
    EXPECT_EQ(session->Status().sessionId, sequential.ephemeralOwner);
    EXPECT_EQ(sequential.czxid, StatOfNode(*session, "/e/set")->mzxid);
    EXPECT_EQ(0, StatOfNode(*session, "/e/p-0000000003")->ephemeralOwner);
    EXPECT_EQ(session->Status().sessionId, StatOfNode(*session, "/e/e")->ephemeralOwner);
}

TEST_F(MemoryTree, RefusedTransactionChangesNothingAndSaysWhichOperationItWas)
{
    service.Add("/e/a");
    const auto watch = Watching(*other, "/e/a");
    const auto refused = [&](std::vector<Operation> last) {
        std::vector<Operation> operations{Operation::Set("/e/a", "changed"), Operation::Create("/e/new", "")};
        operations.insert(operations.end(), last.begin(), last.end());
        TransactionResult result;
        result.created.emplace_back("before");
        const int rc = session->Transact(operations, result);
        EXPECT_THAT(result.created, IsEmpty());
        EXPECT_EQ(operations.size() - 1, result.refused);
        return rc;
    };
    EXPECT_EQ(ZBADVERSION, refused({Operation::Check("/e/a", 0)}));
    EXPECT_EQ(ZBADVERSION, refused({Operation::Set("/e/a", "", 5)}));
    EXPECT_EQ(ZBADVERSION, refused({Operation::Delete("/e/a", 0)}));
    EXPECT_EQ(ZNONODE, refused({Operation::Check("/e/b")}));
    EXPECT_EQ(ZNONODE, refused({Operation::Set("/e/b", "")}));
    EXPECT_EQ(ZNONODE, refused({Operation::Delete("/e/new"), Operation::Delete("/e/new")}));
    EXPECT_EQ(ZNONODE, refused({Operation::Create("/e/b/c", "")}));
    EXPECT_EQ(ZNODEEXISTS, refused({Operation::Create("/e/new", "")}));
    EXPECT_EQ(ZNOTEMPTY, refused({Operation::Delete("/e")}));

    EXPECT_EQ("", service.Data("/e/a"));
    EXPECT_THAT(service.Children("/e"), ElementsAre("a"));
    EXPECT_EQ(0, StatOfNode(*session, "/e/a")->version);
    EXPECT_THAT(Create(*session, "/e/c-", ZOO_SEQUENCE), Pair(ZOK, "/e/c-0000000001"));
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(MemoryTree, TransactionIsRelativeToTheRootAndMakesIt)
{
    const auto rooted = service.Open({"/apps/x"});
    TransactionResult result;
    EXPECT_EQ(ZNONODE, rooted->Transact({Operation::Create("/a/b", "")}, result));
    EXPECT_FALSE(service.Has("/apps"));
    EXPECT_EQ(ZOK, rooted->Transact({Operation::Create("/a", ""), Operation::Create("/a/b", "")}, result));
    EXPECT_THAT(result.created, ElementsAre("/a", "/a/b"));
    EXPECT_TRUE(service.Has("/apps/x/a/b"));
}

TEST_F(MemoryTree, TransactionWithoutOperationsOrWithAWrongPathIsRefused)
{
    TransactionResult result;
    EXPECT_EQ(ZBADARGUMENTS, session->Transact({}, result));
    EXPECT_EQ(ZBADARGUMENTS, session->Transact({Operation::Create("/a", ""), Operation::Check("a")}, result));
    EXPECT_FALSE(service.Has("/a"));
}

}  // namespace
}  // namespace kx::velmor
