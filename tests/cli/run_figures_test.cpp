#include "cli/run_figures.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <sstream>

namespace kx::velmor::cli {
namespace {

using std::chrono::milliseconds;
using ::testing::Contains;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

Standing Leading()
{
    Standing standing;
    standing.election = "/services/billing";
    standing.identity = "alpha";
    standing.role = Role::Leader;
    standing.node = "c-0000000042";
    standing.epoch = 4'294'967'301;
    standing.leaseLeft = milliseconds(6'500);
    standing.session.state = SessionState::Connected;
    standing.session.sessionId = 0x0100003e8f2a0001;
    standing.session.negotiatedTimeout = milliseconds(10'000);
    standing.queueLength = 3;
    standing.command = 4711;
    return standing;
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

/// The value behind the name with its labels; -1 when there is none.
double ValueOf(const std::string& metrics, const std::string& name)
{
    for (const std::string& line : Lines(metrics))
    {
        if (line.rfind(name + " ", 0) == 0)
        {
            return std::strtod(line.c_str() + name.size(), nullptr);
        }
    }
    return -1;
}

TEST(RunFigures, JsonTellsHowALeaderStands)
{
    RunFigures figures;
    figures.OnGain();
    figures.OnLoss(LossReason::LeaseRanOut);
    figures.OnGain();
    const nlohmann::json status = nlohmann::json::parse(figures.Json(Leading()));
    EXPECT_EQ(status, nlohmann::json::parse(R"({
        "election": "/services/billing", "identity": "alpha", "role": "leader", "node": "c-0000000042",
        "epoch": 4294967301, "lease_left_ms": 6500, "queue_length": 3, "command_pid": 4711, "handovers": 2,
        "session": {"state": "connected", "id": "0x100003e8f2a0001", "timeout_ms": 10000},
        "losses": {"left": 0, "session expired": 0, "node deleted": 0, "lease ran out": 1, "displaced": 0,
                   "callback failed": 0}})"));
}

TEST(RunFigures, JsonHasNothingForWhatIsNotThere)
{
    const nlohmann::json status = nlohmann::json::parse(RunFigures().Json(Standing{}));
    for (const char* const key : {"node", "epoch", "queue_length", "command_pid"})
    {
        ASSERT_TRUE(status.contains(key)) << key;
        EXPECT_TRUE(status.at(key).is_null()) << key;
    }
}

TEST(RunFigures, JsonSurvivesAnIdentityThatIsNoText)
{
    Standing standing = Leading();
    standing.identity = "a\xff\"b";
    EXPECT_TRUE(nlohmann::json::accept(RunFigures().Json(standing)));
}

TEST(RunFigures, MetricsTellHowALeaderStands)
{
    RunFigures figures;
    figures.OnGain();
    figures.OnLoss(LossReason::NodeDeleted);
    figures.OnCommandStarted();
    figures.OnCheck(milliseconds(3));
    const std::string metrics = figures.Metrics(Leading());
    EXPECT_EQ(ValueOf(metrics, "velmor_role{role=\"leader\"}"), 1);
    EXPECT_EQ(ValueOf(metrics, "velmor_role{role=\"next leader\"}"), 0);
    EXPECT_EQ(ValueOf(metrics, "velmor_session_state{state=\"connected\"}"), 1);
    EXPECT_EQ(ValueOf(metrics, "velmor_session_state{state=\"suspended\"}"), 0);
    EXPECT_EQ(ValueOf(metrics, "velmor_epoch"), 4'294'967'301);
    EXPECT_EQ(ValueOf(metrics, "velmor_queue_length"), 3);
    EXPECT_EQ(ValueOf(metrics, "velmor_lease_left_seconds"), 6.5);
    EXPECT_EQ(ValueOf(metrics, "velmor_handovers_total"), 1);
    EXPECT_EQ(ValueOf(metrics, "velmor_commands_started_total"), 1);
    EXPECT_EQ(ValueOf(metrics, "velmor_losses_total{reason=\"node deleted\"}"), 1);
    EXPECT_EQ(ValueOf(metrics, "velmor_losses_total{reason=\"left\"}"), 0);
    EXPECT_EQ(ValueOf(metrics, "velmor_check_seconds_count"), 1);
    EXPECT_EQ(ValueOf(metrics, "velmor_check_seconds_bucket{le=\"0.0025\"}"), 0);
    EXPECT_EQ(ValueOf(metrics, "velmor_check_seconds_bucket{le=\"0.005\"}"), 1);
}

TEST(RunFigures, MetricsChangeWithTheRole)
{
    RunFigures figures;
    figures.Metrics(Leading());
    const std::string metrics = figures.Metrics(Standing{});
    EXPECT_EQ(ValueOf(metrics, "velmor_role{role=\"leader\"}"), 0);
    EXPECT_EQ(ValueOf(metrics, "velmor_role{role=\"stopped\"}"), 1);
    EXPECT_EQ(ValueOf(metrics, "velmor_epoch"), 0);
}

TEST(RunFigures, MetricsHaveNoQueueBeforeItIsKnown)
{
    RunFigures figures;
    const std::string metrics = figures.Metrics(Standing{});
    EXPECT_THAT(Lines(metrics), Each(Not(StartsWith("velmor_queue_length "))));
    EXPECT_THAT(Lines(metrics), Contains(HasSubstr("velmor_role")));
}

}  // namespace
}  // namespace kx::velmor::cli
