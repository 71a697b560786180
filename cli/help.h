#pragma once

#include <CLI/App.hpp>
#include <CLI/FormatterFwd.hpp>

#include <set>
#include <string>

namespace kx::velmor::cli {

/// What `--help` prints, no line longer than 80 characters: usage, description, options by groups, those of the program
/// below those of the subcommand, and the footer: its paragraphs wrapped, its indented lines as they are.
class HelpFormatter : public CLI::Formatter
{
public:
    /// Takes a command behind `--`.
    void TakesCommand(const CLI::App* application) { commandTakers_.insert(application); }

    std::string make_help(const CLI::App* application, std::string name, CLI::AppFormatMode mode) const override;
    std::string make_option(const CLI::Option* option, bool isPositional) const override;

private:
    std::string Groups(const CLI::App& application, const CLI::Option* hidden) const;

    std::set<const CLI::App*> commandTakers_;
};

/// `text` in lines of no more than 80 characters, each with `indent` blanks in front.
std::string Wrapped(const std::string& text, std::size_t indent);

}  // namespace kx::velmor::cli
