// Servers that die, freeze, lose their quorum or their data under an election.
#include "tests/ensemble/scenario_fixture.h"

#include <kx/velmor/error.h>

#include <gmock/gmock.h>

#include <string>
#include <thread>
#include <vector>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::SizeIs;

class ServerScenario : public ScenarioFixture
{
protected:
    explicit ServerScenario(std::size_t servers = 1) : ScenarioFixture(servers) {}

    std::vector<std::int64_t> SessionIds() const
    {
        std::vector<std::int64_t> ids;
        for (const Member& member : members_)
        {
            ids.push_back(member.SessionId());
        }
        return ids;
    }
};

TEST_F(ServerScenario, ServerThatIsKilledAndRestartedChangesNothing)
{
    JoinMany(4);
    const std::vector<std::string> queue = Queue();
    const std::vector<std::int64_t> sessions = SessionIds();
    for (int round = 0; round < 3; ++round)
    {
        Server().Kill();
        EXPECT_TRUE(members_[0].Leads());
        Server().Start();
        AwaitWhole();
    }
    EXPECT_EQ(Queue(), queue);
    EXPECT_EQ(SessionIds(), sessions);
}

TEST_F(ServerScenario, MemberThatLeavesWhileTheServerIsDownIsGoneAfterwards)
{
    SessionOptions options = Options();
    options.operationTimeout = milliseconds(500);
    Join(options);
    JoinMany(3);
    Server().Kill();
    EXPECT_THROW(members_[0].Leave(), ZooError);
    EXPECT_FALSE(members_[1].Leads());
    Server().Start();
    members_[1].AwaitLeads();
    AwaitWhole();
    EXPECT_THAT(Queue(), SizeIs(3));
}

TEST_F(ServerScenario, ServerFrozenBeyondAllSessionTimeoutsIsAPauseOrANewElectionByTheClock)
{
    for (int i = 0; i < 4; ++i)
    {
        Join(Options(seconds(1)));
    }
    Server().Pause();
    std::this_thread::sleep_for(milliseconds(2'500));
    EXPECT_TRUE(members_[0].Leads());
    EXPECT_TRUE(members_[1].IsNext());
    Server().Continue();
    MendUntilWhole();
}

TEST_F(ServerScenario, ServerThatHasLostItsDataMeansANewElection)
{
    // A session that nobody answers for is given up after four times as long.
    for (int i = 0; i < 3; ++i)
    {
        Join(Options(milliseconds(1'200)));
    }
    const std::vector<std::int64_t> sessions = SessionIds();
    ForgetObserver();
    Server().Kill();
    Server().WipeData();
    Server().Start();
    for (std::size_t i = 0; i < members_.size(); ++i)
    {
        members_[i].AwaitSessionAfter(sessions[i]);
    }
    EXPECT_FALSE(Observer().Exists(kElection));
    for (Member& member : members_)
    {
        member.Rejoin();
    }
    MendUntilWhole();
}

class EnsembleScenario : public ServerScenario
{
protected:
    EnsembleScenario() : ServerScenario(3) {}

    static std::size_t ConnectedTo(const Member& member)
    {
        const std::vector<Proxy*> proxies = member.network->Proxies();
        std::size_t connected = proxies.size();
        Await("a connection", [&] {
            for (std::size_t i = 0; i < proxies.size(); ++i)
            {
                if (proxies[i]->Connections() > 0)
                {
                    connected = i;
                }
            }
            return connected < proxies.size();
        });
        return connected;
    }

    std::vector<std::size_t> Others(std::size_t server)
    {
        return {(server + 1) % ensemble_.Size(), (server + 2) % ensemble_.Size()};
    }
};

TEST_F(EnsembleScenario, LeadingServerDiesUnderClientsOfFollowingServers)
{
    JoinMany(5);
    const std::vector<std::int64_t> sessions = SessionIds();
    const std::size_t leading = ensemble_.LeaderIndex();
    for (const Member& member : members_)
    {
        member.network->To(leading).Refuse();
        member.network->To(leading).Cut();
        EXPECT_NE(ConnectedTo(member), leading);
    }
    Server(leading).Kill();
    // Their own servers throw them out, too, until they have elected.
    members_[0].Leave();
    members_[1].AwaitLeads();
    AwaitWhole();
    EXPECT_EQ(SessionIds(), sessions);
    Server(leading).Start();
    for (const Member& member : members_)
    {
        member.network->To(leading).Accept();
    }
    members_[0].Join();
    AwaitWhole();
}

TEST_F(EnsembleScenario, LostQuorumIsAPause)
{
    SessionOptions options = Options();
    options.operationTimeout = milliseconds(500);
    Join(options);
    JoinMany(3);
    const std::vector<std::int64_t> sessions = SessionIds();
    const std::size_t survivor = ConnectedTo(members_[1]);
    for (const std::size_t lost : Others(survivor))
    {
        Server(lost).Kill();
    }
    Await("the survivor serves nobody", [&] { return !Server(survivor).Serving(); });
    EXPECT_THROW(members_[0].Leave(), ZooError);
    EXPECT_FALSE(members_[1].Leads());
    EXPECT_TRUE(members_[1].IsNext());
    EXPECT_FALSE(members_[2].Leads() || members_[2].IsNext());
    for (const std::size_t lost : Others(survivor))
    {
        Server(lost).Launch();
    }
    for (const std::size_t lost : Others(survivor))
    {
        Server(lost).AwaitServing();
    }
    members_[1].AwaitLeads();
    AwaitWhole();
    EXPECT_EQ(SessionIds(), sessions);
    members_[0].JoinInTheEnd();
    AwaitWhole();
}

TEST_F(EnsembleScenario, FrozenServerIsLeftForAnother)
{
    SessionOptions options = Options(seconds(3));
    // When it is the leader of the ensemble, the others have to notice, too, and to elect.
    options.operationTimeout = kPatience;
    for (int i = 0; i < 4; ++i)
    {
        Join(options);
    }
    const std::vector<std::int64_t> sessions = SessionIds();
    // The next in line and whoever else sits there.
    const std::size_t frozen = ConnectedTo(members_[1]);
    Server(frozen).Pause();
    members_[0].Leave();
    members_[1].AwaitLeads();
    EXPECT_NE(ConnectedTo(members_[1]), frozen);
    members_[2].AwaitIsNext();
    Server(frozen).Continue();
    MendUntilWhole();
}

TEST_F(EnsembleScenario, AllServersFrozenBeyondAllSessionTimeoutsAreAPauseOrANewElectionByTheClock)
{
    for (int i = 0; i < 4; ++i)
    {
        Join(Options(seconds(1)));
    }
    for (std::size_t i = 0; i < ensemble_.Size(); ++i)
    {
        Server(i).Pause();
    }
    std::this_thread::sleep_for(milliseconds(2'500));
    EXPECT_TRUE(members_[0].Leads());
    for (std::size_t i = 0; i < ensemble_.Size(); ++i)
    {
        Server(i).Continue();
    }
    MendUntilWhole();
}

TEST_F(EnsembleScenario, EachServerInTurnIsKilledAndRestartedWhileLeadersChange)
{
    JoinMany(4);
    for (std::size_t i = 0; i < ensemble_.Size(); ++i)
    {
        Server(i).Kill();
        Member& leader = members_[i];
        leader.AwaitLeads();
        leader.Leave();
        leader.JoinInTheEnd();
        Server(i).Start();
        AwaitRoles();
    }
    AwaitWhole();
}

}  // namespace
}  // namespace kx::velmor::testing_support
