// ls, tree, find, du: commands that read a folder tree.

#include "Commands.hpp"
#include "Output.hpp"
#include "Progress.hpp"
#include "Traversal.hpp"

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include <boost/json/object.hpp>

#include <map>
#include <set>
#include <utility>

#include <sys/stat.h>
#include <mutex>
#include <memory>

namespace vfs_tool {

namespace {

// ---- ls -----------------------------------------------------------------------------------------

struct LsOptions {
    std::string location = ".";
    bool longFormat = false;
    bool recursive = false;
    bool all = false;
    bool human = false;
    bool json = false;
    std::string pattern;
};

// The kind letter of ls -l: a link, a folder, or by the mode bits a FIFO, a socket, a device or a
// file.
char kindLetter(const VisitedEntry& entry, bool link)
{
    if (link)
        return 'l';
    if (!entry.isFile)
        return 'd';
    const std::uint32_t mode = entry.extended && entry.extended->posixMode ? *entry.extended->posixMode : 0;
    switch (mode & S_IFMT) {
    case S_IFIFO: return 'p';
    case S_IFSOCK: return 's';
    case S_IFCHR: return 'c';
    case S_IFBLK: return 'b';
    default: return '-';
    }
}

void printLsLine(const Tool& tool, const LsOptions& options, const VisitedEntry& entry, const std::string& shownName)
{
    if (options.json) {
        boost::json::object object;
        object["name"] = jsonText(shownName);
        object["type"] = entry.isFile ? "file" : "folder";
        object["iri"] = utf8(entry.location.toString());
        if (entry.fileAttributes)
            addAttributes(object, *entry.fileAttributes);
        if (entry.dangling)
            object["symlink"] = true;
        if (entry.folderAttributes)
            addAttributes(object, *entry.folderAttributes);
        printJsonLine(object);
        return;
    }
    if (!options.longFormat) {
        fmt::print("{}{}\n", shownName, entry.isFile ? "" : "/");
        return;
    }
    const bool link = entry.isFile ? entry.dangling || (entry.fileAttributes && entry.fileAttributes->isSymlink())
                                   : entry.folderAttributes && entry.folderAttributes->isSymlink();
    const char type = kindLetter(entry, link);
    std::string size = "-";
    if (entry.fileAttributes || link) {
        const std::uint64_t bytes = link ? tool.linkSize(entry.location) : entry.fileAttributes->getSize();
        size = options.human ? humanSize(bytes) : std::to_string(bytes);
    }
    const std::string modified = entry.dangling ? "-"
                                 : entry.isFile  ? shortTime(entry.fileAttributes->getLastModified())
                                                 : shortTime(entry.folderAttributes->getLastModified());
    fmt::print("{} {:>10}  {:>16}  {}{}\n", type, size, modified, shownName, entry.isFile ? "" : "/");
}

int runLs(Tool& tool, const LsOptions& options)
{
    const vfs::AbsoluteIRI location = tool.locate(options.location);
    TraversalOptions traversal;
    traversal.withAttributes = options.longFormat || options.json;
    traversal.withExtended = options.longFormat;
    traversal.includeHidden = options.all;
    traversal.pattern = utf16(options.pattern);

    if (tool.existingKindAt(location, options.location) == provider::ExistenceType::File) {
        const vfs::File file = tool.file(location);
        VisitedEntry entry(location);
        entry.name = options.location;
        if (traversal.withAttributes)
            entry.fileAttributes = file.getAttributes();
        if (traversal.withExtended && !tool.isLinkAt(location))
            entry.extended = file.getExtendedAttributes();
        printLsLine(tool, options, entry, options.location);
        return Success;
    }
    int status = Success;
    // Each folder's block, then its subfolders' blocks, as ls -R prints them.
    std::function<void(const vfs::Folder&, const VisitedEntry*, const std::string&)> listFolder =
        [&](const vfs::Folder& folder, const VisitedEntry* self, const std::string& heading) {
            std::vector<VisitedEntry> children;
            try {
                children = childrenOf(folder, traversal, self);
            } catch (const ToolError&) {
                throw;
            } catch (...) {
                status = reportCurrentFailure("ls");
                return;
            }
            if (options.recursive && !options.json)
                fmt::print("{}{}:\n", self ? "\n" : "", heading);
            for (const VisitedEntry& child : children)
                printLsLine(tool, options, child, options.recursive && options.json ? child.relativePath : child.name);
            if (!options.recursive)
                return;
            for (const VisitedEntry& child : children)
                if (child.enterable())
                    listFolder(*child.folder, &child, display(child.location));
        };
    listFolder(tool.folder(location), nullptr, display(location));
    return status;
}

// ---- tree ---------------------------------------------------------------------------------------

int runTree(Tool& tool, const std::string& operand, bool all)
{
    const vfs::AbsoluteIRI location = tool.locate(operand);
    if (tool.existingKindAt(location, operand) == provider::ExistenceType::File)
        throw ToolError("not a folder", operand);
    TraversalOptions traversal;
    traversal.includeHidden = all;
    int status = Success;
    std::uint64_t files = 0;
    std::uint64_t folders = 0;
    // One flag per open level: whether a later sibling follows, which decides "│" or blank.
    std::vector<bool> open;
    fmt::print("{}\n", display(location));
    traverse(
        tool.folder(location), traversal,
        [&](const VisitedEntry& entry) {
            open.resize(static_cast<std::size_t>(entry.depth - 1));
            std::string line;
            for (const bool more : open)
                line += more ? "\u2502   " : "    ";
            line += entry.isLastChild ? "\u2514\u2500\u2500 " : "\u251c\u2500\u2500 ";
            line += entry.name;
            if (!entry.enterable() && !entry.isFile)
                line += " -> (link)";
            fmt::print("{}\n", line);
            open.push_back(!entry.isLastChild);
            ++(entry.isFile ? files : folders);
            return true;
        },
        [&] { status = reportCurrentFailure("tree"); });
    fmt::print("\n{} {}, {} {}\n", folders, folders == 1 ? "folder" : "folders", files, files == 1 ? "file" : "files");
    return status;
}

// ---- find ---------------------------------------------------------------------------------------

struct FindOptions {
    std::string location = ".";
    std::string name;
    std::string type;
    bool parallel = false;
    bool json = false;
    bool followLinks = false; // -L; -P (the default) lists links to folders without entering them
    bool print0 = false;
    bool oneFileSystem = false; // -x
};

// Prints the matches of a walk. Under the parallel walk its visits run on several threads at once:
// the counters are atomic and printing is serialised.
class FindVisitor : public vfs::FolderVisitor {
public:
    FindVisitor(const FindOptions& options, const vfs::Folder& root)
        : m_options(options), m_root(root.getLocation()), m_pattern(utf16(options.name)), m_progress("scanned"),
          m_boundary(options.oneFileSystem ? onFileSystemOf(root) : vfs::TreeBoundary())
    {
    }

