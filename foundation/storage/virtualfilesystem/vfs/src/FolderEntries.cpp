#include <foundation/storage/vfs/FolderEntries.hpp>
#include <foundation/storage/vfs/detail/LazyValue.hpp>

#include <optional>
#include <utility>

namespace foundation::storage::vfs {

namespace detail {

// The state behind FileEntry and FolderEntry. Generators refer to the Impl itself, so an Impl is
// never copied or moved: it lives where make_shared put it.
//
// The attributes generator of the name-based constructors forces the handle slot while the
// attributes slot's mutex is held; nothing takes them the other way round.
template <class Handle, class Attributes>
struct EntryState {
    explicit EntryState(Handle given)
        : name(given.getName()), handle(std::move(given)), attributes([this] { return handle.get().getAttributes(); })
    {
    }
    EntryState(Folder parentFolder, ustring childName)
        : name(std::move(childName)), parent(std::move(parentFolder)), handle([this] { return Handle(*parent, name); }),
          attributes([this] { return handle.get().getAttributes(); })
    {
    }
    EntryState(Folder parentFolder, ustring childName, Attributes known)
        : name(std::move(childName)), parent(std::move(parentFolder)), handle([this] { return Handle(*parent, name); }),
          attributes(std::move(known))
    {
    }
    EntryState(const EntryState&) = delete;
    EntryState& operator=(const EntryState&) = delete;

    const ustring name;
    // Kept here rather than captured, so that the generators capture only `this` and fit inside
    // std::function without an allocation of their own.
    const std::optional<Folder> parent;
    detail::LazyValue<Handle> handle;
    detail::LazyValue<Attributes> attributes;
};

} // namespace detail

struct FileEntry::Impl : detail::EntryState<File, provider::FileAttributes> {
    using EntryState::EntryState;
};

struct FolderEntry::Impl : detail::EntryState<Folder, provider::FolderAttributes> {
    using EntryState::EntryState;
};

struct ListEntry::Impl {
    Folder parent;
    ustring name;
};

FileEntry::FileEntry(File file) : m_impl(std::make_shared<Impl>(std::move(file))) {}

FileEntry::FileEntry(Folder parent, ustring name) : m_impl(std::make_shared<Impl>(std::move(parent), std::move(name)))
{
}

FileEntry::FileEntry(Folder parent, ustring name, provider::FileAttributes attributes)
    : m_impl(std::make_shared<Impl>(std::move(parent), std::move(name), std::move(attributes)))
{
}

const ustring& FileEntry::getName() const noexcept { return m_impl->name; }
const File& FileEntry::getFile() const { return m_impl->handle.get(); }
const provider::FileAttributes& FileEntry::getAttributes() const { return m_impl->attributes.get(); }
const provider::FileAttributes* FileEntry::getKnownAttributes() const noexcept { return m_impl->attributes.ifKnown(); }

FolderEntry::FolderEntry(Folder folder) : m_impl(std::make_shared<Impl>(std::move(folder))) {}

FolderEntry::FolderEntry(Folder parent, ustring name)
    : m_impl(std::make_shared<Impl>(std::move(parent), std::move(name)))
{
}

FolderEntry::FolderEntry(Folder parent, ustring name, provider::FolderAttributes attributes)
    : m_impl(std::make_shared<Impl>(std::move(parent), std::move(name), std::move(attributes)))
{
}

const ustring& FolderEntry::getName() const noexcept { return m_impl->name; }
const Folder& FolderEntry::getFolder() const { return m_impl->handle.get(); }
const provider::FolderAttributes& FolderEntry::getAttributes() const { return m_impl->attributes.get(); }

ListEntry::ListEntry(Folder parent, ustring name)
    : m_impl(std::make_shared<const Impl>(Impl{std::move(parent), std::move(name)}))
{
}

const ustring& ListEntry::getName() const noexcept { return m_impl->name; }

ustring ListEntry::getFilename() const
{
    const ustring& name = m_impl->name;
    if (name == u"/")
        return name;
    const auto slash = name.rfind(u'/');
    return slash == ustring::npos ? name : name.substr(slash + 1);
}

AbsoluteIRI ListEntry::getLocation() const { return AbsoluteIRI(m_impl->parent.getLocation(), m_impl->name); }

boost::variant<File, Folder> ListEntry::getFileOrFolder() const
{
    AbsoluteIRI location = getLocation();
    StorageSystemReference system = m_impl->parent.getStorageSystem();
    switch (exists(location, system)) {
    case provider::ExistenceType::File:
    case provider::ExistenceType::NotFound:
        return File(location, std::move(system));
    default:
        return Folder(location, std::move(system));
    }
}

bool ListEntry::operator==(const ListEntry& other) const { return getLocation() == other.getLocation(); }
bool ListEntry::operator<(const ListEntry& other) const { return getLocation() < other.getLocation(); }

} // namespace foundation::storage::vfs
