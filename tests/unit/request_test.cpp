#include "source/request.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace kx::velmor {
namespace {

Clock::time_point Soon()
{
    return Clock::now() + std::chrono::seconds(20);
}

Clock::time_point Past()
{
    return Clock::now() - std::chrono::seconds(1);
}

TEST(RequestTest, AnswerThatIsThereIsGivenAtOnceWithItsResults)
{
    Request request;
    EXPECT_TRUE(request.Finish(ZOK, [](Request& finished) {
        finished.createdPath = "/n";
        finished.children = {"a", "b"};
        finished.stat.ephemeralOwner = 7;
    }));
    EXPECT_EQ(request.Await(Past()), ZOK) << "even at a deadline that has passed";
    EXPECT_EQ(request.createdPath, "/n");
    EXPECT_EQ(request.children, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(request.stat.ephemeralOwner, 7);
}

TEST(RequestTest, AnswerOfAnotherThreadEndsTheWait)
{
    Request request;
    std::thread library([&] { request.Finish(ZNONODE, [](Request& finished) { finished.createdPath = "/n"; }); });
    EXPECT_EQ(request.Await(Soon()), ZNONODE);
    EXPECT_EQ(request.createdPath, "/n");
    library.join();
}

TEST(RequestTest, NoAnswerByTheDeadlineAbandonsTheRequest)
{
    bool heard = false;
    Request request([&](int) { heard = true; });
    EXPECT_EQ(request.Await(Clock::now() + std::chrono::milliseconds(5)), ZOPERATIONTIMEOUT);

    bool stored = false;
    EXPECT_FALSE(request.Finish(ZOK, [&](Request&) { stored = true; })) << "nobody waits any more";
    EXPECT_FALSE(stored);
    EXPECT_FALSE(heard);
}

TEST(RequestTest, WhoFinishesFirstDecides)
{
    int heard = 0;
    Request request([&](int rc) {
        ++heard;
        EXPECT_EQ(rc, ZCLOSING);
    });
    EXPECT_TRUE(request.Finish(ZCLOSING));
    bool stored = false;
    EXPECT_TRUE(request.Finish(ZOK, [&](Request&) { stored = true; })) << "it was not abandoned";
    EXPECT_FALSE(stored);
    EXPECT_EQ(heard, 1);
    EXPECT_EQ(request.Await(Soon()), ZCLOSING);
}

TEST(RequestTest, ListenerRunsOnTheFinishingThreadWithNoLockHeld)
{
    std::thread::id heardOn;
    int again = ZSYSTEMERROR;
    std::unique_ptr<Request> request;
    request = std::make_unique<Request>([&](int) {
        heardOn = std::this_thread::get_id();
        // Would wait for ever if the request's lock were held.
        again = request->Await(Past());
    });
    std::thread::id finishedOn;
    std::thread library([&] {
        finishedOn = std::this_thread::get_id();
        request->Finish(ZNONODE);
    });
    library.join();
    EXPECT_EQ(heardOn, finishedOn);
    EXPECT_EQ(again, ZNONODE);
}

TEST(RequestTest, AnswerAndDeadlineAtOnceAgreeOnWhoWon)
{
    for (int round = 0; round < 300; ++round)
    {
        Request request;
        bool awaited = false;
        std::thread library([&] { awaited = request.Finish(ZOK); });
        const int rc = request.Await(Clock::now() + std::chrono::microseconds(round % 100));
        library.join();
        ASSERT_EQ(rc, awaited ? ZOK : ZOPERATIONTIMEOUT);
    }
}

}  // namespace
}  // namespace kx::velmor
