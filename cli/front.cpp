#include "cli/front.h"

#include "cli/config_file.h"
#include "cli/exit_status.h"
#include "cli/help.h"
#include "cli/log_setup.h"
#include "cli/option_values.h"

#include <kx/velmor/error.h>

#include <CLI/CLI.hpp>
#include <unistd.h>
#include <zookeeper/zookeeper.h>

#include <algorithm>
#include <chrono>
#include <ostream>
#include <utility>

namespace kx::velmor::cli {

namespace {

constexpr const char* kCommonGroup = "Common options";
constexpr const char* kWhereCommandsStand = "the command stands behind --, as in velmor run -- sleep 60";

int StatusFor(const ZooError& error)
{
    switch (error.Code())
    {
        case ZBADARGUMENTS:
            return kUsage;
        case ZCONNECTIONLOSS:
        case ZOPERATIONTIMEOUT:
        case ZSESSIONEXPIRED:
            return kUnavailable;
        case ZNOAUTH:
        case ZAUTHFAILED:
        case ZINVALIDACL:
            return kNotPermitted;
        default:
            return kInternal;
    }
}

/// Cuts what begins with `--` off.
std::vector<std::string> CutCommand(std::vector<std::string>& arguments)
{
    const auto mark = std::find(arguments.begin(), arguments.end(), "--");
    std::vector<std::string> command(mark, arguments.end());
    arguments.erase(mark, arguments.end());
    return command;
}

}  // namespace

Front::Front(std::ostream& out, std::ostream& err, std::filesystem::path systemFile)
    : out_(out),
      err_(err),
      systemFile_(std::move(systemFile)),
      application_("Runs services under a leader election over ZooKeeper, and shows who leads.", "velmor"),
      help_(std::make_shared<HelpFormatter>()),
      common_(application_, kCommonGroup)
{
    application_.set_help_flag("-h,--help", "Print this and exit")->group(kCommonGroup);
    application_.set_version_flag("--version", "velmor " VELMOR_VERSION, "Print the version and exit")
        ->group(kCommonGroup);
    application_.formatter(help_);
    // Common options may stand behind the subcommand.
    application_.fallthrough();
    application_.require_subcommand(0, 1);
    application_.footer("What a subcommand does, its options and exit statuses: velmor SUBCOMMAND --help");
}

void Front::Add(Subcommand subcommand)
{
    if (subcommand.defaults.takesCommand)
    {
        help_->TakesCommand(subcommand.app);
    }
    subcommands_.push_back(std::move(subcommand));
}

int Front::Run(std::vector<std::string> arguments)
{
    try
    {
        return Serve(std::move(arguments));
    }
    catch (const CLI::Success& wanted)
    {
        application_.exit(wanted, out_, err_);
        out_.flush();
        return out_ ? kSuccess : Fail(kInternal, "standard output cannot be written");
    }
    catch (const Failure& failure)
    {
        return Fail(failure.Status(), failure.what());
    }
    catch (const ZooError& error)
    {
        return Fail(StatusFor(error), error.what());
    }
    catch (const std::exception& error)
    {
        return Fail(kInternal, error.what());
    }
}

int Front::Serve(std::vector<std::string> arguments)
{
    TakeRules(application_);
    std::vector<std::string> command = CutCommand(arguments);
    ParseCommandLine(std::move(arguments));
    const Subcommand* const chosen = Chosen();
    if (chosen == nullptr)
    {
        throw Failure(kUsage, "a subcommand is missing");
    }
    if (chosen->defaults.takesCommand && command.size() < 2)
    {
        throw Failure(kUsage, std::string("no command: ") + kWhereCommandsStand);
    }
    if (!chosen->defaults.takesCommand && !command.empty())
    {
        throw Failure(kUsage, "it takes no command, and so no --");
    }
    TakeEnvironment(application_);
    TakeEnvironment(*chosen->app);
    TakeFiles(*chosen);
    CheckRules(*chosen);
    Settings settings = common_.Complete(chosen->defaults);
    if (chosen->defaults.takesCommand)
    {
        settings.command.assign(command.begin() + 1, command.end());
    }
    common_.StartLog(chosen->defaults);
    logging_ = true;
    return chosen->run(settings);
}

void Front::TakeRules(CLI::App& application)
{
    for (CLI::Option* const option : SettableOptions(application))
    {
        const std::set<CLI::Option*> needs = option->get_needs();
        const std::set<CLI::Option*> excludes = option->get_excludes();
        rules_.push_back(
            Rule{option, option->get_required(), {needs.begin(), needs.end()}, {excludes.begin(), excludes.end()}});
        option->required(false);
        for (CLI::Option* const other : needs)
        {
            option->remove_needs(other);
        }
        for (CLI::Option* const other : excludes)
        {
            option->remove_excludes(other);
        }
        if (option->get_multi_option_policy() == CLI::MultiOptionPolicy::Throw && option->get_expected_max() == 1)
        {
            option->take_last();
        }
    }
    for (CLI::App* const subcommand :
         application.get_subcommands([](CLI::App* each) { return !each->get_name().empty(); }))
    {
        TakeRules(*subcommand);
    }
}

void Front::ParseCommandLine(std::vector<std::string> arguments)
{
    for (auto argument = arguments.begin(); argument != arguments.end(); ++argument)
    {
        // "--name=" is an empty value; CLI11 would take the next argument for it.
        if (argument->size() > 3 && argument->compare(0, 2, "--") == 0 && argument->find('=') == argument->size() - 1)
        {
            argument->pop_back();
            argument = arguments.insert(argument + 1, "");
        }
    }
    std::reverse(arguments.begin(), arguments.end());
    try
    {
        application_.parse(std::move(arguments));
    }
    catch (const CLI::Success&)
    {
        throw;
    }
    catch (const CLI::ParseError& error)
    {
        Refuse(error);
    }
}

void Front::Refuse(const CLI::ParseError& error)
{
    const std::vector<std::string> remaining = application_.remaining(true);
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr && !remaining.empty())
    {
        RefuseUnknown(remaining.front());
    }
    std::vector<CLI::Option*> options = SettableOptions(application_);
    if (const Subcommand* const chosen = Chosen())
    {
        const std::vector<CLI::Option*> more = SettableOptions(*chosen->app);
        options.insert(options.end(), more.begin(), more.end());
    }
    const std::string text = error.what();
    for (const CLI::Option* const option : options)
    {
        const std::string name = option->get_name();
        const bool meant =
            text.compare(0, name.size() + 1, name + ":") == 0 || text.find(" " + name + " = ") != std::string::npos;
        if (!meant)
        {
            continue;
        }
        const bool missing = dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr && option->empty();
        throw Failure(kUsage, name + ": " + (missing ? "the value is missing" : Reason(error, *option)));
    }
    throw Failure(kUsage, text);
}

