#pragma once

#include <fl/i18n/ustring.hpp>
#include <foundation/storage/vfs/Folder.hpp>
#include <foundation/storage/vfs/FolderEntries.hpp>
#include <foundation/storage/vfs/FolderListing.hpp>

#include <deque>
#include <optional>

namespace foundation::storage::vfs::detail {

// The library's own depth-first walk of a folder tree, for providers that cannot list recursively:
// a stack of open listings, one per folder being descended. A folder is yielded, and entered only
// when the iteration moves past it, so an abandoned iteration opens no more folders than it has
// shown. The pattern filters every level, folders included. The root is not yielded.
//
// A folder that cannot be opened, or an error while advancing in one, is passed over when it is
// PermissionDenied or ResourceNotFound (the rest of that folder is skipped); other failures
// propagate from increment() and leave the frames as they were. A failure to list the root
// propagates from the constructor. No cycle detection: a provider that lists a folder inside itself
// is followed as deep as it allows. Equality compares the roots and the top frames' positions.
template <class T>
class VFS_EXPORT RecursiveFolderListingIteratorImpl : public IFolderIteratorImpl<T> {
public:
    // No root: at the end.
    explicit RecursiveFolderListingIteratorImpl(ustring pattern);
    // Opens `root` and moves to its first element.
    RecursiveFolderListingIteratorImpl(Folder root, ustring pattern);
    // Frames share their listings; their positions are copied (cloned).
    RecursiveFolderListingIteratorImpl(const RecursiveFolderListingIteratorImpl& other);
    RecursiveFolderListingIteratorImpl& operator=(const RecursiveFolderListingIteratorImpl& other);
    ~RecursiveFolderListingIteratorImpl() override;

    void increment() override;
    bool equal(const IFolderIteratorImpl<T>& other) const override;
    const T& dereference() const override;
    std::shared_ptr<IFolderIteratorImpl<T>> cloneImpl() const override;
    std::shared_ptr<IFolderIteratorImpl<T>> buildEndIterator() const override;

private:
    struct Frame {
        FolderListing<T> listing;
        FolderListingIterator<T> at;
        FolderListingIterator<T> end;
    };
    struct EndTag {};
    RecursiveFolderListingIteratorImpl(EndTag, std::optional<Folder> root, ustring pattern);

    void pushFrame(const Folder& folder);
    void setCurrentAndDoIncrement();
    void popBackStack();
    void handleErrors();

    std::optional<Folder> m_folder;
    ustring m_pattern;
    std::deque<Frame> m_backStack;
    std::optional<T> m_current;
};

extern template class VFS_EXPORT RecursiveFolderListingIteratorImpl<ListEntry>;
extern template class VFS_EXPORT RecursiveFolderListingIteratorImpl<boost::variant<FileEntry, FolderEntry>>;

} // namespace foundation::storage::vfs::detail
