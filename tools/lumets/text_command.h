// "lumets text": renders one styled text to a PNG, for looking at styles.
#pragma once

#include <CLI/CLI.hpp>

namespace lumets::tool {

// Adds the subcommand; the returned callback runs it when it was parsed.
void AddTextCommand(CLI::App& app);

}  // namespace lumets::tool
