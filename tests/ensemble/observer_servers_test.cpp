// What an observer tells of an election on a real server, and what it asks of it.

#include "tests/ensemble/session_fixture.h"

#include <kx/velmor/candidate.h>
#include <kx/velmor/error.h>
#include <kx/velmor/observer.h>

#include <memory>
#include <string>
#include <thread>
#include <utility>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;

std::string Text(const ElectionView& view)
{
    std::string text = view.connected ? "" : "disconnected: ";
    text += view.error + (view.known ? "" : "nothing known");
    for (const Participant& participant : view.queue)
    {
        text += participant.identity + " ";
    }
    return text + "| " + (view.leader ? view.leader->identity + " " + std::to_string(view.leader->epoch) : "nobody");
}

/// A candidate with a session of its own, straight to the server.
struct Member
{
    Member(const std::string& server, std::string name)
    {
        SessionOptions sessionOptions;
        sessionOptions.servers = server;
        session = Session::Open(sessionOptions);
        CandidateOptions options;
        options.electionPath = "/services/billing";
        options.identity = std::move(name);
        candidate = std::make_unique<Candidate>(session, options);
    }

    void Become(Role role)
    {
        candidate->Start();
        ASSERT_TRUE(candidate->WaitForRole(role, kPatience)) << ToString(candidate->CurrentRole());
    }

    /// "first 42", as soon as it leads.
    std::string Leading() const
    {
        Await("the lead", [&] { return candidate->CurrentLeadership().has_value(); });
        return candidate->Identity() + " " + std::to_string(candidate->CurrentLeadership()->Epoch());
    }

    std::shared_ptr<Session> session;
    std::unique_ptr<Candidate> candidate;
};

class ObserverServersTest : public SessionFixture
{
protected:
    void Observe(const std::shared_ptr<Session>& session)
    {
        watcher_ = std::make_unique<Observer>(session, "/services/billing",
                                              [views = views_](const ElectionView& view) { views->Note(Text(view)); });
    }

    Member Join(std::string name) { return Member(server_->Address(), std::move(name)); }

    /// Callbacks may run on after this object has gone.
    const std::shared_ptr<Journal> views_ = std::make_shared<Journal>();
    std::unique_ptr<Observer> watcher_;
};

TEST_F(ObserverServersTest, TellsWhoLeadsFromTheFirstToTheLast)
{
    Observe(Open());
    views_->Await("| nobody");

    Member first = Join("first");
    first.Become(Role::Leader);
    const std::string firstLeads = first.Leading();
    views_->Await("first | " + firstLeads);
    Member second = Join("second");
    second.Become(Role::NextLeader);
    views_->Await("first second | " + firstLeads);
    Member third = Join("third");
    third.Become(Role::Follower);
    views_->Await("first second third | " + firstLeads);

    first.candidate->Stop();
    views_->Await("second third | " + second.Leading());
    second.session->Close();
    views_->Await("third | " + third.Leading());
    third.candidate->Stop();
    views_->Await("| nobody", 2);
}

TEST_F(ObserverServersTest, GoesOnAfterARestartOfTheServer)
{
    Member first = Join("first");
    first.Become(Role::Leader);
    const std::string firstLeads = first.Leading();
    Member second = Join("second");
    second.Become(Role::NextLeader);
    SessionOptions options = Options();
    options.operationTimeout = milliseconds(500);
    Observe(Session::Open(options));
    views_->Await("first second | " + firstLeads);

    server_->Kill();
    views_->Await("disconnected: first second | " + firstLeads);
    server_->Start();
    views_->Await("first second | " + firstLeads, 2);

    first.candidate->Stop();
    views_->Await("second | " + second.Leading());
    second.candidate->Stop();
    views_->Await("| nobody");
}

TEST_F(ObserverServersTest, GoesOnWhenItsSessionWasEnded)
{
    Member first = Join("first");
    first.Become(Role::Leader);
    const std::string firstLeads = first.Leading();
    const auto session = Open();
    Observe(session);
    views_->Await("first | " + firstLeads);

    Expire(*session);
    Await("another session", [&] { return session->Status().state == SessionState::Connected; });
    first.candidate->Stop();

    views_->Await("| nobody");
}

TEST_F(ObserverServersTest, WaitsForAServerAndDoesNotAskMeanwhile)
{
    Disconnect();
    const std::size_t asked = proxy_.Forwarded(Request::Exists);
    Observe(Session::OpenInBackground(Options()));
    views_->Await("disconnected: nothing known| nobody");

    Reconnect();

    views_->Await("| nobody");
    EXPECT_LE(proxy_.Forwarded(Request::Exists), asked + 12);
}

TEST_F(ObserverServersTest, LackOfPermissionIsInTheView)
{
    SessionOptions options = Options();
    options.servers = server_->Address();
    options.digestCredentials = "owner:secret";
    options.accessList = {{ZOO_PERM_ALL, "auth", ""}};
    const auto owner = Session::Open(options);
    CandidateOptions election;
    election.electionPath = "/services/billing";
    election.identity = "owner";
    Candidate candidate(owner, election);
    candidate.Start();
    ASSERT_TRUE(candidate.WaitForRole(Role::Leader, kPatience));

    Observe(Open());

    views_->Await("not authenticatednothing known| nobody");
    try
    {
        Look(*Open(), "/services/billing");
        FAIL() << "was allowed";
    }
    catch (const ZooError& error)
    {
        EXPECT_EQ(error.Code(), ZNOAUTH);
    }
}

TEST_F(ObserverServersTest, AtRestItAsksOnlyNowAndThen)
{
    observer_.Create("/services");
    observer_.Create("/services/billing");
    for (int i = 0; i < 30; ++i)
    {
        observer_.Create("/services/billing/c-", {}, ZOO_SEQUENCE);
    }
    Observe(Open());
    Await("the first view", [&] { return !views_->Lines().empty(); });
    const auto asked = [&] {
        return proxy_.Forwarded(Request::Exists) + proxy_.Forwarded(Request::GetChildren) +
               proxy_.Forwarded(Request::GetData);
    };
    const std::size_t listed = proxy_.Forwarded(Request::GetChildren);
    const std::size_t before = asked();
    const auto begin = std::chrono::steady_clock::now();

    Await("three looks", [&] { return asked() >= before + 6; });

    // The first of them comes with the first word of the session.
    EXPECT_GE(Since(begin), milliseconds(900));
    EXPECT_EQ(proxy_.Forwarded(Request::GetChildren), listed);
}

TEST_F(ObserverServersTest, EndsAtOnceWhenItsSessionIsClosedWhileTheServerHangs)
{
    const auto session = Open();
    Observe(session);
    views_->Await("| nobody");
    proxy_.BlackHole(Proxy::Direction::ToClient);
    // By then it has looked again, if it has not been looking already.
    const auto silent = std::chrono::steady_clock::now();
    Await("a read without an answer", [&] { return Since(silent) > milliseconds(1'000); });
    const auto begin = std::chrono::steady_clock::now();

    session->Close();
    watcher_.reset();

    EXPECT_LT(Since(begin), milliseconds(3'000) + kSlack / 4);
}

}  // namespace
}  // namespace kx::velmor::testing_support