    vfs::FolderVisitResult visitEntryBefore(const vfs::FolderEntry& entry) override
    {
        const vfs::AbsoluteIRI location = entry.getFolder().getLocation();
        if (location == m_root)
            return interrupted() ? vfs::FolderVisitResult::Stop : vfs::FolderVisitResult::Continue;
        report(entry.getName(), location, false);
        if (interrupted())
            return vfs::FolderVisitResult::Stop;
        if (!m_options.followLinks && entry.getAttributes().isSymlink())
            return vfs::FolderVisitResult::Skip;
        // Another file system is listed where it is mounted, not entered.
        return m_boundary && !m_boundary(entry.getFolder()) ? vfs::FolderVisitResult::Skip
                                                             : vfs::FolderVisitResult::Continue;
    }

    vfs::FolderVisitResult visitEntry(const vfs::FileEntry& entry) override
    {
        report(entry.getName(), entry.getFile().getLocation(), true);
        return interrupted() ? vfs::FolderVisitResult::Stop : vfs::FolderVisitResult::Continue;
    }

    // An unreadable folder is reported and left out; the walk goes on.
    vfs::FolderVisitResult visitFolderEntryFailed(const vfs::FolderEntry&, const vfs::Exception& failure) override
    {
        std::lock_guard lock(m_printing);
        m_progress.finish();
        try {
            failure.rethrow();
        } catch (...) {
            m_status = reportCurrentFailure("find");
        }
        return vfs::FolderVisitResult::Skip;
    }

