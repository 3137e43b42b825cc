#pragma once

#include <foundation/storage/provider/FolderEntryIterator.hpp>
#include <foundation/storage/vfs/Folder.hpp>
#include <foundation/storage/vfs/FolderEntries.hpp>
#include <foundation/storage/vfs/FolderListing.hpp>

#include <memory>
#include <optional>

namespace foundation::storage::vfs::detail {

// The walk over one provider listing of a folder's direct children. Each step asks the provider for
// the next child and builds one element from it, with the listed folder as parent; entries keep the
// attributes the provider delivered with the child. The first child is read on construction, so a
// folder that cannot be read fails there rather than at the first increment.
//
// Positioned (an element is current), exhausted (no element, the provider iterator still owned:
// incrementing asks the provider again) or an end sentinel (no provider iterator). Equality is
// identity of the current element plus equality of the folders, so an exhausted walk equals its
// listing's end sentinel, and a clone equals its original until either moves. Provider failures
// throw Exception and leave the walk where it was.
template <class T>
class VFS_EXPORT FolderListingIteratorImpl : public IFolderIteratorImpl<T> {
public:
    // No folder, no provider iterator: equal only to another such implementation.
    FolderListingIteratorImpl();
    // The end sentinel of listings of `folder`.
    explicit FolderListingIteratorImpl(Folder folder);
    // Takes `providerIterator` over and moves to the first child.
    FolderListingIteratorImpl(Folder folder, std::unique_ptr<provider::IFolderEntryIterator> providerIterator);
    // Shares the current element and clones the provider iterator.
    FolderListingIteratorImpl(const FolderListingIteratorImpl& other);
    FolderListingIteratorImpl& operator=(const FolderListingIteratorImpl& other);
    ~FolderListingIteratorImpl() override;

    void increment() override;
    bool equal(const IFolderIteratorImpl<T>& other) const override;
    const T& dereference() const override;
    std::shared_ptr<IFolderIteratorImpl<T>> cloneImpl() const override;
    std::shared_ptr<IFolderIteratorImpl<T>> buildEndIterator() const override;

private:
    void updateCurrent();

    std::optional<Folder> m_folder;
    std::unique_ptr<provider::IFolderEntryIterator> m_providerIterator;
    std::shared_ptr<T> m_current;
};

extern template class VFS_EXPORT FolderListingIteratorImpl<File>;
extern template class VFS_EXPORT FolderListingIteratorImpl<Folder>;
extern template class VFS_EXPORT FolderListingIteratorImpl<FileEntry>;
extern template class VFS_EXPORT FolderListingIteratorImpl<FolderEntry>;
extern template class VFS_EXPORT FolderListingIteratorImpl<ListEntry>;
extern template class VFS_EXPORT FolderListingIteratorImpl<boost::variant<File, Folder>>;
extern template class VFS_EXPORT FolderListingIteratorImpl<boost::variant<FileEntry, FolderEntry>>;

} // namespace foundation::storage::vfs::detail
