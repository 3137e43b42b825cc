// cp, mv, rm: commands that change the storage.

#include "Commands.hpp"
#include "Progress.hpp"

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include <boost/exception/get_error_info.hpp>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <memory>
#include <vector>

#include <sys/stat.h>

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

// Where a local location is once the kernel has followed every link on its way: its nearest
// existing ancestor resolved, with the names below it as given. Nothing for other storages.
std::optional<std::filesystem::path> resolvedLocally(const vfs::AbsoluteIRI& location)
{
    if (location.getScheme() != u"file" || location.hasInnerIRI())
        return std::nullopt;
    std::filesystem::path path;
    try {
        path = vfs::fromAbsoluteIRI(location);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    std::filesystem::path below;
    for (;;) {
        if (char* resolved = ::realpath(path.c_str(), nullptr)) {
            std::filesystem::path result(resolved);
            std::free(resolved);
            return below.empty() ? result : result / below;
        }
        if (!path.has_relative_path())
            return std::nullopt;
        below = below.empty() ? path.filename() : path.filename() / below;
        path = path.parent_path();
    }
}

// Whether `target` lies in the folder `source` or is it, links followed (a target reached through a
// link to the source is inside it all the same).
bool insideThroughLinks(const vfs::AbsoluteIRI& source, const vfs::AbsoluteIRI& target)
{
    const auto from = resolvedLocally(source);
    const auto to = resolvedLocally(target);
    if (!from || !to)
        return false;
    const std::string prefix = from->string() == "/" ? "/" : from->string() + "/";
    return *to == *from || to->string().starts_with(prefix);
}

// ---- cp -----------------------------------------------------------------------------------------

struct CpOptions {
    std::string source;
    std::string destination;
    bool recursive = false;
    bool followLinks = false; // -L
    bool keepLinks = false;   // -P, the default
    bool oneFileSystem = false; // -x
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
        if (insideThroughLinks(source, target))
            throw ToolError("cannot move or copy a folder into itself", display(target));
        Progress progress("copied");
        // Merging, what cannot be read is reported one by one and the rest is copied, as cp -r does.
        const auto treePolicy =
            policy == provider::ReplacementPolicy::MergeFolders ? provider::ReplacementPolicy::MergeCollectingFailures : policy;
        try {
            const auto links = options.followLinks ? vfs::LinkHandling::Follow : vfs::LinkHandling::Keep;
            const vfs::Folder from = tool.folder(source);
            const auto boundary = options.oneFileSystem ? onFileSystemOf(from) : vfs::TreeBoundary();
            if (!from.copyFolder(tool.folder(target), treePolicy, drawingOn(progress), links, boundary))
                throw ToolError(fmt::format("interrupted after {} items, partial copy left", progress.items()),
                                display(target));
        } catch (const vfs::Exception& error) {
            const auto* all = boost::get_error_info<vfs::CollectedCopyFailures>(error);
            if (!all)
                throw;
            progress.finish();
            for (const vfs::Exception& failure : *all) {
                try {
                    failure.rethrow();
                } catch (...) {
                    reportCurrentFailure("cp");
                }
            }
            throw ToolError(fmt::format("{} left out, partial copy left", all->size()), display(target));
        }
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

struct RmOptions {
    std::vector<std::string> operands;
    bool recursive = false;
    bool preserveRoot = true;
    bool oneFileSystem = false; // -x
};

// The last name of an operand as written ("sub/.." gives ".."), trailing slashes left out.
std::string lastNameWritten(std::string operand)
{
    while (operand.size() > 1 && operand.back() == '/')
        operand.pop_back();
    const std::size_t slash = operand.rfind('/');
    return slash == std::string::npos ? operand : operand.substr(slash + 1);
}

// Whether the location is the root of its storage, or, on the local disk, the root folder reached
// by another name (a bind mount or /proc/self/root).
bool isStorageRoot(const vfs::AbsoluteIRI& location)
{
    if (location.getPath() == u"/")
        return true;
    if (location.getScheme() != u"file" || location.hasInnerIRI())
        return false;
    struct stat root {};
    struct stat here {};
    try {
        return ::stat("/", &root) == 0 && ::stat(vfs::fromAbsoluteIRI(location).c_str(), &here) == 0 &&
               root.st_dev == here.st_dev && root.st_ino == here.st_ino;
    } catch (const std::exception&) {
        return false;
    }
}

int runRm(Tool& tool, const RmOptions& options)
{
    const bool recursive = options.recursive;
    int status = Success;
    Progress progress("removed");
    for (const std::string& operand : options.operands) {
        checkInterrupted();
        const int result = runReported("rm", [&]() -> int {
            const std::string last = lastNameWritten(operand);
            if (last == "." || last == ".." || operand.ends_with("/.") || operand.ends_with("/.."))
                throw ToolError("refusing to remove '.' or '..'", operand);
            const vfs::AbsoluteIRI location = tool.locate(operand);
            if (tool.isLinkAt(location) && !operand.ends_with("/")) {
                // The link goes, never what it leads to (as rm does, with or without -r).
                tool.file(location).removeFile();
                progress.add(1);
                return Success;
            }
            const auto kind = tool.existingKindAt(location, operand);
            if (kind == provider::ExistenceType::File && operand.ends_with("/"))
                throw ToolError("not a folder", operand);
            if (kind == provider::ExistenceType::File) {
                tool.file(location).removeFile();
            } else {
                if (recursive && options.preserveRoot && isStorageRoot(location))
                    throw ToolError("refusing to remove the root folder (--no-preserve-root overrides)", operand);
                if (!recursive)
                    throw ToolError("is a folder (use -r)", operand);
                const vfs::Folder folder = tool.folder(location);
                // With -x a folder of another file system is left, and said so, as rm does.
                int skipped = Success; // Failed once a folder is left out
                const auto leftOut = [&](const vfs::Folder& other) {
                    progress.finish();
                    try {
                        throw ToolError("skipped, on another file system", display(other.getLocation()));
                    } catch (const ToolError&) {
                        skipped = reportCurrentFailure("rm");
                    }
                };
                const auto boundary = options.oneFileSystem ? onFileSystemOf(folder, leftOut) : vfs::TreeBoundary();
                if (!folder.removeFolder(vfs::FolderRemovalPolicy::Recursive, drawingOn(progress), boundary))
                    throw ToolError(fmt::format("interrupted after {} items, partly removed", progress.items()),
                                    operand);
                return skipped;
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
    CLI::Option* follow = cpCommand->add_flag(
        "-L,--dereference", cp->followLinks, "With -r, copy what the links inside the tree lead to, folders walked into");
    cpCommand
        ->add_flag("-P,--no-dereference", cp->keepLinks,
                   "With -r, copy the links inside the tree as links with the same target text (the default); a "
                   "storage that cannot hold links reports each one and the rest is copied")
        ->excludes(follow);
    cpCommand->add_flag("-x,--one-file-system", cp->oneFileSystem,
                        "With -r, stay on the file system of SRC: a folder of another one (a mount point) is made "
                        "empty at the target");
    cpCommand->add_option("--policy", cp->policy, "When the target exists: fail; replace (files, and folders only when empty); or merge (default: "
                                              "into existing folders, replacing files)")
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

    auto rm = std::make_shared<RmOptions>();
    CLI::App* rmCommand = commands.app.add_subcommand(
        "rm", "Remove files, or folder trees with -r. A link is removed, never what it leads to; '.' and '..' are "
              "refused, and so is the root folder unless --no-preserve-root is given");
    rmCommand->add_flag("-r", rm->recursive, "Remove folders and everything below them");
    rmCommand->add_flag("--preserve-root,!--no-preserve-root", rm->preserveRoot,
                        "Refuse to remove the root folder of a storage (the default)");
    rmCommand->add_flag("-x,--one-file-system", rm->oneFileSystem,
                        "With -r, leave folders on other file systems (mount points) as they are, and the folders "
                        "above them; each one is reported and the exit code is 1");
    rmCommand->add_option("LOCATION", rm->operands, "IRIs or local paths")->required();
    rmCommand->callback([=] { commands.status = runRm(commands.tool, *rm); });
}

} // namespace vfs_tool
