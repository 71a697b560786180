#include "tests/unit/session_scripted_fixture.h"

#include <cstdint>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Who is told when servers were heard from.
class HeardOfASession : public SessionScripted
{
protected:
    /// Notes "<name> heard <number of the session>".
    Session::HeardListener NotingHeard(const std::string& name)
    {
        return [this, name](std::int64_t sessionId, BootClock::time_point) {
            journal.Note(name + " heard " + std::to_string(sessionId - 0x1000));
        };
    }
};

TEST_F(HeardOfASession, IsToldBeforeTheWriterGetsItsAnswerAndWithNoLockHeld)
{
    const auto session = OpenConnected();
    Barrier told;
    const Registration listening = session->OnHeard([&](std::int64_t, BootClock::time_point) {
        journal.Note("heard");
        told.Pass();
    });
    auto writing = Writing(*session);
    library.Answer(1, Sent::Create, "/n");
    journal.Await("heard");
    EXPECT_EQ(writing.wait_for(milliseconds(20)), std::future_status::timeout);
    EXPECT_TRUE(session->Status().lastHeard) << "others know by then";
    const Registration another = session->OnHeard(NotingHeard("another"));
    told.Open();
    EXPECT_EQ(writing.get(), ZOK);
    EXPECT_THAT(Told(), ElementsAre("heard"));
}

TEST_F(HeardOfASession, IsWhatTheStatusSays)
{
    const auto session = OpenConnected();
    std::vector<BootClock::time_point> heard;
    std::vector<std::int64_t> sessions;
    const Registration listening = session->OnHeard([&](std::int64_t sessionId, BootClock::time_point leaseEnd) {
        sessions.push_back(sessionId);
        heard.push_back(leaseEnd);
    });
    for (std::size_t i = 0; i < 3; ++i)
    {
        const auto before = BootClock::now();
        Write(*session);
        ASSERT_EQ(heard.size(), i + 1);
        EXPECT_GE(*session->Status().lastHeard, before);
        EXPECT_EQ(heard.back(), *session->Status().leaseEnd);
        EXPECT_EQ(sessions.back(), session->Status().sessionId);
    }
}

TEST_F(HeardOfASession, IsToldOfAgreementAndOfNothingElse)
{
    const auto session = OpenConnected();
    const Registration listening = session->OnHeard(NotingHeard("a"));
    for (const int rc : {ZCONNECTIONLOSS, ZOPERATIONTIMEOUT, ZSYSTEMERROR, ZSESSIONMOVED, ZNOAUTH})
    {
        Write(*session, rc);
    }
    library.Expect(Sent::Exists, "/n");
    EXPECT_EQ(session->Exists("/n", nullptr), ZOK);
    std::string data;
    library.Expect(Sent::GetData, "/n");
    EXPECT_EQ(session->GetData("/n", data, nullptr), ZOK);
    TransactionResult result;
    library.Expect(Sent::Transact, "check /n, check /m", Code(ZCONNECTIONLOSS));
    EXPECT_EQ(session->Transact({Operation::Check("/n"), Operation::Check("/m")}, result), ZCONNECTIONLOSS);
    EXPECT_THAT(Told(), IsEmpty());

    Write(*session, ZNODEEXISTS);
    EXPECT_THAT(Told(), ElementsAre("a heard 1"));
    library.Expect(Sent::Transact, "check /n");
    EXPECT_EQ(session->Transact({Operation::Check("/n")}, result), ZOK);
    EXPECT_THAT(Told(), ElementsAre("a heard 1"));
    Reply refused = Code(ZBADVERSION);
    refused.refused = 0;
    library.Expect(Sent::Transact, "check /n v1", refused);
    EXPECT_EQ(session->Transact({Operation::Check("/n", 1)}, result), ZBADVERSION);
    EXPECT_THAT(Told(), ElementsAre("a heard 1"));
}

/// When a server has granted a session less than before.
class RenegotiatedSession : public HeardOfASession
{
protected:
    /// Reconnects the session of handle 1 to a server that grants this timeout.
    void ReconnectWith(milliseconds timeout)
    {
        library.Report(1, ZOO_CONNECTING_STATE);
        library.GrantTimeout(1, static_cast<int>(timeout.count()));
        library.Report(1, ZOO_CONNECTED_STATE);
        library.AwaitArrivals(1);
    }
};

