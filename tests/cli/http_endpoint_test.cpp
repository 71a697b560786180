#include "cli/http_endpoint.h"

#include "cli/exit_status.h"
#include "cli/settings.h"

#include <kx/logging/default_library.h>

#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace kx::velmor::cli {
namespace {

class HttpEndpointTest : public ::testing::Test
{
protected:
    HttpEndpointTest()
        : handler_(logging::AddHandler([this](const logging::Record& record) { lastLine_ = record.text; }))
    {}
    ~HttpEndpointTest() override { logging::RemoveHandler(handler_); }

    void Serve(const std::string& where)
    {
        HttpAnswers answers;
        answers.leads = [this] { return leads_.load(); };
        answers.isNext = [this] { return isNext_.load(); };
        answers.statusJson = [] { return std::string("{\"role\": \"leader\"}"); };
        answers.metrics = [] { return std::string("velmor_epoch 1\n"); };
        endpoints_.push_back(std::make_unique<HttpEndpoint>(where, answers));
    }

    /// As the log tells it.
    int Port() const { return std::stoi(lastLine_.substr(lastLine_.rfind(':') + 1)); }

    httplib::Result Get(const std::string& path) { return httplib::Client("127.0.0.1", Port()).Get(path.c_str()); }

    int StatusOf(const std::string& path)
    {
        const httplib::Result result = Get(path);
        return result ? result->status : -1;
    }

    std::string Refusal(const std::string& where)
    {
        try
        {
            Serve(where);
        }
        catch (const Failure& failure)
        {
            EXPECT_EQ(failure.Status(), kUsage);
            return failure.what();
        }
        return "none";
    }

    std::atomic<bool> leads_{false};
    std::atomic<bool> isNext_{false};
    /// Of the log, which is written where the endpoint is made.
    std::string lastLine_;
    const logging::HandlerId handler_;
    std::vector<std::unique_ptr<HttpEndpoint>> endpoints_;
};

TEST_F(HttpEndpointTest, TellsWhoLeadsAndWhoIsNextByTheStatus)
{
    Serve("0");
    EXPECT_EQ(StatusOf("/leader"), 503);
    EXPECT_EQ(StatusOf("/next"), 503);
    isNext_ = true;
    EXPECT_EQ(StatusOf("/next"), 200);
    EXPECT_EQ(StatusOf("/leader"), 503);
    leads_ = true;
    isNext_ = false;
    EXPECT_EQ(StatusOf("/leader"), 200);
    EXPECT_EQ(StatusOf("/next"), 503);
}

TEST_F(HttpEndpointTest, GivesStatusAndMetricsWithTheirTypes)
{
    Serve("127.0.0.1:0");
    const httplib::Result status = Get("/status");
    ASSERT_TRUE(status);
    EXPECT_EQ(status->status, 200);
    EXPECT_EQ(status->get_header_value("Content-Type"), "application/json");
    EXPECT_EQ(status->body, "{\"role\": \"leader\"}");
    const httplib::Result metrics = Get("/metrics");
    ASSERT_TRUE(metrics);
    EXPECT_EQ(metrics->get_header_value("Content-Type"), "text/plain; version=0.0.4");
    EXPECT_EQ(metrics->body, "velmor_epoch 1\n");
    EXPECT_EQ(StatusOf("/other"), 404);
}

TEST_F(HttpEndpointTest, ServesOnLoopbackWhenOnlyAPortIsGiven)
{
    Serve("0");
    EXPECT_EQ(lastLine_.rfind("Serving HTTP on 127.0.0.1:", 0), 0U);
}

TEST_F(HttpEndpointTest, RefusesAPortThatIsTaken)
{
    Serve("0");
    const std::string taken = std::to_string(Port());
    EXPECT_NE(Refusal(taken).find("--http: cannot listen on " + taken), std::string::npos);
}

TEST_F(HttpEndpointTest, RefusesWhatIsNoAddress)
{
    for (const char* const where : {"", "x", ":80", "80x", "1.2.3.4:", "1.2.3.4:65536", "-1", "::1:80", "1.2.3.4:+5"})
    {
        EXPECT_NE(Refusal(where).find("neither a port nor address:port"), std::string::npos) << where;
    }
}

TEST_F(HttpEndpointTest, EndsAtOnceThoughSomebodyStaysConnected)
{
    Serve("0");
    httplib::Client idle("127.0.0.1", Port());
    idle.set_keep_alive(true);
    ASSERT_TRUE(idle.Get("/leader"));
    endpoints_.clear();
    EXPECT_FALSE(idle.Get("/leader"));
}

}  // namespace
}  // namespace kx::velmor::cli