    int status() const { return m_status; }
    void finish() { m_progress.finish(); }

private:
    void report(const ustring& name, const vfs::AbsoluteIRI& location, bool isFile)
    {
        m_progress.add(1);
        const bool kindMatches = m_options.type.empty() || (m_options.type == "f") == isFile;
        const ustring bare = name.substr(name.rfind(u'/') + 1);
        if (!kindMatches || (!m_pattern.empty() && !provider::matchesWildcard(bare, m_pattern)))
            return;
        std::lock_guard lock(m_printing);
        m_progress.finish();
        if (m_options.json) {
            boost::json::object object;
            object["iri"] = utf8(location.toString());
            object["path"] = fl::i18n::ustring_to_utf8_lossy(location.makePathRelativeTo(m_root));
            object["type"] = isFile ? "file" : "folder";
            printJsonLine(object);
        } else {
            fmt::print("{}{}", display(location), m_options.print0 ? '\0' : '\n');
        }
    }

    const FindOptions& m_options;
    const vfs::AbsoluteIRI m_root;
    const ustring m_pattern;
    Progress m_progress;
    const vfs::TreeBoundary m_boundary; // with -x
    std::mutex m_printing;
    int m_status = Success;
};

int runFind(Tool& tool, const FindOptions& options)
{
    const vfs::AbsoluteIRI location = tool.locate(options.location);
    if (tool.existingKindAt(location, options.location) == provider::ExistenceType::File)
        throw ToolError("not a folder", options.location);
    FindVisitor visitor(options, tool.folder(location));
    if (options.parallel)
        vfs::walkFolderParallel(tool.folder(location), visitor, [] { return interrupted().load(); });
    else
        vfs::walkFolder(tool.folder(location), visitor);
    visitor.finish();
    checkInterrupted();
    return visitor.status();
}

// ---- du -----------------------------------------------------------------------------------------

struct DuOptions {
    std::string location = ".";
    bool summary = false;
    bool human = false;
    bool json = false;
    bool oneFileSystem = false; // -x
};

struct Usage {
    std::uint64_t bytes = 0;
    std::uint64_t files = 0;
    std::uint64_t folders = 0;
};

void printUsage(const DuOptions& options, const Usage& usage, const vfs::AbsoluteIRI& location)
{
    if (options.json) {
        boost::json::object object;
        object["iri"] = utf8(location.toString());
        object["bytes"] = usage.bytes;
        object["files"] = usage.files;
        object["folders"] = usage.folders;
        printJsonLine(object);
        return;
    }
    fmt::print("{}\t{}\n", options.human ? humanSize(usage.bytes) : std::to_string(usage.bytes), display(location));
}

int runDu(Tool& tool, const DuOptions& options)
{
    const vfs::AbsoluteIRI location = tool.locate(options.location);
    int status = Success;
    Progress progress("scanned");
    if (tool.existingKindAt(location, options.location) == provider::ExistenceType::File) {
        printUsage(options, Usage{tool.file(location).getAttributes().getSize(), 1, 0}, location);
        return Success;
    }
    TraversalOptions traversal;
    traversal.withAttributes = true;
    traversal.withExtended = true;
    // A file with several names is counted once, under the first name met (as du does).
    std::set<std::pair<std::uint64_t, std::uint64_t>> counted;
    // With -x, folders of other file systems (mounted below) are left out.
    const auto boundary = options.oneFileSystem ? onFileSystemOf(tool.folder(location)) : vfs::TreeBoundary();
    // Totals of the folders still open on the way down; a folder's line is printed once its content
    // is summed (du prints children before their parent).
    std::function<Usage(const vfs::Folder&, const VisitedEntry*, const vfs::AbsoluteIRI&)> sum =
        [&](const vfs::Folder& folder, const VisitedEntry* self, const vfs::AbsoluteIRI& where) {
            Usage total;
            std::vector<VisitedEntry> children;
            try {
                children = childrenOf(folder, traversal, self);
            } catch (const ToolError&) {
                throw;
            } catch (...) {
                progress.finish();
                status = reportCurrentFailure("du");
            }
            for (const VisitedEntry& child : children) {
                if (child.isFile) {
                    const auto& extended = child.extended;
                    if (extended && extended->linkCount.value_or(1) > 1 && extended->device && extended->inode &&
                        !counted.emplace(*extended->device, *extended->inode).second)
                        continue;
                    // A link counts as itself, not as what it leads to.
                    const std::uint64_t bytes = child.dangling || child.fileAttributes->isSymlink()
                                                    ? tool.linkSize(child.location)
                                                    : child.fileAttributes->getSize();
                    total.bytes += bytes;
                    ++total.files;
                    progress.add(1, bytes);
                } else if (child.enterable() && (!boundary || boundary(*child.folder))) {
                    const Usage below = sum(*child.folder, &child, child.location);
                    total.bytes += below.bytes;
                    total.files += below.files;
                    total.folders += below.folders + 1;
                    progress.add(1);
                }
            }
            if (!options.summary || !self) {
                progress.finish();
                printUsage(options, total, where);
            }
            return total;
        };
    sum(tool.folder(location), nullptr, location);
    return status;
}

} // namespace

void addListCommands(const CommandSet& commands)
{
    auto ls = std::make_shared<LsOptions>();
    CLI::App* lsCommand = commands.app.add_subcommand("ls", "List a folder's children (or show a file)");
    lsCommand->add_flag("-l", ls->longFormat, "Long format: type, size, modification time, name");
    lsCommand->add_flag("-R", ls->recursive, "List subfolders recursively");
    lsCommand->add_flag("-a", ls->all, "Include hidden entries (names starting with '.')");
    lsCommand->add_flag("-h,--human", ls->human, "Sizes in K, M, G (with -l)");
    lsCommand->add_option("--pattern", ls->pattern, "Only files whose names match this '*'/'?' pattern");
    lsCommand->add_flag("--json", ls->json, "One JSON object per entry and line");
    lsCommand->add_option("LOCATION", ls->location, "An IRI or a local path (default: .)");
    lsCommand->callback([=] { commands.status = runReported("ls", [&] { return runLs(commands.tool, *ls); }); });

    auto treeLocation = std::make_shared<std::string>(".");
    auto treeAll = std::make_shared<bool>(false);
    CLI::App* tree = commands.app.add_subcommand("tree", "Draw a folder tree");
    tree->add_flag("-a", *treeAll, "Include hidden entries");
    tree->add_option("LOCATION", *treeLocation, "An IRI or a local path (default: .)");
    tree->callback([=] {
        commands.status = runReported("tree", [&] { return runTree(commands.tool, *treeLocation, *treeAll); });
    });

    auto find = std::make_shared<FindOptions>();
    CLI::App* findCommand = commands.app.add_subcommand("find", "Find files and folders below a folder");
    findCommand->add_option("LOCATION", find->location, "An IRI or a local path (default: .)");
    findCommand->add_option("--name", find->name, "Only names matching this '*'/'?' pattern");
    findCommand->add_option("--type", find->type, "f for files, d for folders")->check(CLI::IsMember({"f", "d"}));
    findCommand->add_flag("--parallel", find->parallel, "Walk subfolders on several threads (output in no fixed order)");
    findCommand->add_flag("--json", find->json, "One JSON object per match and line");
    findCommand->add_flag("-L", find->followLinks, "Enter links to folders (a link loop is reported, not followed)");
    findCommand->add_flag_function("-P", [find](std::int64_t) { find->followLinks = false; },
                          "List links to folders without entering them (the default)");
    findCommand->add_flag("-0,--print0", find->print0, "End each printed location with a NUL instead of a newline");
    findCommand->add_flag("-x,--xdev,--one-file-system", find->oneFileSystem,
                          "List folders on other file systems (mount points) without entering them");
    findCommand->callback(
        [=] { commands.status = runReported("find", [&] { return runFind(commands.tool, *find); }); });

    auto du = std::make_shared<DuOptions>();
    CLI::App* duCommand = commands.app.add_subcommand("du", "Sum the sizes of the files below a folder");
    duCommand->add_flag("-s", du->summary, "Only the total of LOCATION");
    duCommand->add_flag("-h,--human", du->human, "Sizes in K, M, G");
    duCommand->add_flag("--json", du->json, "One JSON object per folder and line");
    duCommand->add_flag("-x,--one-file-system", du->oneFileSystem, "Leave out folders on other file systems (mount points)");
    duCommand->add_option("LOCATION", du->location, "An IRI or a local path (default: .)");
    duCommand->callback([=] { commands.status = runReported("du", [&] { return runDu(commands.tool, *du); }); });
}

} // namespace vfs_tool
