#pragma once

#include <filesystem>
#include <vector>

namespace CLI {
class App;
}  // namespace CLI

namespace kx::velmor::cli {

/// Reads the options of a configuration file: `key = value` in TOML or INI, those of one subcommand in a section of its
/// name. Common options may stand in such a section, too, and then go before those outside of it.
///
/// Options of `root`, and of the subcommand `chosen`, that have no value yet get one. Options of other subcommands are
/// read all the same, so that what is wrong with a file does not wait for one of them to be found.
/// Throws `Failure(kConfiguration)`, which names file and key, for what cannot be read, means nothing or is said twice.
void TakeConfigurationFile(const std::filesystem::path& file, CLI::App& root, const CLI::App& chosen);

/// `system`, and then `velmor.conf` where the user's configuration is: those of them that are there.
std::vector<std::filesystem::path> DefaultConfigurationFiles(const std::filesystem::path& system);

}  // namespace kx::velmor::cli
