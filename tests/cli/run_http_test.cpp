// What `velmor run --http` answers.
#include "tests/cli/program_fixture.h"
#include "tests/support/network.h"

#include <gmock/gmock.h>
#include <httplib.h>
#include <nlohmann/json.hpp>
#include <signal.h>

#include <memory>
#include <string>
#include <vector>

namespace kx::velmor::cli {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

class RunHttp : public ProgramFixture
{
protected:
    /// Where the program says it serves.
    static int Port(RunningProgram& program)
    {
        const std::string words = "Serving HTTP on 127.0.0.1:";
        program.AwaitErrors(words);
        const std::string errors = program.Errors();
        return std::stoi(errors.substr(errors.find(words) + words.size()));
    }

    static httplib::Client Client(RunningProgram& program) { return httplib::Client("127.0.0.1", Port(program)); }

    static int Status(httplib::Client& client, const std::string& path)
    {
        const httplib::Result result = client.Get(path);
        return result ? result->status : 0;
    }

    static void AwaitStatus(httplib::Client& client, const std::string& path, int status)
    {
        Await(path + " is " + std::to_string(status), [&] { return Status(client, path) == status; });
    }

    static nlohmann::json Json(httplib::Client& client)
    {
        const httplib::Result result = client.Get("/status");
        EXPECT_EQ(result->status, 200);
        EXPECT_THAT(result->get_header_value("Content-Type"), HasSubstr("application/json"));
        return nlohmann::json::parse(result->body);
    }

