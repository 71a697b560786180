// What a connection goes through under an election: cuts in the middle of everything, lost replies, slow networks.
#include "tests/ensemble/scenario_fixture.h"

#include <kx/velmor/error.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <map>
#include <string>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::SizeIs;

/// What can be lost of one request: its reply, the request itself, or nobody knows what.
struct Loss
{
    const char* name;
    void (Proxy::*fault)(Request);
};

constexpr Loss kLosses[] = {{"its reply", &Proxy::DropReply},
                            {"the request", &Proxy::DropRequest},
                            {"the connection", &Proxy::CutAfterRequest}};

constexpr Request kRequests[] = {Request::Create, Request::Delete, Request::Exists, Request::GetChildren,
                                 Request::Sync};

using Counts = std::map<Request, std::size_t>;

Counts Forwarded(const Proxy& proxy)
{
    Counts counts;
    for (const Request request : kRequests)
    {
        counts[request] = proxy.Forwarded(request);
    }
    return counts;
}

class ConnectionScenario : public ScenarioFixture
{
protected:
    /// Attempts to connect come soon after each other: the client library lets a sixtieth of it pass.
    static SessionOptions Quick() { return Options(seconds(4)); }

    /// What `act` makes a member send.
    static Counts Sent(Member& member, const std::function<void(Member&)>& act)
    {
        const Counts before = Forwarded(member.network->To());
        act(member);
        Counts sent = Forwarded(member.network->To());
        for (auto& [request, count] : sent)
        {
            count -= before.at(request);
        }
        return sent;
    }

    Counts CountedOnce(const std::function<void(Member&)>& prepare, const std::function<void(Member&)>& act)
    {
        prepare(Add(Quick()));
        Counts sent = Sent(members_.back(), act);
        members_.pop_back();
        return sent;
    }

    /// Lets a fresh member go through `act` for each request that it sends then and each loss, which that one meets.
    /// Returns how many it were.
    int LoseEachRequest(const std::function<void(Member&)>& prepare, const std::function<void(Member&)>& act,
                        const std::function<void(Member&)>& check)
    {
        Counts sent = CountedOnce(prepare, act);
        for (int again = 0; again < 2; ++again)
        {
            // A read that meets the end of a connection is repeated. Only what is sent each time can be waited for.
            for (const auto& [request, count] : CountedOnce(prepare, act))
            {
                sent[request] = std::min(sent[request], count);
            }
        }
        int rounds = 0;
        for (const auto& [request, count] : sent)
        {
            for (std::size_t spared = 0; spared < count; ++spared)
            {
                for (const Loss& loss : kLosses)
                {
                    SCOPED_TRACE(std::string("lost: ") + loss.name + " of number " + std::to_string(spared) +
                                 " of type " + std::to_string(static_cast<int>(request)));
                    ++rounds;
                    Member& member = Add(Quick());
                    prepare(member);
                    (member.network->To().*loss.fault)(request);
                    member.network->To().Spare(request, spared);
                    act(member);
                    EXPECT_EQ(member.network->To().FaultsPending(), 0U);
                    check(member);
                    members_.pop_back();
                }
            }
        }
        return rounds;
    }
};

TEST_F(ConnectionScenario, AnyRequestOfTheFirstStartMayBeLost)
{
    const int rounds = LoseEachRequest([this](Member&) { Observer().DeleteAll("/scenario"); },
                                       [](Member& member) { member.JoinInTheEnd(); },
                                       [this](Member& member) {
                                           AwaitRoles();
                                           EXPECT_TRUE(member.Leads());
                                       });
    // The path and its parent, the node, looking for it, and the check.
    EXPECT_GE(rounds, 3 * 6);
    Observer().DeleteAll("/scenario");
    JoinMany(3);
    AwaitWhole();
}

