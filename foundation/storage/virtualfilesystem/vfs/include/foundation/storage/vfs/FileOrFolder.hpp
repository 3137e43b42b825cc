#pragma once

// Functions over a file or a folder held without caring which: each calls the member of the same
// meaning on whichever handle (or entry) the variant holds, and fails as that member does.

#include <foundation/storage/vfs/File.hpp>
#include <foundation/storage/vfs/Folder.hpp>
#include <foundation/storage/vfs/FolderEntries.hpp>

#include <boost/variant/variant.hpp>

namespace foundation::storage::vfs {

using FileOrFolder = boost::variant<File, Folder>;
using FileOrFolderEntry = boost::variant<FileEntry, FolderEntry>;

// fileExists() or folderExists(): false when nothing, or something of the other kind, is there.
VFS_EXPORT bool exists(const FileOrFolder& item);
VFS_EXPORT ustring getName(const FileOrFolder& item);
VFS_EXPORT AbsoluteIRI getLocation(const FileOrFolder& item);
VFS_EXPORT CanonicalAbsoluteIRI getCanonicalLocation(const FileOrFolder& item);
VFS_EXPORT Folder getParent(const FileOrFolder& item);
VFS_EXPORT bool hasParent(const FileOrFolder& item);
VFS_EXPORT StorageSystemReference getStorageSystem(const FileOrFolder& item);

// Each fetches the whole attribute set afresh; nothing is cached.
VFS_EXPORT boost::posix_time::ptime getLastModified(const FileOrFolder& item);
VFS_EXPORT bool isHidden(const FileOrFolder& item);
VFS_EXPORT bool isSymlink(const FileOrFolder& item);
VFS_EXPORT bool isWritable(const FileOrFolder& item);

VFS_EXPORT void setLastModified(const FileOrFolder& item, const boost::posix_time::ptime& time);
VFS_EXPORT void setWritable(const FileOrFolder& item, bool writable);
// A file is removed whatever the policy says.
VFS_EXPORT void remove(const FileOrFolder& item, const FolderRemovalPolicy& policy);

// File to file and folder to folder only: mixing kinds is a caller's mistake, refused with
// std::logic_error before anything is asked of the storage.
VFS_EXPORT void copy(const FileOrFolder& source, const FileOrFolder& destination,
                     const provider::ReplacementPolicy& policy);
VFS_EXPORT void move(const FileOrFolder& source, const FileOrFolder& destination,
                     const provider::ReplacementPolicy& policy);

// A File or a Folder, as the storage says is at `location` now; Exception (ResourceNotFound) when
// nothing is there.
VFS_EXPORT FileOrFolder makeFileOrFolder(const AbsoluteIRI& location, const StorageSystemReference& reference);

// The entry's name needs no provider call; the locations force the entry's handle.
VFS_EXPORT ustring getName(const FileOrFolderEntry& entry);
VFS_EXPORT AbsoluteIRI getLocation(const FileOrFolderEntry& entry);
VFS_EXPORT CanonicalAbsoluteIRI getCanonicalLocation(const FileOrFolderEntry& entry);

} // namespace foundation::storage::vfs
