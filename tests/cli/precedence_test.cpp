// The command line goes before the environment, that before the user's configuration file, that before the system's,
// and all before defaults: for options of the program and of a subcommand, of every kind.

#include "cli/duration.h"
#include "tests/cli/front_fixture.h"

#include <kx/logging/default_library.h>

#include <functional>
#include <ostream>

namespace kx::velmor::cli {
namespace {

/// One option, and how to see what it came to.
struct Kind
{
    std::string key;
    std::string variable;
    /// Five values, the last of them the default.
    std::vector<std::string> values;
    /// The section of configuration files that it stands in, if any.
    std::string section;
};

std::ostream& operator<<(std::ostream& stream, const Kind& kind)
{
    return stream << kind.key;
}

class PrecedenceTest : public FrontTest, public testing::WithParamInterface<Kind>
{
protected:
    /// Ways to give a value, from the strongest.
    enum Way
    {
        kCommandLine,
        kEnvironment,
        kUserFile,
        kSystemFile,
        kWays
    };

    /// What the option comes to when it is given in these ways, in each another value.
    std::string Given(const std::vector<Way>& ways)
    {
        const Kind& kind = GetParam();
        Arguments arguments{"probe"};
        const std::map<std::string, std::string> always{{"servers", "one:2181"}, {"election", "/election"}};
        for (const auto& [key, value] : always)
        {
            if (key != kind.key || ways.empty())
            {
                arguments.insert(arguments.end(), {"--" + key, value});
            }
        }
        unsetenv(kind.variable.c_str());
        std::filesystem::remove(UserFile());
        std::filesystem::remove(SystemFile());
        for (const Way way : ways)
        {
            const std::string& value = kind.values.at(way);
            const std::string section = kind.section.empty() ? "" : "[" + kind.section + "]\n";
            switch (way)
            {
                case kCommandLine:
                    arguments.push_back("--" + kind.key + "=" + value);
                    break;
                case kEnvironment:
                    SetEnvironment(kind.variable, value);
                    break;
                case kUserFile:
                    Write(UserFile(), section + kind.key + " = \"" + value + "\"\n");
                    break;
                case kSystemFile:
                    Write(SystemFile(), section + kind.key + " = \"" + value + "\"\n");
                    break;
                case kWays:
                    break;
            }
        }
        EXPECT_EQ(Run(arguments), 0) << Err();
        return settings_ ? Seen() : "";
    }

    std::string Seen() const
    {
        const std::map<std::string, std::string> seen{
            {"servers", settings_->servers},
            {"election", settings_->election},
            {"root", settings_->root},
            {"session-timeout", FormatDuration(settings_->sessionTimeout)},
            {"connect-timeout", FormatDuration(settings_->connectTimeout.value())},
            {"log-level", Level()},
            {"grace", FormatDuration(probe_.grace)},
            {"limit", probe_.limit ? FormatDuration(*probe_.limit) : "none"},
            {"name", probe_.name},
            {"mode", probe_.mode},
            {"count", std::to_string(probe_.count)},
            {"quick", probe_.quick ? "true" : "false"}};
        return seen.at(GetParam().key);
    }

    static std::string Level()
    {
        const std::int32_t level = logging::g_minLogLevel.load();
        for (const char* const name : {"debug", "info", "warning", "error", "off"})
        {
            if (static_cast<std::int32_t>(*logging::ParseLogLevel(name)) == level)
            {
                return name;
            }
        }
        return std::to_string(level);
    }
};

TEST_P(PrecedenceTest, EveryWayAloneIsTaken)
{
    for (const Way way : {kCommandLine, kEnvironment, kUserFile, kSystemFile})
    {
        EXPECT_EQ(Given({way}), GetParam().values.at(way)) << "way " << way;
    }
}

TEST_P(PrecedenceTest, OfEveryPairTheStrongerPrevails)
{
    for (int strong = kCommandLine; strong != kWays; ++strong)
    {
        for (int weak = strong + 1; weak != kWays; ++weak)
        {
            EXPECT_EQ(Given({static_cast<Way>(strong), static_cast<Way>(weak)}),
                      GetParam().values.at(static_cast<std::size_t>(strong)))
                << "ways " << strong << " and " << weak;
        }
    }
}

TEST_P(PrecedenceTest, WithoutAnyTheDefaultHolds)
{
    EXPECT_EQ(Given({}), GetParam().values.back());
}

INSTANTIATE_TEST_SUITE_P(
    OfTheProgram, PrecedenceTest,
    testing::Values(Kind{"servers", "VELMOR_SERVERS", {"a:1", "b:2,bb:2", "c:3", "d:4", "one:2181"}, ""},
                    Kind{"election", "VELMOR_ELECTION", {"/a", "/b", "/c", "/d", "/election"}, ""},
                    Kind{"root", "VELMOR_ROOT", {"/a", "/b", "/c/c", "/d", ""}, ""},
                    Kind{"session-timeout", "VELMOR_SESSION_TIMEOUT", {"1s", "2s", "3s", "4s", "10s"}, ""},
                    Kind{"connect-timeout", "VELMOR_CONNECT_TIMEOUT", {"1s", "2s", "3s", "4s", "10s"}, "probe"},
                    Kind{"log-level", "VELMOR_LOG_LEVEL", {"debug", "info", "error", "off", "warning"}, ""}));
INSTANTIATE_TEST_SUITE_P(
    OfASubcommand, PrecedenceTest,
    testing::Values(Kind{"grace", "VELMOR_GRACE", {"1s", "2s", "3s", "0s", "10s"}, "probe"},
                    Kind{"limit", "VELMOR_LIMIT", {"1s", "2s", "3s", "4s", "none"}, "probe"},
                    Kind{"name", "VELMOR_NAME", {"a b", "b, c", "c # d", "[d]", "nobody"}, "probe"},
                    Kind{"mode", "VELMOR_MODE", {"hasty", "calm", "hasty", "calm", "calm"}, "probe"},
                    Kind{"count", "VELMOR_COUNT", {"10", "20", "30", "40", "3"}, "probe"},
                    Kind{"quick", "VELMOR_QUICK", {"true", "false", "true", "false", "false"}, "probe"}));

}  // namespace
}  // namespace kx::velmor::cli
