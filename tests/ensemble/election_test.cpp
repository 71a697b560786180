#include "source/candidate_impl.h"
#include "tests/ensemble/session_fixture.h"
#include "tests/support/ensemble.h"
#include "tests/support/expire_session.h"

#include <kx/velmor/error.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <future>
#include <mutex>
#include <numeric>
#include <optional>
#include <random>
#include <sstream>
#include <thread>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr const char* kElection = "/election";

/// Who came into a role, in order; who is told again and again is noted once.
///
/// Threads: any.
class Roll
{
public:
    void Note(std::size_t member)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (members_.empty() || members_.back() != member)
        {
            members_.push_back(member);
        }
    }

    std::vector<std::size_t> Members() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return members_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::size_t> members_;
};

/// A candidate with a session of its own.
struct Member
{
    Member(const SessionOptions& options, std::size_t number, Roll& leaders, Roll& nextLeaders)
        : session(Session::Open(options)),
          candidate(std::make_shared<CandidateImpl>(
              session, kElection, [number, &leaders] { leaders.Note(number); },
              [number, &nextLeaders] { nextLeaders.Note(number); }))
    {}

    /// No callback comes after this.
    ~Member() { session->Close(); }

    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;

    std::string Path() const { return std::string(kElection) + "/" + candidate->Name(); }

    const std::shared_ptr<Session> session;
    const std::shared_ptr<CandidateImpl> candidate;
};

/// Members in the order in which they joined.
class Members
{
public:
    Member& Join(const SessionOptions& options)
    {
        Member& member = Add(options);
        member.candidate->Start();
        return member;
    }

    /// Without starting it.
    Member& Add(const SessionOptions& options)
    {
        return members_.emplace_back(options, members_.size(), leaders_, nextLeaders_);
    }

    Member& operator[](std::size_t number) { return members_[number]; }
    std::size_t Size() const { return members_.size(); }

    void AwaitLeader(std::size_t number) const
    {
        Await("member " + std::to_string(number) + " leads", [&] { return members_[number].candidate->IsLeader(); });
    }

    void AwaitNextLeader(std::size_t number) const
    {
        Await("member " + std::to_string(number) + " is next",
              [&] { return members_[number].candidate->IsNextLeader(); });
    }

    std::vector<std::size_t> Leaders() const { return leaders_.Members(); }
    std::vector<std::size_t> NextLeaders() const { return nextLeaders_.Members(); }

private:
    Roll leaders_;
    Roll nextLeaders_;
    std::deque<Member> members_;
};

class ElectionTest : public SessionFixture
{
protected:
    /// For a session that reaches the server directly.
    SessionOptions Direct() const
    {
        SessionOptions options = Options();
        options.servers = server_->Address();
        return options;
    }

    /// Starts as often as it takes to get an answer.
    static void StartUntilAnswered(CandidateImpl& candidate)
    {
        Await("a start that is answered", [&] {
            try
            {
                candidate.Start();
                return true;
            }
            catch (const ZooError& error)
            {
                EXPECT_FALSE(Answered(error.Code())) << error.what();
                return false;
            }
        });
    }

    /// Waits until the session that has taken the old one's place is there.
    static void AwaitAnother(const Session& session, const clientid_t& old)
    {
        Await("a new session", [&] {
            const auto identity = session.ClientId();
            return identity && identity->client_id != old.client_id;
        });
    }

    /// Waits until one member watches another's node, as the server tells.
    void AwaitWatch(const Member& watched, const Member& watching) const
    {
        std::ostringstream session;
        session << "\t0x" << std::hex << watching.session->ClientId()->client_id << '\n';
        Await("a watch on " + watched.Path(), [&] {
            const std::string watches = server_->Ask("wchp");
            const std::size_t path = watches.find(watched.Path() + "\n");
            // Who watches follows, in lines of their own, up to the next path.
            return path != std::string::npos && watches.find(session.str(), path) < watches.find("\n/", path);
        });
    }

    Members members_;
};

/// How a leader goes.
struct Departure
{
    const char* name;
    std::function<void(Member& leader, Proxy& network, RawClient& observer, const std::string& server)> happen;
};

