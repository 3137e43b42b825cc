// vfs: files and folders of any storage the library serves (file:///..., mem://..., plain paths),
// from a shell. Exit codes: 0 success, 1 an operation failed, 2 usage error.

#include "Commands.hpp"

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include <clocale>
#include <cstdio>

int main(int argc, char** argv)
{
    using namespace vfs_tool;
    installInterruptHandler();

    CLI::App app{"vfs: files and folders on any storage, named by IRIs (file:///..., mem://...) or local paths"};
    app.name("vfs");
    app.require_subcommand(1);
    // "-h" means human-readable sizes in ls and du, as in the classic tools.
    app.set_help_flag("--help", "Show help");
    app.set_version_flag("--version", "vfs " VFS_TOOL_VERSION, "Show the version");
    int status = Success;
    Tool tool;
    const CommandSet commands{app, tool, status};
    addListCommands(commands);
    addItemCommands(commands);
    addChangeCommands(commands);
    addWatchCommand(commands);
    for (CLI::App* command : app.get_subcommands({}))
        command->set_help_flag("--help", "Show this command's help");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForVersion& version) {
        return app.exit(version);
    } catch (const CLI::ParseError& error) {
        // One line, in the tool's own form, and a pointer to the help.
        if (!app.get_subcommands().empty())
            fmt::print(stderr, "vfs: {}: {}\n", app.get_subcommands().front()->get_name(), error.what());
        else if (argc > 1 && argv[1][0] != '-')
            fmt::print(stderr, "vfs: unknown command: {}\n", argv[1]);
        else
            fmt::print(stderr, "vfs: {}\n", error.what());
        fmt::print(stderr, "Run 'vfs --help' or 'vfs COMMAND --help' for the options.\n");
        return Usage;
    }
    // Output lost (a full disk, a closed pipe) is a failure, whatever the command did.
    if ((std::fflush(stdout) != 0 || std::ferror(stdout)) && status == Success) {
        fmt::print(stderr, "vfs: cannot write the output\n");
        return Failed;
    }
    return status;
}
