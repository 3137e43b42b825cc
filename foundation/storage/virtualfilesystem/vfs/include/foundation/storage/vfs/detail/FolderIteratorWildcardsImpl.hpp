#pragma once

#include <fl/i18n/ustring.hpp>
#include <foundation/storage/vfs/FolderEntries.hpp>
#include <foundation/storage/vfs/FolderListing.hpp>

#include <memory>

namespace foundation::storage::vfs::detail {

// Keeps, of another implementation's elements, those whose bare name (the last segment, never a
// path) matches a '*'/'?' pattern, with the provider layer's one wildcard matcher: exact UTF-16
// code units, no case folding, no escapes. For providers that cannot filter by themselves.
//
// Elements are examined only as the caller advances; a failure while skipping leaves the filter on
// the element being examined. Equality compares the current positions (patterns are not compared).
template <class T>
class VFS_EXPORT FolderIteratorWildcardsImpl : public IFolderIteratorImpl<T> {
public:
    // At the end, over nothing.
    FolderIteratorWildcardsImpl();
    // Filters `inner` (which it keeps, to build the end sentinel) and moves to the first match.
    FolderIteratorWildcardsImpl(std::shared_ptr<IFolderIteratorImpl<T>> inner, ustring pattern);
    // Copies clone the positions.
    FolderIteratorWildcardsImpl(const FolderIteratorWildcardsImpl& other);
    FolderIteratorWildcardsImpl& operator=(const FolderIteratorWildcardsImpl& other);
    ~FolderIteratorWildcardsImpl() override;

    void increment() override;
    bool equal(const IFolderIteratorImpl<T>& other) const override;
    const T& dereference() const override;
    std::shared_ptr<IFolderIteratorImpl<T>> cloneImpl() const override;
    // Only on an implementation made over an inner one (a clone has none): std::logic_error otherwise.
    std::shared_ptr<IFolderIteratorImpl<T>> buildEndIterator() const override;

private:
    struct FilterImpl;
    explicit FolderIteratorWildcardsImpl(std::unique_ptr<FilterImpl> filter);

    std::shared_ptr<IFolderIteratorImpl<T>> m_inner;
    ustring m_pattern;
    std::unique_ptr<FilterImpl> m_filter;
};

extern template class VFS_EXPORT FolderIteratorWildcardsImpl<File>;
extern template class VFS_EXPORT FolderIteratorWildcardsImpl<Folder>;
extern template class VFS_EXPORT FolderIteratorWildcardsImpl<FileEntry>;
extern template class VFS_EXPORT FolderIteratorWildcardsImpl<FolderEntry>;
extern template class VFS_EXPORT FolderIteratorWildcardsImpl<ListEntry>;
extern template class VFS_EXPORT FolderIteratorWildcardsImpl<boost::variant<File, Folder>>;
extern template class VFS_EXPORT FolderIteratorWildcardsImpl<boost::variant<FileEntry, FolderEntry>>;

} // namespace foundation::storage::vfs::detail
