#pragma once

#include <fl/export.hpp>

#include <cstddef>
#include <cstdint>
#include <ostream>

// The operations a decorator sees, listed once. VFS_PROVIDER_OPERATIONS(X) calls X(Enumerator, name)
// for each, in the order of their numbers; VFS_PROVIDER_FORWARDED_OPERATIONS(X) calls
// X(Enumerator, name, Result, (parameters), (arguments)) for each one that a decorator forwards as it is,
// its subject being the parameter `location`, to the wrapped provider's member of the same name.

#define VFS_PROVIDER_OPERATIONS(X)                                                                                     \
    X(Exists, exists)                                                                                                  \
    X(ExistsExtended, existsExtended)                                                                                  \
    X(HasFeature, hasFeature)                                                                                          \
    X(FileExists, fileExists)                                                                                          \
    X(FolderExists, folderExists)                                                                                      \
    X(GetCanonicalLocation, getCanonicalLocation)                                                                      \
    X(GetFileAttributes, getFileAttributes)                                                                            \
    X(GetFolderAttributes, getFolderAttributes)                                                                        \
    X(GetExtendedAttributes, getExtendedAttributes)                                                                    \
    X(SetLastModified, setLastModified)                                                                                \
    X(SetWritable, setWritable)                                                                                        \
    X(TruncateToSize, truncateToSize)                                                                                  \
    X(CreateFile, createFile)                                                                                          \
    X(RemoveFile, removeFile)                                                                                          \
    X(CreateFolder, createFolder)                                                                                      \
    X(CreateFolderRecursive, createFolderRecursive)                                                                    \
    X(RemoveFolder, removeFolder)                                                                                      \
    X(RemoveFolderRecursively, removeFolderRecursively)                                                                \
    X(MoveFile, moveFile)                                                                                              \
    X(MoveFolder, moveFolder)                                                                                          \
    X(CopyFile, copyFile)                                                                                              \
    X(List, list)                                                                                                      \
    X(FlushFilesystem, flushFilesystem)                                                                                \
    X(GetFilenameSensitivity, getFilenameSensitivity)                                                                  \
    X(GetPathComparator, getPathComparator)                                                                            \
    X(GetProviderStorageInfo, getProviderStorageInfo)                                                                  \
    X(Configure, configure)                                                                                            \
    X(Shutdown, shutdown)                                                                                              \
    X(OpenReadOnlyStream, openReadOnlyStream)                                                                          \
    X(OpenStream, openStream)                                                                                          \
    X(OpenTransactionalStream, openTransactionalStream)                                                                \
    X(StreamRead, read)                                                                                                \
    X(StreamWrite, write)                                                                                              \
    X(StreamSeek, seek)                                                                                                \
    X(StreamFlush, flush)                                                                                              \
    X(StreamClose, close)                                                                                              \
    X(PublishFileEvents, publishFileEvents)                                                                            \
    X(PublishFolderEvents, publishFolderEvents)                                                                        \
    X(StopPublishingFileEvents, stopPublishingFileEvents)                                                              \
    X(StopPublishingFolderEvents, stopPublishingFolderEvents)                                                          \
    X(StartChangePollingMechanism, startChangePollingMechanism)                                                        \
    X(StopChangePollingMechanism, stopChangePollingMechanism)

