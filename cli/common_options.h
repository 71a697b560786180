#pragma once

#include "cli/settings.h"
#include "cli/subcommand.h"

#include <string>

namespace kx::velmor::cli {

/// The options that all subcommands have. The object must outlive the parsing.
class CommonOptions
{
public:
    /// Under the heading `group`. Values are checked when they are taken.
    CommonOptions(CLI::App& application, const std::string& group);

    CommonOptions(const CommonOptions&) = delete;
    CommonOptions& operator=(const CommonOptions&) = delete;

    /// When all sources are read: what was given, and `defaults` for what was not. Reads the credentials.
    /// Throws `Failure(kUsage)` for what is missing or cannot be read; no text has anything of the credentials.
    Settings Complete(const Defaults& defaults) const;

    /// Sets up the log.
    void StartLog(const Defaults& defaults) const;

    bool LogsJson() const { return logFormat_ == "json"; }

    /// May be empty.
    const std::string& ConfigurationFile() const { return configurationFile_; }

private:
    std::string servers_;
    std::string election_;
    std::string root_;
    std::string digestFile_;
    std::optional<std::chrono::milliseconds> sessionTimeout_;
    std::optional<std::chrono::milliseconds> connectTimeout_;
    std::string logLevel_;
    std::string logFormat_ = "text";
    std::string configurationFile_;
};

/// "user:password" from a file of one line. Throws `Failure(kUsage)`, also when everybody may read or change the file.
std::string ReadDigest(const std::string& file);

}  // namespace kx::velmor::cli
