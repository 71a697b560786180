#include "cli/config_file.h"

#include "cli/exit_status.h"
#include "cli/option_values.h"
#include "cli/settings.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <utility>

namespace kx::velmor::cli {

namespace {

/// Stands in no text file.
constexpr char kNeverThere = '\x01';

[[noreturn]] void Refuse(const std::filesystem::path& file, const std::string& reason)
{
    throw Failure(kConfiguration, file.string() + ": " + reason);
}

/// Without the comment at its end. CLI11 would look for it within quotes as well.
std::string WithoutComment(const std::string& line)
{
    char quote = '\0';
    for (std::size_t i = 0; i < line.size(); ++i)
    {
        const char character = line[i];
        if (quote == '"' && character == '\\')
        {
            ++i;
        }
        else if (character == quote)
        {
            quote = '\0';
        }
        else if (quote == '\0' && (character == '"' || character == '\''))
        {
            quote = character;
        }
        else if (quote == '\0' && character == '#')
        {
            return line.substr(0, i);
        }
    }
    return line;
}

/// Whether a list begins in `line` that ends in another one.
bool OpensList(const std::string& line)
{
    const std::size_t equals = line.find('=');
    const std::size_t value = equals != std::string::npos ? line.find_first_not_of(" \t", equals + 1) : equals;
    return value != std::string::npos && line[value] == '[' && line.back() != ']';
}

/// The file's lines, those of a list in one, without what CLI11 would pass over or take for something else.
std::stringstream Prepare(const std::filesystem::path& file)
{
    std::ifstream stream(file);
    if (!stream)
    {
        Refuse(file, std::strerror(errno));
    }
    if (std::filesystem::is_directory(file))
    {
        Refuse(file, std::strerror(EISDIR));
    }
    std::stringstream prepared;
    int number = 0;
    std::string list;
    for (std::string line; std::getline(stream, line);)
    {
        ++number;
        line = CLI::detail::trim_copy(WithoutComment(line));
        if (line.empty() || line.front() == ';')
        {
            continue;
        }
        line.insert(0, std::exchange(list, ""));
        if (OpensList(line))
        {
            list = line + " ";
            continue;
        }
        if (line.size() < 3)
        {
            Refuse(file, "line " + std::to_string(number) + ": \"" + line + "\" means nothing");
        }
        prepared << line << '\n';
    }
    if (stream.bad())
    {
        Refuse(file, "it cannot be read");
    }
    if (!list.empty())
    {
        Refuse(file, "a list has no end: \"" + list.substr(0, list.size() - 1) + "\"");
    }
    return prepared;
}

std::vector<std::string> NamesOf(const std::vector<CLI::Option*>& options)
{
    std::vector<std::string> names(options.size());
    std::transform(options.begin(), options.end(), names.begin(),
                   [](const CLI::Option* option) { return KeyOf(*option); });
    return names;
}

class Reader
{
public:
    Reader(const std::filesystem::path& file, CLI::App& root, const CLI::App& chosen)
        : file_(file), root_(root), chosen_(chosen)
    {}

    void Read()
    {
        std::stringstream prepared = Prepare(file_);
        CLI::ConfigTOML format;
        format.comment(kNeverThere);
        std::vector<CLI::ConfigItem> items = format.from_config(prepared);
        // Beginnings and ends of sections.
        items.erase(std::remove_if(items.begin(), items.end(),
                                   [](const CLI::ConfigItem& item) { return item.name == "++" || item.name == "--"; }),
                    items.end());
        std::stable_partition(items.begin(), items.end(),
                              [](const CLI::ConfigItem& item) { return !item.parents.empty(); });
        for (const CLI::ConfigItem& item : items)
        {
            Take(item);
        }
    }

private:
    void Take(const CLI::ConfigItem& item)
    {
        CLI::App& section = SectionOf(item);
        CLI::Option& option = OptionOf(item, section);
        if (!taken_.insert({&section, &option}).second)
        {
            Refuse(file_, "\"" + item.fullname() + "\" is there twice");
        }
        const bool takesMany = option.get_multi_option_policy() == CLI::MultiOptionPolicy::Join ||
                               option.get_expected_max() == CLI::detail::expected_max_vector_size;
        if (item.inputs.size() > 1 && !takesMany)
        {
            Refuse(file_, "\"" + item.fullname() +
                              "\" has several values: write it once, with text that has spaces or commas in quotes");
        }
        const bool ofAnother = &section != &root_ && &section != &chosen_ && !Owns(section, option);
        if (option.empty() && !ofAnother)
        {
            TakeValues(option, item.inputs, file_.string() + ": \"" + item.fullname() + "\"", kConfiguration);
        }
    }

    CLI::App& SectionOf(const CLI::ConfigItem& item)
    {
        if (item.parents.empty())
        {
            return root_;
        }
        std::vector<std::string> names;
        for (CLI::App* const subcommand :
             root_.get_subcommands([](CLI::App* each) { return !each->get_name().empty(); }))
        {
            if (item.parents.size() == 1 && subcommand->get_name() == item.parents.front())
            {
                return *subcommand;
            }
            names.push_back(subcommand->get_name());
        }
        Refuse(file_, "unknown section \"" + CLI::detail::join(item.parents, ".") + "\"" +
                          Suggestion(item.parents.front(), names));
    }

    CLI::Option& OptionOf(const CLI::ConfigItem& item, CLI::App& section)
    {
        std::vector<CLI::Option*> options = SettableOptions(section);
        if (&section != &root_)
        {
            const std::vector<CLI::Option*> common = SettableOptions(root_);
            options.insert(options.end(), common.begin(), common.end());
        }
        const auto found = std::find_if(options.begin(), options.end(),
                                        [&item](const CLI::Option* option) { return KeyOf(*option) == item.name; });
        if (found != options.end() && item.name != "config")
        {
            return **found;
        }
        Refuse(file_, "unknown key \"" + item.fullname() + "\"" + Suggestion(item.name, NamesOf(options)));
    }

    static bool Owns(CLI::App& section, const CLI::Option& option)
    {
        const std::vector<CLI::Option*> options = SettableOptions(section);
        return std::find(options.begin(), options.end(), &option) != options.end();
    }

    const std::filesystem::path& file_;
    CLI::App& root_;
    const CLI::App& chosen_;
    std::set<std::pair<const CLI::App*, const CLI::Option*>> taken_;
};

}  // namespace

void TakeConfigurationFile(const std::filesystem::path& file, CLI::App& root, const CLI::App& chosen)
{
    Reader(file, root, chosen).Read();
}

std::vector<std::filesystem::path> DefaultConfigurationFiles(const std::filesystem::path& system)
{
    std::vector<std::filesystem::path> files{system};
    const char* const configured = std::getenv("XDG_CONFIG_HOME");
    const char* const home = std::getenv("HOME");
    if (configured != nullptr && *configured == '/')
    {
        files.push_back(std::filesystem::path(configured) / "velmor.conf");
    }
    else if (home != nullptr && *home != '\0')
    {
        files.push_back(std::filesystem::path(home) / ".config" / "velmor.conf");
    }
    files.erase(std::remove_if(files.begin(), files.end(),
                               [](const std::filesystem::path& file) {
                                   std::error_code ignored;
                                   return !std::filesystem::exists(file, ignored);
                               }),
                files.end());
    return files;
}

}  // namespace kx::velmor::cli
