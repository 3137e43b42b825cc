// watch: one line per change of a file or folder until interrupted.

#include "Commands.hpp"
#include "Output.hpp"

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include <boost/json/object.hpp>
#include <boost/variant/apply_visitor.hpp>
#include <boost/variant/get.hpp>

#include <chrono>
#include <csignal>
#include <memory>
#include <mutex>

namespace vfs_tool {

namespace {

struct WatchOptions {
    std::string location = ".";
    bool recursive = false;
    int pollMs = 0;
    bool json = false;
};

const char* kindName(foundation::storage::events::Kind kind)
{
    using foundation::storage::events::Kind;
    switch (kind) {
    case Kind::Created: return "created";
    case Kind::Removed: return "removed";
    case Kind::Modified: return "modified";
    case Kind::AttributesChanged: return "attributes";
    case Kind::RenamedFrom: return "renamed-from";
    case Kind::RenamedTo: return "renamed-to";
    case Kind::Overflow: return "overflow";
    }
    return "unknown";
}

// Blocks until SIGINT or SIGTERM. The signals are blocked while the flag is tested, so one that
// arrives in between is taken by sigsuspend rather than lost.
void waitForInterrupt()
{
    struct sigaction action {};
    action.sa_handler = [](int) { interrupted().store(true); };
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGTERM, &action, nullptr);
    sigset_t blocked, previous;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGINT);
    sigaddset(&blocked, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &blocked, &previous);
    while (!interrupted().load())
        ::sigsuspend(&previous);
    ::sigprocmask(SIG_SETMASK, &previous, nullptr);
}

int runWatch(Tool& tool, const WatchOptions& options)
{
    const vfs::AbsoluteIRI location = tool.locate(options.location);
    const bool isFile = tool.existingKindAt(location, options.location) == provider::ExistenceType::File;
    boost::variant<vfs::File, vfs::Folder> item = tool.folder(location);
    if (isFile)
        item = tool.file(location);
    if (options.pollMs < 0)
        throw ToolError("the polling interval must be positive", std::to_string(options.pollMs), Usage);
    if (options.pollMs > 0 && isFile)
        throw ToolError("polling needs a folder", options.location);

    std::mutex printing;
    vfs::WatchOptions how;
    how.recursive = options.recursive;
    how.pollInterval = std::chrono::milliseconds(options.pollMs);
    const vfs::Watch watch = vfs::watch(
        item,
        [&](const vfs::Event& event) {
            const auto data = event.getEventData();
            const auto changed = data.getFileOrFolder();
            const bool folder = changed.which() == 1;
            const vfs::AbsoluteIRI where =
                boost::apply_visitor([](const auto& handle) { return handle.getLocation(); }, changed);
            std::lock_guard lock(printing);
            if (options.json) {
                boost::json::object object;
                object["kind"] = kindName(data.getKind());
                object["type"] = folder ? "folder" : "file";
                object["iri"] = utf8(where.toString());
                printJsonLine(object);
            } else {
                fmt::print("{}\t{}\t{}\n", kindName(data.getKind()), folder ? "folder" : "file", utf8(where.toString()));
                std::fflush(stdout);
            }
        },
        how);
    fmt::print(stderr, "watching {} (Ctrl-C to stop)\n", display(location));
    std::fflush(stderr);
    waitForInterrupt();
    return Success;
}

} // namespace

void addWatchCommand(const CommandSet& commands)
{
    auto watch = std::make_shared<WatchOptions>();
    CLI::App* command = commands.app.add_subcommand("watch", "Print one line per change until interrupted");
    command->add_flag("-r", watch->recursive, "Watch the whole tree below a folder");
    command->add_option("--poll", watch->pollMs, "Poll the folder every MS milliseconds instead of watching");
    command->add_flag("--json", watch->json, "One JSON object per change and line");
    command->add_option("LOCATION", watch->location, "An IRI or a local path (default: .)");
    command->callback([=] { commands.status = runReported("watch", [&] { return runWatch(commands.tool, *watch); }); });
}

} // namespace vfs_tool
