#include "cli/help.h"

#include "cli/option_values.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <sstream>
#include <utility>
#include <vector>

namespace kx::velmor::cli {

namespace {

constexpr std::size_t kWidth = 80;
/// Where descriptions of options begin.
constexpr std::size_t kColumn = 26;

/// Up to the first full stop, and without it.
std::string FirstSentence(const std::string& text)
{
    const std::size_t stop = std::min(text.find(". "), text.find(".\n"));
    const std::string sentence = text.substr(0, stop);
    return !sentence.empty() && sentence.back() == '.' ? sentence.substr(0, sentence.size() - 1) : sentence;
}

/// `name` in a line, `text` beside it, or below it when the name is too long.
std::string Row(const std::string& name, const std::string& text)
{
    const std::string left = "  " + name;
    const std::string right = Wrapped(text, kColumn);
    if (left.size() + 2 > kColumn)
    {
        return left + "\n" + right;
    }
    return left + right.substr(left.size());
}

/// Lines that begin with a blank as they are, those between them and between empty lines put together and wrapped.
std::string Filled(const std::string& text)
{
    std::string filled;
    std::string paragraph;
    const auto endParagraph = [&] {
        if (!paragraph.empty())
        {
            filled += Wrapped(std::exchange(paragraph, ""), 0);
        }
    };
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
    {
        if (!line.empty() && line.front() != ' ')
        {
            paragraph += line + " ";
            continue;
        }
        endParagraph();
        filled += line + "\n";
    }
    endParagraph();
    return filled;
}

}  // namespace

std::string Wrapped(const std::string& text, std::size_t indent)
{
    const std::string blanks(indent, ' ');
    std::string wrapped;
    std::string line = blanks;
    std::istringstream words(text);
    for (std::string word; words >> word;)
    {
        const bool first = line.size() == indent;
        if (!first && line.size() + 1 + word.size() > kWidth)
        {
            wrapped += std::exchange(line, blanks + word) + "\n";
            continue;
        }
        line += (first ? "" : " ") + word;
    }
    return wrapped + line + "\n";
}

std::string HelpFormatter::make_option(const CLI::Option* option, bool isPositional) const
{
    std::string name = make_option_name(option, isPositional);
    if (option->get_type_size() != 0 && option->get_expected_min() != 0)
    {
        const std::vector<std::string> choices = ChoicesOf(*option);
        name += " " + (choices.empty() ? option->get_type_name() : CLI::detail::join(choices, "|"));
    }
    const std::string standard = option->get_default_str();
    return Row(name, option->get_description() + (standard.empty() ? "" : " (default: " + standard + ")"));
}

std::string HelpFormatter::Groups(const CLI::App& application, const CLI::Option* hidden) const
{
    std::string text;
    for (const std::string& group : application.get_groups())
    {
        const std::vector<const CLI::Option*> options = application.get_options([&](const CLI::Option* option) {
            return option->get_group() == group && option->nonpositional() && option != hidden;
        });
        if (!group.empty() && !options.empty())
        {
            text += make_group(group, false, options);
        }
    }
    return text;
}

std::string HelpFormatter::make_help(const CLI::App* application, std::string name, CLI::AppFormatMode /*mode*/) const
{
    const CLI::App* const parent = application->get_parent();
    const std::vector<const CLI::App*> subcommands = application->get_subcommands(
        [](const CLI::App* each) { return !each->get_name().empty() && !each->get_group().empty(); });
    std::string text = "Usage: " + name + (subcommands.empty() ? " [OPTIONS]" : " SUBCOMMAND [OPTIONS]");
    if (commandTakers_.count(application) != 0)
    {
        text += " -- COMMAND [ARGUMENTS]";
    }
    text += "\n" + Wrapped(application->get_description(), 0);
    if (!subcommands.empty())
    {
        text += "\nSubcommands:\n";
        for (const CLI::App* const subcommand : subcommands)
        {
            text += Row(subcommand->get_name(), FirstSentence(subcommand->get_description()));
        }
    }
    for (const CLI::App* const optionGroup :
         application->get_subcommands([](const CLI::App* each) { return each->get_name().empty(); }))
    {
        text += Groups(*optionGroup, nullptr);
    }
    text += Groups(*application, parent != nullptr ? application->get_help_ptr() : nullptr);
    if (parent != nullptr)
    {
        text += Groups(*parent, nullptr);
    }
    text += "\n" + Wrapped(
                       "Each option is an environment variable as well, VELMOR_SESSION_TIMEOUT for --session-timeout, "
                       "and a key in configuration files. The command line goes before the environment, the "
                       "environment before files.",
                       0);
    const std::string footer = application->get_footer();
    return footer.empty() ? text : text + "\n" + Filled(footer);
}

}  // namespace kx::velmor::cli
