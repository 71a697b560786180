// What a session with credentials may do, and what others may not.

#include "source/candidate_impl.h"
#include "tests/ensemble/session_fixture.h"

#include <kx/velmor/error.h>
#include <kx/velmor/path.h>

#include <gmock/gmock.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor::testing_support {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class SecurityTest : public SessionFixture
{
protected:
    SessionOptions OptionsOf(const std::string& credentials) const
    {
        SessionOptions options = Options();
        options.digestCredentials = credentials;
        return options;
    }

    /// A session whose nodes are its user's alone.
    std::shared_ptr<Session> OpenPrivately(const std::string& rootPath = {}) const
    {
        SessionOptions options = OptionsOf("alice:secret");
        options.accessList = {{ZOO_PERM_ALL, "auth", ""}};
        options.rootPath = rootPath;
        return Session::Open(options);
    }

    /// What `Start` throws as a `ZooError`.
    static std::optional<int> CodeOfStart(const std::shared_ptr<Session>& session, const std::string& path)
    {
        const auto candidate = std::make_shared<CandidateImpl>(
            session, path, [] {}, [] {});
        try
        {
            candidate->Start();
            candidate->Stop();
            return std::nullopt;
        }
        catch (const ZooError& error)
        {
            return error.Code();
        }
    }

    static int List(const Session& session, const std::string& path)
    {
        std::vector<std::string> children;
        return session.GetChildren(path, children);
    }
};

TEST_F(SecurityTest, NodesOfAnAccessListAreForItsUserOnly)
{
    const auto alice = OpenPrivately();
    ASSERT_EQ(Create(*alice, "/private").first, ZOK);
    ASSERT_EQ(Create(*alice, "/private/n").first, ZOK);

    const auto nobody = Open();
    const auto mallory = Session::Open(OptionsOf("mallory:secret"));
    const auto wrong = Session::Open(OptionsOf("alice:guess"));
    for (const auto& other : {nobody, mallory, wrong})
    {
        EXPECT_EQ(List(*other, "/private"), ZNOAUTH);
        EXPECT_EQ(Create(*other, "/private/m").first, ZNOAUTH);
        EXPECT_EQ(other->GuaranteedDelete("/private/n"), ZNOAUTH);
        EXPECT_EQ(other->Exists("/private/n", nullptr), ZOK) << "which servers tell everybody";
    }

    const auto again = Session::Open(OptionsOf("alice:secret"));
    EXPECT_EQ(List(*again, "/private"), ZOK);
    EXPECT_EQ(again->GuaranteedDelete("/private/n"), ZOK);
}

TEST_F(SecurityTest, CredentialsAreShownAgainOnEveryConnectionAndInEverySession)
{
    const auto alice = OpenPrivately();
    ASSERT_EQ(Create(*alice, "/private").first, ZOK);
    proxy_.Cut();
    EXPECT_EQ(AwaitAnswer([&] { return List(*alice, "/private"); }), ZOK);
    const std::int64_t before = alice->Status().sessionId;
    Expire(*alice);
    Await("the next session", [&] {
        const SessionStatus status = alice->Status();
        return status.state == SessionState::Connected && status.sessionId != before;
    });
    EXPECT_EQ(AwaitAnswer([&] { return List(*alice, "/private"); }), ZOK);
}

TEST_F(SecurityTest, NodesOfTheRootGetTheAccessListToo)
{
    const auto alice = OpenPrivately("/apps/x");
    ASSERT_EQ(Create(*alice, "/n").first, ZOK);
    const auto nobody = Open();
    EXPECT_EQ(List(*nobody, "/apps"), ZNOAUTH);
    EXPECT_EQ(List(*nobody, "/apps/x"), ZNOAUTH);
    EXPECT_EQ(List(*nobody, "/apps/x/n"), ZNOAUTH);
}

TEST_F(SecurityTest, ListsOtherThanTheOpenOneAreLeftAsTheyAre)
{
    const auto alice = OpenPrivately();
    ASSERT_EQ(alice->Create("/readable", "", ZOO_READ_ACL_UNSAFE, 0, nullptr), ZOK);
    EXPECT_EQ(List(*Open(), "/readable"), ZOK);
    EXPECT_EQ(Create(*alice, "/readable/n").first, ZNOAUTH) << "which the list that was asked for denies everybody";
}

TEST_F(SecurityTest, WithoutAnAccessListNodesAreOpen)
{
    const auto alice = Session::Open(OptionsOf("alice:secret"));
    ASSERT_EQ(Create(*alice, "/open").first, ZOK);
    EXPECT_EQ(Create(*Open(), "/open/n").first, ZOK);
}

TEST_F(SecurityTest, AccessListThatServersCannotReadFailsTheCreation)
{
    SessionOptions options = Options();
    options.accessList = {{ZOO_PERM_ALL, "auth", ""}};
    EXPECT_EQ(Create(*Session::Open(options), "/n").first, ZINVALIDACL) << "\"auth\" stands for nobody here";
    options.accessList = {{ZOO_PERM_ALL, "nosuchscheme", "x"}};
    EXPECT_EQ(Create(*Session::Open(options), "/n").first, ZINVALIDACL);
    EXPECT_FALSE(observer_.Exists("/n"));
}

TEST_F(SecurityTest, OutsidersCannotJoinAnElectionOfOthers)
{
    const auto alice = OpenPrivately();
    const auto leader = std::make_shared<CandidateImpl>(
        alice, "/apps/election", [] {}, [] {});
    leader->Start();
    EXPECT_TRUE(leader->IsLeader());

    EXPECT_EQ(CodeOfStart(Open(), "/apps/election"), ZNOAUTH);
    EXPECT_EQ(CodeOfStart(Open(), "/apps/other"), ZNOAUTH) << "its parent is theirs as well";
    EXPECT_FALSE(observer_.Exists("/apps/other"));

    const auto next = std::make_shared<CandidateImpl>(
        OpenPrivately(), "/apps/election", [] {}, [] {});
    next->Start();
    EXPECT_TRUE(next->IsNextLeader());
    EXPECT_EQ(RawClient(server_->Address()).Exists("/apps/election")->numChildren, 2);
    leader->Stop();
    Await("the next to lead", [&] { return next->IsLeader(); });
    next->Stop();
    EXPECT_EQ(observer_.Exists("/apps/election")->numChildren, 0);
}

TEST_F(SecurityTest, CredentialsAreInNoLogLine)
{
    {
        const auto alice = OpenPrivately();
        ASSERT_EQ(Create(*alice, "/private").first, ZOK);
        proxy_.Cut();
        EXPECT_EQ(AwaitAnswer([&] { return List(*alice, "/private"); }), ZOK);
    }
    EXPECT_TRUE(Logged("Session connected -> closed"));
    EXPECT_FALSE(Logged("secret"));
    EXPECT_FALSE(Logged("alice"));
}

}  // namespace
}  // namespace kx::velmor::testing_support
