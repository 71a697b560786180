// What a session knows of itself, on real servers.

#include "tests/ensemble/session_fixture.h"

#include <gmock/gmock.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kx::velmor::testing_support {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;

class StatusTest : public SessionFixture
{
protected:
    /// What listeners were told. Outlives them.
    class States
    {
    public:
        Session::StateListener Listener() const
        {
            return [journal = journal_](const SessionStatus& status) {
                journal->Note(std::string(ToString(status.state)) + " " + std::to_string(status.sessionId));
            };
        }
        Journal& Lines() const { return *journal_; }

    private:
        const std::shared_ptr<Journal> journal_ = std::make_shared<Journal>();
    };

    static std::string Line(const std::string& state, std::int64_t sessionId)
    {
        return state + " " + std::to_string(sessionId);
    }

    static BootClock::time_point HeardAfter(const Session& session, BootClock::time_point moment)
    {
        BootClock::time_point heard;
        Await("a later word from the server", [&] {
            heard = session.Status().lastHeard.value_or(moment);
            return heard > moment;
        });
        return heard;
    }
};

TEST_F(StatusTest, ListenersFollowTheSessionThroughAnOutageAndItsEnd)
{
    const auto session = Open();
    const std::int64_t first = session->Status().sessionId;
    EXPECT_EQ(first, session->ClientId()->client_id);
    const States states;
    const Registration listening = session->OnStateChange(states.Listener());

    Disconnect();
    states.Lines().Await(Line("suspended", first));
    Reconnect();
    states.Lines().Await(Line("connected", first), 2);
    Expire(*session);
    states.Lines().Await(Line("expired", first));
    Await("the next session", [&] { return session->Status().state == SessionState::Connected; });
    const std::int64_t second = session->Status().sessionId;
    EXPECT_NE(second, first);
    session->Close();
    EXPECT_THAT(states.Lines().Lines(),
                ElementsAre(Line("connected", first), Line("suspended", first), Line("connected", first),
                            Line("suspended", first), Line("expired", first), Line("connecting", 0),
                            Line("connected", second), Line("closed", second)));
}

TEST_F(StatusTest, TimeoutIsWhatTheServersGrant)
{
    SessionOptions options = Options();
    options.sessionTimeout = 2 * ServerOptions().maxSessionTimeout;
    EXPECT_EQ(Session::Open(options)->Status().negotiatedTimeout, ServerOptions().maxSessionTimeout);
}

TEST_F(StatusTest, FreshSessionIsHeardOfThoughNobodyAsksAnything)
{
    SessionOptions options = Options();
    options.sessionTimeout = milliseconds(600);
    const auto session = Session::Open(options);
    const Registration fresh = session->KeepFresh();
    auto heard = HeardAfter(*session, BootClock::time_point());
    for (int i = 0; i < 5; ++i)
    {
        heard = HeardAfter(*session, heard);
    }
    EXPECT_LE(heard, BootClock::now());
}

TEST_F(StatusTest, SilentServerIsNotHeardFrom)
{
    const auto session = Open();
    const Registration fresh = session->KeepFresh();
    HeardAfter(*session, BootClock::time_point());
    // In the network nothing is under way any more once what comes back is held up.
    proxy_.BlackHole(Proxy::Direction::ToClient);
    const auto heard = session->Status().lastHeard;
    const std::size_t sent = proxy_.Forwarded(Request::Multi);
    Await("a request that stays unanswered", [&] { return proxy_.Forwarded(Request::Multi) > sent; });
    EXPECT_EQ(session->Status().lastHeard, heard);
    proxy_.Heal();
    EXPECT_GT(HeardAfter(*session, *heard), *heard);
}

TEST_F(StatusTest, EveryReconnectionIsFollowedByAFreshWord)
{
    const auto session = Open();
    const Registration fresh = session->KeepFresh();
    auto heard = HeardAfter(*session, BootClock::time_point());
    for (int i = 0; i < 10; ++i)
    {
        const auto cut = BootClock::now();
        proxy_.Cut();
        heard = HeardAfter(*session, cut);
    }
    Expire(*session);
    EXPECT_GT(HeardAfter(*session, heard), heard) << "of the next session";
}

}  // namespace
}  // namespace kx::velmor::testing_support
