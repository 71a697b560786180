#include "cli/config_file.h"

#include "cli/exit_status.h"
#include "tests/cli/front_fixture.h"

#include <gmock/gmock.h>

namespace kx::velmor::cli {
namespace {

using testing::HasSubstr;
using testing::Not;
using namespace std::chrono_literals;

class ConfigFileTest : public FrontTest
{
protected:
    /// Runs `probe` with a file of that text.
    int RunWith(const std::string& text, Arguments arguments = {})
    {
        arguments.insert(arguments.end(), {"--config", Write(File(), text)});
        return RunProbe(arguments);
    }

    std::string File() const { return SystemFile().string() + ".other"; }
};

TEST_F(ConfigFileTest, ValuesWithAndWithoutQuotesAndCommentsAreRead)
{
    EXPECT_EQ(RunWith("# Who.\n"
                      "; As well.\n"
                      "root = /apps/x   # where\n"
                      "log-level=\"error\"\n"
                      "\n"
                      "[probe]  # its own\n"
                      "grace = 2m\n"
                      "name = \"a, b # c's\"  # d\n"
                      "apart = 'say \"x\"'\n"
                      "quick\n"
                      "[other]\n"
                      "pause = 3s\n"),
              0)
        << Err();
    EXPECT_EQ(settings_->root, "/apps/x");
    EXPECT_EQ(probe_.grace, 2min);
    EXPECT_EQ(probe_.name, "a, b # c's");
    EXPECT_EQ(probe_.apart, "say \"x\"");
    EXPECT_TRUE(probe_.quick);
}

TEST_F(ConfigFileTest, ServersMayBeATextWithCommasOrAList)
{
    for (const char* const text : {"servers = \"a:1,b:2\"", "servers = a:1,b:2", "servers = [\"a:1\", \"b:2\"]",
                                   "servers = [\n  \"a:1\",\n  \"b:2\"\n]"})
    {
        EXPECT_EQ(Run({"probe", "--election=/e", "--config", Write(File(), text)}), 0) << Err();
        EXPECT_EQ(settings_->servers, "a:1,b:2") << text;
    }
}

TEST_F(ConfigFileTest, ACommonOptionInTheSectionOfTheSubcommandGoesBeforeOneOutside)
{
    EXPECT_EQ(RunWith("root = /a\n[other]\nroot = /b\n[probe]\nroot = /c\n"), 0) << Err();
    EXPECT_EQ(settings_->root, "/c");
    EXPECT_EQ(RunWith("root = /a\n[other]\nroot = /b\n"), 0) << Err();
    EXPECT_EQ(settings_->root, "/a");
}

TEST_F(ConfigFileTest, TheUsersFileGoesBeforeTheSystemsAndLeavesItTheRest)
{
    Write(SystemFile(), "root = /system\n[probe]\nname = system\ngrace = 1s\n");
    Write(UserFile(), "[probe]\nname = user\n");
    EXPECT_EQ(RunProbe({}), 0) << Err();
    EXPECT_EQ(probe_.name, "user");
    EXPECT_EQ(probe_.grace, 1s);
    EXPECT_EQ(settings_->root, "/system");
}

TEST_F(ConfigFileTest, TheUsersFileIsFoundInTheirHomeWithoutOtherWord)
{
    unsetenv("XDG_CONFIG_HOME");
    const std::filesystem::path home = UserFile().parent_path();
    SetEnvironment("HOME", home);
    std::filesystem::create_directory(home / ".config");
    Write(home / ".config" / "velmor.conf", "root = /home\n");
    EXPECT_EQ(RunProbe({}), 0) << Err();
    EXPECT_EQ(settings_->root, "/home");
}

TEST_F(ConfigFileTest, OneThatIsAskedForIsReadInPlaceOfTheOthers)
{
    Write(SystemFile(), "root = /system\n");
    Write(UserFile(), "root = /user\n");
    EXPECT_EQ(RunWith("[probe]\nname = asked\n"), 0) << Err();
    EXPECT_EQ(settings_->root, "");
    EXPECT_EQ(probe_.name, "asked");
    SetEnvironment("VELMOR_CONFIG", Write(File(), "[probe]\nname = variable\n"));
    EXPECT_EQ(RunProbe({}), 0) << Err();
    EXPECT_EQ(settings_->root, "");
    EXPECT_EQ(probe_.name, "variable");
}

TEST_F(ConfigFileTest, OneThatIsAskedForMustBeThere)
{
    EXPECT_EQ(RunProbe({"--config", "/does/not/exist"}), kConfiguration);
    EXPECT_EQ(Err(), "velmor probe: /does/not/exist: No such file or directory\n");
    EXPECT_EQ(RunProbe({"--config", "/"}), kConfiguration);
    EXPECT_EQ(Err(), "velmor probe: /: Is a directory\n");
}

TEST_F(ConfigFileTest, WhatIsWrongInASystemsFileIsToldToo)
{
    Write(SystemFile(), "rot = /a\n");
    EXPECT_EQ(RunProbe({}), kConfiguration);
    EXPECT_EQ(Err(), "velmor probe: " + SystemFile().string() + ": unknown key \"rot\"; did you mean root?\n");
}

struct Line
{
    std::string text;
    std::string message;
};

class ConfigMistakeTest : public ConfigFileTest, public testing::WithParamInterface<Line>
{};

TEST_P(ConfigMistakeTest, IsToldWithFileAndKey)
{
    EXPECT_EQ(RunWith(GetParam().text), kConfiguration);
    EXPECT_EQ(Err(), "velmor probe: " + File() + ": " + GetParam().message + "\n");
    EXPECT_FALSE(settings_);
}

const std::string kNoDuration = " is no duration: write a number and ms, s, m or h, as in 500ms or 10s";
const std::string kSeveral = " has several values: write it once, with text that has spaces or commas in quotes";

INSTANTIATE_TEST_SUITE_P(
    Of, ConfigMistakeTest,
    testing::Values(Line{"colour = red", "unknown key \"colour\""},
                    Line{"[probe]\ngrce = 1s", "unknown key \"probe.grce\"; did you mean grace?"},
                    Line{"grace = 1s", "unknown key \"grace\""},
                    Line{"[probe]\npause = 1s", "unknown key \"probe.pause\""},
                    Line{"[prob]\nname = x", "unknown section \"prob\"; did you mean probe?"},
                    Line{"[a.b]\nname = x", "unknown section \"a.b\""},
                    Line{"[probe]\ngrace = 10", "\"probe.grace\": \"10\"" + kNoDuration},
                    Line{"session-timeout = 0s", "\"session-timeout\": \"0s\" is too short: the least is 1ms"},
                    Line{"[probe]\nmode = wild", "\"probe.mode\": \"wild\" is none of calm, hasty"},
                    Line{"[probe]\nquick = maybe", "\"probe.quick\": \"maybe\" is neither true nor false"},
                    Line{"[probe]\ncount = x", "\"probe.count\": \"x\" is no whole number"},
                    Line{"[other]\npause = x", "\"other.pause\": \"x\"" + kNoDuration},
                    Line{"[other]\npuase = 1s", "unknown key \"other.puase\"; did you mean pause?"},
                    Line{"[probe]\nname = a b", "\"probe.name\"" + kSeveral},
                    Line{"root = /a\nroot = /b", "\"root\"" + kSeveral},
                    Line{"root = /a\nlog-level = off\nroot = /b", "\"root\" is there twice"},
                    Line{"config = /etc/other", "unknown key \"config\""}, Line{"help = true", "unknown key \"help\""},
                    Line{"\nx", "line 2: \"x\" means nothing"}, Line{"x =", "unknown key \"x\""},
                    Line{"servers = [\"a:1\"", "a list has no end: \"servers = [\"a:1\"\""}));

TEST_F(ConfigFileTest, AnEmptyTextIsAValue)
{
    for (const char* const text : {"[probe]\nname = \"\"\n", "[probe]\nname =\n"})
    {
        EXPECT_EQ(RunWith(text), 0) << Err();
        EXPECT_EQ(probe_.name, "");
    }
}

TEST_F(ConfigFileTest, AnEmptyFileSaysNothing)
{
    EXPECT_EQ(RunWith(""), 0) << Err();
    EXPECT_EQ(RunProbe({"--config", "/dev/null"}), 0) << Err();
}

}  // namespace
}  // namespace kx::velmor::cli
