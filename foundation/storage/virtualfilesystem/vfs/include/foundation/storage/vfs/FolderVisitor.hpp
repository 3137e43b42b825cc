#pragma once

#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/FolderEntries.hpp>

#include <boost/exception/error_info.hpp>

#include <cstdint>
#include <functional>
#include <ostream>
#include <vector>

namespace foundation::storage::vfs {

// What a visitor tells the walk after each visit.
enum class FolderVisitResult : std::int32_t {
    Continue = 0, // go on
    Skip = 1,     // leave out the rest of this folder's subtree (from a file visit: nothing more)
    Stop = 2,     // end the walk
};

// "FolderVisitResult::Skip"; a value outside the enumeration writes "Unhandled FolderVisitResult".
VFS_EXPORT std::ostream& operator<<(std::ostream& out, const FolderVisitResult& result);

// Steers a walk over a folder tree. The walks call only the entry forms; their defaults hand the
// entry's handle to the plain forms, so a visitor overrides whichever suits it. By default every
// visit answers Continue and a folder that cannot be listed makes the walk throw its Exception.
//
// Under walkFolderParallel the operations are called concurrently from worker threads, for
// different entries at once: such a visitor must be safe for that.
class VFS_EXPORT FolderVisitor {
public:
    FolderVisitor() = default;
    FolderVisitor(const FolderVisitor&) = default;
    FolderVisitor& operator=(const FolderVisitor&) = default;
    virtual ~FolderVisitor();

    // Before a folder's contents; anything but Continue leaves them out, and no visitAfter follows.
    virtual FolderVisitResult visitBefore(const Folder& folder);
    virtual FolderVisitResult visitEntryBefore(const FolderEntry& entry);
    virtual FolderVisitResult visit(const File& file);
    virtual FolderVisitResult visitEntry(const FileEntry& entry);
    // After all of a folder's contents.
    virtual FolderVisitResult visitAfter(const Folder& folder);
    virtual FolderVisitResult visitEntryAfter(const FolderEntry& entry);
    // A failure inside the folder (listing it, or one that escaped a visit below it), other than the
    // folder having vanished. The default throws a copy of `exception`; an override that returns
    // instead ends that folder's visit with its answer.
    virtual FolderVisitResult visitFolderFailed(const Folder& folder, const Exception& exception);
    virtual FolderVisitResult visitFolderEntryFailed(const FolderEntry& entry, const Exception& exception);
};

// Visits `root` and its tree depth-first on the calling thread: each folder's visitEntryBefore, its
// children in listing order (each subfolder completely), then its visitEntryAfter. Stop ends the walk
// at once (no later visit of any kind); Skip from a visit ends only that entry's subtree. A folder
// that vanishes while walked ends through its visitEntryAfter; other Exceptions inside a folder go to
// its visitFolderEntryFailed. Returns the root's last answer, or Stop. A link to a folder that leads
// back to a folder the walk is inside (or to the one holding the link) is not entered: it fails
// like an unreadable folder, with InvalidLocation and the context "circular_symlink".
VFS_EXPORT FolderVisitResult walkFolder(const Folder& root, FolderVisitor& visitor);

// As walkFolder, with every child entry of every folder visited as a task of its own on oneTBB
// worker threads; siblings' subtrees run in no fixed order. A folder's visitEntryAfter runs after its
// whole subtree. Stop does not cancel siblings already under way: it only suppresses the
// visitEntryAfter of every ancestor and becomes the result. `cancel` is asked (from worker threads
// too) before each task and each folder; once it answers true, what has not begun is left out and the
// walk returns Stop. An exception escaping a visit propagates from here once the tasks still running
// have finished.
VFS_EXPORT FolderVisitResult walkFolderParallel(const Folder& root, FolderVisitor& visitor);
VFS_EXPORT FolderVisitResult walkFolderParallel(const Folder& root, FolderVisitor& visitor,
                                                const std::function<bool()>& cancel);

// Folder::copyFolder under MergeCollectingFailures throws the first permission failure it put aside,
// carrying all of them (that one included, in the order met) as this error information:
//   catch (const Exception& error) { auto* all = boost::get_error_info<CollectedCopyFailures>(error); }
using CollectedCopyFailures = boost::error_info<struct CollectedCopyFailuresTag, std::vector<Exception>>;

} // namespace foundation::storage::vfs
