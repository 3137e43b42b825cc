// cp, mv, rm: commands that change the storage.

#include "Commands.hpp"
#include "Progress.hpp"

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include <map>
#include <memory>
#include <vector>

namespace vfs_tool {

namespace {

// Where SRC lands for "cp SRC DST" and "mv SRC DST": inside DST when DST is a folder, DST itself
// otherwise.
vfs::AbsoluteIRI landingPlace(Tool& tool, const vfs::AbsoluteIRI& source, const vfs::AbsoluteIRI& destination)
{
    if (tool.kindAt(destination) == provider::ExistenceType::Folder)
        return vfs::AbsoluteIRI(destination, source.getName());
    return destination;
}

// Feeds a tree copy's or removal's running totals into the progress line, and stops the work on
// Ctrl-C.
vfs::TreeProgressObserver drawingOn(Progress& progress)
{
    auto shown = std::make_shared<vfs::TreeProgress>();
    return [&progress, shown](const vfs::TreeProgress& now) {
        progress.add(now.files + now.folders - shown->files - shown->folders, now.bytes - shown->bytes);
        *shown = now;
        return !interrupted().load(std::memory_order_relaxed);
    };
}

provider::ReplacementPolicy policyNamed(const std::string& name)
{
    static const std::map<std::string, provider::ReplacementPolicy> policies = {
        {"fail", provider::ReplacementPolicy::FailIfExists},
        {"replace", provider::ReplacementPolicy::Replace},
        {"merge", provider::ReplacementPolicy::MergeFolders},
    };
    return policies.at(name);
}

// ---- cp -----------------------------------------------------------------------------------------

struct CpOptions {
    std::string source;
    std::string destination;
    bool recursive = false;
    std::string policy = "merge";
};

int runCp(Tool& tool, const CpOptions& options)
{
    const vfs::AbsoluteIRI source = tool.locate(options.source);
    const vfs::AbsoluteIRI destination = tool.locate(options.destination);
    const auto kind = tool.existingKindAt(source, options.source);
    const vfs::AbsoluteIRI target = landingPlace(tool, source, destination);
    const auto policy = policyNamed(options.policy);
    if (kind == provider::ExistenceType::Folder) {
        if (!options.recursive)
            throw ToolError("is a folder (use -r)", options.source);
        if (tool.kindAt(target) == provider::ExistenceType::File)
            throw ToolError("cannot replace a file with a folder", display(target));
        Progress progress("copied");
        if (!tool.folder(source).copyFolder(tool.folder(target), policy, drawingOn(progress)))
            throw ToolError(fmt::format("interrupted after {} items, partial copy left", progress.items()),
                            display(target));
        return Success;
    }
    if (tool.kindAt(target) == provider::ExistenceType::Folder)
        throw ToolError("cannot replace a folder with a file", display(target));
    Progress progress("copied");
    provider::CopyFileOptions copyOptions;
    copyOptions.replacementPolicy = policy;
    std::uint64_t shown = 0;
    copyOptions.progress = [&](std::uint64_t copied, std::uint64_t) {
        progress.add(0, copied - shown);
        shown = copied;
        return !interrupted().load(std::memory_order_relaxed);
    };
    if (tool.file(source).copyFile(tool.file(target), copyOptions) == provider::TransactionStatus::NothingDone &&
        interrupted().load(std::memory_order_relaxed))
        throw ToolError("interrupted, nothing copied", display(target));
    return Success;
}

// ---- mv -----------------------------------------------------------------------------------------

int runMv(Tool& tool, const std::string& sourceOperand, const std::string& destinationOperand)
{
    const vfs::AbsoluteIRI source = tool.locate(sourceOperand);
    const vfs::AbsoluteIRI destination = tool.locate(destinationOperand);
    const auto kind = tool.existingKindAt(source, sourceOperand);
    const vfs::AbsoluteIRI target = landingPlace(tool, source, destination);
    if (kind == provider::ExistenceType::File) {
        if (tool.kindAt(target) == provider::ExistenceType::Folder)
            throw ToolError("cannot replace a folder with a file", display(target));
        tool.file(source).moveFile(tool.file(target), provider::ReplacementPolicy::Replace);
    } else {
        tool.folder(source).moveFolder(tool.folder(target), provider::ReplacementPolicy::Replace);
    }
    return Success;
}

// ---- rm -----------------------------------------------------------------------------------------

int runRm(Tool& tool, const std::vector<std::string>& operands, bool recursive)
{
    int status = Success;
    Progress progress("removed");
    for (const std::string& operand : operands) {
        checkInterrupted();
        const int result = runReported("rm", [&] {
            const vfs::AbsoluteIRI location = tool.locate(operand);
            if (tool.existingKindAt(location, operand) == provider::ExistenceType::File) {
                tool.file(location).removeFile();
            } else {
                if (!recursive)
                    throw ToolError("is a folder (use -r)", operand);
                if (!tool.folder(location).removeFolder(vfs::FolderRemovalPolicy::Recursive, drawingOn(progress)))
                    throw ToolError(fmt::format("interrupted after {} items, partly removed", progress.items()),
                                    operand);
                return Success;
            }
            progress.add(1);
            return Success;
        });
        status = std::max(status, result);
    }
    return status;
}

} // namespace

void addChangeCommands(const CommandSet& commands)
{
    auto cp = std::make_shared<CpOptions>();
    CLI::App* cpCommand = commands.app.add_subcommand("cp", "Copy a file, or a folder tree with -r");
    cpCommand->add_flag("-r", cp->recursive, "Copy folders and everything below them");
    cpCommand->add_option("--policy", cp->policy, "When the target exists: fail, replace, or merge (default)")
        ->check(CLI::IsMember({"fail", "replace", "merge"}));
    cpCommand->add_option("SRC", cp->source, "What to copy (IRI or local path)")->required();
    cpCommand->add_option("DST", cp->destination, "Where to (into it when it is a folder)")->required();
    cpCommand->callback([=] { commands.status = runReported("cp", [&] { return runCp(commands.tool, *cp); }); });

    auto mvSource = std::make_shared<std::string>();
    auto mvDestination = std::make_shared<std::string>();
    CLI::App* mv = commands.app.add_subcommand("mv", "Move or rename a file or folder");
    mv->add_option("SRC", *mvSource, "What to move (IRI or local path)")->required();
    mv->add_option("DST", *mvDestination, "Where to (into it when it is a folder)")->required();
    mv->callback(
        [=] { commands.status = runReported("mv", [&] { return runMv(commands.tool, *mvSource, *mvDestination); }); });

    auto rmLocations = std::make_shared<std::vector<std::string>>();
    auto rmRecursive = std::make_shared<bool>(false);
    CLI::App* rm = commands.app.add_subcommand("rm", "Remove files, or folder trees with -r");
    rm->add_flag("-r", *rmRecursive, "Remove folders and everything below them");
    rm->add_option("LOCATION", *rmLocations, "IRIs or local paths")->required();
    rm->callback([=] { commands.status = runRm(commands.tool, *rmLocations, *rmRecursive); });
}

} // namespace vfs_tool