TEST_F(RenegotiatedSession, HasAShorterLeaseBeforeAnyAnswerComes)
{
    const auto session = OpenConnected();
    Write(*session);
    const SessionStatus before = session->Status();
    EXPECT_EQ(before.minTimeout, before.negotiatedTimeout);
    const Registration listening = session->OnHeard(NotingHeard("a"));
    ReconnectWith(before.negotiatedTimeout / 10);
    EXPECT_THAT(Told(), ElementsAre("a heard 1"));
    const SessionStatus after = session->Status();
    EXPECT_EQ(after.minTimeout, before.negotiatedTimeout / 10);
    EXPECT_EQ(after.lastHeard, before.lastHeard);
    EXPECT_EQ(*after.leaseEnd, *after.lastHeard + after.minTimeout * 2 / 3);
}

TEST_F(RenegotiatedSession, KeepsTheSmallestTimeoutUntilItIsOver)
{
    const auto session = OpenConnected();
    const milliseconds asked = session->Status().negotiatedTimeout;
    ReconnectWith(asked / 10);
    const Registration listening = session->OnHeard(NotingHeard("a"));
    ReconnectWith(asked);
    EXPECT_THAT(Told(), IsEmpty());
    EXPECT_EQ(session->Status().negotiatedTimeout, asked);
    EXPECT_EQ(session->Status().minTimeout, asked / 10);
    ExpectNext();
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    library.Asked().Await("2 open 127.0.0.1:2181");
    library.AwaitArrivals(2);
    EXPECT_EQ(session->Status().minTimeout, asked);
}

