#include "MovedTreeRemoval.hpp"

#include "TreeVisitors.hpp"

#include <foundation/storage/vfs/File.hpp>

#include <optional>
#include <utility>

namespace foundation::storage::vfs::detail {

namespace {

// The deletion walk, with the destination's counterpart of each folder followed alongside.
class MovedEntryDeletionVisitor : public EntryDeletionVisitor {
public:
    MovedEntryDeletionVisitor(const Folder& source, Folder destination)
        : EntryDeletionVisitor(source), m_destination(std::move(destination))
    {
    }

    FolderVisitResult visitBefore(const Folder& folder) override
    {
        // The base removes a link to a folder through visit(), with the parent's counterpart current.
        const FolderVisitResult result = EntryDeletionVisitor::visitBefore(folder);
        if (result == FolderVisitResult::Continue)
            m_current = m_current ? Folder(*m_current, folder.getName()) : m_destination;
        return result;
    }

    FolderVisitResult visit(const File& file) override
    {
        const ustring name = file.getName();
        if (!File(*m_current, name).fileExists() && !Folder(*m_current, name).folderExists())
            return FolderVisitResult::Continue;
        return EntryDeletionVisitor::visit(file);
    }

    FolderVisitResult visitAfter(const Folder& folder) override
    {
        const FolderVisitResult result = EntryDeletionVisitor::visitAfter(folder);
        if (!(*m_current == m_destination))
            m_current = m_current->getParent();
        return result;
    }

private:
    Folder m_destination;
    std::optional<Folder> m_current;
};

} // namespace

void removeMovedTree(const Folder& source, const Folder& destination)
{
    MovedEntryDeletionVisitor visitor(source, destination);
    walkFolder(source, visitor);
}

} // namespace foundation::storage::vfs::detail
