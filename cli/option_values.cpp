#include "cli/option_values.h"

#include "cli/exit_status.h"
#include "cli/settings.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace kx::velmor::cli {

namespace {

bool IsFlag(const CLI::Option& option)
{
    return option.get_expected_min() == 0;
}

/// What people call a type of CLI11.
std::string Noun(const std::string& type)
{
    if (type == "INT" || type == "UINT")
    {
        return type == "INT" ? "whole number" : "whole number from 0 on";
    }
    return type == "FLOAT" ? "number" : type;
}

/// How many characters were inserted, left out, mistaken or exchanged with their neighbour.
std::size_t Distance(const std::string& one, const std::string& other)
{
    std::vector<std::vector<std::size_t>> table(one.size() + 1, std::vector<std::size_t>(other.size() + 1));
    for (std::size_t i = 0; i <= one.size(); ++i)
    {
        for (std::size_t j = 0; j <= other.size(); ++j)
        {
            if (i == 0 || j == 0)
            {
                table[i][j] = i + j;
                continue;
            }
            const std::size_t replaced = table[i - 1][j - 1] + (one[i - 1] == other[j - 1] ? 0 : 1);
            table[i][j] = std::min({table[i - 1][j] + 1, table[i][j - 1] + 1, replaced});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
            {
                table[i][j] = std::min(table[i][j], table[i - 2][j - 2] + 1);
            }
        }
    }
    return table[one.size()][other.size()];
}

}  // namespace

std::vector<CLI::Option*> SettableOptions(CLI::App& application)
{
    std::vector<CLI::Option*> options = application.get_options([&](const CLI::Option* option) {
        return option != application.get_help_ptr() && option != application.get_help_all_ptr() &&
               option->get_configurable() && !option->get_lnames().empty();
    });
    // Option groups are subcommands without a name.
    for (CLI::App* const group : application.get_subcommands([](CLI::App* each) { return each->get_name().empty(); }))
    {
        const std::vector<CLI::Option*> more = SettableOptions(*group);
        options.insert(options.end(), more.begin(), more.end());
    }
    return options;
}

std::string KeyOf(const CLI::Option& option)
{
    return option.get_lnames().front();
}

std::string EnvironmentNameOf(const CLI::Option& option)
{
    std::string name = "VELMOR_" + KeyOf(option);
    std::transform(name.begin(), name.end(), name.begin(), [](char character) {
        return character == '-' ? '_' : static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
    });
    return name;
}

std::vector<std::string> ChoicesOf(const CLI::Option& option)
{
    const std::string type = option.get_type_name();
    // "TEXT:{a,b,c}", where no other words are given for that.
    const std::size_t begin = type.find('{');
    const std::size_t end = type.find('}');
    const std::string shown = type.substr(0, type.find(':'));
    if (shown.find_first_not_of("abcdefghijklmnopqrstuvwxyz-|") == std::string::npos)
    {
        return CLI::detail::split(shown, '|');
    }
    if (begin == std::string::npos || end == std::string::npos || end < begin)
    {
        return {};
    }
    std::vector<std::string> choices = CLI::detail::split(type.substr(begin + 1, end - begin - 1), ',');
    for (std::string& choice : choices)
    {
        // "a->0"
        choice.erase(std::min(choice.find("->"), choice.size()));
    }
    return choices;
}

std::string Reason(const CLI::ParseError& error, const CLI::Option& option)
{
    if (dynamic_cast<const CLI::ConversionError*>(&error) != nullptr && !option.results().empty())
    {
        return "\"" + option.results().back() + "\" " +
               (IsFlag(option) ? "is neither true nor false" : "is no " + Noun(option.get_type_name()));
    }
    const std::vector<std::string> choices = ChoicesOf(option);
    if (dynamic_cast<const CLI::ValidationError*>(&error) != nullptr && !choices.empty() && !option.results().empty())
    {
        return "\"" + option.results().back() + "\" is none of " + CLI::detail::join(choices, ", ");
    }
    std::string text = error.what();
    const std::string name = option.get_name();
    if (text.compare(0, name.size() + 2, name + ": ") == 0)
    {
        text.erase(0, name.size() + 2);
    }
    return text;
}

void TakeValues(CLI::Option& option, const std::vector<std::string>& values, const std::string& origin, int status)
{
    try
    {
        if (IsFlag(option))
        {
            option.add_result(option.get_flag_value(KeyOf(option), values.front()));
        }
        else
        {
            option.add_result(values);
        }
        option.run_callback();
    }
    catch (const CLI::ParseError& error)
    {
        throw Failure(status, origin + ": " + Reason(error, option));
    }
}

void TakeEnvironment(CLI::App& application)
{
    for (CLI::Option* const option : SettableOptions(application))
    {
        const std::string name = EnvironmentNameOf(*option);
        const char* const value = std::getenv(name.c_str());
        if (option->empty() && value != nullptr && *value != '\0')
        {
            TakeValues(*option, {value}, name, kUsage);
        }
    }
}

std::string Suggestion(const std::string& name, const std::vector<std::string>& names)
{
    const auto nearer = [&name](const std::string& one, const std::string& other) {
        return Distance(name, one) < Distance(name, other);
    };
    const auto nearest = std::min_element(names.begin(), names.end(), nearer);
    // A third of it may be wrong.
    const bool near = nearest != names.end() && Distance(name, *nearest) <= std::max<std::size_t>(1, name.size() / 3);
    return near && name != *nearest ? "; did you mean " + *nearest + "?" : "";
}

}  // namespace kx::velmor::cli
