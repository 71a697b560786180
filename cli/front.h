#pragma once

#include "cli/common_options.h"
#include "cli/settings.h"
#include "cli/subcommand.h"

#include <CLI/App.hpp>

#include <filesystem>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

namespace kx::velmor::cli {

class HelpFormatter;

/// The program without its subcommands: reads what is asked for from the command line, the environment and
/// configuration files, in this order of precedence, sets up the log and hands over.
class Front
{
public:
    /// What people are to read is written to `out` and `err`. `systemFile` is read when it is there and no other
    /// configuration file is asked for.
    Front(std::ostream& out, std::ostream& err, std::filesystem::path systemFile = "/etc/velmor.conf");

    Front(const Front&) = delete;
    Front& operator=(const Front&) = delete;

    /// For subcommands to be added to.
    CLI::App& Application() { return application_; }
    void Add(Subcommand subcommand);

    /// Returns the exit status. What the subcommand throws becomes a message and a status. To be called once.
    int Run(std::vector<std::string> arguments);

private:
    /// An option that must be there, or must not be, beside others. CLI11 would ask before all sources are read.
    struct Rule
    {
        CLI::Option* option;
        bool required;
        std::vector<CLI::Option*> needs;
        std::vector<CLI::Option*> excludes;
    };

    int Serve(std::vector<std::string> arguments);
    void TakeRules(CLI::App& application);
    void ParseCommandLine(std::vector<std::string> arguments);
    /// Null when none was asked for.
    const Subcommand* Chosen() const;
    [[noreturn]] void RefuseUnknown(const std::string& argument);
    [[noreturn]] void Refuse(const CLI::ParseError& error);
    void TakeFiles(const Subcommand& chosen);
    void CheckRules(const Subcommand& chosen) const;
    /// "velmor run".
    std::string Name() const;
    int Fail(int status, const std::string& message) const;

    std::ostream& out_;
    std::ostream& err_;
    const std::filesystem::path systemFile_;
    CLI::App application_;
    const std::shared_ptr<HelpFormatter> help_;
    CommonOptions common_;
    std::vector<Subcommand> subcommands_;
    std::vector<Rule> rules_;
    /// From then on everything on standard error is in the format of the log.
    bool logging_ = false;
};

}  // namespace kx::velmor::cli
