#pragma once

#include "source/candidate_impl.h"
#include "tests/support/await.h"
#include "tests/support/ensemble.h"
#include "tests/support/journal.h"
#include "tests/support/log_capture.h"
#include "tests/support/proxy.h"
#include "tests/support/raw_client.h"

#include <kx/velmor/session.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kx::velmor::testing_support {

/// The election of all scenarios; its parent is missing at first, too.
constexpr const char* kElection = "/scenario/election";

/// The network between a client and every server: one proxy each. Verbs are those of `Proxy`, for all of them.
class Network
{
public:
    explicit Network(const std::vector<std::string>& servers);

    /// What a client connects to.
    std::string Addresses() const;
    Proxy& To(std::size_t server = 0) { return *proxies_.at(server); }
    std::vector<Proxy*> Proxies() const;
    void Each(const std::function<void(Proxy&)>& verb) const;

    void Cut() const;
    /// Cuts, and keeps new connections away.
    void Disconnect() const;
    void Reconnect() const;

private:
    std::vector<std::unique_ptr<Proxy>> proxies_;
};

/// What a member is made with.
struct MemberSetup
{
    /// Without servers: those of the network are put in.
    SessionOptions options;
    std::function<void()> onLeader = [] {};
    std::function<void()> onNextLeader = [] {};
    /// Null: one of its own.
    std::shared_ptr<Network> network{};
    /// Whether servers are given as "localhost:<port>".
    bool byName = false;
};

/// A candidate, with a session of its own that reaches the servers through its network.
///
/// Threads: one at a time, and different members at once.
class Member
{
public:
    explicit Member(MemberSetup setup);
    /// No callback comes after this.
    ~Member();

    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;

    /// `Start`, and what it throws.
    void Join();
    /// `Start`, as often as it takes to get an answer. Whether the first one did.
    bool JoinInTheEnd();
    /// `Stop`, and what it throws; the member is out all the same.
    void Leave();
    /// What its owner does when its node is lost: leaves, and joins in the end.
    void Rejoin();

    /// It is out without having left.
    void WriteOff() { in_ = false; }

    /// Whether it is meant to be in the queue.
    bool In() const { return in_; }
    bool Leads() const { return candidate->IsLeader(); }
    bool IsNext() const { return candidate->IsNextLeader(); }
    void AwaitLeads() const;
    void AwaitIsNext() const;
    std::string Path() const { return std::string(kElection) + "/" + candidate->Name(); }
    /// 0 when there is no session.
    std::int64_t SessionId() const;
    /// Waits until there is a session other than that one.
    void AwaitSessionAfter(std::int64_t old) const;

    const std::shared_ptr<Network> network;
    /// Tests that let go of them leave the election first.
    std::shared_ptr<Session> session;
    std::shared_ptr<CandidateImpl> candidate;

private:
    bool in_ = false;
};

/// Members of one election, on one server or an ensemble, and the question that each scenario ends with.
class ScenarioFixture : public ::testing::Test
{
protected:
    explicit ScenarioFixture(std::size_t servers = 1);
    /// Prints the log when the test has failed.
    ~ScenarioFixture() override;
    void TearDown() override { *over_ = true; }

    /// For a session that nothing but the test's own doing ends.
    static SessionOptions Options();
    static SessionOptions Options(std::chrono::milliseconds sessionTimeout);

    std::shared_ptr<Network> MakeNetwork() const;
    Member& Add(MemberSetup setup = {Options()});
    Member& Add(const SessionOptions& options) { return Add(MemberSetup{options}); }
    /// `Add`, and lets it join.
    Member& Join(MemberSetup setup = {Options()});
    Member& Join(const SessionOptions& options) { return Join(MemberSetup{options}); }
    void JoinMany(std::size_t count);

    /// Waits until the election is whole:
    /// - the queue on the servers is exactly the members that are in, each node owned by its member's living session;
    /// - the first leads, at most the second is next, and nobody else believes to be anything;
    /// and, once every connection has been cut, so that servers know of what clients still hold and of nothing else:
    /// - the second is next;
    /// - everyone but the first watches the one ahead, and from the third on the one two places ahead; nothing else is
    ///   watched.
    void AwaitWhole();
    /// The first half: no connection is touched.
    void AwaitRoles();
    /// As `AwaitWhole`, where members may have lost their nodes or the sessions that own them: they join again.
    void MendUntilWhole();
    /// Waits until the servers know of a member's watch on another's node.
    void AwaitWatch(const Member& watching, const Member& watched);
    /// Ends a member's session at the servers; it is about to learn of it.
    void Expire(const Member& member);

    ZooKeeperServer& Server(std::size_t index = 0) { return ensemble_.Server(index); }
    std::vector<std::string> Queue();
    /// Watches on nodes, as the servers tell: their paths and the sessions.
    std::vector<std::string> Watches();
    /// Sees and changes the tree past all networks. Another session when the servers have forgotten the last one.
    RawClient& Observer();
    void ForgetObserver() { observer_.reset(); }
    bool Logged(const std::string& part) const;

    Journal journal_;
    LogCapture log_;
    Ensemble ensemble_;
    std::optional<RawClient> observer_;
    std::deque<Member> members_;

private:
    const std::shared_ptr<std::atomic<bool>> over_ = std::make_shared<std::atomic<bool>>(false);

    /// What keeps the election from being whole; empty when nothing does.
    std::string FlawInQueueAndRoles(bool secondIsNext);
    std::string FlawInWatches();
    /// The members that are in, by their places.
    std::vector<const Member*> InOrder() const;
    void CutAll();
    void Mend();
    void AwaitNoFlaw(const std::string& what, const std::function<std::string()>& flaw);
};

}  // namespace kx::velmor::testing_support
