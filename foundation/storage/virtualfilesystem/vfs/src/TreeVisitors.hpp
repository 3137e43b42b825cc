#pragma once

// The visitors behind recursive copy and the library's recursive removal. Internal.

#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/FolderVisitor.hpp>

#include <optional>
#include <vector>

namespace foundation::storage::vfs::detail {

// Copies the walked tree below a destination root, one folder level at a time: the current target
// follows the walk down in visitBefore and back up in visitAfter. For the sequential walk only.
class FolderCopyVisitor : public FolderVisitor {
public:
    // `observer` may be empty. `forMove`: the source goes once copied, so a file that could not be
    // copied fails the copy unless it has itself vanished or is collected (a plain copy passes over
    // InvalidLocation failures).
    FolderCopyVisitor(Folder destinationRoot, provider::ReplacementPolicy policy, TreeProgressObserver observer,
                      bool forMove, LinkHandling links = LinkHandling::Follow);

    FolderVisitResult visitBefore(const Folder& source) override;
    FolderVisitResult visit(const File& source) override;
    FolderVisitResult visitAfter(const Folder& source) override;
    // Under MergeCollectingFailures a folder that cannot be read for lack of permission is put
    // aside with the files, and the copy goes on with its siblings.
    FolderVisitResult visitFolderFailed(const Folder& source, const Exception& failure) override;

    // Permission failures put aside under MergeCollectingFailures, in the order met.
    const std::vector<Exception>& collected() const noexcept { return m_collected; }
    bool stopped() const noexcept { return m_stopped; }

private:
    // Tells the observer; Stop once it answered false.
    FolderVisitResult report();
    // Keeps or skips the link `source` at the name it has, under LinkHandling Keep or Skip; Skip
    // (the link is not entered) or Stop.
    FolderVisitResult copyLink(const provider::StorageItem& source, const ustring& name);

    Folder m_destinationRoot;
    std::optional<Folder> m_current;
    std::vector<AbsoluteIRI> m_entered; // the source folders whose targets m_current goes down through
    std::vector<bool> m_madeWithMode;   // for each of m_entered: its target awaits finishFolderLike()
    provider::ReplacementPolicy m_policy;
    bool m_forMove;
    LinkHandling m_links;
    std::vector<Exception> m_collected;
    TreeProgressObserver m_observer;
    TreeProgress m_progress;
    bool m_stopped = false;
};

// Post-order deletion: files as the walk meets them, each folder after its contents, the root last.
// A link to a folder is removed as a link and never entered, so nothing outside the tree is touched.
// What vanishes meanwhile counts as removed, except the root itself.
class EntryDeletionVisitor : public FolderVisitor {
public:
    explicit EntryDeletionVisitor(Folder root, TreeProgressObserver observer = {});

    FolderVisitResult visitBefore(const Folder& folder) override;
    FolderVisitResult visit(const File& file) override;
    FolderVisitResult visitAfter(const Folder& folder) override;

private:
    FolderVisitResult report();

    Folder m_root;
    TreeProgressObserver m_observer;
    TreeProgress m_progress;
};

// Folder::copyFolder, and the copy half of a move done by copying (`forMove`, see FolderCopyVisitor).
bool copyTree(const Folder& source, const Folder& destination, provider::ReplacementPolicy policy,
              const TreeProgressObserver& observer, bool forMove, LinkHandling links = LinkHandling::Follow);

// False when the observer stopped the removal.
bool removeTreeByWalking(const Folder& root, const TreeProgressObserver& observer);

} // namespace foundation::storage::vfs::detail
