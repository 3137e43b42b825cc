#include <foundation/storage/provider/FolderEntryIterator.hpp>
#include <foundation/storage/vfs/Folder.hpp>
#include <foundation/storage/vfs/FolderEntries.hpp>
#include <foundation/storage/vfs/FolderListing.hpp>
#include <foundation/storage/vfs/detail/FolderIteratorWildcardsImpl.hpp>
#include <foundation/storage/vfs/detail/FolderListingIteratorImpl.hpp>
#include <foundation/storage/vfs/detail/RecursiveFolderListingIteratorImpl.hpp>
#include <foundation/storage/vfs/detail/Translate.hpp>

#include <boost/variant/apply_visitor.hpp>
#include <boost/variant/variant.hpp>

#include <stdexcept>
#include <typeinfo>
#include <string_view>
#include <utility>

namespace foundation::storage::vfs {

namespace detail {

namespace {

[[noreturn]] void throwPastTheEnd()
{
    throw std::logic_error("Cannot dereference a folder listing iterator that stands on no element.");
}

// ---- building elements from provider entries -------------------------------------------------------

template <class T>
struct ElementBuilder;

// Elements take the provider entry's name over: a listing entry's name becomes its handle's location
// without another copy.
template <>
struct ElementBuilder<File> {
    static File make(const Folder& parent, provider::FolderEntry& entry)
    {
        return HandleAccess::makeChildFile(parent, entry.takeName());
    }
};

template <>
struct ElementBuilder<Folder> {
    static Folder make(const Folder& parent, provider::FolderEntry& entry)
    {
        return HandleAccess::makeChildFolder(parent, entry.takeName());
    }
};

template <>
struct ElementBuilder<ListEntry> {
    static ListEntry make(const Folder& parent, provider::FolderEntry& entry)
    {
        return ListEntry(parent, entry.takeName());
    }
};

template <>
struct ElementBuilder<FileEntry> {
    static FileEntry make(const Folder& parent, provider::FolderEntry& entry)
    {
        if (const auto& attributes = entry.getFileAttributes())
            return FileEntry(parent, entry.takeName(), *attributes);
        return FileEntry(parent, entry.takeName());
    }
};

template <>
struct ElementBuilder<FolderEntry> {
    static FolderEntry make(const Folder& parent, provider::FolderEntry& entry)
    {
        if (const auto& attributes = entry.getFolderAttributes())
            return FolderEntry(parent, entry.takeName(), *attributes);
        return FolderEntry(parent, entry.takeName());
    }
};

template <class FileKind, class FolderKind>
struct ElementBuilder<boost::variant<FileKind, FolderKind>> {
    static boost::variant<FileKind, FolderKind> make(const Folder& parent, provider::FolderEntry& entry)
    {
        if (entry.isFile())
            return ElementBuilder<FileKind>::make(parent, entry);
        return ElementBuilder<FolderKind>::make(parent, entry);
    }
};

// ---- the names wildcards are matched against --------------------------------------------------------

// The last segment of a listing name (recursive listings name children "a/b"): an entry's handle
// would report the same name, and filtering by it builds no handle.
std::u16string_view lastSegment(const ustring& name) noexcept
{
    const auto slash = name.rfind(u'/');
    return slash == ustring::npos ? std::u16string_view(name) : std::u16string_view(name).substr(slash + 1);
}

bool nameMatches(const File& file, const ustring& pattern)
{
    return provider::matchesWildcard(file.getName(), pattern);
}
bool nameMatches(const Folder& folder, const ustring& pattern)
{
    return provider::matchesWildcard(folder.getName(), pattern);
}
bool nameMatches(const FileEntry& entry, const ustring& pattern)
{
    return provider::matchesWildcard(lastSegment(entry.getName()), pattern);
}
bool nameMatches(const FolderEntry& entry, const ustring& pattern)
{
    return provider::matchesWildcard(lastSegment(entry.getName()), pattern);
}
bool nameMatches(const ListEntry& entry, const ustring& pattern)
{
    return provider::matchesWildcard(entry.getFilename(), pattern);
}
template <class FileKind, class FolderKind>
bool nameMatches(const boost::variant<FileKind, FolderKind>& element, const ustring& pattern)
{
    return boost::apply_visitor([&](const auto& alternative) { return nameMatches(alternative, pattern); }, element);
}

} // namespace

// ---- IFolderIteratorImpl, FolderIteratorHolder -------------------------------------------------------

template <class T>
IFolderIteratorImpl<T>::~IFolderIteratorImpl() = default;

template <class T>
FolderIteratorHolder<T>::FolderIteratorHolder(std::shared_ptr<IFolderIteratorImpl<T>> implementation)
    : impl(std::move(implementation)), singular(false)
{
}

template <class T>
bool FolderIteratorHolder<T>::equals(const FolderIteratorHolder& other) const
{
    if (singular || other.singular)
        return singular && other.singular;
    return impl->equal(*other.impl);
}

template <class T>
FolderIteratorHolder<T> FolderIteratorHolder<T>::clone() const
{
    return singular ? FolderIteratorHolder() : FolderIteratorHolder(impl->cloneImpl());
}

template <class T>
void FolderIteratorHolder<T>::increment() const
{
    if (singular)
        throw std::logic_error("Cannot increment a default-constructed folder listing iterator.");
    impl->increment();
}

template <class T>
const T& FolderIteratorHolder<T>::dereference() const
{
    if (singular)
        throwPastTheEnd();
    return impl->dereference();
}

// ---- FolderListingIteratorImpl ----------------------------------------------------------------------

template <class T>
FolderListingIteratorImpl<T>::FolderListingIteratorImpl() = default;

template <class T>
FolderListingIteratorImpl<T>::FolderListingIteratorImpl(Folder folder) : m_folder(std::move(folder))
{
}

template <class T>
FolderListingIteratorImpl<T>::FolderListingIteratorImpl(
    Folder folder, std::unique_ptr<provider::IFolderEntryIterator> providerIterator)
    : m_folder(std::move(folder)), m_providerIterator(std::move(providerIterator))
{
    updateCurrent();
}

template <class T>
FolderListingIteratorImpl<T>::FolderListingIteratorImpl(const FolderListingIteratorImpl& other)
    : IFolderIteratorImpl<T>(other), m_folder(other.m_folder), m_current(other.m_current)
{
    if (other.m_providerIterator)
        m_providerIterator = translated([&] { return other.m_providerIterator->clone(); });
}

template <class T>
FolderListingIteratorImpl<T>& FolderListingIteratorImpl<T>::operator=(const FolderListingIteratorImpl& other)
{
    if (this != &other) {
        FolderListingIteratorImpl copy(other);
        m_folder = std::move(copy.m_folder);
        m_providerIterator = std::move(copy.m_providerIterator);
        m_current = std::move(copy.m_current);
    }
    return *this;
}

template <class T>
FolderListingIteratorImpl<T>::~FolderListingIteratorImpl() = default;

template <class T>
void FolderListingIteratorImpl<T>::increment()
{
    updateCurrent();
}

template <class T>
void FolderListingIteratorImpl<T>::updateCurrent()
{
    if (!m_providerIterator) {
        m_current.reset();
        return;
    }
    translated([&] {
        if (!m_providerIterator->hasNext()) {
            m_current.reset();
            return;
        }
        m_providerIterator->next();
        provider::FolderEntry entry = m_providerIterator->current();
        T element = ElementBuilder<T>::make(*m_folder, entry);
        // Nobody else holds the previous element (no clone shares it): reuse its slot.
        if (m_current && m_current.use_count() == 1)
            *m_current = std::move(element);
        else
            m_current = std::make_shared<T>(std::move(element));
    });
}

template <class T>
bool FolderListingIteratorImpl<T>::equal(const IFolderIteratorImpl<T>& other) const
{
    // Compared once per step of every loop: the exact type is a cheaper test than a dynamic_cast.
    if (typeid(other) != typeid(*this))
        return false;
    const auto* that = static_cast<const FolderListingIteratorImpl*>(&other);
    if (m_current != that->m_current)
        return false;
    if (!m_folder || !that->m_folder)
        return !m_folder && !that->m_folder;
    return *m_folder == *that->m_folder;
}

template <class T>
const T& FolderListingIteratorImpl<T>::dereference() const
{
    if (!m_current)
        throwPastTheEnd();
    return *m_current;
}

template <class T>
std::shared_ptr<IFolderIteratorImpl<T>> FolderListingIteratorImpl<T>::cloneImpl() const
{
    return std::make_shared<FolderListingIteratorImpl>(*this);
}

template <class T>
std::shared_ptr<IFolderIteratorImpl<T>> FolderListingIteratorImpl<T>::buildEndIterator() const
{
    if (!m_folder)
        return std::make_shared<FolderListingIteratorImpl>();
    return std::make_shared<FolderListingIteratorImpl>(*m_folder);
}

// ---- FolderIteratorWildcardsImpl --------------------------------------------------------------------

template <class T>
struct FolderIteratorWildcardsImpl<T>::FilterImpl {
    FolderIteratorHolder<T> current;
    ustring pattern;
    FolderIteratorHolder<T> end;

