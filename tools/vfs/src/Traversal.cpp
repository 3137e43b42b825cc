#include "Traversal.hpp"

#include <boost/variant/get.hpp>

#include <algorithm>

namespace vfs_tool {

std::vector<VisitedEntry> childrenOf(const vfs::Folder& folder, const TraversalOptions& options,
                                     const VisitedEntry* parent)
{
    struct Child {
        ustring name;
        bool isFile;
        std::optional<provider::FileAttributes> fileAttributes;
        std::optional<provider::FolderAttributes> folderAttributes;
        std::optional<provider::ExtendedAttributes> extended;
        bool dangling = false;
    };
    std::vector<Child> children;
    for (const auto& element : folder.listAllEntries(u"")) {
        checkInterrupted();
        if (const auto* file = boost::get<vfs::FileEntry>(&element)) {
            if (!options.pattern.empty() && !provider::matchesWildcard(file->getName(), options.pattern))
                continue;
            Child child{file->getName(), true, std::nullopt, std::nullopt, std::nullopt, false};
            if (options.withAttributes || options.withExtended) {
                try {
                    child.fileAttributes = file->getAttributes();
                } catch (const vfs::Exception& error) {
                    // A link that leads nowhere, or round in a loop, is still an entry: it is shown
                    // with no attributes rather than failing its whole folder.
                    if (error.getErrorCode() != vfs::ErrorCode::ResourceNotFound &&
                        error.getErrorCode() != vfs::ErrorCode::InvalidLocation)
                        throw;
                    child.dangling = true;
                }
            }
            if (options.withExtended && child.fileAttributes && !child.fileAttributes->isSymlink())
                child.extended = file->getFile().getExtendedAttributes();
            children.push_back(std::move(child));
        } else {
            const auto& sub = boost::get<vfs::FolderEntry>(element);
            // A folder's attributes are needed anyway, to know whether it is a link not to enter.
            children.push_back(Child{sub.getName(), false, std::nullopt, sub.getAttributes(), std::nullopt, false});
        }
    }
    if (!options.includeHidden)
        std::erase_if(children, [](const Child& child) { return !child.name.empty() && child.name.front() == u'.'; });
    std::sort(children.begin(), children.end(), [](const Child& a, const Child& b) { return a.name < b.name; });

    std::vector<VisitedEntry> entries;
    entries.reserve(children.size());
    for (std::size_t i = 0; i < children.size(); ++i) {
        Child& child = children[i];
        std::optional<vfs::Folder> sub;
        if (!child.isFile)
            sub.emplace(folder, child.name);
        VisitedEntry entry(child.isFile ? vfs::File(folder, child.name).getLocation() : sub->getLocation());
        entry.folder = std::move(sub);
        entry.name = utf8(child.name);
        entry.relativePath = parent ? parent->relativePath + "/" + entry.name : entry.name;
        entry.isFile = child.isFile;
        entry.depth = parent ? parent->depth + 1 : 1;
        entry.isLastChild = i + 1 == children.size();
        entry.fileAttributes = std::move(child.fileAttributes);
        entry.folderAttributes = std::move(child.folderAttributes);
        entry.extended = std::move(child.extended);
        entry.dangling = child.dangling;
        entries.push_back(std::move(entry));
    }
    return entries;
}

namespace {

void visitFolder(const vfs::Folder& folder, const VisitedEntry* parent, const TraversalOptions& options,
                 const std::function<bool(const VisitedEntry&)>& visit, const std::function<void()>& onFailure)
{
    std::vector<VisitedEntry> children;
    try {
        children = childrenOf(folder, options, parent);
    } catch (const ToolError&) {
        throw;
    } catch (...) {
        onFailure();
        return;
    }
    for (const VisitedEntry& child : children) {
        checkInterrupted();
        const bool matches =
            options.pattern.empty() || child.isFile || provider::matchesWildcard(utf16(child.name), options.pattern);
        const bool wanted = !matches || visit(child);
        if (wanted && options.recursive && child.enterable())
            visitFolder(*child.folder, &child, options, visit, onFailure);
    }
}

} // namespace

void traverse(const vfs::Folder& root, const TraversalOptions& options,
              const std::function<bool(const VisitedEntry&)>& visit, const std::function<void()>& onFailure)
{
    visitFolder(root, nullptr, options, visit, onFailure);
}

} // namespace vfs_tool