    void EndInOrder(RunningProgram& program)
    {
        program.Signal(SIGTERM);
        EXPECT_EQ(program.AwaitExit(), 0);
    }
};

TEST_F(RunHttp, AnswersWhoLeadsAndWhoIsNext)
{
    RunningProgram& first = Join({"--http", "0", "--identity", "alpha"}, Service());
    const Record start = AwaitRecord("start");
    RunningProgram& second = Join({"--http", "127.0.0.1:0"}, Service());
    httplib::Client one = Client(first);
    httplib::Client two = Client(second);
    AwaitStatus(one, "/leader", 200);
    EXPECT_EQ(Status(one, "/next"), 503);
    AwaitStatus(two, "/next", 200);
    EXPECT_EQ(Status(two, "/leader"), 503);
    EXPECT_EQ(Status(one, "/no-such-thing"), 404);

    const nlohmann::json leader = Json(one);
    EXPECT_EQ(leader.at("election"), kElection);
    EXPECT_EQ(leader.at("identity"), "alpha");
    EXPECT_EQ(leader.at("role"), "leader");
    EXPECT_EQ(leader.at("node"), Queue().front());
    EXPECT_EQ(leader.at("epoch"), start.epoch);
    EXPECT_EQ(leader.at("command_pid"), start.process);
    EXPECT_EQ(leader.at("queue_length"), 2);
    EXPECT_EQ(leader.at("session").at("state"), "connected");
    const nlohmann::json next = Json(two);
    EXPECT_EQ(next.at("role"), "next leader");
    EXPECT_TRUE(next.at("epoch").is_null());
    EXPECT_TRUE(next.at("command_pid").is_null());

    EndInOrder(first);
    AwaitStatus(two, "/leader", 200);
    AwaitRecord("start", 2);
    EXPECT_EQ(Status(two, "/next"), 503);
    EXPECT_EQ(Status(one, "/leader"), 0);
    EndInOrder(second);
}

TEST_F(RunHttp, GivesFiguresInTheTextFormat)
{
    RunningProgram& program = Join({"--http", "0"}, Service());
    const Record start = AwaitRecord("start");
    httplib::Client client = Client(program);
    AwaitStatus(client, "/leader", 200);
    const httplib::Result result = client.Get("/metrics");
    ASSERT_EQ(result->status, 200);
    EXPECT_THAT(result->get_header_value("Content-Type"), HasSubstr("text/plain"));
    EXPECT_THAT(result->get_header_value("Content-Type"), HasSubstr("version=0.0.4"));
    for (const std::string line :
         {"# TYPE velmor_role gauge\n", "velmor_role{role=\"leader\"} 1\n", "velmor_role{role=\"follower\"} 0\n",
          "velmor_session_state{state=\"connected\"} 1\n", "# TYPE velmor_losses_total counter\n",
          "velmor_handovers_total 1\n", "velmor_commands_started_total 1\n", "velmor_queue_length 1\n",
          "# TYPE velmor_check_seconds histogram\n"})
    {
        EXPECT_THAT(result->body, HasSubstr(line));
    }
    EXPECT_THAT(result->body, HasSubstr("velmor_epoch " + std::to_string(start.epoch) + "\n"));
    EXPECT_THAT(result->body, HasSubstr("velmor_lease_left_seconds "));
    // Every line is a comment, or a name with a value.
    std::istringstream lines(result->body);
    for (std::string line; std::getline(lines, line);)
    {
        EXPECT_TRUE(line.rfind("# HELP velmor_", 0) == 0 || line.rfind("# TYPE velmor_", 0) == 0 ||
                    (line.rfind("velmor_", 0) == 0 && line.find(' ') != std::string::npos))
            << line;
    }
    EndInOrder(program);
}

TEST_F(RunHttp, CountsLeadershipsThatAreLost)
{
    RunningProgram& program = Join({"--http", "0", "--restart", "always"}, Service());
    AwaitRecord("start");
    httplib::Client client = Client(program);
    ASSERT_TRUE(Tree().Delete(std::string(kElection) + "/" + Queue().front()));
    AwaitRecord("start", 2);
    Await("both are counted", [&] {
        const httplib::Result result = client.Get("/metrics");
        return result->body.find("velmor_losses_total{reason=\"node deleted\"} 1\n") != std::string::npos &&
               result->body.find("velmor_handovers_total 2\n") != std::string::npos;
    });
    EndInOrder(program);
}

TEST_F(RunHttp, AnswersBeforeThereIsAServer)
{
    server_.Kill();
    RunningProgram& program = Run({"--http", "0"}, Service());
    httplib::Client client = Client(program);
    EXPECT_EQ(Status(client, "/leader"), 503);
    EXPECT_EQ(Status(client, "/next"), 503);
    EXPECT_EQ(Json(client).at("role"), "joining");
    EXPECT_TRUE(Json(client).at("queue_length").is_null());
    EXPECT_EQ(Status(client, "/metrics"), 200);
    program.Signal(SIGTERM);
    EXPECT_EQ(program.AwaitExit(), OfSignal(SIGTERM));
}

TEST_F(RunHttp, DoesNotSayThatItLeadsWhenItsConnectionHasFallenSilent)
{
    Proxy proxy(server_.Address());
    RunningProgram& program =
        RunBehind(proxy, {"--session-timeout", "2s", "--http", "0", "--restart", "always"}, Service());
    AwaitRecord("start");
    httplib::Client client = Client(program);
    AwaitStatus(client, "/leader", 200);
    proxy.BlackHole();
    AwaitStatus(client, "/leader", 503);
    EXPECT_EQ(Status(client, "/metrics"), 200);
    proxy.Heal();
    AwaitStatus(client, "/leader", 200);
    AwaitRecord("start", 2);
    EndInOrder(program);
}

TEST_F(RunHttp, RefusesAPortThatIsTaken)
{
    RunningProgram& first = Join({"--http", "0"}, Service());
    AwaitRecord("start");
    const std::string address = "127.0.0.1:" + std::to_string(Port(first));
    RunningProgram& second = Run({"--http", address}, Service());
    EXPECT_EQ(second.AwaitExit(), 64);
    EXPECT_THAT(second.Errors(), HasSubstr(address));
    EndInOrder(first);
    EXPECT_THAT(Queue(), IsEmpty());
}

TEST_F(RunHttp, EndsWithAClientThatSaysNothing)
{
    RunningProgram& program = Join({"--http", "0"}, Service());
    AwaitRecord("start");
    const int port = Port(program);
    // Connected, and as silent as a scanner of ports.
    std::vector<std::string> quiet{"bash", "-c", "exec 3<>/dev/tcp/127.0.0.1/" + std::to_string(port) + "; sleep 60"};
    process::ChildProcess client({quiet, Directory() / "client", {}});
    program.Signal(SIGTERM);
    EXPECT_EQ(program.AwaitExit(), 0);
    EXPECT_THAT(Queue(), IsEmpty());
}

}  // namespace
}  // namespace kx::velmor::cli