/// For the test's name.
void PrintTo(const Departure& departure, std::ostream* stream)
{
    *stream << departure.name;
}

class DepartureTest : public ElectionTest, public ::testing::WithParamInterface<Departure>
{};

TEST_P(DepartureTest, SecondInLineTakesOver)
{
    SessionOptions options = Options();
    options.sessionTimeout = std::chrono::seconds(3);
    Member& first = members_.Join(options);
    members_.Join(Direct());
    members_.Join(Direct());
    members_.Join(Direct());
    EXPECT_TRUE(first.candidate->IsLeader());
    EXPECT_TRUE(members_[1].candidate->IsNextLeader());
    EXPECT_FALSE(members_[2].candidate->IsNextLeader());

    GetParam().happen(first, proxy_, observer_, server_->Address());

    members_.AwaitLeader(1);
    members_.AwaitNextLeader(2);
    EXPECT_FALSE(members_[1].candidate->IsNextLeader());
    EXPECT_FALSE(members_[2].candidate->IsLeader());
    EXPECT_FALSE(members_[3].candidate->IsLeader() || members_[3].candidate->IsNextLeader());
    EXPECT_THAT(members_.Leaders(), ElementsAre(0, 1));
    EXPECT_THAT(members_.NextLeaders(), ElementsAre(1, 2));
    proxy_.Heal();
}

INSTANTIATE_TEST_SUITE_P(
    WhenTheLeader, DepartureTest,
    ::testing::Values(
        Departure{"Stops", [](Member& leader, Proxy&, RawClient&, const std::string&) { leader.candidate->Stop(); }},
        Departure{"ClosesItsSession",
                  [](Member& leader, Proxy&, RawClient&, const std::string&) { leader.session->Close(); }},
        Departure{"LosesItsSession",
                  [](Member& leader, Proxy& network, RawClient&, const std::string& server) {
                      ExpireSession(network, server, *leader.session->ClientId());
                  }},
        Departure{"FallsSilent", [](Member&, Proxy& network, RawClient&, const std::string&) { network.BlackHole(); }},
        Departure{"IsThrownOut", [](Member& leader, Proxy&, RawClient& observer,
                                    const std::string&) { observer.Delete(leader.Path()); }}),
    [](const auto& test) { return test.param.name; });

class QueueTest : public ElectionTest, public ::testing::WithParamInterface<std::size_t>
{};

