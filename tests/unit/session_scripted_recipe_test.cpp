// The election recipe on a session, when the client library does what a test says.

#include "source/candidate_impl.h"
#include "tests/unit/session_scripted_fixture.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace kx::velmor::testing_support {
namespace {

using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class RecipeOnASession : public SessionScripted
{
protected:
    static std::string Name(int number) { return "c-000000000" + std::to_string(number); }
    static std::string Path(int number) { return "/e/" + Name(number); }

    static Reply Listing(const std::vector<int>& numbers)
    {
        Reply reply;
        for (const int number : numbers)
        {
            reply.children.push_back(Name(number));
        }
        return reply;
    }

    /// A started candidate behind `ahead` others, whose nodes have the numbers from 0 on.
    std::shared_ptr<CandidateImpl> StartBehind(const std::shared_ptr<Session>& session, int ahead)
    {
        std::vector<int> queue;
        library.Expect(Sent::Exists, "/e");
        library.Expect(Sent::GetChildren, "/e");
        library.Expect(Sent::Create, "/e/c-", Created(Path(ahead)));
        for (int number = 0; number <= ahead; ++number)
        {
            queue.push_back(number);
        }
        library.Expect(Sent::GetChildren, "/e", Listing(queue));
        for (int number = std::max(0, ahead - 2); number < ahead; ++number)
        {
            library.Expect(Sent::WatchExists, Path(number));
        }
        auto candidate = std::make_shared<CandidateImpl>(
            session, "/e", [this] { journal.Note("leads"); }, [this] { journal.Note("is next"); });
        candidate->Start();
        return candidate;
    }
};

TEST_F(RecipeOnASession, ListingWithoutAnswerIsMadeUpForByTheReconnection)
{
    // The listing waits for its answer that long; everything else is answered at once.
    options.operationTimeout = std::chrono::seconds(2);
    const auto session = OpenConnected();
    const auto candidate = StartBehind(session, 1);
    ASSERT_TRUE(candidate->IsNextLeader());
    library.Expect(Sent::GetChildren, "/e", Held());
    library.Fire(1, ZOO_DELETED_EVENT, Path(0));
    journal.Await("[30] CheckLeader Failed: operation timeout");
    EXPECT_FALSE(candidate->IsLeader());

    library.Report(1, ZOO_CONNECTING_STATE);
    library.Answer(1, Sent::GetChildren, "/e", Code(ZCONNECTIONLOSS));
    library.Expect(Sent::Sync, "/e");
    library.Expect(Sent::GetChildren, "/e", Listing({1}));
    library.Report(1, ZOO_CONNECTED_STATE);
    journal.Await("leads");
    EXPECT_TRUE(candidate->IsLeader());
    EXPECT_THAT(library.Armed(1), IsEmpty());
    session->Close();
}

TEST_F(RecipeOnASession, LeaderPromotedByAnEventIsCheckedAtEachReconnection)
{
    const auto session = OpenConnected();
    const auto candidate = StartBehind(session, 1);
    library.Expect(Sent::GetChildren, "/e", Listing({1}));
    library.Fire(1, ZOO_DELETED_EVENT, Path(0));
    journal.Await("leads");
    for (std::size_t reconnection = 1; reconnection <= 3; ++reconnection)
    {
        library.Expect(Sent::Sync, "/e");
        library.Expect(Sent::GetChildren, "/e", Listing({1}));
        Reconnect(1);
        journal.Await("leads", 1 + reconnection);
    }
    AwaitQuiet(*session, 1);
    library.Expect(Sent::Delete, Path(1));
    candidate->Stop();
    EXPECT_EQ(candidate.use_count(), 1) << "the session holds no callback of a candidate that has left";
    Reconnect(1);
    AwaitQuiet(*session, 1);
    EXPECT_EQ(journal.Count("leads"), 4U);
}

TEST_F(RecipeOnASession, ThousandReconnectionsAndChecksLeaveTwoWatches)
{
    const auto session = OpenConnected();
    const auto candidate = StartBehind(session, 2);
    logging::g_minLogLevel = 100;
    library.Expect(Sent::Sync, "/e", Always({}));
    library.Expect(Sent::GetChildren, "/e", Always(Listing({0, 1, 2})));
    library.Expect(Sent::WatchExists, Path(0), Always({}));
    library.Expect(Sent::WatchExists, Path(1), Always({}));
    const auto checks = [this] { return library.Asked().Count("1 children /e"); };
    constexpr int kRounds = 1'000;
    for (int round = 0; round < kRounds; ++round)
    {
        const std::size_t before = checks();
        library.Fire(1, ZOO_CHANGED_EVENT, Path(round % 2));
        AwaitQuiet(*session, 1);
        ASSERT_EQ(checks(), before + 1) << round;
        Reconnect(1);
        AwaitQuiet(*session, 1);
        ASSERT_GE(checks(), before + 2) << round;
        ASSERT_LE(checks(), before + 3) << round;
        // This one, and the callbacks of two states: those that were replaced are gone.
        ASSERT_EQ(candidate.use_count(), 3) << round;
        ASSERT_THAT(library.Armed(1), UnorderedElementsAre(Path(0), Path(1))) << round;
        journal.Take();
    }
    session->Close();
    EXPECT_EQ(candidate.use_count(), 1);
}

}  // namespace
}  // namespace kx::velmor::testing_support