const Subcommand* Front::Chosen() const
{
    const auto chosen = std::find_if(subcommands_.begin(), subcommands_.end(),
                                     [](const Subcommand& subcommand) { return subcommand.app->parsed(); });
    return chosen != subcommands_.end() ? &*chosen : nullptr;
}

void Front::RefuseUnknown(const std::string& argument)
{
    const Subcommand* const chosen = Chosen();
    if (argument.compare(0, 1, "-") == 0)
    {
        const std::string name = argument.substr(0, argument.find('='));
        std::vector<std::string> known;
        const auto know = [&known](CLI::App& application) {
            for (const CLI::Option* const option : SettableOptions(application))
            {
                known.push_back("--" + KeyOf(*option));
            }
        };
        know(application_);
        if (chosen != nullptr)
        {
            know(*chosen->app);
        }
        throw Failure(kUsage, "unknown option " + name + Suggestion(name, known));
    }
    if (chosen != nullptr)
    {
        throw Failure(kUsage, "unexpected argument \"" + argument + "\"" +
                                  (chosen->defaults.takesCommand ? std::string(": ") + kWhereCommandsStand : ""));
    }
    std::vector<std::string> known;
    for (const Subcommand& subcommand : subcommands_)
    {
        // One without a group is not shown.
        if (!subcommand.app->get_group().empty())
        {
            known.push_back(subcommand.app->get_name());
        }
    }
    throw Failure(kUsage, "unknown subcommand \"" + argument + "\"" + Suggestion(argument, known));
}

void Front::TakeFiles(const Subcommand& chosen)
{
    std::vector<std::filesystem::path> files;
    if (!common_.ConfigurationFile().empty())
    {
        files.emplace_back(common_.ConfigurationFile());
    }
    else
    {
        files = DefaultConfigurationFiles(systemFile_);
    }
    // What has a value keeps it.
    std::for_each(files.rbegin(), files.rend(),
                  [&](const std::filesystem::path& file) { TakeConfigurationFile(file, application_, *chosen.app); });
}

void Front::CheckRules(const Subcommand& chosen) const
{
    std::vector<CLI::Option*> ofChosen = SettableOptions(*chosen.app);
    const auto applies = [&](const Rule& rule) {
        return std::find(ofChosen.begin(), ofChosen.end(), rule.option) != ofChosen.end();
    };
    const auto check = [&](const CLI::Option& option, bool required) {
        if (required && option.empty())
        {
            throw Failure(kUsage, option.get_name() + " is missing: write " + option.get_name() + " " +
                                      option.get_type_name() + ", or set " + EnvironmentNameOf(option) + ", or \"" +
                                      KeyOf(option) + "\" in a configuration file");
        }
    };
    check(*application_.get_option("--servers"), true);
    check(*application_.get_option("--election"), chosen.defaults.election.empty());
    for (const Rule& rule : rules_)
    {
        if (!applies(rule))
        {
            continue;
        }
        check(*rule.option, rule.required);
        for (const CLI::Option* const other : rule.needs)
        {
            if (!rule.option->empty() && other->empty())
            {
                throw Failure(kUsage, rule.option->get_name() + " makes sense only with " + other->get_name());
            }
        }
        for (const CLI::Option* const other : rule.excludes)
        {
            if (!rule.option->empty() && !other->empty())
            {
                throw Failure(kUsage, rule.option->get_name() + " and " + other->get_name() + " exclude each other");
            }
        }
    }
}

std::string Front::Name() const
{
    const Subcommand* const chosen = Chosen();
    return chosen != nullptr ? "velmor " + chosen->app->get_name() : "velmor";
}

int Front::Fail(int status, const std::string& message) const
{
    if (logging_ && common_.LogsJson())
    {
        logging::Record record{};
        record.level = logging::LogLevel::Error;
        record.source = "velmor";
        record.file = "";
        record.threadId = static_cast<std::size_t>(gettid());
        record.time = std::chrono::system_clock::now();
        record.text = message;
        err_ << ToJson(record) << std::endl;
        return status;
    }
    err_ << Name() << ": " << message << '\n';
    if (status == kUsage)
    {
        err_ << "Try '" << Name() << " --help'.\n";
    }
    err_.flush();
    return status;
}

}  // namespace kx::velmor::cli