TEST_F(ConnectionScenario, AnyRequestOfAStartBehindOthersMayBeLost)
{
    JoinMany(2);
    const int rounds = LoseEachRequest([](Member&) {}, [](Member& member) { member.JoinInTheEnd(); },
                                       [this](Member& member) {
                                           AwaitRoles();
                                           AwaitWatch(member, members_[0]);
                                           AwaitWatch(member, members_[1]);
                                           EXPECT_FALSE(member.Leads() || member.IsNext());
                                           EXPECT_THAT(Queue(), SizeIs(3));
                                       });
    EXPECT_GE(rounds, 3 * 8);
    AwaitWhole();
}

TEST_F(ConnectionScenario, AnyRequestOfAStartRightAfterACutMayBeLost)
{
    JoinMany(1);
    const int rounds = LoseEachRequest(
        [](Member& member) {
            member.network->Cut();
            Await("the client is back", [&] { return member.network->To().Connections() == 1; });
        },
        [](Member& member) { member.JoinInTheEnd(); },
        [this](Member& member) {
            AwaitRoles();
            EXPECT_TRUE(member.IsNext());
            EXPECT_THAT(Queue(), SizeIs(2));
        });
    EXPECT_GE(rounds, 3 * 7);
    AwaitWhole();
}

TEST_F(ConnectionScenario, AnyRequestOfAStopMayBeLost)
{
    JoinMany(2);
    const int rounds = LoseEachRequest([](Member& member) { member.Join(); }, [](Member& member) { member.Leave(); },
                                       [this](Member&) {
                                           EXPECT_THAT(Queue(), SizeIs(2));
                                           AwaitRoles();
                                       });
    EXPECT_EQ(rounds, 3);
    AwaitWhole();

    // Of the leader, and of the next in line.
    JoinMany(6);
    for (const Loss& loss : kLosses)
    {
        for (std::size_t place : {0U, 1U})
        {
            const std::string name = Queue().at(place);
            const auto member = std::find_if(members_.begin(), members_.end(),
                                             [&](const Member& each) { return each.candidate->Name() == name; });
            (member->network->To().*loss.fault)(Request::Delete);
            member->Leave();
            EXPECT_EQ(member->network->To().FaultsPending(), 0U);
            EXPECT_FALSE(Observer().Exists(member->Path())) << loss.name;
            AwaitRoles();
            member->Join();
        }
    }
    AwaitWhole();
}

TEST_F(ConnectionScenario, WatchWhoseArmingWasLostIsArmedInTheEnd)
{
    for (const Loss& loss : kLosses)
    {
        for (const std::size_t spared : {0U, 1U})
        {
            members_.clear();
            for (int i = 0; i < 4; ++i)
            {
                Join(Quick());
            }
            Member& last = members_[3];
            Proxy& proxy = last.network->To();
            (proxy.*loss.fault)(Request::Exists);
            proxy.Spare(Request::Exists, spared);
            // It looks again, and arms a watch on the two ahead of it then.
            members_[2].Leave();
            Await("the loss", [&] { return proxy.FaultsPending() == 0; });
            AwaitRoles();
            AwaitWatch(last, members_[0]);
            AwaitWatch(last, members_[1]);
            members_[0].Leave();
            last.AwaitIsNext();
            members_[1].Leave();
            last.AwaitLeads();
        }
    }
    JoinMany(2);
    AwaitWhole();
}

TEST_F(ConnectionScenario, ListingThatGotNoAnswerIsMadeUpForByTheReconnection)
{
    Member& leader = Join();
    // Its listing fails while there is no connection, and its session outlives that.
    SessionOptions options = Options(seconds(30));
    options.operationTimeout = milliseconds(500);
    Member& next = Add(options);
    next.JoinInTheEnd();
    next.AwaitIsNext();
    const std::int64_t session = next.SessionId();
    Proxy& proxy = next.network->To();
    proxy.Refuse();
    proxy.DropReply(Request::GetChildren);
    leader.Leave();
    Await("the check has failed", [&] { return Logged("CheckLeader Failed: "); });
    EXPECT_EQ(proxy.FaultsPending(), 0U);
    EXPECT_FALSE(next.Leads());
    EXPECT_THAT(Queue(), ElementsAre(next.candidate->Name()));

    proxy.Accept();
    next.AwaitLeads();
    EXPECT_EQ(next.SessionId(), session);
    leader.Join();
    AwaitWhole();
}