#define VFS_PROVIDER_FORWARDED_OPERATIONS(X)                                                                           \
    X(Exists, exists, ExistenceType, (const StorageIRI& location), (location))                                                 \
    X(ExistsExtended, existsExtended, ExistenceTypeExtended, (const StorageIRI& location), (location))                                 \
    X(HasFeature, hasFeature, bool, (const StorageIRI& location, ExtendedFeature feature), (location, feature))                    \
    X(FileExists, fileExists, bool, (const StorageIRI& location), (location))                                                      \
    X(FolderExists, folderExists, bool, (const StorageIRI& location), (location))                                                    \
    X(GetCanonicalLocation, getCanonicalLocation, StorageIRI, (const StorageIRI& location), (location))                                      \
    X(GetFileAttributes, getFileAttributes, FileAttributes, (const StorageIRI& location), (location))                                     \
    X(GetFolderAttributes, getFolderAttributes, FolderAttributes, (const StorageIRI& location), (location))                                 \
    X(GetExtendedAttributes, getExtendedAttributes, ExtendedAttributes, (const StorageIRI& location), (location))                             \
    X(SetLastModified, setLastModified, void, (const StorageIRI& location, const boost::posix_time::ptime& time), (location, time))     \
    X(SetWritable, setWritable, void, (const StorageIRI& location, bool writable), (location, writable))                            \
    X(TruncateToSize, truncateToSize, void, (const StorageIRI& location, std::uint64_t size), (location, size))                        \
    X(CreateFile, createFile, void, (const StorageIRI& location), (location))                                                      \
    X(RemoveFile, removeFile, void, (const StorageIRI& location), (location))                                                      \
    X(CreateFolder, createFolder, void, (const StorageIRI& location), (location))                                                    \
    X(CreateFolderRecursive, createFolderRecursive, void, (const StorageIRI& location), (location))                                           \
    X(RemoveFolder, removeFolder, void, (const StorageIRI& location), (location))                                                    \
    X(RemoveFolderRecursively, removeFolderRecursively, void, (const StorageIRI& location), (location))                                         \
    X(MoveFile, moveFile, void, (const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy),           \
      (location, destination, policy))                                                                                 \
    X(MoveFolder, moveFolder, void, (const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy),         \
      (location, destination, policy))                                                                                 \
    X(List, list, std::unique_ptr<IFolderEntryIterator>, (const StorageIRI& location, const ListOptions& options),           \
      (location, options))                                                                                             \
    X(FlushFilesystem, flushFilesystem, void, (const StorageIRI& location), (location))                                                 \
    X(GetFilenameSensitivity, getFilenameSensitivity, FilenameSensitivity, (const StorageIRI& location), (location))                           \
    X(GetPathComparator, getPathComparator, PathComparatorFunction, (const StorageIRI& location), (location))                             \
    X(GetProviderStorageInfo, getProviderStorageInfo, ProviderStorageInfo, (const StorageIRI& location), (location))                           \
    X(PublishFileEvents, publishFileEvents, void, (const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds),   \
      (location, std::move(callback), kinds))                                                                          \
    X(PublishFolderEvents, publishFolderEvents, void,                                                                                       \
      (const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds,                             \
       RecursiveFileWatching recursive),                                                                               \
      (location, std::move(callback), kinds, recursive))                                                               \
    X(StopPublishingFileEvents, stopPublishingFileEvents, void, (const StorageIRI& location), (location))                                        \
    X(StopPublishingFolderEvents, stopPublishingFolderEvents, void, (const StorageIRI& location), (location))                                      \
    X(StartChangePollingMechanism, startChangePollingMechanism, void,                                                                               \
      (const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds,                             \
       std::chrono::milliseconds interval, RecursiveChangePolling recursive),                                          \
      (location, std::move(callback), kinds, interval, recursive))                                                     \
    X(StopChangePollingMechanism, stopChangePollingMechanism, void, (const StorageIRI& location), (location))

namespace foundation::storage::provider::decorators {

// Every IProvider operation, and the calls on a stream opened through a decorator (Stream*, whose
// subject is the stream's location), so that decorators can name one.
enum class ProviderOperation : std::int32_t {
#define VFS_PROVIDER_OPERATION_ENUMERATOR(Enumerator, name) Enumerator,
    VFS_PROVIDER_OPERATIONS(VFS_PROVIDER_OPERATION_ENUMERATOR)
#undef VFS_PROVIDER_OPERATION_ENUMERATOR
        Count_ // number of operations; not an operation
};
inline constexpr std::size_t providerOperationCount = static_cast<std::size_t>(ProviderOperation::Count_);
// The operation's IProvider member name ("exists"); "Unhandled ProviderOperation" otherwise.
VFS_EXPORT const char* toString(ProviderOperation operation) noexcept;
inline std::ostream& operator<<(std::ostream& out, ProviderOperation operation)
{
    return out << toString(operation);
}

} // namespace foundation::storage::provider::decorators