TEST_P(QueueTest, LeadersComeInTheOrderOfJoining)
{
    const std::size_t size = GetParam();
    for (std::size_t i = 0; i < size; ++i)
    {
        members_.Join(Direct());
    }
    for (std::size_t i = 0; i < size; ++i)
    {
        members_.AwaitLeader(i);
        if (i + 1 < size)
        {
            members_.AwaitNextLeader(i + 1);
        }
        // Those who come later know of nothing.
        for (std::size_t later = i + 2; later < size; ++later)
        {
            ASSERT_FALSE(members_[later].candidate->IsLeader() || members_[later].candidate->IsNextLeader()) << later;
        }
        if (i % 2 == 0)
        {
            members_[i].candidate->Stop();
        }
        else
        {
            members_[i].session->Close();
        }
    }
    std::vector<std::size_t> all(size);
    std::iota(all.begin(), all.end(), 0U);
    EXPECT_EQ(members_.Leaders(), all);
    all.erase(all.begin());
    EXPECT_EQ(members_.NextLeaders(), all);
    EXPECT_THAT(observer_.List(kElection), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Of, QueueTest, ::testing::Values(3, 10, 100),
                         [](const auto& test) { return std::to_string(test.param); });

TEST_F(ElectionTest, MembersThatLeaveFromTheMiddleChangeNoOtherRole)
{
    constexpr std::size_t kMembers = 20;
    std::vector<std::size_t> middle;
    for (std::size_t i = 0; i < kMembers; ++i)
    {
        members_.Join(Direct());
        if (i > 1 && i + 1 < kMembers)
        {
            middle.push_back(i);
        }
    }
    std::shuffle(middle.begin(), middle.end(), std::minstd_rand(7));
    for (const std::size_t leaving : middle)
    {
        members_[leaving].candidate->Stop();
    }
    EXPECT_THAT(members_.Leaders(), ElementsAre(0));
    EXPECT_THAT(members_.NextLeaders(), ElementsAre(1));
    // Whoever is still looking for those ahead when one of them goes may miss that it is next.
    AwaitWatch(members_[0], members_[kMembers - 1]);
    AwaitWatch(members_[1], members_[kMembers - 1]);
    members_[0].candidate->Stop();
    members_.AwaitLeader(1);
    members_.AwaitNextLeader(kMembers - 1);
    members_[1].candidate->Stop();
    members_.AwaitLeader(kMembers - 1);
}

TEST_F(ElectionTest, ManyWhoLeaveAtOnceLeaveTheLastInTheLead)
{
    constexpr std::size_t kMembers = 12;
    for (int round = 0; round < 5; ++round)
    {
        Members members;
        for (std::size_t i = 0; i < kMembers; ++i)
        {
            members.Join(Direct());
        }
        std::vector<std::thread> leaving;
        for (std::size_t i = 0; i + 1 < kMembers; ++i)
        {
            leaving.emplace_back([&members, i] {
                if (i % 2 == 0)
                {
                    members[i].candidate->Stop();
                }
                else
                {
                    members[i].session->Close();
                }
            });
        }
        for (std::thread& thread : leaving)
        {
            thread.join();
        }
        members.AwaitLeader(kMembers - 1);
    }
}

/// Starts that fail after, or before, the node was made.
class FailedStartTest : public ElectionTest
{
protected:
    /// Runs a `Start` whose creation meets `fault`, and another one.
    void FailAndStartAgain(void (Proxy::*fault)(Request))
    {
        observer_.Create(kElection);
        Member& other = members_.Join(Direct());
        Member& member = members_.Add(Options());
        (proxy_.*fault)(Request::Create);
        std::optional<int> code;
        try
        {
            member.candidate->Start();
        }
        catch (const ZooError& error)
        {
            code = error.Code();
        }
        EXPECT_EQ(code, ZCONNECTIONLOSS);
        EXPECT_FALSE(member.candidate->IsLeader() || member.candidate->IsNextLeader());
        EXPECT_EQ(proxy_.FaultsPending(), 0U);

        member.candidate->Start();
        EXPECT_TRUE(member.candidate->IsNextLeader());
        EXPECT_THAT(observer_.List(kElection), ElementsAre(other.candidate->Name(), member.candidate->Name()));
        other.candidate->Stop();
        members_.AwaitLeader(1);
        member.candidate->Stop();
        EXPECT_THAT(observer_.List(kElection), IsEmpty());
    }
};

TEST_F(FailedStartTest, NodeWhoseCreationLostItsReplyIsAdopted)
{
    FailAndStartAgain(&Proxy::DropReply);
    EXPECT_TRUE(Logged("Found an existing candidate node /election/c-0000000001"));
}

TEST_F(FailedStartTest, NodeWhoseCreationGotLostIsCreated)
{
    FailAndStartAgain(&Proxy::DropRequest);
    EXPECT_FALSE(Logged("Found an existing candidate node"));
}

TEST_F(FailedStartTest, NodeWhoseCreationMayOrMayNotHaveHappenedIsThereOnce)
{
    FailAndStartAgain(&Proxy::CutAfterRequest);
}

TEST_F(ElectionTest, CandidatesOfOneSessionShareTheirNode)
{
    Member& member = members_.Join(Direct());
    std::atomic<int> led{0};
    const auto twin = std::make_shared<CandidateImpl>(
        member.session, kElection, [&] { ++led; }, [] {});
    twin->Start();
    EXPECT_EQ(twin->Name(), member.candidate->Name());
    EXPECT_TRUE(member.candidate->IsLeader());
    EXPECT_TRUE(twin->IsLeader());
    EXPECT_EQ(led, 1);
    EXPECT_THAT(observer_.List(kElection), SizeIs(1));
    members_.Join(Direct());
    member.candidate->Stop();
    members_.AwaitLeader(1);
    // There is nothing left of it to delete.
    twin->Stop();
    EXPECT_FALSE(twin->IsLeader());
}

TEST_F(ElectionTest, LeadersNodeVanishesWhileTheNextLeaderChecks)
{
    Member& first = members_.Join(Direct());
    const auto session = Session::Open(Direct());
    std::vector<std::string> roles;
    // Runs between the listing and the watch.
    const auto candidate = std::make_shared<CandidateImpl>(
        session, kElection, [&] { roles.push_back("leader"); },
        [&] {
            roles.push_back("next");
            observer_.Delete(first.Path());
        });
    candidate->Start();
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_FALSE(candidate->IsNextLeader());
    EXPECT_THAT(roles, ElementsAre("next", "leader"));
}

TEST_F(ElectionTest, NodeAheadVanishesWhileAFollowerChecks)
{
    members_.Join(Direct());
    const std::string ahead = members_.Join(Direct()).Path();
    log_.Watch([&](const LogRecord& record) {
        if (record.text.rfind("CheckLeader: after sorting", 0) == 0 && observer_.Exists(ahead))
        {
            observer_.Delete(ahead);
        }
    });
    members_.Join(Direct());
    log_.Watch({});
    EXPECT_TRUE(members_[2].candidate->IsNextLeader());
    members_[0].candidate->Stop();
    members_.AwaitLeader(2);
}

TEST_F(ElectionTest, NodeTwoPlacesAheadVanishesWhileAFollowerChecks)
{
    const std::string ahead = members_.Join(Direct()).Path();
    members_.Join(Direct());
    const std::string watched = "Watching predecessor " + members_[1].Path();
    log_.Watch([&](const LogRecord& record) {
        if (record.text == watched)
        {
            observer_.Delete(ahead);
        }
    });
    members_.Join(Direct());
    log_.Watch({});
    // It missed that it is next, but not that it leads.
    members_.AwaitLeader(1);
    members_[1].candidate->Stop();
    members_.AwaitLeader(2);
}

TEST_F(ElectionTest, LeaderThatGoesDuringAnOutageIsFollowedAfterIt)
{
    Member& first = members_.Join(Direct());
    members_.Join(Options());
    members_.Join(Options());
    Disconnect();
    first.candidate->Stop();
    EXPECT_FALSE(members_[1].candidate->IsLeader());
    Reconnect();
    members_.AwaitLeader(1);
    members_.AwaitNextLeader(2);
}

TEST_F(ElectionTest, StopDuringAnOutageLeavesAfterIt)
{
    SessionOptions options = Options();
    options.operationTimeout = std::chrono::seconds(1);
    Member& first = members_.Join(options);
    members_.Join(Direct());
    Disconnect();
    EXPECT_THROW(first.candidate->Stop(), ZooError);
    EXPECT_FALSE(first.candidate->IsLeader());
    EXPECT_FALSE(members_[1].candidate->IsLeader());
    Reconnect();
    members_.AwaitLeader(1);
    // Whoever starts again joins at the back, with a node of its own.
    StartUntilAnswered(*first.candidate);
    EXPECT_TRUE(first.candidate->IsNextLeader());
    EXPECT_THAT(observer_.List(kElection), ElementsAre(members_[1].candidate->Name(), first.candidate->Name()));
}

TEST_F(ElectionTest, StartRightAfterAStopThatFailedDoesNotAdoptTheNodeThatGoes)
{
    SessionOptions options = Options();
    options.operationTimeout = std::chrono::seconds(1);
    Member& first = members_.Join(options);
    members_.Join(Direct());
    for (int round = 0; round < 4; ++round)
    {
        Disconnect();
        EXPECT_THROW(first.candidate->Stop(), ZooError);
        Reconnect();
        StartUntilAnswered(*first.candidate);
        ASSERT_THAT(observer_.List(kElection), ElementsAre(members_[1].candidate->Name(), first.candidate->Name()));
        EXPECT_TRUE(first.candidate->IsNextLeader());
    }
}

TEST_F(ElectionTest, RolesAreRightHoweverOftenTheConnectionIsLost)
{
    constexpr std::size_t kMembers = 5;
    SessionOptions options = Options();
    // The client library lets a sixtieth of it pass between attempts to connect.
    options.sessionTimeout = std::chrono::seconds(4);
    for (std::size_t i = 0; i < kMembers; ++i)
    {
        members_.Join(options);
    }
    for (std::size_t round = 0; round < 30; ++round)
    {
        const std::size_t leader = round % kMembers;
        members_.AwaitLeader(leader);
        const std::shared_ptr<CandidateImpl>& candidate = members_[leader].candidate;
        std::future<void> stopped = std::async(std::launch::async, [&] { candidate->Stop(); });
        proxy_.Cut();
        stopped.get();
        StartUntilAnswered(*candidate);
        ASSERT_THAT(observer_.List(kElection), SizeIs(kMembers));
    }
    // All check once more when they are back, and nothing changes meanwhile.
    proxy_.Cut();
    const std::vector<std::string> queue = observer_.List(kElection);
    Await("roles by places in the queue", [&] {
        for (std::size_t i = 0; i < kMembers; ++i)
        {
            const CandidateImpl& candidate = *members_[i].candidate;
            if (candidate.IsLeader() != (candidate.Name() == queue[0]) ||
                candidate.IsNextLeader() != (candidate.Name() == queue[1]))
            {
                return false;
            }
        }
        return true;
    });
}

TEST_F(ElectionTest, LeaderThatLostItsSessionJoinsAtTheBack)
{
    Member& first = members_.Join(Options());
    members_.Join(Direct());
    members_.Join(Direct());
    const clientid_t old = *first.session->ClientId();
    Expire(old);
    members_.AwaitLeader(1);
    members_.AwaitNextLeader(2);
    AwaitAnother(*first.session, old);

    // Its node went with its session.
    first.candidate->Stop();
    first.candidate->Start();
    EXPECT_FALSE(first.candidate->IsLeader() || first.candidate->IsNextLeader());
    EXPECT_THAT(observer_.List(kElection),
                ElementsAre(members_[1].candidate->Name(), members_[2].candidate->Name(), first.candidate->Name()));
    members_[1].candidate->Stop();
    members_.AwaitLeader(2);
    members_.AwaitNextLeader(0);
}

TEST_F(ElectionTest, WaitingCandidateThatLostItsSessionSaysSo)
{
    members_.Join(Direct());
    Member& second = members_.Join(Options());
    Expire(*second.session);
    Await("the failing check", [this] { return Logged("CheckLeader Failed: Failed to find own node"); });
    second.candidate->Stop();
    second.candidate->Start();
    EXPECT_TRUE(second.candidate->IsNextLeader());
}

TEST_F(ElectionTest, HandlesLetTheirCandidatesGo)
{
    members_.Join(Direct());
    members_.Join(Direct());
    const auto session = Session::Open(Direct());
    auto candidate = std::make_shared<CandidateImpl>(
        session, kElection, [] {}, [] {});
    const std::weak_ptr<CandidateImpl> weak = candidate;
    candidate->Start();
    candidate->Stop();
    candidate.reset();
    // What its two watches held goes with the session's next operation.
    EXPECT_EQ(session->Exists("/", nullptr), ZOK);
    EXPECT_TRUE(weak.expired());
}

TEST(ElectionOnAnEnsembleTest, RolesOutliveAServerAndGoOnAfterIt)
{
    Journal journal;
    const LogCapture log(journal, 100);
    Ensemble ensemble;
    ensemble.Start();
    SessionOptions options;
    options.servers = ensemble.Addresses();
    options.connectTimeout = kPatience;
    options.operationTimeout = kPatience;
    constexpr std::size_t kMembers = 6;
    Members members;
    for (std::size_t i = 0; i < kMembers; ++i)
    {
        members.Join(options);
    }
    const std::size_t lost = ensemble.LeaderIndex();
    ensemble.Server(lost).Kill();
    ensemble.LeaderIndex();
    for (std::size_t i = 0; i + 1 < kMembers; ++i)
    {
        members.AwaitLeader(i);
        members[i].candidate->Stop();
        if (i == 2)
        {
            ensemble.Server(lost).Start();
        }
    }
    members.AwaitLeader(kMembers - 1);
    EXPECT_THAT(members.Leaders(), ElementsAre(0, 1, 2, 3, 4, 5));
}

}  // namespace
}  // namespace kx::velmor::testing_support