TEST_F(HeardOfASession, IsNotToldWhatIsOlderThanWhatWasTold)
{
    const auto session = OpenConnected();
    const Registration listening = session->OnHeard(NotingHeard("a"));
    auto older = Writing(*session);
    library.Expect(Sent::Delete, "/m");
    EXPECT_EQ(session->GuaranteedDelete("/m"), ZOK);
    EXPECT_THAT(Told(), ElementsAre("a heard 1"));
    library.Answer(1, Sent::Create, "/n");
    EXPECT_EQ(older.get(), ZOK);
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(HeardOfASession, SaysWhichSessionItWas)
{
    const auto session = OpenConnected();
    const Registration listening = session->OnHeard(NotingHeard("a"));
    Write(*session);
    auto late = Writing(*session);
    ExpectNext();
    library.WhenClosed(1, [this] {
        library.Answer(1, Sent::Create, "/n");
        library.AwaitArrivals(1);
    });
    library.Report(1, ZOO_EXPIRED_SESSION_STATE);
    EXPECT_EQ(late.get(), ZSESSIONEXPIRED);
    library.Asked().Await("2 open 127.0.0.1:2181");
    Write(*session);
    EXPECT_THAT(Told(), ElementsAre("a heard 1", "a heard 2"));
}

TEST_F(HeardOfASession, IsToldToAllAndNotToThoseWhoCancelled)
{
    const auto session = OpenConnected();
    Registration first = session->OnHeard(NotingHeard("first"));
    const Registration second = session->OnHeard(NotingHeard("second"));
    Write(*session);
    EXPECT_THAT(Told(), ElementsAre("first heard 1", "second heard 1"));
    first.Cancel();
    first.Cancel();
    Write(*session);
    EXPECT_THAT(Told(), ElementsAre("second heard 1"));
}

TEST_F(HeardOfASession, IsNotToldToWhoIsCancelledByTheOneBefore)
{
    const auto session = OpenConnected();
    auto second = std::make_shared<Registration>();
    const Registration first = session->OnHeard([this, second](std::int64_t, BootClock::time_point) {
        second->Cancel();
        journal.Note("first");
    });
    *second = session->OnHeard(NotingHeard("second"));
    Write(*session);
    EXPECT_THAT(Told(), ElementsAre("first"));
}

TEST_F(HeardOfASession, MayMakeAListenerCancelItself)
{
    const auto session = OpenConnected();
    auto listening = std::make_shared<Registration>();
    auto probe = std::make_shared<int>(0);
    *listening = session->OnHeard([this, listening, probe](std::int64_t, BootClock::time_point) {
        listening->Cancel();
        journal.Note("told");
    });
    EXPECT_EQ(probe.use_count(), 2);
    Write(*session);
    Write(*session);
    EXPECT_THAT(Told(), ElementsAre("told"));
    EXPECT_EQ(probe.use_count(), 1);
}

TEST_F(HeardOfASession, IsOverWhenTheSessionIsClosed)
{
    const auto session = OpenConnected();
    auto probe = std::make_shared<int>(0);
    Registration listening =
        session->OnHeard([this, probe](std::int64_t, BootClock::time_point) { journal.Note("told"); });
    auto writing = Writing(*session);
    library.WhenClosed(1, [this] {
        library.Answer(1, Sent::Create, "/n");
        library.AwaitArrivals(1);
    });
    session->Close();
    EXPECT_EQ(writing.get(), ZCLOSING);
    EXPECT_EQ(probe.use_count(), 1) << "what it holds is let go of";
    const Registration late = session->OnHeard([probe](std::int64_t, BootClock::time_point) {});
    EXPECT_EQ(probe.use_count(), 1);
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(HeardOfASession, MayHoldTheSessionUntilItIsClosed)
{
    auto session = OpenConnected();
    Session& theSession = *session;
    const Registration listening = theSession.OnHeard([session](std::int64_t, BootClock::time_point) {});
    const std::weak_ptr<Session> weak = session;
    session->Close();
    session.reset();
    EXPECT_TRUE(weak.expired());
}

TEST_F(HeardOfASession, MayOutliveItAsARegistration)
{
    auto session = OpenConnected();
    Registration listening = session->OnHeard(NotingHeard("a"));
    session.reset();
    listening.Cancel();
}

/// Opened before there are servers.
class SessionInTheBackground : public SessionScripted
{};

TEST_F(SessionInTheBackground, IsThereAtOnceAndConnectsWhenAServerAnswers)
{
    options.connectTimeout = milliseconds(1);
    library.ExpectOpen({});
    const auto session = Session::OpenInBackground(options);
    EXPECT_EQ(session->Status().state, SessionState::Connecting);
    EXPECT_FALSE(session->ClientId());
    library.Asked().Await("1 open 127.0.0.1:2181");
    library.Expect(Sent::Exists, "/n");
    auto exists = std::async(std::launch::async, [&] { return session->Exists("/n", nullptr); });
    EXPECT_EQ(exists.wait_for(milliseconds(20)), std::future_status::timeout);
    EXPECT_THAT(AskedWith("exists"), IsEmpty());
    library.Report(1, ZOO_CONNECTED_STATE);
    EXPECT_EQ(exists.get(), ZOK);
    EXPECT_EQ(session->Status().sessionId, library.Identity(1));
}

TEST_F(SessionInTheBackground, GoesOnTryingWhenNoHandleIsToBeHad)
{
    Opening none;
    none.error = EMFILE;
    library.ExpectOpen(none);
    ExpectNext();
    const auto session = Session::OpenInBackground(options);
    library.Asked().Await("1 open 127.0.0.1:2181");
    library.Expect(Sent::Exists, "/n");
    EXPECT_EQ(session->Exists("/n", nullptr), ZOK);
}

TEST_F(SessionInTheBackground, MayBeClosedBeforeAServerAnswers)
{
    Opening silent;
    silent.optional = true;
    library.ExpectOpen(silent);
    const auto session = Session::OpenInBackground(options);
    auto exists = std::async(std::launch::async, [&] { return session->Exists("/n", nullptr); });
    EXPECT_EQ(exists.wait_for(milliseconds(20)), std::future_status::timeout);
    session->Close();
    EXPECT_EQ(exists.get(), ZCLOSING);
    EXPECT_EQ(session->Status().state, SessionState::Closed);
}

TEST_F(SessionInTheBackground, MayGoBeforeAServerAnswers)
{
    Opening silent;
    silent.optional = true;
    library.ExpectOpen(silent);
    Session::OpenInBackground(options).reset();
}

TEST_F(SessionInTheBackground, IsRefusedForABadOption)
{
    options.servers = "nowhere";
    EXPECT_EQ(ThrownCode([&] { Session::OpenInBackground(options); }), ZBADARGUMENTS);
    EXPECT_THAT(Logged("Bad session option servers"), ::testing::SizeIs(1));
}

}  // namespace
}  // namespace kx::velmor::testing_support
