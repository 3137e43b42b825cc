#pragma once

// Each family of commands registers its subcommands on the application. A subcommand's callback
// stores its exit code in `status`.

#include "Tool.hpp"

#include <CLI/App.hpp>

namespace vfs_tool {

struct CommandSet {
    CLI::App& app;
    Tool& tool;
    int& status;
};

void addListCommands(const CommandSet& commands);   // ls, tree, find, du
void addItemCommands(const CommandSet& commands);   // stat, cat, touch, mkdir
void addChangeCommands(const CommandSet& commands); // cp, mv, rm
void addWatchCommand(const CommandSet& commands);   // watch

} // namespace vfs_tool