    FilterImpl clone() const { return FilterImpl{current.clone(), pattern, end.clone()}; }

    void skipToMatch()
    {
        while (!current.equals(end) && !nameMatches(current.dereference(), pattern))
            current.increment();
    }
};

template <class T>
FolderIteratorWildcardsImpl<T>::FolderIteratorWildcardsImpl() : m_filter(std::make_unique<FilterImpl>())
{
}

template <class T>
FolderIteratorWildcardsImpl<T>::FolderIteratorWildcardsImpl(std::shared_ptr<IFolderIteratorImpl<T>> inner,
                                                            ustring pattern)
    : m_inner(std::move(inner)), m_pattern(std::move(pattern))
{
    m_filter = std::make_unique<FilterImpl>(FilterImpl{FolderIteratorHolder<T>(m_inner->cloneImpl()), m_pattern,
                                                       FolderIteratorHolder<T>(m_inner->buildEndIterator())});
    m_filter->skipToMatch();
}

template <class T>
FolderIteratorWildcardsImpl<T>::FolderIteratorWildcardsImpl(std::unique_ptr<FilterImpl> filter)
    : m_filter(std::move(filter))
{
}

template <class T>
FolderIteratorWildcardsImpl<T>::FolderIteratorWildcardsImpl(const FolderIteratorWildcardsImpl& other)
    : IFolderIteratorImpl<T>(other), m_inner(other.m_inner), m_pattern(other.m_pattern),
      m_filter(std::make_unique<FilterImpl>(other.m_filter->clone()))
{
}

template <class T>
FolderIteratorWildcardsImpl<T>& FolderIteratorWildcardsImpl<T>::operator=(const FolderIteratorWildcardsImpl& other)
{
    if (this != &other) {
        FolderIteratorWildcardsImpl copy(other);
        m_inner = std::move(copy.m_inner);
        m_pattern = std::move(copy.m_pattern);
        m_filter = std::move(copy.m_filter);
    }
    return *this;
}

template <class T>
FolderIteratorWildcardsImpl<T>::~FolderIteratorWildcardsImpl() = default;

template <class T>
void FolderIteratorWildcardsImpl<T>::increment()
{
    m_filter->current.increment();
    m_filter->skipToMatch();
}

template <class T>
bool FolderIteratorWildcardsImpl<T>::equal(const IFolderIteratorImpl<T>& other) const
{
    const auto* that = dynamic_cast<const FolderIteratorWildcardsImpl*>(&other);
    return that && m_filter->current.equals(that->m_filter->current);
}

template <class T>
const T& FolderIteratorWildcardsImpl<T>::dereference() const
{
    return m_filter->current.dereference();
}

template <class T>
std::shared_ptr<IFolderIteratorImpl<T>> FolderIteratorWildcardsImpl<T>::cloneImpl() const
{
    return std::shared_ptr<FolderIteratorWildcardsImpl>(
        new FolderIteratorWildcardsImpl(std::make_unique<FilterImpl>(m_filter->clone())));
}

template <class T>
std::shared_ptr<IFolderIteratorImpl<T>> FolderIteratorWildcardsImpl<T>::buildEndIterator() const
{
    if (!m_inner)
        throw std::logic_error("A wildcard filter builds its end only over the listing it was made for.");
    return std::make_shared<FolderIteratorWildcardsImpl>(m_inner->buildEndIterator(), m_pattern);
}

} // namespace detail

// ---- FolderListingIterator, FolderListing ---------------------------------------------------------

template <class T>
FolderListingIterator<T>::FolderListingIterator(detail::FolderIteratorHolder<T> holder) : m_holder(std::move(holder))
{
}

template <class T>
FolderListingIterator<T>::FolderListingIterator(const FolderListingIterator& other) : m_holder(other.m_holder.clone())
{
}

template <class T>
FolderListingIterator<T>& FolderListingIterator<T>::operator=(const FolderListingIterator& other)
{
    if (this != &other)
        m_holder = other.m_holder.clone();
    return *this;
}

template <class T>
FolderListingIterator<T>::~FolderListingIterator() = default;

template <class T>
const T& FolderListingIterator<T>::operator*() const
{
    return m_holder.dereference();
}

template <class T>
const T* FolderListingIterator<T>::operator->() const
{
    return &m_holder.dereference();
}

template <class T>
FolderListingIterator<T>& FolderListingIterator<T>::operator++()
{
    m_holder.increment();
    return *this;
}

template <class T>
FolderListingIterator<T> FolderListingIterator<T>::operator++(int)
{
    FolderListingIterator before(*this);
    m_holder.increment();
    return before;
}

template <class T>
bool FolderListingIterator<T>::operator==(const FolderListingIterator& other) const
{
    return m_holder.equals(other.m_holder);
}

template <class T>
FolderListing<T>::FolderListing(const std::shared_ptr<detail::IFolderIteratorImpl<T>>& impl)
    : m_begin(impl), m_end(impl->buildEndIterator())
{
}

template <class T>
FolderListingIterator<T> FolderListing<T>::begin() const
{
    return FolderListingIterator<T>(m_begin.clone());
}

template <class T>
FolderListingIterator<T> FolderListing<T>::end() const
{
    return FolderListingIterator<T>(m_end.clone());
}

template <class T>
bool FolderListing<T>::empty() const
{
    return m_begin.equals(m_end);
}

#define VFS_FOLDER_LISTING_INSTANTIATE(...)                                                                \
    template class detail::IFolderIteratorImpl<__VA_ARGS__>;                                               \
    template struct detail::FolderIteratorHolder<__VA_ARGS__>;                                             \
    template class detail::FolderListingIteratorImpl<__VA_ARGS__>;                                         \
    template class detail::FolderIteratorWildcardsImpl<__VA_ARGS__>;                                       \
    template class FolderListingIterator<__VA_ARGS__>;                                                     \
    template class FolderListing<__VA_ARGS__>;
VFS_FOLDER_LISTING_INSTANTIATE(File)
VFS_FOLDER_LISTING_INSTANTIATE(Folder)
VFS_FOLDER_LISTING_INSTANTIATE(FileEntry)
VFS_FOLDER_LISTING_INSTANTIATE(FolderEntry)
VFS_FOLDER_LISTING_INSTANTIATE(ListEntry)
VFS_FOLDER_LISTING_INSTANTIATE(boost::variant<File, Folder>)
VFS_FOLDER_LISTING_INSTANTIATE(boost::variant<FileEntry, FolderEntry>)
#undef VFS_FOLDER_LISTING_INSTANTIATE

// ---- Folder's listing members ---------------------------------------------------------------------

namespace {

// The provider has been handed the pattern already; the library filters again only when it cannot
// rely on the provider having done so.
template <class T>
std::shared_ptr<detail::IFolderIteratorImpl<T>> listingImpl(const Folder& folder,
                                                             std::unique_ptr<provider::IFolderEntryIterator> found,
                                                             ustring pattern, bool filterHere)
{
    auto plain = std::make_shared<detail::FolderListingIteratorImpl<T>>(folder, std::move(found));
    if (!filterHere)
        return plain;
    return std::make_shared<detail::FolderIteratorWildcardsImpl<T>>(std::move(plain), std::move(pattern));
}

} // namespace

FolderListing<ListEntry> Folder::listAll(ustring pattern) const
{
    auto found = doListAll(pattern);
    const bool filterHere = !pattern.empty() && !providerSupportsFlatWildcardListing();
    return FolderListing<ListEntry>(
        listingImpl<ListEntry>(*this, std::move(found), std::move(pattern), filterHere));
}

FolderListing<boost::variant<FileEntry, FolderEntry>> Folder::listAllEntries(ustring pattern) const
{
    using Entry = boost::variant<FileEntry, FolderEntry>;
    auto found = doListAllEntries(pattern);
    const bool filterHere = !pattern.empty() && !providerSupportsFlatWildcardListing();
    return FolderListing<Entry>(listingImpl<Entry>(*this, std::move(found), std::move(pattern), filterHere));
}

FolderListing<File> Folder::listFiles(ustring pattern) const
{
    auto found = doListFiles(pattern);
    const bool filterHere = !pattern.empty() && !providerSupportsFlatWildcardListing();
    return FolderListing<File>(listingImpl<File>(*this, std::move(found), std::move(pattern), filterHere));
}

FolderListing<FileEntry> Folder::listFileEntries(ustring pattern) const
{
    auto found = doListFileEntries(pattern);
    const bool filterHere = !pattern.empty() && !providerSupportsFlatWildcardListing();
    return FolderListing<FileEntry>(
        listingImpl<FileEntry>(*this, std::move(found), std::move(pattern), filterHere));
}

FolderListing<Folder> Folder::listFolders(ustring pattern) const
{
    auto found = doListFolders(pattern);
    const bool filterHere = !pattern.empty() && !providerSupportsFlatWildcardListing();
    return FolderListing<Folder>(listingImpl<Folder>(*this, std::move(found), std::move(pattern), filterHere));
}

FolderListing<FolderEntry> Folder::listFolderEntries(ustring pattern) const
{
    auto found = doListFolderEntries(pattern);
    const bool filterHere = !pattern.empty() && !providerSupportsFlatWildcardListing();
    return FolderListing<FolderEntry>(
        listingImpl<FolderEntry>(*this, std::move(found), std::move(pattern), filterHere));
}

namespace {

// The provider's own recursive listing when it has one (filtered here when it cannot apply the
// pattern itself), the library's walk otherwise.
template <class T, class ProviderListing>
std::shared_ptr<detail::IFolderIteratorImpl<T>> recursiveListing(const Folder& folder, const provider::StorageItem& item, ustring pattern,
                                  ProviderListing&& providerListing)
{
    using provider::ExtendedFeature;
    const bool native = detail::translated([&] { return item.hasFeature(ExtendedFeature::RecursiveListing); });
    if (!native)
        return std::make_shared<detail::RecursiveFolderListingIteratorImpl<T>>(folder, std::move(pattern));
    auto found = providerListing(pattern);
    const bool filterHere = !pattern.empty() && !detail::translated([&] {
        return item.hasFeature(ExtendedFeature::RecursiveWildcardListing);
    });
    return listingImpl<T>(folder, std::move(found), std::move(pattern), filterHere);
}

} // namespace

FolderListing<ListEntry> Folder::listAllRecursive(ustring pattern) const
{
    return FolderListing<ListEntry>(recursiveListing<ListEntry>(*this, live(), std::move(pattern), [&](const ustring& asked) {
        return doListAllRecursive_provider_specialization(asked);
    }));
}

FolderListing<boost::variant<FileEntry, FolderEntry>> Folder::listAllEntriesRecursive(ustring pattern) const
{
    return FolderListing<boost::variant<FileEntry, FolderEntry>>(recursiveListing<boost::variant<FileEntry, FolderEntry>>(
        *this, live(), std::move(pattern),
        [&](const ustring& asked) { return doListAllEntriesRecursive_provider_specialization(asked); }));
}

std::unique_ptr<provider::IFolderEntryIterator> Folder::doListAllRecursive_provider_specialization(ustring pattern) const
{
    return detail::translated([&] { return live().listAllRecursiveNamesOnly(std::move(pattern)); });
}

std::unique_ptr<provider::IFolderEntryIterator>
Folder::doListAllEntriesRecursive_provider_specialization(ustring pattern) const
{
    return detail::translated([&] { return live().listAllRecursive(std::move(pattern)); });
}

// Names-only listings for the element types that carry no attributes; full listings for entries.
std::unique_ptr<provider::IFolderEntryIterator> Folder::doListAll(ustring pattern) const
{
    return detail::translated([&] { return live().listAllNamesOnly(std::move(pattern)); });
}
std::unique_ptr<provider::IFolderEntryIterator> Folder::doListAllEntries(ustring pattern) const
{
    return detail::translated([&] { return live().listAll(std::move(pattern)); });
}
std::unique_ptr<provider::IFolderEntryIterator> Folder::doListFiles(ustring pattern) const
{
    return detail::translated([&] { return live().listFilesNamesOnly(std::move(pattern)); });
}
std::unique_ptr<provider::IFolderEntryIterator> Folder::doListFileEntries(ustring pattern) const
{
    return detail::translated([&] { return live().listFiles(std::move(pattern)); });
}
std::unique_ptr<provider::IFolderEntryIterator> Folder::doListFolders(ustring pattern) const
{
    return detail::translated([&] { return live().listFoldersNamesOnly(std::move(pattern)); });
}
std::unique_ptr<provider::IFolderEntryIterator> Folder::doListFolderEntries(ustring pattern) const
{
    return detail::translated([&] { return live().listFolders(std::move(pattern)); });
}

bool Folder::providerSupportsFlatWildcardListing() const
{
    return detail::translated([&] { return live().hasFeature(provider::ExtendedFeature::FlatWildcardListing); });
}

} // namespace foundation::storage::vfs
