#include "cli/options.h"

#include "cli/duration.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <stdexcept>

namespace kx::velmor::cli {

namespace {

using std::chrono::milliseconds;

milliseconds Read(const std::string& flag, const std::string& text, milliseconds least)
{
    milliseconds value{};
    try
    {
        value = ParseDuration(text);
    }
    catch (const std::invalid_argument& error)
    {
        throw CLI::ValidationError(flag, error.what());
    }
    if (value < least)
    {
        throw CLI::ValidationError(flag, "\"" + text + "\" is too short: the least is " + FormatDuration(least));
    }
    return value;
}

CLI::Option* Add(CLI::App& application, const std::string& flag, const std::string& description, milliseconds least,
                 const std::function<void(milliseconds)>& assign)
{
    const CLI::callback_t callback = [flag, least, assign](const CLI::results_t& results) {
        assign(Read(flag, results.back(), least));
        return true;
    };
    return application.add_option(flag, callback, description)->type_name("DURATION")->take_last();
}

}  // namespace

CLI::Option* AddDuration(CLI::App& application, const std::string& flag, milliseconds& value,
                         const std::string& description, milliseconds least)
{
    return Add(application, flag, description, least, [&value](milliseconds read) { value = read; })
        ->default_str(FormatDuration(value));
}

CLI::Option* AddDuration(CLI::App& application, const std::string& flag, std::optional<milliseconds>& value,
                         const std::string& description, milliseconds least)
{
    return Add(application, flag, description, least, [&value](milliseconds read) { value = read; });
}

}  // namespace kx::velmor::cli
