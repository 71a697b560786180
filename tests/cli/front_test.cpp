#include "cli/front.h"

#include "cli/exit_status.h"
#include "tests/cli/front_fixture.h"

#include <kx/logging/default_library.h>
#include <kx/velmor/error.h>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <zookeeper/zookeeper.h>

#include <stdexcept>

namespace kx::velmor::cli {
namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using namespace std::chrono_literals;

const std::string kHint = "Try 'velmor probe --help'.\n";

TEST_F(FrontTest, CommonOptionsMayStandBeforeTheSubcommandAndBehindIt)
{
    EXPECT_EQ(Run({"--servers", "a:1,b:2", "probe", "--election", "/e", "--grace=1.5m", "--root=/r"}), 0);
    EXPECT_EQ(settings_->servers, "a:1,b:2");
    EXPECT_EQ(settings_->election, "/e");
    EXPECT_EQ(settings_->root, "/r");
    EXPECT_EQ(probe_.grace, 90s);
    EXPECT_EQ(Out() + Err(), "");
}

TEST_F(FrontTest, OfSeveralTheLastCountsAndServersAddUp)
{
    EXPECT_EQ(RunProbe({"--election", "/other", "--name", "a", "--name", "b", "--grace", "1s", "--grace", "2s",
                        "--servers", "two:2181"}),
              0);
    EXPECT_EQ(settings_->election, "/other");
    EXPECT_EQ(probe_.name, "b");
    EXPECT_EQ(probe_.grace, 2s);
    EXPECT_EQ(settings_->servers, "one:2181,two:2181");
}

TEST_F(FrontTest, TheCommandIsTakenWordForWord)
{
    const Arguments command{"program", "[a,b]", "", "{}", "%%", "--", "--servers", "-h", "status", "a=b c", "--x="};
    Arguments arguments{"--servers=a:1", "--election=/e", "other", "--pause", "2s", "--"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    EXPECT_EQ(Run(arguments), 0) << Err();
    EXPECT_EQ(chosen_, "other");
    EXPECT_EQ(settings_->command, command);
}

TEST_F(FrontTest, DefaultsAreThoseOfTheSubcommand)
{
    defaults_.election = "/its/own";
    defaults_.sessionTimeout = 2s;
    defaults_.connectTimeout.reset();
    defaults_.logLevel = logging::LogLevel::Error;
    EXPECT_EQ(Run({"probe", "--servers", "a:1"}), 0) << Err();
    EXPECT_EQ(settings_->election, "/its/own");
    EXPECT_EQ(settings_->sessionTimeout, 2s);
    EXPECT_EQ(settings_->connectTimeout, std::nullopt);
    EXPECT_EQ(logging::g_minLogLevel.load(), static_cast<std::int32_t>(logging::LogLevel::Error));
}

TEST_F(FrontTest, EmptyVariablesAreNone)
{
    SetEnvironment("VELMOR_GRACE", "");
    SetEnvironment("VELMOR_ROOT", "");
    EXPECT_EQ(RunProbe({}), 0) << Err();
    EXPECT_EQ(probe_.grace, 10s);
}

TEST_F(FrontTest, EmptyValuesOnTheCommandLineAreValues)
{
    SetEnvironment("VELMOR_NAME", "variable");
    SetEnvironment("VELMOR_ROOT", "/variable");
    EXPECT_EQ(RunProbe({"--name=", "--root="}), 0) << Err();
    EXPECT_EQ(probe_.name, "");
    EXPECT_EQ(settings_->root, "");
    EXPECT_EQ(RunProbe({"--name", "", "--root", ""}), 0) << Err();
    EXPECT_EQ(probe_.name, "");
    EXPECT_EQ(settings_->root, "");
}

TEST_F(FrontTest, VariablesOfOtherSubcommandsDoNotMatter)
{
    SetEnvironment("VELMOR_PAUSE", "nonsense");
    EXPECT_EQ(RunProbe({}), 0) << Err();
}

TEST_F(FrontTest, SwitchesInTheEnvironmentTakeTheUsualWords)
{
    for (const auto& [text, expected] :
         std::map<std::string, bool>{{"1", true}, {"yes", true}, {"on", true}, {"0", false}, {"no", false}})
    {
        SetEnvironment("VELMOR_QUICK", text);
        EXPECT_EQ(RunProbe({}), 0) << Err();
        EXPECT_EQ(probe_.quick, expected) << text;
    }
}

TEST_F(FrontTest, TheStatusOfTheSubcommandIsThatOfTheProgram)
{
    body_ = [] { return 42; };
    EXPECT_EQ(RunProbe({}), 42);
}

struct Thrown
{
    std::function<void()> what;
    int status;
    std::string text;
};

TEST_F(FrontTest, WhatTheSubcommandThrowsBecomesAMessageAndAStatus)
{
    const std::vector<Thrown> all{
        {[] { throw Failure(kNotElected, "somebody else leads"); }, 75, "somebody else leads\n"},
        {[] { throw ZooError(ZOPERATIONTIMEOUT); }, 69, "operation timeout\n"},
        {[] { throw ZooError(ZCONNECTIONLOSS); }, 69, "connection loss\n"},
        {[] { throw ZooError(ZNOAUTH); }, 77, "not authenticated\n"},
        {[] { throw ZooError(ZAUTHFAILED); }, 77, "authentication failed\n"},
        {[] { throw ZooError(ZBADARGUMENTS); }, 64, "bad arguments\n" + kHint},
        {[] { throw ZooError(ZNODEEXISTS); }, 70, "node exists\n"},
        {[] { throw std::runtime_error("out of luck"); }, 70, "out of luck\n"}};
    for (const Thrown& thrown : all)
    {
        body_ = [&thrown] {
            thrown.what();
            return 0;
        };
        EXPECT_EQ(RunProbe({}), thrown.status) << thrown.text;
        EXPECT_EQ(Err(), "velmor probe: " + thrown.text);
    }
}

TEST_F(FrontTest, WithALogInJsonTheMessageAtTheEndIsAnObjectToo)
{
    body_ = []() -> int { throw Failure(kUnavailable, "no \"server\"\nanswered"); };
    EXPECT_EQ(RunProbe({"--log-format", "json", "--log-level", "off"}), kUnavailable);
    const nlohmann::json object = nlohmann::json::parse(Err());
    EXPECT_EQ(object.at("level"), "error");
    EXPECT_EQ(object.at("text"), "no \"server\"\nanswered");
    EXPECT_EQ(Err().find('\n'), Err().size() - 1);
    // Before the log is set up there is no such format yet.
    EXPECT_EQ(RunProbe({"--log-format", "json", "--grace", "x"}), kUsage);
    EXPECT_THAT(Err(), StartsWith("velmor probe: --grace: "));
}

TEST_F(FrontTest, HelpAndVersionGoToStandardOutputWhateverElseIsMissing)
{
    Write(SystemFile(), "nonsense = 1\n");
    SetEnvironment("VELMOR_GRACE", "nonsense");
    for (const Arguments& arguments : {Arguments{"--help"}, Arguments{"-h"}, Arguments{"probe", "--help"},
                                       Arguments{"--version"}, Arguments{"probe", "--version"}})
    {
        EXPECT_EQ(Run(arguments), 0) << Err();
        EXPECT_EQ(Err(), "");
        EXPECT_NE(Out(), "");
        EXPECT_FALSE(settings_);
    }
    EXPECT_THAT(Out(), testing::MatchesRegex("velmor [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

std::vector<std::string> Lines(const std::string& text)
{
    return CLI::detail::split(text, '\n');
}

TEST_F(FrontTest, HelpOfASubcommandHasItsOptionsAndTheCommonOnes)
{
    EXPECT_EQ(Run({"probe", "--help"}), 0);
    EXPECT_THAT(Out(), StartsWith("Usage: velmor probe [OPTIONS]\nNotes what it is given. And says so at length.\n"));
    EXPECT_THAT(Out(), HasSubstr("\n  --grace DURATION        How long (default: 10s)\n"));
    EXPECT_THAT(Out(), HasSubstr("\n  --mode calm|hasty       How\n"));
    EXPECT_THAT(Out(), HasSubstr("\n  --quick                 Whether at once\n"));
    EXPECT_THAT(Out(), HasSubstr("\n  --servers HOST:PORT,...\n"));
    EXPECT_THAT(Out(), HasSubstr("\n  -h,--help "));
    EXPECT_THAT(Out(), testing::EndsWith("\n\nWords that are put together in lines of their own, as long as they may "
                                         "be, and\nno longer.\n\nExamples:\n  velmor   probe\n"));
    EXPECT_THAT(Lines(Out()), Each(SizeIs(testing::Le(80U))));
}

TEST_F(FrontTest, HelpOfTheProgramHasASentenceForEachSubcommand)
{
    EXPECT_EQ(Run({"--help"}), 0);
    EXPECT_THAT(Out(), StartsWith("Usage: velmor SUBCOMMAND [OPTIONS]\n"));
    EXPECT_THAT(Out(), HasSubstr("\n  probe                   Notes what it is given\n"));
    EXPECT_THAT(Out(), HasSubstr("\n  other                   Takes a command\n"));
    EXPECT_THAT(Lines(Out()), Each(SizeIs(testing::Le(80U))));
}

TEST_F(FrontTest, HelpOfASubcommandThatTakesACommandSaysWhere)
{
    EXPECT_EQ(Run({"other", "--help"}), 0);
    EXPECT_THAT(Out(), StartsWith("Usage: velmor other [OPTIONS] -- COMMAND [ARGUMENTS]\n"));
}

/// What is wrong, where, and what is said about it.
struct Mistake
{
    std::vector<std::string> arguments;
    std::string message;
    std::map<std::string, std::string> environment{};
};

class MistakeTest : public FrontTest, public testing::WithParamInterface<Mistake>
{};

TEST_P(MistakeTest, IsToldInOneLineWithAHint)
{
    for (const auto& [name, value] : GetParam().environment)
    {
        SetEnvironment(name, value);
    }
    EXPECT_EQ(RunProbe(GetParam().arguments), kUsage);
    EXPECT_EQ(Err(), "velmor probe: " + GetParam().message + "\n" + kHint);
    EXPECT_EQ(Out(), "");
    EXPECT_FALSE(settings_);
}

const std::string kNoDuration = " is no duration: write a number and ms, s, m or h, as in 500ms or 10s";
const std::string kNoServer = " is no server: write host:port, or [address]:port for IPv6, with commas between them";

INSTANTIATE_TEST_SUITE_P(
    Of, MistakeTest,
    testing::Values(
        Mistake{{"--grace", "10"}, "--grace: \"10\"" + kNoDuration},
        Mistake{{"--grace=-1s"}, "--grace: \"-1s\"" + kNoDuration},
        Mistake{{"--limit", "0s"}, "--limit: \"0s\" is too short: the least is 1ms"},
        Mistake{{}, "VELMOR_GRACE: \"10\"" + kNoDuration, {{"VELMOR_GRACE", "10"}}},
        Mistake{{"--session-timeout", "0ms"}, "--session-timeout: \"0ms\" is too short: the least is 1ms"},
        Mistake{{"--connect-timeout", "600h"}, "--connect-timeout: 600h is too long: the most is 596h"},
        Mistake{{}, "VELMOR_SESSION_TIMEOUT: \"soon\"" + kNoDuration, {{"VELMOR_SESSION_TIMEOUT", "soon"}}},
        Mistake{{"--count", "many"}, "--count: \"many\" is no whole number"},
        Mistake{{}, "VELMOR_COUNT: \"many\" is no whole number", {{"VELMOR_COUNT", "many"}}},
        Mistake{{"--mode", "wild"}, "--mode: \"wild\" is none of calm, hasty"},
        Mistake{{}, "VELMOR_MODE: \"wild\" is none of calm, hasty", {{"VELMOR_MODE", "wild"}}},
        Mistake{{}, "VELMOR_QUICK: \"maybe\" is neither true nor false", {{"VELMOR_QUICK", "maybe"}}},
        Mistake{{"--quick=maybe"}, "--quick: \"maybe\" is neither true nor false"},
        Mistake{{"--log-level", "loud"}, "--log-level: \"loud\" is none of debug, info, warning, error, off"},
        Mistake{{"--log-format", "xml"}, "--log-format: \"xml\" is none of text, json"},
        Mistake{{"--name"}, "--name: the value is missing"}, Mistake{{"--grace"}, "--grace: the value is missing"},
        Mistake{{"--servers="}, "--servers: \"\"" + kNoServer},
        Mistake{{"--grce", "1s"}, "unknown option --grce; did you mean --grace?"},
        Mistake{{"--sesion-timeout=1s"}, "unknown option --sesion-timeout; did you mean --session-timeout?"},
        Mistake{{"--colour"}, "unknown option --colour"}, Mistake{{"-x"}, "unknown option -x"},
        Mistake{{"word"}, "unexpected argument \"word\""}, Mistake{{"other"}, "unexpected argument \"other\""},
        Mistake{{""}, "unexpected argument \"\""}, Mistake{{"--", "sleep"}, "it takes no command, and so no --"},
        Mistake{{"--with-quick"}, "--with-quick makes sense only with --quick"},
        Mistake{{"--with-quick", "--quick", "--apart", "x"}, "--apart and --with-quick exclude each other"},
        Mistake{{"--election", "a/b"}, "--election: \"a/b\" is no absolute path: did you mean \"/a/b\"?"},
        Mistake{{"--election", "/a//b/"}, "--election: \"/a//b/\" is no absolute path: did you mean \"/a/b\"?"},
        Mistake{{"--election", "/"}, "--election: \"/\" is no absolute path, such as /services/billing"},
        Mistake{{"--root", "/a/../b"}, "--root: \"/a/../b\" is no absolute path, such as /services/billing"},
        Mistake{{}, "VELMOR_ROOT: \"apps\" is no absolute path: did you mean \"/apps\"?", {{"VELMOR_ROOT", "apps"}}},
        Mistake{{"--servers", "zk"}, "--servers: \"zk\"" + kNoServer},
        Mistake{{"--servers", ":2181"}, "--servers: \":2181\"" + kNoServer},
        Mistake{{"--servers", "a:1,,b:2"}, "--servers: \"\"" + kNoServer},
        Mistake{{"--servers", "a:1, b:2"}, "--servers: \" b:2\"" + kNoServer},
        Mistake{{"--servers", "a:1/apps"}, "--servers: \"a:1/apps\": the port must be a number from 1 to 65535"},
        Mistake{{"--servers", "::1:2181"}, "--servers: \"::1:2181\"" + kNoServer},
        Mistake{{"--servers", "a:0"}, "--servers: \"a:0\": the port must be a number from 1 to 65535"},
        Mistake{{"--servers", "a:65536"}, "--servers: \"a:65536\": the port must be a number from 1 to 65535"},
        Mistake{{"--config", "/does/not/exist", "--grace", "x"}, "--grace: \"x\"" + kNoDuration},
        Mistake{{"--digest-file", "/does/not/exist"}, "--digest-file: /does/not/exist: No such file or directory"}));

TEST_F(FrontTest, ServersOfEveryKindAreTaken)
{
    const std::string servers = "zk-1.example:2181,10.0.0.1:1,[::1]:65535";
    EXPECT_EQ(Run({"probe", "--election=/e", "--servers", servers}), 0) << Err();
    EXPECT_EQ(settings_->servers, servers);
}

TEST_F(FrontTest, WithoutASubcommandOneIsAskedFor)
{
    EXPECT_EQ(Run({}), kUsage);
    EXPECT_EQ(Err(), "velmor: a subcommand is missing\nTry 'velmor --help'.\n");
    EXPECT_EQ(Run({"prob"}), kUsage);
    EXPECT_EQ(Err(), "velmor: unknown subcommand \"prob\"; did you mean probe?\nTry 'velmor --help'.\n");
    EXPECT_EQ(Run({"--servres", "a:1"}), kUsage);
    EXPECT_EQ(Err(), "velmor: unknown option --servres; did you mean --servers?\nTry 'velmor --help'.\n");
}

TEST_F(FrontTest, ACommandIsAskedForWhereOneIsTaken)
{
    const Arguments before{"--servers=a:1", "--election=/e", "other"};
    const std::string where =
        "the command stands behind --, as in velmor run -- sleep 60\nTry 'velmor other --help'.\n";
    for (const Arguments& more : {Arguments{}, Arguments{"--"}})
    {
        Arguments arguments = before;
        arguments.insert(arguments.end(), more.begin(), more.end());
        EXPECT_EQ(Run(arguments), kUsage);
        EXPECT_EQ(Err(), "velmor other: no command: " + where);
    }
    Arguments arguments = before;
    arguments.emplace_back("sleep");
    EXPECT_EQ(Run(arguments), kUsage);
    EXPECT_EQ(Err(), "velmor other: unexpected argument \"sleep\": " + where);
}

TEST_F(FrontTest, WhatIsMissingIsAskedForWithItsThreeWays)
{
    EXPECT_EQ(Run({"probe"}), kUsage);
    EXPECT_EQ(
        Err(),
        "velmor probe: --servers is missing: write --servers HOST:PORT,..., or set VELMOR_SERVERS, or \"servers\" "
        "in a configuration file\n" +
            kHint);
    EXPECT_EQ(Run({"probe", "--servers", "a:1"}), kUsage);
    EXPECT_THAT(Err(),
                StartsWith("velmor probe: --election is missing: write --election PATH, or set VELMOR_ELECTION"));
    neededIsRequired_ = true;
    EXPECT_EQ(RunProbe({}), kUsage);
    EXPECT_EQ(Err(),
              "velmor probe: --needed is missing: write --needed THING, or set VELMOR_NEEDED, or \"needed\" in a "
              "configuration file\n" +
                  kHint);
}

TEST_F(FrontTest, WhatMustBeGivenMayComeFromTheEnvironmentOrAFile)
{
    neededIsRequired_ = true;
    SetEnvironment("VELMOR_NEEDED", "this");
    EXPECT_EQ(RunProbe({}), 0) << Err();
    EXPECT_EQ(probe_.needed, "this");
    unsetenv("VELMOR_NEEDED");
    Write(SystemFile(), "[probe]\nneeded = that\n");
    EXPECT_EQ(RunProbe({}), 0) << Err();
    EXPECT_EQ(probe_.needed, "that");
}

TEST_F(FrontTest, WhatAnOptionTakesAnotherForMayComeFromElsewhere)
{
    Write(SystemFile(), "[probe]\nquick = true\n");
    EXPECT_EQ(RunProbe({"--with-quick"}), 0) << Err();
    SetEnvironment("VELMOR_APART", "x");
    EXPECT_EQ(RunProbe({"--with-quick"}), kUsage);
    EXPECT_THAT(Err(), HasSubstr("exclude each other"));
}

TEST_F(FrontTest, AStandardOutputThatCannotBeWrittenIsToldOf)
{
    std::ofstream full("/dev/full");
    std::ostringstream err;
    EXPECT_EQ(Front(full, err, SystemFile()).Run({"--help"}), kInternal);
    EXPECT_EQ(err.str(), "velmor: standard output cannot be written\n");
}

}  // namespace
}  // namespace kx::velmor::cli