TEST_F(ConnectionScenario, CutWhileAllCheck)
{
    for (int i = 0; i < 6; ++i)
    {
        Join(Quick());
    }
    // Between the listing and the first watch, and after each watch; from whichever thread checks.
    std::atomic<int> cuts{0};
    for (const char* const point : {"CheckLeader: after sorting", "Watching predecessor"})
    {
        for (int round = 0; round < 5; ++round)
        {
            const int before = cuts;
            log_.Watch([&, point, before](const LogRecord& record) {
                if (record.text.rfind(point, 0) == 0 && cuts < before + 5)
                {
                    ++cuts;
                    for (const Member& member : members_)
                    {
                        member.network->Cut();
                    }
                }
            });
            const std::string first = Queue().at(0);
            const auto leader = std::find_if(members_.begin(), members_.end(),
                                             [&](const Member& member) { return member.candidate->Name() == first; });
            leader->Leave();
            leader->JoinInTheEnd();
            Await("cuts", [&] { return cuts == before + 5; });
            log_.Watch({});
            AwaitRoles();
        }
    }
    AwaitWhole();
}

TEST_F(ConnectionScenario, SlowNetworksDelayTheElectionAndNothingElse)
{
    for (int i = 0; i < 6; ++i)
    {
        Join();
        members_.back().network->To().Delay(milliseconds(5 * i));
    }
    for (std::size_t round = 0; round < 6; ++round)
    {
        Member& leader = members_[round];
        leader.AwaitLeads();
        std::future<void> gone = std::async(std::launch::async, [&] { leader.Leave(); });
        members_[(round + 3) % members_.size()].network->Cut();
        gone.get();
        leader.JoinInTheEnd();
        AwaitRoles();
    }
    AwaitWhole();
}

/// Three servers, each behind a proxy of its own for each member.
class LostRepliesOnAnEnsemble : public ScenarioFixture
{
protected:
    LostRepliesOnAnEnsemble() : ScenarioFixture(3) {}

    /// The one that the member is connected to.
    static Proxy& Connected(const Member& member)
    {
        Proxy* connected = nullptr;
        Await("a connection", [&] {
            for (Proxy* const proxy : member.network->Proxies())
            {
                if (proxy->Connections() > 0)
                {
                    connected = proxy;
                }
            }
            return connected != nullptr;
        });
        return *connected;
    }
};

TEST_F(LostRepliesOnAnEnsemble, NodeIsFoundThroughAnotherServer)
{
    JoinMany(1);
    for (int round = 0; round < 12; ++round)
    {
        Member& member = Add();
        Proxy& connected = Connected(member);
        const Loss& loss = kLosses[round % 2 == 0 ? 0 : 2];
        (connected.*loss.fault)(Request::Create);
        // There is no way back to this server.
        connected.Refuse();
        EXPECT_FALSE(member.JoinInTheEnd());
        EXPECT_THAT(Queue(), ElementsAre(members_[0].candidate->Name(), member.candidate->Name())) << loss.name;
        EXPECT_EQ(connected.Connections(), 0U);
        connected.Accept();
        AwaitRoles();
        // The same for the deletion.
        Proxy& next = Connected(member);
        (next.*loss.fault)(Request::Delete);
        next.Refuse();
        member.Leave();
        EXPECT_THAT(Queue(), ElementsAre(members_[0].candidate->Name())) << loss.name;
        EXPECT_EQ(next.Connections(), 0U);
        next.Accept();
        members_.pop_back();
    }
    JoinMany(2);
    AwaitWhole();
}

}  // namespace
}  // namespace kx::velmor::testing_support
