#pragma once

#include "cli/front.h"
#include "cli/options.h"
#include "tests/support/temporary_directory.h"

#include <CLI/CLI.hpp>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace kx::velmor::cli {

/// The front with two subcommands that note what they were given: `probe`, and `other`, which takes a command.
class FrontTest : public testing::Test
{
protected:
    using Arguments = std::vector<std::string>;

    /// What `probe` has of its own.
    struct Probe
    {
        std::chrono::milliseconds grace{10'000};
        std::optional<std::chrono::milliseconds> limit;
        std::string name = "nobody";
        std::string mode = "calm";
        int count = 3;
        bool quick = false;
        std::string needed;
        std::string apart;
    };

    void SetUp() override
    {
        std::vector<std::string> names;
        for (char** variable = environ; *variable != nullptr; ++variable)
        {
            const std::string text = *variable;
            if (text.compare(0, 7, "VELMOR_") == 0 || text.compare(0, 3, "KX_") == 0)
            {
                names.push_back(text.substr(0, text.find('=')));
            }
        }
        for (const std::string& name : names)
        {
            unsetenv(name.c_str());
        }
        SetEnvironment("XDG_CONFIG_HOME", directory_.Path());
    }

    static void SetEnvironment(const std::string& name, const std::string& value)
    {
        setenv(name.c_str(), value.c_str(), 1);
    }

    std::filesystem::path SystemFile() const { return directory_.Path() / "system.conf"; }
    std::filesystem::path UserFile() const { return directory_.Path() / "velmor.conf"; }

    std::filesystem::path Write(const std::filesystem::path& file, const std::string& text, mode_t mode = 0600)
    {
        std::ofstream(file) << text;
        chmod(file.c_str(), mode);
        return file;
    }

    /// Runs the front as `velmor arguments...`.
    int Run(const Arguments& arguments)
    {
        out_.str("");
        err_.str("");
        probe_ = Probe();
        settings_.reset();
        Front front(out_, err_, SystemFile());
        AddProbe(front);
        AddOther(front);
        return front.Run(arguments);
    }

    /// The same for `velmor probe` with what every subcommand must have.
    int RunProbe(Arguments arguments)
    {
        const Arguments before{"probe", "--servers", "one:2181", "--election", "/election"};
        arguments.insert(arguments.begin(), before.begin(), before.end());
        return Run(arguments);
    }

    std::string Out() const { return out_.str(); }
    std::string Err() const { return err_.str(); }

    Probe probe_;
    /// What the subcommand was given; empty when it was not run.
    std::optional<Settings> settings_;
    std::string chosen_;
    /// What it does.
    std::function<int()> body_ = [] { return 0; };
    Defaults defaults_;
    bool neededIsRequired_ = false;

private:
    void AddProbe(Front& front)
    {
        CLI::App* const app =
            front.Application().add_subcommand("probe", "Notes what it is given. And says so at length.");
        AddDuration(*app, "--grace", probe_.grace, "How long", std::chrono::milliseconds(0));
        AddDuration(*app, "--limit", probe_.limit, "How much longer");
        app->add_option("--name", probe_.name, "Who");
        app->add_option("--mode", probe_.mode, "How")->check(CLI::IsMember({"calm", "hasty"}));
        app->add_option("--count", probe_.count, "How many");
        CLI::Option* const quick = app->add_flag("--quick", probe_.quick, "Whether at once");
        app->add_option("--needed", probe_.needed, "What")->required(neededIsRequired_)->type_name("THING");
        CLI::Option* const apart = app->add_option("--apart", probe_.apart, "What else");
        app->add_flag("--with-quick", "Of use with --quick")->needs(quick)->excludes(apart);
        app->footer(
            "Words that are put together\nin lines of their own, as long as they may be, and no\nlonger.\n\n"
            "Examples:\n  velmor   probe");
        front.Add(Subcommand{app, [this](const Settings& settings) { return Note("probe", settings); }, defaults_});
    }

    void AddOther(Front& front)
    {
        CLI::App* const app = front.Application().add_subcommand("other", "Takes a command");
        Defaults defaults;
        defaults.takesCommand = true;
        AddDuration(*app, "--pause", pause_, "How long");
        front.Add(Subcommand{app, [this](const Settings& settings) { return Note("other", settings); }, defaults});
    }

    int Note(const std::string& name, const Settings& settings)
    {
        chosen_ = name;
        settings_ = settings;
        return body_();
    }

    const testing_support::TemporaryDirectory directory_;
    std::ostringstream out_;
    std::ostringstream err_;
    std::chrono::milliseconds pause_{1'000};
};

}  // namespace kx::velmor::cli
