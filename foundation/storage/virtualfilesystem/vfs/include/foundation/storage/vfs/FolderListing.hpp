#pragma once

#include <fl/export.hpp>

#include <boost/variant/variant_fwd.hpp>

#include <cstddef>
#include <iterator>
#include <memory>

namespace foundation::storage::vfs {

class File;
class Folder;
class FileEntry;
class FolderEntry;
class ListEntry;

template <class T>
class FolderListing;

namespace detail {

// What an iterator does underneath: the plain walk over a provider's listing, a wildcard filter
// over another implementation, a recursive walk. Implementations are shared between handles
// through std::shared_ptr; one implementation is used by one thread at a time.
template <class T>
class VFS_EXPORT IFolderIteratorImpl {
public:
    virtual void increment() = 0;
    // Implementations of another kind are never equal.
    virtual bool equal(const IFolderIteratorImpl& other) const = 0;
    // The current element; std::logic_error past the end.
    virtual const T& dereference() const = 0;
    // An independent implementation at the same position.
    virtual std::shared_ptr<IFolderIteratorImpl> cloneImpl() const = 0;
    // The end sentinel that matches this implementation.
    virtual std::shared_ptr<IFolderIteratorImpl> buildEndIterator() const = 0;
    virtual ~IFolderIteratorImpl();

protected:
    IFolderIteratorImpl() = default;
    IFolderIteratorImpl(const IFolderIteratorImpl&) = default;
    IFolderIteratorImpl& operator=(const IFolderIteratorImpl&) = default;
};

// An implementation pointer and whether there is none (a default-constructed iterator). Copies
// share the implementation.
template <class T>
struct VFS_EXPORT FolderIteratorHolder {
    std::shared_ptr<IFolderIteratorImpl<T>> impl;
    bool singular = true;

    FolderIteratorHolder() = default;
    explicit FolderIteratorHolder(std::shared_ptr<IFolderIteratorImpl<T>> implementation);

    // Two singular holders are equal, a singular and a non-singular one are not; otherwise the
    // implementations decide.
    bool equals(const FolderIteratorHolder& other) const;
    // A holder over an independent copy of the implementation (a singular one stays singular).
    FolderIteratorHolder clone() const;
    // Both throw std::logic_error on a singular holder.
    void increment() const;
    const T& dereference() const;
};

} // namespace detail

// An iterator over a folder listing. Copies are independent: each moves on its own. Only iterators
// of one listing compare meaningfully: an iterator equals end() once it has passed the last child,
// and a copy equals its original until either moves; two passes that reach the same child
// separately stay unequal. Provider failures while advancing throw Exception and leave the iterator
// where it was. Not synchronised.
template <class T>
class VFS_EXPORT FolderListingIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using iterator_concept = std::input_iterator_tag;
    using value_type = T;
    using difference_type = std::ptrdiff_t;
    using pointer = const T*;
    using reference = const T&;

    // Singular: equal only to another default-constructed iterator.
    FolderListingIterator() = default;
    FolderListingIterator(const FolderListingIterator& other);
    FolderListingIterator(FolderListingIterator&& other) noexcept = default;
    FolderListingIterator& operator=(const FolderListingIterator& other);
    FolderListingIterator& operator=(FolderListingIterator&& other) noexcept = default;
    ~FolderListingIterator();

    // Dereferencing past the end, or a default-constructed iterator, throws std::logic_error.
    reference operator*() const;
    pointer operator->() const;
    FolderListingIterator& operator++();
    FolderListingIterator operator++(int);

    bool operator==(const FolderListingIterator& other) const;
    bool operator!=(const FolderListingIterator& other) const { return !(*this == other); }

private:
    friend class FolderListing<T>;
    explicit FolderListingIterator(detail::FolderIteratorHolder<T> holder);

    detail::FolderIteratorHolder<T> m_holder;
};

// A folder's children, evaluated lazily: the provider is asked for one child at a time, as iterators
// reach it (the first one when the listing is made, so that a folder that cannot be listed fails
// there), and no element is made before it is visited. The listing can be iterated any number of
// times, each begin() starting an independent pass at the first child. Copies share the underlying
// listing. Not synchronised.
template <class T>
class VFS_EXPORT FolderListing {
public:
    using value_type = T;
    using iterator = FolderListingIterator<T>;
    using const_iterator = FolderListingIterator<T>;

    // Empty.
    FolderListing() = default;

    iterator begin() const;
    iterator end() const;
    // Whether the folder had no (matching) children when the listing was made.
    bool empty() const;

private:
    friend class Folder;
    explicit FolderListing(const std::shared_ptr<detail::IFolderIteratorImpl<T>>& impl);

    detail::FolderIteratorHolder<T> m_begin;
    detail::FolderIteratorHolder<T> m_end;
};

// Built once, inside the library, for the element types listings yield. The export on the
// declarations is what makes the instantiations over boost::variant (a type of hidden visibility in
// the library's build) visible to users.
#define VFS_FOLDER_LISTING_EXTERN(...)                                                                     \
    extern template class VFS_EXPORT detail::IFolderIteratorImpl<__VA_ARGS__>;                                        \
    extern template struct VFS_EXPORT detail::FolderIteratorHolder<__VA_ARGS__>;                                      \
    extern template class VFS_EXPORT FolderListingIterator<__VA_ARGS__>;                                              \
    extern template class VFS_EXPORT FolderListing<__VA_ARGS__>;
VFS_FOLDER_LISTING_EXTERN(File)
VFS_FOLDER_LISTING_EXTERN(Folder)
VFS_FOLDER_LISTING_EXTERN(FileEntry)
VFS_FOLDER_LISTING_EXTERN(FolderEntry)
VFS_FOLDER_LISTING_EXTERN(ListEntry)
VFS_FOLDER_LISTING_EXTERN(boost::variant<File, Folder>)
VFS_FOLDER_LISTING_EXTERN(boost::variant<FileEntry, FolderEntry>)
#undef VFS_FOLDER_LISTING_EXTERN

} // namespace foundation::storage::vfs
