#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
class ParseError;
}  // namespace CLI

namespace kx::velmor::cli {

// Options get their values from the command line, then, when it has none for them, from the environment, and then from
// configuration files. CLI11 has an order of its own, and so parses nothing but the command line here.

/// The options of `application` that the environment and configuration files know, too: all but `--help` and
/// `--version`, and what has no name.
std::vector<CLI::Option*> SettableOptions(CLI::App& application);

/// "grace" for `--grace`: its key in configuration files.
std::string KeyOf(const CLI::Option& option);

/// "VELMOR_GRACE" for `--grace`.
std::string EnvironmentNameOf(const CLI::Option& option);

/// What it takes, when that is one of a few words, in the order in which they are to be shown.
std::vector<std::string> ChoicesOf(const CLI::Option& option);

/// What is wrong, without the option's name in front: "\"10\" is no duration: ...".
std::string Reason(const CLI::ParseError& error, const CLI::Option& option);

/// Takes `values` as if they had been given on the command line; for a flag "true", "false" and the like. Throws
/// `Failure(status)`, which begins with `origin`.
void TakeValues(CLI::Option& option, const std::vector<std::string>& values, const std::string& origin, int status);

/// Gives the options of `application` that have no value yet what the environment has for them; an empty variable has
/// nothing. Throws `Failure`, which names the variable.
void TakeEnvironment(CLI::App& application);

/// "; did you mean grace?" when one of `names` is near to `name`, and else nothing.
std::string Suggestion(const std::string& name, const std::vector<std::string>& names);

}  // namespace kx::velmor::cli
