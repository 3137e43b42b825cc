#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/detail/RecursiveFolderListingIteratorImpl.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include <boost/variant/get.hpp>
#include <boost/variant/variant.hpp>

#include <stdexcept>
#include <utility>

namespace foundation::storage::vfs::detail {

namespace {

using AnyEntry = boost::variant<FileEntry, FolderEntry>;

// The folder to descend into, if the element is one. A ListEntry asks the storage.
std::optional<Folder> folderOf(const ListEntry& entry)
{
    const auto handle = entry.getFileOrFolder();
    if (const auto* folder = boost::get<Folder>(&handle))
        return *folder;
    return std::nullopt;
}
std::optional<Folder> folderOf(const AnyEntry& entry)
{
    if (const auto* folder = boost::get<FolderEntry>(&entry))
        return folder->getFolder();
    return std::nullopt;
}

template <class T>
FolderListing<T> listingFor(const Folder& folder, const ustring& pattern);
template <>
FolderListing<ListEntry> listingFor(const Folder& folder, const ustring& pattern)
{
    return folder.listAll(pattern);
}
template <>
FolderListing<AnyEntry> listingFor(const Folder& folder, const ustring& pattern)
{
    return folder.listAllEntries(pattern);
}

} // namespace

template <class T>
RecursiveFolderListingIteratorImpl<T>::RecursiveFolderListingIteratorImpl(ustring pattern)
    : m_pattern(std::move(pattern))
{
}

template <class T>
RecursiveFolderListingIteratorImpl<T>::RecursiveFolderListingIteratorImpl(EndTag, std::optional<Folder> root,
                                                                          ustring pattern)
    : m_folder(std::move(root)), m_pattern(std::move(pattern))
{
}

template <class T>
RecursiveFolderListingIteratorImpl<T>::RecursiveFolderListingIteratorImpl(Folder root, ustring pattern)
    : m_folder(std::move(root)), m_pattern(std::move(pattern))
{
    pushFrame(*m_folder);
    setCurrentAndDoIncrement();
    if (!m_current)
        m_backStack.clear();
}

template <class T>
RecursiveFolderListingIteratorImpl<T>::RecursiveFolderListingIteratorImpl(const RecursiveFolderListingIteratorImpl& other)
    = default;

template <class T>
RecursiveFolderListingIteratorImpl<T>&
RecursiveFolderListingIteratorImpl<T>::operator=(const RecursiveFolderListingIteratorImpl& other) = default;

template <class T>
RecursiveFolderListingIteratorImpl<T>::~RecursiveFolderListingIteratorImpl() = default;

template <class T>
void RecursiveFolderListingIteratorImpl<T>::pushFrame(const Folder& folder)
{
    FolderListing<T> listing = listingFor<T>(folder, m_pattern);
    auto at = listing.begin();
    auto end = listing.end();
    m_backStack.push_back(Frame{std::move(listing), std::move(at), std::move(end)});
}

template <class T>
void RecursiveFolderListingIteratorImpl<T>::increment()
{
    if (m_current) {
        try {
            if (const std::optional<Folder> folder = folderOf(*m_current))
                pushFrame(*folder);
        } catch (...) {
            handleErrors();
        }
    }
    if (m_backStack.empty())
        return; // already at the end
    setCurrentAndDoIncrement();
    popBackStack();
    if (!m_current && m_backStack.size() == 1)
        m_backStack.pop_back();
}

template <class T>
void RecursiveFolderListingIteratorImpl<T>::setCurrentAndDoIncrement()
{
    try {
        Frame& top = m_backStack.back();
        if (top.at == top.end) {
            m_current.reset();
            return;
        }
        m_current = *top.at;
        ++top.at;
    } catch (...) {
        handleErrors();
    }
}

template <class T>
void RecursiveFolderListingIteratorImpl<T>::popBackStack()
{
    while (!m_current && m_backStack.size() >= 2) {
        m_backStack.pop_back();
        setCurrentAndDoIncrement();
    }
}

// Runs inside a handler: what cannot be read for lack of permission, or has vanished, is passed
// over; everything else goes on to the caller.
template <class T>
void RecursiveFolderListingIteratorImpl<T>::handleErrors()
{
    try {
        translateProviderException();
    } catch (const Exception& error) {
        const ErrorCode code = error.getErrorCode();
        if (code != ErrorCode::PermissionDenied && code != ErrorCode::ResourceNotFound)
            throw;
        m_current.reset();
    }
}

template <class T>
bool RecursiveFolderListingIteratorImpl<T>::equal(const IFolderIteratorImpl<T>& other) const
{
    const auto* that = dynamic_cast<const RecursiveFolderListingIteratorImpl*>(&other);
    if (!that || m_folder.has_value() != that->m_folder.has_value())
        return false;
    if (m_folder && !(*m_folder == *that->m_folder))
        return false;
    if (m_backStack.empty() || that->m_backStack.empty())
        return m_backStack.empty() && that->m_backStack.empty();
    return m_backStack.back().at == that->m_backStack.back().at;
}

template <class T>
const T& RecursiveFolderListingIteratorImpl<T>::dereference() const
{
    if (!m_current)
        throw std::logic_error("Cannot dereference a folder listing iterator that stands on no element.");
    return *m_current;
}

template <class T>
std::shared_ptr<IFolderIteratorImpl<T>> RecursiveFolderListingIteratorImpl<T>::cloneImpl() const
{
    return std::make_shared<RecursiveFolderListingIteratorImpl>(*this);
}

template <class T>
std::shared_ptr<IFolderIteratorImpl<T>> RecursiveFolderListingIteratorImpl<T>::buildEndIterator() const
{
    return std::shared_ptr<RecursiveFolderListingIteratorImpl>(
        new RecursiveFolderListingIteratorImpl(EndTag{}, m_folder, m_pattern));
}

template class RecursiveFolderListingIteratorImpl<ListEntry>;
template class RecursiveFolderListingIteratorImpl<AnyEntry>;

} // namespace foundation::storage::vfs::detail
