#include "cli/option_values.h"

#include "cli/exit_status.h"
#include "cli/settings.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <numeric>
#include <utility>

namespace kx::velmor::cli {

namespace {

bool IsFlag(const CLI::Option& option)
{
    return option.get_expected_min() == 0;
}

/// Insertions, deletions and replacements of characters from one to the other.
std::size_t Distance(const std::string& one, const std::string& other)
{
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= one.size(); ++i)
    {
        std::size_t diagonal = std::exchange(row[0], i);
        for (std::size_t j = 1; j <= other.size(); ++j)
        {
            const std::size_t replaced = diagonal + (one[i - 1] == other[j - 1] ? 0 : 1);
            diagonal = std::exchange(row[j], std::min({row[j] + 1, row[j - 1] + 1, replaced}));
        }
    }
    return row.back();
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

std::string Reason(const CLI::ParseError& error, const CLI::Option& option)
{
    if (dynamic_cast<const CLI::ConversionError*>(&error) != nullptr && !option.results().empty())
    {
        return "\"" + option.results().back() + "\" " +
               (IsFlag(option) ? "is neither true nor false" : "is no " + option.get_type_name());
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
