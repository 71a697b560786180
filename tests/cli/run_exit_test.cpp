// What `velmor run` ends with.
#include "tests/cli/program_fixture.h"
#include "tests/support/network.h"

#include <kx/velmor/session.h>

#include <gmock/gmock.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

namespace kx::velmor::cli {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class RunExit : public ProgramFixture
{
protected:
    std::filesystem::path Write(const std::string& name, const std::string& content) const
    {
        const std::filesystem::path file = Directory() / name;
        std::ofstream(file) << content;
        return file;
    }

    /// Makes a node in which not everybody may make others.
    void Make(const std::string& path, const AccessRule& rule, const std::string& credentials = {}) const
    {
        SessionOptions options;
        options.servers = server_.Address();
        options.digestCredentials = credentials;
        options.accessList = {rule};
        ASSERT_EQ(Session::Open(options)->Create(path, "", ZOO_OPEN_ACL_UNSAFE, 0, nullptr), ZOK);
    }
    void MakeReadOnly(const std::string& path) const { Make(path, {ZOO_PERM_READ, "world", "anyone"}); }
};

TEST_F(RunExit, EndsWithZeroWhenTheCommandDoes)
{
    RunningProgram& program = Run({}, Service({"after=0"}));
    EXPECT_EQ(program.AwaitExit(), 0);
    EXPECT_THAT(Records("start"), SizeIs(1));
    // Nobody has to wait for its session's end.
    EXPECT_THAT(Queue(), IsEmpty());
}

TEST_F(RunExit, EndsWithTheStatusOfTheCommand)
{
    RunningProgram& program = Run({}, Service({"after=20", "status=7"}));
    EXPECT_EQ(program.AwaitExit(), 7);
    EXPECT_THAT(Queue(), IsEmpty());
}

TEST_F(RunExit, EndsLikeAShellWhenTheCommandDiesOfASignal)
{
    for (const int signal : {SIGKILL, SIGUSR1, SIGPIPE})
    {
        RunningProgram& program = Run({}, Service({"after=0", "die=" + std::to_string(signal)}));
        EXPECT_EQ(program.AwaitExit(), OfSignal(signal));
    }
    EXPECT_THAT(Queue(), IsEmpty());
}

TEST_F(RunExit, LeavesOutputAndErrorsToTheCommand)
{
    RunningProgram& program = Run({}, {"sh", "-c", "echo to the output; echo to the errors >&2"});
    EXPECT_EQ(program.AwaitExit(), 0);
    EXPECT_EQ(program.Output(), "to the output\n");
    EXPECT_THAT(program.Errors(), HasSubstr("to the errors\n"));
}

TEST_F(RunExit, FindsNoCommandOfThatName)
{
    RunningProgram& program = Run({}, {"no-command-has-this-name"});
    EXPECT_EQ(program.AwaitExit(), 127);
    EXPECT_THAT(program.Errors(), HasSubstr("no-command-has-this-name"));
    EXPECT_THAT(Queue(), IsEmpty());
}

TEST_F(RunExit, FindsNoCommandAtThatPath)
{
    RunningProgram& program = Run({}, {Directory() / "not-there"});
    EXPECT_EQ(program.AwaitExit(), 127);
    EXPECT_THAT(Queue(), IsEmpty());
}

TEST_F(RunExit, CannotExecuteWhatIsNoProgram)
{
    RunningProgram& program = Run({}, {Write("plain", "not to be executed\n")});
    EXPECT_EQ(program.AwaitExit(), 126);
    EXPECT_THAT(program.Errors(), HasSubstr((Directory() / "plain").string()));
    EXPECT_THAT(Queue(), IsEmpty());
}

TEST_F(RunExit, CannotExecuteADirectory)
{
    RunningProgram& program = Run({}, {Directory()});
    EXPECT_EQ(program.AwaitExit(), 126);
    EXPECT_THAT(Queue(), IsEmpty());
}

TEST_F(RunExit, GivesUpWhenNoServerHasAnsweredInTheTimeToWait)
{
    const std::string nobody = testing_support::LoopbackAddress(testing_support::ChooseFreePort());
    RunningProgram& program = Run({"--servers", nobody, "--wait", "300ms"}, Service());
    EXPECT_EQ(program.AwaitExit(), 69);
    EXPECT_THAT(program.Errors(), HasSubstr(nobody));
    EXPECT_THAT(Records(), IsEmpty());
}

TEST_F(RunExit, GivesUpWhenNoServerHasAnsweredInTheTimeToConnect)
{
    const std::string nobody = testing_support::LoopbackAddress(testing_support::ChooseFreePort());
    RunningProgram& program = Run({"--servers", nobody, "--connect-timeout", "300ms"}, Service());
    EXPECT_EQ(program.AwaitExit(), 69);
    EXPECT_THAT(Records(), IsEmpty());
}

TEST_F(RunExit, GivesUpWhenItIsNotElectedInTheTimeToWait)
{
    RunningProgram& leader = Join({}, Service());
    AwaitRecord("start");
    RunningProgram& other = Run({"--wait", "500ms"}, Service());
    EXPECT_EQ(other.AwaitExit(), 75);
    EXPECT_THAT(Queue(), SizeIs(1));
    EXPECT_TRUE(leader.Running());
    EXPECT_THAT(Records("start"), SizeIs(1));
}

TEST_F(RunExit, IsInNoHurryAnyMoreOnceItLeads)
{
    RunningProgram& program = Run({"--wait", "1s"}, Service({"after=2000", "status=3"}));
    EXPECT_EQ(program.AwaitExit(), 3);
}

TEST_F(RunExit, SaysWhenItHasLostTheLead)
{
    RunningProgram& program = Join({}, Service());
    AwaitRecord("start");
    ASSERT_TRUE(Tree().Delete(std::string(kElection) + "/" + Queue().front()));
    EXPECT_EQ(program.AwaitExit(), 76);
    EXPECT_THAT(Records("signal", std::to_string(SIGTERM)), SizeIs(1));
}

TEST_F(RunExit, IsNotPermittedToJoin)
{
    MakeReadOnly("/locked");
    RunningProgram& program = Run({"--root", "/locked"}, Service());
    EXPECT_EQ(program.AwaitExit(), 77);
    EXPECT_THAT(Records(), IsEmpty());
}

TEST_F(RunExit, IsNotPermittedToJoinAndDoesNotTryAgain)
{
    MakeReadOnly("/locked");
    RunningProgram& program = Run({"--root", "/locked", "--restart", "always"}, Service());
    EXPECT_EQ(program.AwaitExit(), 77);
}

TEST_F(RunExit, JoinsWithItsCredentialsAndNotWithoutThem)
{
    Make("/own", {ZOO_PERM_ALL, "auth", ""}, "billing:secret");
    const std::filesystem::path file = Write("digest", "billing:secret\n");
    std::filesystem::permissions(file, std::filesystem::perms::owner_read);
    RunningProgram& known = Run({"--root", "/own", "--digest-file", file}, Service({"after=0", "status=5"}));
    EXPECT_EQ(known.AwaitExit(), 5);
    EXPECT_THAT(known.Errors(), ::testing::Not(HasSubstr("secret")));
    // What the first one has made is open; what it stands in is not.
    RunningProgram& unknown = Run({"--root", "/own", "--election", "/another"}, Service());
    EXPECT_EQ(unknown.AwaitExit(), 77);
}

TEST_F(RunExit, RefusesAConfigurationFileThatIsNotThere)
{
    const std::filesystem::path file = Directory() / "no-such-file.conf";
    RunningProgram& program = Run({"--config", file}, Service());
    EXPECT_EQ(program.AwaitExit(), 78);
    EXPECT_THAT(program.Errors(), HasSubstr(file.string()));
}

TEST_F(RunExit, RefusesAConfigurationFileWithAKeyThatItDoesNotKnow)
{
    const std::filesystem::path file = Write("velmor.conf", "election-pth = \"/x\"\n");
    RunningProgram& program = Run({"--config", file}, Service());
    EXPECT_EQ(program.AwaitExit(), 78);
    EXPECT_THAT(program.Errors(), HasSubstr("election-pth"));
    EXPECT_THAT(program.Errors(), HasSubstr(file.string()));
}

TEST_F(RunExit, ReadsItsOptionsFromAFileAndFromTheEnvironment)
{
    const std::filesystem::path file =
        Write("velmor.conf",
              "servers = \"" + server_.Address() + "\"\nelection = \"/from/file\"\n[run]\nidentity = \"told\"\n");
    Surroundings surroundings;
    surroundings.environment = {{"VELMOR_CONFIG", file}, {"VELMOR_ELECTION", "/from/environment"}};
    std::vector<std::string> arguments{"run", "--"};
    for (const std::string& word : Service({"after=0", "environment"}))
    {
        arguments.push_back(word);
    }
    RunningProgram& program = Start(arguments, surroundings);
    EXPECT_EQ(program.AwaitExit(), 0);
    EXPECT_THAT(Records("environment", "VELMOR_IDENTITY=told"), SizeIs(1));
    EXPECT_THAT(Records("environment", "VELMOR_ELECTION=/from/environment"), SizeIs(1));
}

/// What makes no sense, and what the message about it names.
struct Nonsense
{
    const char* name;
    std::vector<std::string> arguments;
    const char* named;
};

/// For the test's name.
void PrintTo(const Nonsense& nonsense, std::ostream* stream)
{
    *stream << nonsense.name;
}

class RunNonsense : public ProgramFixture, public ::testing::WithParamInterface<Nonsense>
{
protected:
    RunNonsense() : ProgramFixture(false) {}
};

TEST_P(RunNonsense, IsRefusedAtOnceWithTheOptionsName)
{
    RunningProgram& program = Start(GetParam().arguments);
    EXPECT_EQ(program.AwaitExit(), 64);
    EXPECT_THAT(program.Errors(), HasSubstr(GetParam().named));
    EXPECT_EQ(program.Output(), "");
}

INSTANTIATE_TEST_SUITE_P(
    That, RunNonsense,
    ::testing::Values(
        Nonsense{"HasNoSubcommand", {}, "subcommand"},
        Nonsense{"HasNoCommand", {"run", "--servers", "127.0.0.1:1", "--election", "/e"}, "command"},
        Nonsense{"HasNoServers", {"run", "--election", "/e", "--", "true"}, "--servers"},
        Nonsense{"HasNoElection", {"run", "--servers", "127.0.0.1:1", "--", "true"}, "--election"},
        Nonsense{
            "HasServersWithoutAPort", {"run", "--servers", "localhost", "--election", "/e", "--", "true"}, "localhost"},
        Nonsense{"HasAnElectionThatIsNoPath",
                 {"run", "--servers", "127.0.0.1:1", "--election", "/a/../..", "--", "true"},
                 "/a/../.."},
        Nonsense{"HasAnUnknownOption",
                 {"run", "--servers", "127.0.0.1:1", "--election", "/e", "--no-such", "--", "true"},
                 "--no-such"},
        Nonsense{"HasADurationWithoutAUnit",
                 {"run", "--servers", "127.0.0.1:1", "--election", "/e", "--grace", "10", "--", "true"},
                 "--grace"},
        Nonsense{"HasASessionTimeoutOfNothing",
                 {"run", "--servers", "127.0.0.1:1", "--election", "/e", "--session-timeout", "0s", "--", "true"},
                 "--session-timeout"},
        Nonsense{"HasAnUnknownPolicy",
                 {"run", "--servers", "127.0.0.1:1", "--election", "/e", "--restart", "sometimes", "--", "true"},
                 "--restart"},
        Nonsense{"HasARoleFileForACommandThatHearsNoRoles",
                 {"run", "--servers", "127.0.0.1:1", "--election", "/e", "--role-file", "/tmp/x", "--", "true"},
                 "--standby"},
        Nonsense{"HasAPortThatIsNone",
                 {"run", "--servers", "127.0.0.1:1", "--election", "/e", "--http", "99999", "--", "true"},
                 "--http"}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace kx::velmor::cli
