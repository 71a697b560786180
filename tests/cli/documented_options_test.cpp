// What --help, the manual page and the completions of two shells say about the program's options is the same.

#include "process/child_process.h"
#include "tests/support/await.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace kx::velmor::cli {
namespace {

using Lines = std::vector<std::string>;
using Words = std::set<std::string>;

const std::filesystem::path kPackaging = VELMOR_PACKAGING;
/// Shared by all subcommands.
const std::string kCommon = "common";

/// The standard output of a command that must end with status 0.
Lines OutputOf(const std::vector<std::string>& command)
{
    Lines lines;
    {
        process::ChildProcess child(
            process::ProcessOptions{command, {}, [&lines](const std::string& line) { lines.push_back(line); }});
        EXPECT_EQ(child.AwaitExit(testing_support::kPatience), 0) << testing::PrintToString(command);
    }
    return lines;
}

Lines ReadLines(const std::filesystem::path& file)
{
    std::ifstream stream(file);
    EXPECT_TRUE(stream) << file;
    Lines lines;
    for (std::string line; std::getline(stream, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

Words Split(const std::string& text, char separator)
{
    Words words;
    std::istringstream stream(text);
    for (std::string word; std::getline(stream, word, separator);)
    {
        words.insert(word);
    }
    return words;
}

Words Union(Words one, const Words& other)
{
    one.insert(other.begin(), other.end());
    return one;
}

/// The options of each subcommand, and those of all.
using Options = std::map<std::string, Words>;
/// The words that an option takes.
using Choices = std::map<std::string, Words>;

class DocumentedOptionsTest : public testing::Test
{
protected:
    void SetUp() override
    {
        bool listed = false;
        for (const std::string& line : OutputOf({VELMOR_PROGRAM, "--help"}))
        {
            std::smatch match;
            listed = line == "Subcommands:" || (listed && !line.empty());
            if (listed && std::regex_search(line, match, std::regex("^  ([a-z]+)")))
            {
                ReadHelp(match[1]);
            }
        }
        ASSERT_GT(help_.size(), 4U);
        ASSERT_GT(choices_.size(), 2U);
    }

    /// Of the program, by its own word.
    Options help_;
    Choices choices_;

private:
    void ReadHelp(const std::string& subcommand)
    {
        help_[subcommand];
        std::string group;
        for (const std::string& line : OutputOf({VELMOR_PROGRAM, subcommand, "--help"}))
        {
            std::smatch match;
            if (std::regex_match(line, match, std::regex("([A-Z][a-z ]+):")))
            {
                group = match[1];
            }
            if (std::regex_search(line, match, std::regex("^  (?:-h,)?(--[a-z-]+)(?: ([a-z-]+(?:\\|[a-z-]+)+))?")))
            {
                help_[group == "Common options" ? kCommon : subcommand].insert(match[1]);
                if (match[2].matched)
                {
                    choices_[match[1]] = Split(match[2], '|');
                }
            }
        }
    }
};

TEST_F(DocumentedOptionsTest, HelpOfEachSubcommandHasExamplesAndStatusesAndFitsATerminal)
{
    for (const auto& [subcommand, options] : help_)
    {
        if (subcommand == kCommon)
        {
            continue;
        }
        std::string text;
        for (const std::string& line : OutputOf({VELMOR_PROGRAM, subcommand, "--help"}))
        {
            EXPECT_LE(line.size(), 80U) << line;
            text += line + "\n";
        }
        EXPECT_TRUE(std::regex_search(text, std::regex("\nExamples?:\n  velmor " + subcommand))) << text;
        EXPECT_TRUE(std::regex_search(text, std::regex("\nExit status: "))) << text;
    }
}

TEST_F(DocumentedOptionsTest, TheManualPageHasTheSame)
{
    Options manual;
    Choices choices;
    std::string section;
    for (const std::string& line : ReadLines(kPackaging / "man" / "velmor.1"))
    {
        std::smatch match;
        if (std::regex_match(line, match, std::regex("\\.Ss velmor ([a-z]+)")))
        {
            section = match[1];
            manual[section];
        }
        else if (std::regex_search(line, std::regex("^\\.Sh ")))
        {
            section = line == ".Sh COMMON OPTIONS" ? kCommon : "";
        }
        else if (std::regex_search(line, match, std::regex("^\\.It Fl (?:h , )?-([a-z-]+)(?: (Cm .*\\|.*))?")))
        {
            const std::string option = "--" + match[1].str();
            EXPECT_TRUE(manual[section].insert(option).second) << option;
            if (match[2].matched)
            {
                choices[option] = Split(std::regex_replace(match[2].str(), std::regex("Cm | Ns"), ""), '|');
                Words words;
                for (const std::string& word : choices[option])
                {
                    words.insert(std::regex_replace(word, std::regex(" "), ""));
                }
                choices[option] = words;
            }
        }
    }
    EXPECT_EQ(manual, help_);
    EXPECT_EQ(choices, choices_);
}

TEST_F(DocumentedOptionsTest, TheManualPageIsFormattedWithoutAWarning)
{
    const std::string script = "warnings=$(groff -ww -mdoc -Tutf8 \"$1\" 2>&1 >/dev/null) && echo \"$warnings\"";
    EXPECT_THAT(OutputOf({"bash", "-c", script, "bash", kPackaging / "man" / "velmor.1"}), testing::ElementsAre(""));
}

/// What bash would offer at the end of `words`.
Words Offered(const std::vector<std::string>& words)
{
    const std::string script =
        "source \"$1\"; shift; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _velmor; "
        "((${#COMPREPLY[@]} == 0)) || printf '%s\\n' \"${COMPREPLY[@]}\"";
    std::vector<std::string> command{"bash",  "--norc", "-c", script, "bash", kPackaging / "completion" / "velmor.bash",
                                     "velmor"};
    command.insert(command.end(), words.begin(), words.end());
    const Lines lines = OutputOf(command);
    return Words(lines.begin(), lines.end());
}

TEST_F(DocumentedOptionsTest, CompletionInBashOffersTheSame)
{
    Words subcommands;
    for (const auto& [subcommand, options] : help_)
    {
        if (subcommand == kCommon)
        {
            continue;
        }
        subcommands.insert(subcommand);
        Words expected = Union(options, help_[kCommon]);
        EXPECT_EQ(Offered({subcommand, "--"}), subcommand == "run" ? Union(expected, {"--"}) : expected) << subcommand;
        EXPECT_EQ(Offered({"--servers", "run", ":", "2181", "--root=/x", subcommand, "--h"}).count("--help"), 1U);
    }
    EXPECT_EQ(Offered({""}), subcommands);
    EXPECT_EQ(Offered({"--"}), help_[kCommon]);
    for (const auto& [option, words] : choices_)
    {
        EXPECT_EQ(Offered({"run", option, ""}), words) << option;
        // As bash takes "--option=" and "--option=a" apart.
        EXPECT_EQ(Offered({"run", option, "="}), words) << option;
        EXPECT_EQ(Offered({"run", option, "=", *words.begin()}).count(*words.begin()), 1U) << option;
    }
}

TEST_F(DocumentedOptionsTest, CompletionInBashOffersFilesAndCommandsWhereTheyBelong)
{
    const std::string directory = kPackaging / "man";
    for (const char* const option : {"--config", "--digest-file", "--role-file"})
    {
        EXPECT_EQ(Offered({"run", option, directory + "/vel"}), Words{directory + "/velmor.1"}) << option;
    }
    EXPECT_EQ(Offered({"run", "--", "mktem"}).count("mktemp"), 1U);
    EXPECT_EQ(Offered({"run", "--", "cat", directory + "/vel"}), Words{directory + "/velmor.1"});
    EXPECT_EQ(Offered({"run", "--on-next", "mktem"}).count("mktemp"), 1U);
    EXPECT_EQ(Offered({"run", "--servers", ""}), Words());
    EXPECT_EQ(Offered({"status", "--", ""}), Words());
    EXPECT_EQ(Offered({"run", "--", "velmor", "--restart", "ne"}), Words());
}

TEST_F(DocumentedOptionsTest, CompletionInZshOffersTheSame)
{
    // In place of zsh's own function, one that tells what it is asked for.
    const std::string script =
        "_arguments() { print -rl -- \"$@\"; state=argument }; file=$1; words=($2 ''); CURRENT=2; "
        "set --; source $file; true";
    for (const auto& [subcommand, options] : help_)
    {
        if (subcommand == kCommon)
        {
            continue;
        }
        Words offered;
        for (const std::string& line :
             OutputOf({"zsh", "-f", "-c", script, "zsh", kPackaging / "completion" / "_velmor", subcommand}))
        {
            std::smatch match;
            if (std::regex_search(line, match, std::regex("^(?:\\([^)]*\\))?\\*?(--[a-z-]+)(?:.*:\\(([a-z -]+)\\))?")))
            {
                offered.insert(match[1]);
                EXPECT_EQ(match[2].matched ? Split(match[2], ' ') : Words(), choices_[match[1]]) << match[1];
            }
        }
        EXPECT_EQ(offered, Union(options, help_[kCommon])) << subcommand;
    }
}

TEST_F(DocumentedOptionsTest, CompletionInZshNamesTheSubcommands)
{
    const std::string script =
        "_arguments() { state=subcommand }; _describe() { print -rl -- ${subcommands%%:*} }; "
        "file=$1; set --; source $file; true";
    const Lines lines = OutputOf({"zsh", "-f", "-c", script, "zsh", kPackaging / "completion" / "_velmor"});
    Words offered(lines.begin(), lines.end());
    offered.insert(kCommon);
    for (const auto& [subcommand, options] : help_)
    {
        EXPECT_EQ(offered.erase(subcommand), 1U) << subcommand;
    }
    EXPECT_EQ(offered, Words());
}

}  // namespace
}  // namespace kx::velmor::cli
