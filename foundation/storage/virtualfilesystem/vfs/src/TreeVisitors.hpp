#pragma once

// The visitors behind recursive copy and the library's recursive removal. Internal.

#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/FolderVisitor.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace foundation::storage::vfs::detail {

class TransferQueue;

// Copies the walked tree below a destination root, one folder level at a time: the current target
// follows the walk down in visitBefore and back up in visitAfter. For the sequential walk only.
// Where either storage says transfers are best run several at once, files are copied on a
// TransferQueue's threads while the walk goes on, and the folders are finished (their mode and
// time) once the queue has drained, in the order the walk left them: the walk lists the next folder
// while the last one's files are still on their way. The observer is told on the walking thread only.
class FolderCopyVisitor : public FolderVisitor {
public:
    // `observer` may be empty. `forMove`: the source goes once copied, so a file that could not be
    // copied fails the copy unless it has itself vanished or is collected (a plain copy passes over
    // InvalidLocation failures). `transfers`: file copies at once (1: on the walking thread).
    FolderCopyVisitor(Folder destinationRoot, provider::ReplacementPolicy policy, TreeProgressObserver observer,
                      bool forMove, unsigned transfers = 1, LinkHandling links = LinkHandling::Follow,
                      TreeBoundary boundary = {});
    ~FolderCopyVisitor() override;

    FolderVisitResult visitBefore(const Folder& source) override;
    FolderVisitResult visit(const File& source) override;
    // As visit(), taking whether the file is a link from attributes the listing brought.
    FolderVisitResult visitEntry(const FileEntry& source) override;
    FolderVisitResult visitAfter(const Folder& source) override;
    // Under MergeCollectingFailures a folder that cannot be read for lack of permission is put
    // aside with the files, and the copy goes on with its siblings.
    FolderVisitResult visitFolderFailed(const Folder& source, const Exception& failure) override;

    // Waits for the file copies under way; rethrows the first that failed.
    void finish();
    // Drops the queued copies and waits for the running ones (after a failure).
    void abandon();

    // Permission failures put aside under MergeCollectingFailures, in the order met.
    const std::vector<Exception>& collected() const noexcept { return m_collected; }
    bool stopped() const noexcept { return m_stopped; }

private:
    // Tells the observer; Stop once it answered false.
    FolderVisitResult report();
    // One file of the walk; `link` says whether it is a link, when that is known already.
    FolderVisitResult visitFile(const File& source, std::optional<bool> link);
    // One file; false when the observer stopped it part way. Runs on any thread.
    bool copyOne(const File& source, const File& target, bool onWalkingThread);
    // Keeps or skips the link `source` at the name it has, under LinkHandling Keep or Skip; Skip
    // (the link is not entered) or Stop. On the walking thread.
    FolderVisitResult copyLink(const provider::StorageItem& source, const ustring& name);
    // The target folder's mode (when `madeWithMode`) and the source's time `time` (none: the source
    // has vanished), once its content is there.
    static void finishTarget(const Folder& source, const Folder& target, bool madeWithMode,
                             const std::optional<boost::posix_time::ptime>& time);
    struct Unfinished {
        Folder source;
        Folder target;
        bool madeWithMode;
        std::optional<boost::posix_time::ptime> time;
    };

    Folder m_destinationRoot;
    std::optional<Folder> m_current;
    std::vector<AbsoluteIRI> m_entered; // the source folders whose targets m_current goes down through
    std::vector<bool> m_madeWithMode;   // for each of m_entered: its target awaits finishFolderLike()
    provider::ReplacementPolicy m_policy;
    bool m_forMove;
    LinkHandling m_links;
    TreeBoundary m_boundary;
    std::mutex m_collectedMutex;
    std::vector<Exception> m_collected;
    TreeProgressObserver m_observer;
    std::uint64_t m_folders = 0;
    std::atomic<std::uint64_t> m_files{0};
    std::atomic<std::uint64_t> m_bytes{0};
    std::atomic<bool> m_stopped{false};
    std::unique_ptr<TransferQueue> m_queue;
    std::vector<Unfinished> m_unfinished; // left by the walk while their files may still be copied
};

// Post-order deletion: files as the walk meets them, each folder after its contents, the root last.
// A link to a folder is removed as a link and never entered, so nothing outside the tree is touched.
// What vanishes meanwhile counts as removed, except the root itself.
class EntryDeletionVisitor : public FolderVisitor {
public:
    explicit EntryDeletionVisitor(Folder root, TreeProgressObserver observer = {}, TreeBoundary boundary = {});

    FolderVisitResult visitBefore(const Folder& folder) override;
    FolderVisitResult visit(const File& file) override;
    FolderVisitResult visitAfter(const Folder& folder) override;

private:
    FolderVisitResult report();

    Folder m_root;
    TreeProgressObserver m_observer;
    TreeBoundary m_boundary;
    TreeProgress m_progress;
    // For each folder the walk is inside, root first: whether it keeps something the boundary left
    // out, so that it stays.
    std::vector<bool> m_keeping;
};

// Folder::copyFolder, and the copy half of a move done by copying (`forMove`, see FolderCopyVisitor).
bool copyTree(const Folder& source, const Folder& destination, provider::ReplacementPolicy policy,
              const TreeProgressObserver& observer, bool forMove, LinkHandling links = LinkHandling::Follow,
              const TreeBoundary& boundary = {});

// False when the observer stopped the removal.
bool removeTreeByWalking(const Folder& root, const TreeProgressObserver& observer, const TreeBoundary& boundary = {});

} // namespace foundation::storage::vfs::detail
