// The name service fails, while members are connected and while they are not.
//
// Defines getaddrinfo for this program and the libraries it uses.
#include "tests/ensemble/scenario_fixture.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <netdb.h>

#include <atomic>
#include <memory>
#include <string>

namespace {

std::atomic<bool> g_failing{false};
std::atomic<int> g_failures{0};

}  // namespace

extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result)
{
    using Function = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
    static const auto next = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    // Addresses need no service.
    if (g_failing && node != nullptr && std::string(node) == "localhost")
    {
        ++g_failures;
        return EAI_AGAIN;
    }
    return next(node, service, hints, result);
}

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using ::testing::SizeIs;

class NameScenario : public ScenarioFixture
{
protected:
    ~NameScenario() override { g_failing = false; }

    static void LetNamesFail()
    {
        g_failures = 0;
        g_failing = true;
    }

    void JoinByName(std::size_t count, milliseconds sessionTimeout)
    {
        for (std::size_t i = 0; i < count; ++i)
        {
            MemberSetup setup{Options(sessionTimeout)};
            setup.byName = true;
            Join(setup);
        }
    }
};

TEST_F(NameScenario, FailingWhileConnectedItChangesNothing)
{
    JoinByName(4, milliseconds(5'000));
    LetNamesFail();
    members_[0].Leave();
    members_[1].AwaitLeads();
    members_[2].AwaitIsNext();
    members_[0].Join();
    // Nobody looks a name up without need.
    EXPECT_EQ(g_failures, 0);
    AwaitWhole();
}

TEST_F(NameScenario, FailingWhileDisconnectedItKeepsNobodyFromComingBack)
{
    JoinByName(4, milliseconds(5'000));
    LetNamesFail();
    for (int round = 0; round < 5; ++round)
    {
        for (const Member& member : members_)
        {
            member.network->Disconnect();
        }
        for (const Member& member : members_)
        {
            member.network->Reconnect();
        }
        AwaitRoles();
    }
    AwaitWhole();
}

TEST_F(NameScenario, FailingWhenSessionsEndItMakesThemGoOnWithTheAddressesTheyKnow)
{
    JoinByName(3, milliseconds(5'000));
    LetNamesFail();
    for (const std::size_t lost : {0U, 1U, 2U})
    {
        const std::int64_t old = members_[lost].SessionId();
        Expire(members_[lost]);
        members_[lost].AwaitSessionAfter(old);
        members_[lost].Rejoin();
    }
    EXPECT_GT(g_failures, 0);
    MendUntilWhole();
    g_failing = false;
    JoinByName(1, milliseconds(5'000));
    AwaitWhole();
}

}  // namespace
}  // namespace kx::velmor::testing_support
