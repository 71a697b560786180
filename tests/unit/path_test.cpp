#include "tests/support/journal.h"
#include "tests/support/scripted_connection.h"
#include "tests/support/scripted_service.h"

#include <kx/velmor/error.h>
#include <kx/velmor/path.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kx::velmor {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using namespace testing_support;

class Normal : public ::testing::TestWithParam<std::pair<std::string, std::string>>
{};

TEST_P(Normal, FormOfAPath)
{
    EXPECT_EQ(NormalizePath(GetParam().first), GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(Paths, Normal,
                         ::testing::Values(std::pair("a", "a"), std::pair("/a", "a"), std::pair("a/", "a"),
                                           std::pair("/a/b", "a/b"), std::pair("//a///b/", "a/b"),
                                           std::pair("a/b/c", "a/b/c"), std::pair("///a", "a"), std::pair("a////", "a"),
                                           std::pair("a b/ c", "a b/ c"), std::pair("/.a/b./..c/...", ".a/b./..c/..."),
                                           std::pair("\xc3\xa9/x", "\xc3\xa9/x")));

class Refused : public ::testing::TestWithParam<std::pair<std::string, std::string>>
{};

TEST_P(Refused, PathIsQuoted)
{
    const auto& [path, quoted] = GetParam();
    try
    {
        NormalizePath(path);
        ADD_FAILURE() << quoted << " was accepted";
    }
    catch (const ZooError&)
    {
        ADD_FAILURE() << "no service was asked";
    }
    catch (const VelmorError& error)
    {
        EXPECT_THAT(error.what(), HasSubstr(quoted));
    }
}

TEST(RefusedPath, IsQuotedToItsEndBehindANul)
{
    try
    {
        NormalizePath(std::string("a\0b", 3));
        ADD_FAILURE() << "it was accepted";
    }
    catch (const VelmorError& error)
    {
        EXPECT_THAT(error.what(), HasSubstr("b\""));
    }
}

class RefusedEverywhere : public Refused
{};

TEST_P(RefusedEverywhere, PathIsNotEnsuredEither)
{
    const std::string& path = GetParam().first;
    Journal journal;
    ScriptedService service(journal);
    const auto connection = service.Open();
    EXPECT_THROW(EnsurePath(*connection, path, false, ZOO_OPEN_ACL_UNSAFE), VelmorError);
    EXPECT_THROW(EnsurePath(*connection, path, true, ZOO_OPEN_ACL_UNSAFE), VelmorError);
    EXPECT_THAT(journal.Take(), IsEmpty());
}

const std::vector<std::pair<std::string, std::string>> kRefusedEverywhere = {
    {"", "\"\""},
    {".", "\".\""},
    {"..", "\"..\""},
    {"/a/./b", "\"/a/./b\""},
    {"/a/../b", "\"/a/../b\""},
    {"a/..", "\"a/..\""},
    {"./a", "\"./a\""},
    {"a//.", "\"a//.\""},
    {std::string("a\0b", 3), "\"a"},
    {std::string("a\0", 2), "\"a"},
    {std::string("/\0", 2), "\"/"},
};

INSTANTIATE_TEST_SUITE_P(Paths, Refused, ::testing::ValuesIn(kRefusedEverywhere));
INSTANTIATE_TEST_SUITE_P(Paths, RefusedEverywhere, ::testing::ValuesIn(kRefusedEverywhere));
// Which name the connection's root, and so no node that could be normalised.
INSTANTIATE_TEST_SUITE_P(Roots, Refused, ::testing::Values(std::pair("/", "\"/\""), std::pair("///", "\"///\"")));

class EnsurePathTest : public ::testing::Test
{
protected:
    void Ensure(const std::string& path, bool parentsOnly = false)
    {
        EnsurePath(*connection, path, parentsOnly, ZOO_OPEN_ACL_UNSAFE);
    }

    /// The code that ensuring ends with; `ZOK` when it does not throw.
    int CodeOfEnsuring(const std::string& path)
    {
        try
        {
            Ensure(path);
        }
        catch (const ZooError& error)
        {
            return error.Code();
        }
        return ZOK;
    }

    std::vector<std::string> Creations()
    {
        std::vector<std::string> creations;
        for (const std::string& line : journal.Take())
        {
            if (line.rfind("Create", 0) == 0)
            {
                creations.push_back(line);
            }
        }
        return creations;
    }

    Journal journal;
    ScriptedService service{journal};
    std::shared_ptr<ScriptedConnection> connection = service.Open();
};

TEST_F(EnsurePathTest, ExistingNodeTakesOneLook)
{
    service.Add("/a/b/c");
    Ensure("/a/b/c");
    EXPECT_THAT(journal.Take(), ElementsAre("Exists /a/b/c stat"));
}

TEST_F(EnsurePathTest, MissingNodesAreMadePersistentEmptyAndWithTheList)
{
    Ensure("/a/b/c");
    EXPECT_THAT(Creations(),
                ElementsAre(StartsWith("Create /a world:anyone:31"), StartsWith("Create /a/b world:anyone:31"),
                            StartsWith("Create /a/b/c world:anyone:31")));
    EXPECT_TRUE(service.Has("/a/b/c"));
    Stat stat{};
    EXPECT_EQ(connection->Exists("/a/b/c", &stat), ZOK);
    EXPECT_EQ(stat.ephemeralOwner, 0);
}

TEST_F(EnsurePathTest, AccessListIsTheCallers)
{
    EnsurePath(*connection, "/a/b", false, ZOO_READ_ACL_UNSAFE);
    EXPECT_THAT(Creations(),
                ElementsAre(StartsWith("Create /a world:anyone:1"), StartsWith("Create /a/b world:anyone:1")));
    EXPECT_NE(ZOO_READ_ACL_UNSAFE.data[0].perms, ZOO_OPEN_ACL_UNSAFE.data[0].perms);
}

TEST_F(EnsurePathTest, ExistingAncestorsAreOnlyLookedAt)
{
    service.Add("/a/b");
    Ensure("/a/b/c/d");
    EXPECT_THAT(Creations(), ElementsAre(StartsWith("Create /a/b/c "), StartsWith("Create /a/b/c/d ")));
}

TEST_F(EnsurePathTest, ParentsOnlyLeavesTheLastComponentToTheCaller)
{
    Ensure("/a/b/c", true);
    EXPECT_TRUE(service.Has("/a/b"));
    EXPECT_FALSE(service.Has("/a/b/c"));
    journal.Take();
    Ensure("/a/b/c", true);
    EXPECT_THAT(Creations(), IsEmpty());
}

TEST_F(EnsurePathTest, ParentsOnlyOfATopLevelNodeIsNothingToMake)
{
    Ensure("/a", true);
    EXPECT_FALSE(service.Has("/a"));
    EXPECT_THAT(Creations(), IsEmpty());
}

TEST_F(EnsurePathTest, SeparatorsDoNotMatter)
{
    Ensure("//a///b/");
    EXPECT_THAT(service.Children("/"), ElementsAre("a"));
    EXPECT_THAT(service.Children("/a"), ElementsAre("b"));
    Ensure("x/y");
    EXPECT_TRUE(service.Has("/x/y"));
}

TEST_F(EnsurePathTest, RootOfTheConnectionIsThere)
{
    Ensure("/");
    Ensure("/", true);
    EXPECT_THAT(Creations(), IsEmpty());

    const auto rooted = service.Open("", "/app");
    EnsurePath(*rooted, "/", false, ZOO_OPEN_ACL_UNSAFE);
    EXPECT_THAT(Creations(), IsEmpty());
}

TEST_F(EnsurePathTest, RootOfTheConnectionIsMadeWhenItIsMissing)
{
    const auto rooted = service.Open("", "/app");
    service.Delete("/app");
    EnsurePath(*rooted, "/", false, ZOO_OPEN_ACL_UNSAFE);
    EXPECT_TRUE(service.Has("/app"));
}

TEST_F(EnsurePathTest, NodesAreMadeUnderTheRootOfTheConnection)
{
    const auto rooted = service.Open("", "/app");
    EnsurePath(*rooted, "/a/b", false, ZOO_OPEN_ACL_UNSAFE);
    EXPECT_TRUE(service.Has("/app/a/b"));
}

TEST_F(EnsurePathTest, NodeThatSomebodyElseMakesMeanwhileIsNoFailure)
{
    connection->Nth(Call::Create, 1).Before([&] { service.Add("/a"); });
    connection->Nth(Call::Create, 2).Before([&] { service.Add("/a/b"); });
    EXPECT_EQ(CodeOfEnsuring("/a/b"), ZOK);
    EXPECT_TRUE(service.Has("/a/b"));
    EXPECT_THAT(journal.Take(), ElementsAre(StartsWith("Exists /a/b"), StartsWith("Exists /a"),
                                            StartsWith("Create /a "), StartsWith("Create /a/b ")))
        << "that it exists is an answer, not a reason to look";
}

TEST_F(EnsurePathTest, MissingRightDoesNotMatterForANodeThatIsThereMeanwhile)
{
    service.Add("/a");
    connection->Next(Call::Create).Before([&] { service.Add("/a/b"); }).Returns(ZNOAUTH);
    EXPECT_EQ(CodeOfEnsuring("/a/b"), ZOK);
}

TEST_F(EnsurePathTest, MissingRightIsAnErrorOtherwise)
{
    service.Add("/a");
    connection->Next(Call::Create).Returns(ZNOAUTH);
    EXPECT_EQ(CodeOfEnsuring("/a/b"), ZNOAUTH);
    EXPECT_EQ(Creations().size(), 1U) << "asking again would not help";
}

TEST_F(EnsurePathTest, AncestorsMadeByThenStay)
{
    connection->Nth(Call::Create, 2).Returns(ZNOAUTH);
    EXPECT_EQ(CodeOfEnsuring("/a/b/c"), ZNOAUTH);
    EXPECT_TRUE(service.Has("/a"));
    EXPECT_FALSE(service.Has("/a/b"));
}

class UnknownOutcome : public EnsurePathTest, public ::testing::WithParamInterface<int>
{};

TEST_P(UnknownOutcome, IsSettledByLookingAgain)
{
    connection->Next(Call::Create).DoesAndReturns(GetParam());
    EXPECT_EQ(CodeOfEnsuring("/a/b"), ZOK);
    EXPECT_THAT(Creations(), ElementsAre(StartsWith("Create /a "), StartsWith("Create /a/b ")));
}

TEST_P(UnknownOutcome, IsTriedAgainWhenThereIsNoNode)
{
    connection->Next(Call::Create).Returns(GetParam());
    EXPECT_EQ(CodeOfEnsuring("/a"), ZOK);
    EXPECT_TRUE(service.Has("/a"));
}

TEST_P(UnknownOutcome, IsTheErrorWhenItStaysUnknown)
{
    connection->Next(Call::Exists).Before([&] { connection->FailEveryCall(GetParam()); }).Returns(ZNONODE);
    EXPECT_EQ(CodeOfEnsuring("/a"), GetParam());
    EXPECT_EQ(Creations().size(), 1U) << "nothing is made again that may be there";
}

TEST_P(UnknownOutcome, IsNotTriedForEver)
{
    for (int n = 1; n <= 3; ++n)
    {
        connection->Nth(Call::Create, n).Returns(GetParam());
    }
    EXPECT_EQ(CodeOfEnsuring("/a"), GetParam());
}

TEST_P(UnknownOutcome, OfTheFirstLookIsAnError)
{
    connection->Next(Call::Exists).Returns(GetParam());
    EXPECT_EQ(CodeOfEnsuring("/a"), GetParam());
    EXPECT_THAT(Creations(), IsEmpty());
}

TEST_P(UnknownOutcome, OfALookAtAnAncestorIsAnError)
{
    connection->Nth(Call::Exists, 2).Returns(GetParam());
    EXPECT_EQ(CodeOfEnsuring("/a/b"), GetParam());
    EXPECT_THAT(Creations(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Codes, UnknownOutcome, ::testing::Values(ZCONNECTIONLOSS, ZOPERATIONTIMEOUT));

TEST_F(EnsurePathTest, SessionThatIsOverIsAnErrorAtOnce)
{
    connection->Next(Call::Exists).Before([&] { connection->FailEveryCall(ZSESSIONEXPIRED); }).Returns(ZNONODE);
    EXPECT_EQ(CodeOfEnsuring("/a"), ZSESSIONEXPIRED);
    EXPECT_EQ(Creations().size(), 1U);
}

TEST_F(EnsurePathTest, NodeBelowAnEphemeralOneIsAnError)
{
    service.Add("/a", *connection);
    EXPECT_EQ(CodeOfEnsuring("/a/b"), ZNOCHILDRENFOREPHEMERALS);
}

TEST_F(EnsurePathTest, AncestorThatVanishesMeanwhileIsMadeAgain)
{
    service.Add("/a");
    connection->Next(Call::Create).Before([&] { service.Delete("/a"); });
    EXPECT_EQ(CodeOfEnsuring("/a/b"), ZOK);
    EXPECT_TRUE(service.Has("/a/b"));
}

TEST_F(EnsurePathTest, AncestorThatVanishesAgainAndAgainIsAnError)
{
    service.Add("/a");
    for (int n = 1; n <= 3; ++n)
    {
        connection->Nth(Call::Create, n).Returns(ZNONODE);
    }
    EXPECT_EQ(CodeOfEnsuring("/a/b"), ZNONODE);
}

TEST_F(EnsurePathTest, ManyAtOnceAllSucceed)
{
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int n = 0; n < 8; ++n)
    {
        threads.emplace_back([this] { EXPECT_EQ(CodeOfEnsuring("/a/b/c/d"), ZOK); });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_TRUE(service.Has("/a/b/c/d"));
}

}  // namespace
}  // namespace kx::velmor
