// Faults that bring the end of a session closer to the end of its lease. The holder leads, the successor is next in
// line; the tests compare their answers to `IsLeader`.

#include "tests/ensemble/leadership_fixture.h"
#include "tests/ensemble/session_fixture.h"
#include "tests/support/ensemble.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class RenegotiatedTimeout : public SessionFixture
{
protected:
    static constexpr milliseconds kTimeout{9'000};
    static constexpr milliseconds kLowerTimeout{1'500};

    void StartServerThatGrants(milliseconds timeout)
    {
        server_->SetMaxSessionTimeout(timeout);
        server_->Start();
    }

    /// As it was before an attempt.
    void GrantTheFullTimeout()
    {
        proxy_.Heal();
        server_->Kill();
        StartServerThatGrants(kTimeout);
    }

    /// Whether the server has granted the session the lower timeout. The client may not know yet.
    bool HasTheLowerTimeout(std::int64_t session) const
    {
        char id[32];
        std::snprintf(id, sizeof id, "sid=0x%llx,", static_cast<unsigned long long>(session));
        const std::string connections = server_->Ask("cons");
        const std::size_t begin = connections.find(id);
        const std::string line =
            begin == std::string::npos ? "" : connections.substr(begin, connections.find('\n', begin) - begin);
        return line.find(",to=" + std::to_string(kLowerTimeout.count()) + ",") != std::string::npos;
    }
};

TEST_F(RenegotiatedTimeout, BoundsTheLeaseThatWasGrantedUnderALongerOne)
{
    Produce([this](const std::string& path) {
        GrantTheFullTimeout();
        WatchedMember holder(proxy_.Address(), path, kTimeout);
        EXPECT_TRUE(holder.WaitForRole(Role::Leader));
        WatchedMember successor(server_->Address(), path, kTimeout);
        EXPECT_TRUE(successor.WaitForRole(Role::NextLeader));

        server_->Kill();
        StartServerThatGrants(kLowerTimeout);
        holder.AwaitTimeout(kLowerTimeout);
        successor.AwaitTimeout(kLowerTimeout);
        if (!holder.IsLeader() || successor.CurrentRole() != Role::NextLeader)
        {
            return false;
        }
        proxy_.BlackHole();
        if (!successor.WaitForRole(Role::Leader))
        {
            return false;
        }
        Await("the holder stops leading", [&] { return !holder.IsLeader(); });
        successor.AwaitAskedAfter(BootClock::now());
        ExpectApart(holder.Record().Known(), successor.Record().Known());
        return true;
    });
}

TEST_F(RenegotiatedTimeout, IsWaitedForByTheSuccessorWhenItsHolderHasNotHeardOfIt)
{
    Produce([this](const std::string& path) {
        GrantTheFullTimeout();
        WatchedMember holder(proxy_.Address(), path, kTimeout);
        EXPECT_TRUE(holder.WaitForRole(Role::Leader));
        WatchedMember successor(server_->Address(), path, kTimeout);
        EXPECT_TRUE(successor.WaitForRole(Role::NextLeader));

        server_->Kill();
        Await("the holder misses the server",
              [&] { return holder.GetSession().Status().state != SessionState::Connected; });
        proxy_.Refuse();
        StartServerThatGrants(kLowerTimeout);
        // The handshake reaches the server, and its reply does not come back.
        proxy_.BlackHole(Proxy::Direction::ToClient);
        proxy_.Accept();
        const std::int64_t session = holder.GetSession().Status().sessionId;
        Await("the server renegotiates", [&] { return HasTheLowerTimeout(session) || !holder.IsLeader(); });
        successor.AwaitTimeout(kLowerTimeout);
        if (!holder.IsLeader() || successor.CurrentRole() == Role::Stopped)
        {
            return false;
        }
        EXPECT_EQ(holder.GetSession().Status().negotiatedTimeout, kTimeout);
        if (!successor.WaitForRole(Role::Leader))
        {
            return false;
        }
        Await("the holder stops leading", [&] { return !holder.IsLeader(); });
        successor.AwaitAskedAfter(BootClock::now());
        ExpectApart(holder.Record().Known(), successor.Record().Known());
        return true;
    });
}

ServerOptions SlowTicks()
{
    ServerOptions options;
    options.tickTime = seconds(1);
    return options;
}

TEST(ServerThatIsLost, RightAfterAPauseOfItsClientTakesWhatItHeardWithIt)
{
    constexpr seconds kTimeout{9};
    // Shorter than two thirds of the timeout, after which the client would give up the connection.
    constexpr milliseconds kPause{5'200};
    // A follower reports the sessions it has heard to the ensemble's leader every half tick. It must freeze before the
    // next report.
    constexpr milliseconds kAtOnce{20};
    Ensemble ensemble(3, SlowTicks());
    ensemble.Start();
    Produce([&](const std::string& path) {
        const std::size_t follower = (ensemble.LeaderIndex() + 1) % ensemble.Size();
        const std::size_t other = (follower + 1) % ensemble.Size();
        const std::size_t another = (follower + 2) % ensemble.Size();
        LeadershipProcess holder("ask", ensemble.Server(follower).Address(), path, kTimeout);
        Await("the holder leads", [&] { return holder.ParentLeads(); });
        WatchedMember successor(ensemble.Server(other).Address() + "," + ensemble.Server(another).Address(), path,
                                kTimeout);
        EXPECT_TRUE(successor.WaitForRole(Role::NextLeader));

        const auto awaitExtension = [&](BootClock::time_point since) {
            Await("the lease is extended", [&] { return holder.Extended() > since || !holder.ParentLeads(); });
        };
        awaitExtension(BootClock::now());
        holder.Process().Pause();
        std::this_thread::sleep_for(kPause);
        const BootClock::time_point continued = BootClock::now();
        holder.Process().Continue();
        // `Await` would sleep for too long.
        while (holder.Extended() < continued && BootClock::now() < continued + kTimeout)
        {
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
        ensemble.Server(follower).Pause();
        const BootClock::time_point frozen = BootClock::now();
        const bool produced = holder.Extended() > continued && frozen < holder.Extended() + kAtOnce;
        if (produced)
        {
            EXPECT_TRUE(successor.WaitForRole(Role::Leader));
            Await("the holder stops leading", [&] { return !holder.ParentLeads(); });
            successor.AwaitAskedAfter(BootClock::now());
            ExpectApart(holder.OfParent().lead, successor.Record().Known());
        }
        ensemble.Server(follower).Continue();
        ensemble.Server(follower).AwaitServing();
        return produced;
    });
}

class ForkedLeader : public SessionFixture
{
protected:
    static constexpr seconds kTimeout{30};

    /// A leader in a process of its own.
    void LeadWith(LeadershipProcess& holder)
    {
        Await("the holder leads", [&] { return holder.ParentLeads(); });
    }
};

TEST_F(ForkedLeader, HasAChildThatDoesNotLeadBesideTheSuccessor)
{
    LeadershipProcess holder("ask", proxy_.Address(), "/election", kTimeout);
    LeadWith(holder);
    WatchedMember successor(server_->Address(), "/election", kTimeout);
    ASSERT_TRUE(successor.WaitForRole(Role::NextLeader));
    holder.Fork();
    EXPECT_TRUE(holder.ParentLeads());

    holder.Process().Terminate(kPatience);
    ASSERT_TRUE(successor.WaitForRole(Role::Leader));
    const BootClock::time_point later = BootClock::now() + seconds(1);
    successor.AwaitAskedAfter(later);
    Await("an answer of the child", [&] { return holder.OfChild().asked > later; });
    ExpectApart(holder.OfParent().lead, successor.Record().Known());
    if (const std::optional<Lead> child = holder.OfChild().lead)
    {
        ExpectApart(child, successor.Record().Known());
    }
}

TEST_F(ForkedLeader, HasAChildThatNeverLeadsThoughItsParentIsKilled)
{
    LeadershipProcess holder("ask", proxy_.Address(), "/election", kTimeout);
    LeadWith(holder);
    holder.Fork();
    holder.Process().Kill();
    const BootClock::time_point killed = BootClock::now();
    Await("an answer of the child", [&] { return holder.OfChild().asked > killed; });
    EXPECT_FALSE(holder.OfChild().lead) << "the child has led";
}

TEST_F(ForkedLeader, NoticesNothingWhenItsChildDestroysCandidateAndSession)
{
    LeadershipProcess holder("destroy", proxy_.Address(), "/election", kTimeout);
    LeadWith(holder);
    WatchedMember successor(server_->Address(), "/election", kTimeout);
    ASSERT_TRUE(successor.WaitForRole(Role::NextLeader));
    const std::vector<std::string> queue = observer_.List("/election");
    const BootClock::time_point from = holder.OfParent().lead->from;

    holder.Fork();
    Await("the child ends", [&] { return holder.ChildEnded(); });
    // The lease is extended by an answer to a request that the parent sends after that.
    const BootClock::time_point ended = BootClock::now();
    Await("the parent's lease is extended", [&] { return holder.Extended() > ended; });
    EXPECT_TRUE(holder.ParentLeads());
    EXPECT_EQ(holder.OfParent().lead->from, from);
    EXPECT_EQ(successor.CurrentRole(), Role::NextLeader);
    EXPECT_EQ(observer_.List("/election"), queue);
    EXPECT_EQ(proxy_.Accepted(), 1U);
    EXPECT_EQ(proxy_.Forwarded(Request::CloseSession), 0U);
}

}  // namespace
}  // namespace kx::velmor::testing_support
