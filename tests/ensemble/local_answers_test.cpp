// Answers that a server gives without the quorum. They do not prove that the session is alive.

#include "tests/ensemble/leadership_fixture.h"
#include "tests/support/ensemble.h"
#include "tests/support/journal.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>
#include <zookeeper/zookeeper.h>

#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// Below a node that belongs to the servers.
constexpr const char* kNoNode = "/zookeeper/no-such-node";

/// A plain session whose operations return their codes, unlike those of `RawClient`.
class PlainHandle
{
public:
    explicit PlainHandle(const std::string& server)
        : handle_(zookeeper_init2(
              server.c_str(), [](zhandle_t*, int, int, const char*, void*) {},
              static_cast<int>(milliseconds(seconds(60)).count()), nullptr, nullptr, ZOO_NO_LOG_CLIENTENV,
              [](const char*) {}))
    {
        // Returns when there is a session.
        if (handle_ == nullptr || zoo_exists(handle_, "/", 0, nullptr) != ZOK)
        {
            throw std::runtime_error("no session with " + server);
        }
    }
    ~PlainHandle() { zookeeper_close(handle_); }

    PlainHandle(const PlainHandle&) = delete;
    PlainHandle& operator=(const PlainHandle&) = delete;

    /// Takes every permission on the node away from every client.
    int Lock(const std::string& path)
    {
        char scheme[] = "digest";
        char id[] = "none:AAAAAAAAAAAAAAAAAAAAAAAAAAA=";
        ACL entry{ZOO_PERM_ALL, {scheme, id}};
        const ACL_vector list{1, &entry};
        return zoo_set_acl(handle_, path.c_str(), kAnyVersion, &list);
    }

    int Delete(const std::string& path) { return zoo_delete(handle_, path.c_str(), kAnyVersion); }

    /// Begins a transaction of one check. The handle must outlive the answer.
    std::future<int> Check(const std::string& path)
    {
        auto call = std::make_shared<CheckCall>();
        call->path = path;
        zoo_check_op_init(&call->operation, call->path.c_str(), kAnyVersion);
        std::future<int> answer = call->answer.get_future();
        auto context = std::make_unique<std::shared_ptr<CheckCall>>(call);
        const int rc = zoo_amulti(handle_, 1, &call->operation, &call->result, &PlainHandle::OnChecked, context.get());
        if (rc != ZOK)
        {
            throw std::runtime_error(std::string("cannot send a transaction: ") + zerror(rc));
        }
        static_cast<void>(context.release());
        return answer;
    }

private:
    static constexpr int kAnyVersion = -1;

    struct CheckCall
    {
        std::string path;
        zoo_op_t operation{};
        zoo_op_result_t result{};
        std::promise<int> answer;
    };

    static void OnChecked(int rc, const void* context)
    {
        const std::unique_ptr<const std::shared_ptr<CheckCall>> call(
            static_cast<const std::shared_ptr<CheckCall>*>(context));
        (*call)->answer.set_value(rc);
    }

    zhandle_t* const handle_;
};

/// Servers that check access lists before they ask the others, and for some time do not mind that the others are
/// silent.
ServerOptions EagerAccessChecks()
{
    ServerOptions options;
    options.properties = {"zookeeper.enableEagerACLCheck=true"};
    options.syncLimit = 300;
    return options;
}

class LocalAnswers : public ::testing::Test
{
protected:
    LocalAnswers() : ensemble_(3, EagerAccessChecks())
    {
        ensemble_.Start();
        follower_ = (ensemble_.LeaderIndex() + 1) % ensemble_.Size();
        PlainHandle(Follower()).Lock("/zookeeper");
    }

    std::string Follower() { return ensemble_.Server(follower_).Address(); }

    /// All servers but the follower.
    void FreezeQuorum()
    {
        for (std::size_t server = 0; server < ensemble_.Size(); ++server)
        {
            if (server != follower_)
            {
                ensemble_.Server(server).Pause();
            }
        }
    }
    void ThawQuorum()
    {
        for (std::size_t server = 0; server < ensemble_.Size(); ++server)
        {
            if (server != follower_)
            {
                ensemble_.Server(server).Continue();
            }
        }
    }

    Journal journal_;
    const LogCapture log_{journal_, static_cast<std::int32_t>(logging::LogLevel::Error)};
    Ensemble ensemble_;
    std::size_t follower_ = 0;
};

TEST_F(LocalAnswers, DoNotExtendTheLease)
{
    constexpr milliseconds kTimeout{6'000};
    PlainHandle bystander(Follower());
    Produce([&](const std::string& path) {
        WatchedMember leader(Follower(), path, kTimeout);
        // A refusal that overtakes the answer to an earlier request costs the client its connection. Beginning to lead
        // is when it sends several at once.
        if (!leader.WaitForRole(Role::Leader) || !leader.AwaitExtension() || !leader.AwaitExtension())
        {
            return false;
        }
        FreezeQuorum();
        const BootClock::time_point frozen = BootClock::now();
        bool produced = leader.IsLeader();
        if (produced)
        {
            // What is answered from now on, the follower answers alone.
            EXPECT_EQ(bystander.Delete(kNoNode), ZNOAUTH);
            // A refusal may still have overtaken an answer. Two writes are due within this time.
            leader.AwaitAskedAfter(frozen + kTimeout / 3);
            produced = leader.GetSession().Status().state == SessionState::Connected;
            leader.AwaitAskedAfter(frozen + kTimeout);
            EXPECT_EQ(bystander.Delete(kNoNode), ZNOAUTH);
            // No write that a quorum has answered was sent later than when it froze.
            const BootClock::time_point end = frozen + kTimeout * 2 / 3;
            const BootClock::time_point until = leader.Record().Known()->until;
            EXPECT_LE(until.time_since_epoch().count(), end.time_since_epoch().count())
                << "it led for " << std::chrono::duration_cast<milliseconds>(until - frozen).count()
                << " ms without a quorum";
        }
        ThawQuorum();
        return produced;
    });
}

TEST_F(LocalAnswers, AreNotGivenToATransactionThatFails)
{
    PlainHandle handle(Follower());
    PlainHandle bystander(Follower());
    // It takes no permission.
    EXPECT_EQ(handle.Check(kNoNode).get(), ZNONODE);
    FreezeQuorum();
    std::future<int> answer = handle.Check(kNoNode);
    // Meanwhile the follower answers what it can.
    const auto begin = std::chrono::steady_clock::now();
    do
    {
        EXPECT_EQ(bystander.Delete(kNoNode), ZNOAUTH);
    } while (answer.wait_for(milliseconds(20)) == std::future_status::timeout &&
             std::chrono::steady_clock::now() < begin + seconds(2));
    EXPECT_EQ(answer.wait_for(milliseconds(0)), std::future_status::timeout);
    ThawQuorum();
    ASSERT_EQ(answer.wait_for(kPatience), std::future_status::ready);
    EXPECT_EQ(answer.get(), ZNONODE);
}

}  // namespace
}  // namespace kx::velmor::testing_support
