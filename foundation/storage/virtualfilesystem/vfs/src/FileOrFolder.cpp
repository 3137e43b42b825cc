#include <foundation/storage/vfs/Exception.hpp>
#include <foundation/storage/vfs/FileOrFolder.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/throw_exception.hpp>
#include <boost/variant/apply_visitor.hpp>

#include <stdexcept>
#include <type_traits>

namespace foundation::storage::vfs {

namespace {

template <class Call>
decltype(auto) onEither(const FileOrFolder& item, Call&& call)
{
    return boost::apply_visitor([&](const auto& handle) -> decltype(auto) { return call(handle); }, item);
}

template <class Call>
decltype(auto) onHandle(const FileOrFolderEntry& entry, Call&& call)
{
    return boost::apply_visitor(
        [&](const auto& alternative) -> decltype(auto) {
            if constexpr (std::is_same_v<std::decay_t<decltype(alternative)>, FileEntry>)
                return call(alternative.getFile());
            else
                return call(alternative.getFolder());
        },
        entry);
}

bool existsHere(const File& file) { return file.fileExists(); }
bool existsHere(const Folder& folder) { return folder.folderExists(); }
void removeHere(const File& file, const FolderRemovalPolicy&) { file.removeFile(); }
void removeHere(const Folder& folder, const FolderRemovalPolicy& policy) { folder.removeFolder(policy); }

// The two calls of one kind pairing; the mixed pairings name the caller's mistake.
struct Transfer {
    const char* fileToFolder;
    const char* folderToFile;
    void (File::*onFiles)(const File&, const provider::ReplacementPolicy&) const;
    void (Folder::*onFolders)(const Folder&, const provider::ReplacementPolicy&) const;

    void operator()(const File& source, const File& target, const provider::ReplacementPolicy& policy) const
    {
        (source.*onFiles)(target, policy);
    }
    void operator()(const Folder& source, const Folder& target, const provider::ReplacementPolicy& policy) const
    {
        (source.*onFolders)(target, policy);
    }
    void operator()(const File&, const Folder&, const provider::ReplacementPolicy&) const
    {
        throw std::logic_error(fileToFolder);
    }
    void operator()(const Folder&, const File&, const provider::ReplacementPolicy&) const
    {
        throw std::logic_error(folderToFile);
    }
};

void transfer(const Transfer& how, const FileOrFolder& source, const FileOrFolder& destination,
              const provider::ReplacementPolicy& policy)
{
    boost::apply_visitor([&](const auto& from, const auto& to) { how(from, to, policy); }, source, destination);
}

} // namespace

bool exists(const FileOrFolder& item)
{
    return onEither(item, [](const auto& handle) { return existsHere(handle); });
}
ustring getName(const FileOrFolder& item)
{
    return onEither(item, [](const auto& handle) { return handle.getName(); });
}
AbsoluteIRI getLocation(const FileOrFolder& item)
{
    return onEither(item, [](const auto& handle) { return handle.getLocation(); });
}
CanonicalAbsoluteIRI getCanonicalLocation(const FileOrFolder& item)
{
    return onEither(item, [](const auto& handle) { return handle.getCanonicalLocation(); });
}
Folder getParent(const FileOrFolder& item)
{
    return onEither(item, [](const auto& handle) { return handle.getParent(); });
}
bool hasParent(const FileOrFolder& item)
{
    return onEither(item, [](const auto& handle) { return detail::HandleAccess::item(handle).hasParent(); });
}
StorageSystemReference getStorageSystem(const FileOrFolder& item)
{
    return onEither(item, [](const auto& handle) { return handle.getStorageSystem(); });
}
boost::posix_time::ptime getLastModified(const FileOrFolder& item)
{
    return onEither(item, [](const auto& handle) { return handle.getAttributes().getLastModified(); });
}
bool isHidden(const FileOrFolder& item)
{
    return onEither(item, [](const auto& handle) { return handle.getAttributes().isHidden(); });
}
bool isSymlink(const FileOrFolder& item)
{
    return onEither(item, [](const auto& handle) { return handle.getAttributes().isSymlink(); });
}
bool isWritable(const FileOrFolder& item)
{
    return onEither(item, [](const auto& handle) { return handle.getAttributes().isWritable(); });
}
void setLastModified(const FileOrFolder& item, const boost::posix_time::ptime& time)
{
    onEither(item, [&](const auto& handle) { handle.setLastModified(time); });
}
void setWritable(const FileOrFolder& item, bool writable)
{
    onEither(item, [&](const auto& handle) { handle.setWritable(writable); });
}
void remove(const FileOrFolder& item, const FolderRemovalPolicy& policy)
{
    onEither(item, [&](const auto& handle) { removeHere(handle, policy); });
}

void copy(const FileOrFolder& source, const FileOrFolder& destination, const provider::ReplacementPolicy& policy)
{
    transfer({"Can't make a folder out of a file.", "Can't make a file out of a folder.", &File::copyFile,
              &Folder::copyFolder},
             source, destination, policy);
}

void move(const FileOrFolder& source, const FileOrFolder& destination, const provider::ReplacementPolicy& policy)
{
    transfer({"Can't change a file to a folder.", "Can't change a folder to a file.", &File::moveFile,
              &Folder::moveFolder},
             source, destination, policy);
}

FileOrFolder makeFileOrFolder(const AbsoluteIRI& location, const StorageSystemReference& reference)
{
    switch (exists(location, reference)) {
    case provider::ExistenceType::NotFound:
        boost::throw_exception(Exception(ErrorCode::ResourceNotFound, location));
    case provider::ExistenceType::File:
        return File(location, reference);
    default:
        return Folder(location, reference);
    }
}

ustring getName(const FileOrFolderEntry& entry)
{
    return boost::apply_visitor([](const auto& alternative) { return alternative.getName(); }, entry);
}
AbsoluteIRI getLocation(const FileOrFolderEntry& entry)
{
    return onHandle(entry, [](const auto& handle) { return handle.getLocation(); });
}
CanonicalAbsoluteIRI getCanonicalLocation(const FileOrFolderEntry& entry)
{
    return onHandle(entry, [](const auto& handle) { return handle.getCanonicalLocation(); });
}

} // namespace foundation::storage::vfs
