#pragma once

#include <foundation/storage/provider/Attributes.hpp>
#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/ChangeEvents.hpp>
#include <foundation/storage/provider/Enumerations.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/FolderEntryIterator.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/property_tree/ptree_fwd.hpp>

#include <chrono>
#include <memory>

namespace foundation::storage::provider {

// The one interface a storage backend implements. Every operation names its subject by a
// StorageIRI; StorageItem pairs a provider with a location and forwards to these.
//
// Contract for implementations:
// - Thread-safe: one provider object serves many threads at once.
// - Every failure is a provider Exception (or one of the stream/event families) carrying the
//   location, one ErrorCode and contexts naming the failing native call and error; never a bare
//   errno, std::system_error or return code. "Not found" is exactly ResourceNotFound: a missing
//   location, a missing parent, and a location of the other kind (a file where a folder is asked
//   for, or the reverse; context "not-a-file" / "not-a-folder").
// - Locations of a scheme, authority or shape the provider does not serve, and paths holding NUL,
//   are refused with InvalidLocation.
// - Changes on a read-only storage fail with ReadOnlyProvider (or PermissionDenied where the storage
//   says so); a full storage with NoSpaceLeft; nothing already stored is lost or half-written.
// - Callbacks (progress, change events) are never invoked while a provider lock is held.
class VFS_EXPORT IProvider {
public:
    IProvider() = default;
    IProvider(const IProvider&) = delete;
    IProvider& operator=(const IProvider&) = delete;
    virtual ~IProvider();

    // ---- existence and kind --------------------------------------------------------------------
    // What is at `location`, links followed. A missing location (or one below a file) answers
    // NotFound; other failures (permission, invalid location) throw.
    virtual ExistenceType exists(const StorageIRI& location) const = 0;
    // As exists(), but links are reported as links (LinkToFile, LinkToFolder, BrokenLink) and
    // devices, FIFOs and sockets as Special.
    virtual ExistenceTypeExtended existsExtended(const StorageIRI& location) const = 0;
    // Whether the provider implements `feature` natively at `location`.
    virtual bool hasFeature(const StorageIRI& location, ExtendedFeature feature) const = 0;
    // True exactly when a file (resp. folder) is there, links followed; false when nothing or the
    // other kind is there.
    virtual bool fileExists(const StorageIRI& location) const = 0;
    virtual bool folderExists(const StorageIRI& location) const = 0;
    // The location with links, case and relative segments resolved as the storage defines; the
    // location must exist (ResourceNotFound otherwise).
    virtual StorageIRI getCanonicalLocation(const StorageIRI& location) const = 0;

    // ---- attributes ----------------------------------------------------------------------------
    virtual FileAttributes getFileAttributes(const StorageIRI& location) const = 0;
    virtual FolderAttributes getFolderAttributes(const StorageIRI& location) const = 0;
    // Of a file or a folder.
    virtual ExtendedAttributes getExtendedAttributes(const StorageIRI& location) const = 0;
    // Of a file or a folder.
    virtual void setLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const = 0;
    // Of a file or a folder: whether its content may be changed.
    virtual void setWritable(const StorageIRI& location, bool writable) const = 0;
    // Cuts or extends (with zero bytes) an existing file.
    virtual void truncateToSize(const StorageIRI& location, std::uint64_t size) const = 0;

    // ---- creation and removal ------------------------------------------------------------------
    // An empty file; ResourceAlreadyExists when anything is there, ResourceNotFound without parent.
    virtual void createFile(const StorageIRI& location) const = 0;
    virtual void removeFile(const StorageIRI& location) const = 0;
    // ResourceAlreadyExists when anything is there, ResourceNotFound without parent.
    virtual void createFolder(const StorageIRI& location) const = 0;
    // Creates the missing ancestors too; succeeds when the folder already exists;
    // ResourceAlreadyExists when a file stands in the way.
    virtual void createFolderRecursive(const StorageIRI& location) const = 0;
    // An empty folder only: FolderNotEmpty otherwise.
    virtual void removeFolder(const StorageIRI& location) const = 0;
    // The folder and everything below it. Only for providers with ExtendedFeature::RecursiveRemoval
    // (UnsupportedOperation otherwise). Links inside are removed, never followed.
    virtual void removeFolderRecursively(const StorageIRI& location) const = 0;

    // ---- moving and copying --------------------------------------------------------------------
    // Renames within this provider. Policies: FailIfExists -> ResourceAlreadyExists when the target
    // exists; Replace and MergeCollectingFailures -> replace it; MergeFolders -> as Replace for files;
    // ReplaceIfNewer -> replace only when the source is newer, otherwise leave both untouched.
    // A destination this provider does not serve: UnsupportedOperation.
    virtual void moveFile(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const = 0;
    // Policies for folders: FailIfExists and Replace as for files (Replace succeeds only over an
    // empty folder: FolderNotEmpty otherwise); the merging policies are the library's business, a
    // provider reports ResourceAlreadyExists or FolderNotEmpty and the library falls back.
    virtual void moveFolder(const StorageIRI& location, const StorageIRI& destination,
                            ReplacementPolicy policy) const = 0;
    // Copies a file's content (and writability) to `destination`, which may belong to another
    // provider (then `destinationProvider` is that provider; a provider that cannot copy into it
    // throws UnsupportedOperation). The target appears whole or not at all. Replacement policy as for
    // moveFile; a skipped (ReplaceIfNewer) or cancelled copy answers NothingDone.
    virtual TransactionStatus copyFile(const StorageIRI& location, const IProvider& destinationProvider,
                                       const StorageIRI& destination, const CopyFileOptions& options) const = 0;

    // ---- listing -------------------------------------------------------------------------------
    // The children of the folder at `location` (ResourceNotFound when it is none).
    virtual std::unique_ptr<IFolderEntryIterator> list(const StorageIRI& location, const ListOptions& options) const = 0;

    // ---- byte streams --------------------------------------------------------------------------
    // Streams on the file at `location` (ResourceNotFound when none is there, or a folder); opening
    // failures are provider Exceptions, failures of the open stream ByteStreamFailures. A stream
    // stays usable after the provider object is released by everyone else.
    // Reading from the start; writes fail (PermissionDenied).
    virtual std::unique_ptr<ByteStream> openReadOnlyStream(const StorageIRI& location) const = 0;
    // Writing (and reading, with ByteStreamAccess::ReadWrite) from the start, as `options` say.
    virtual std::unique_ptr<ByteStream> openStream(const StorageIRI& location,
                                                   const ByteStreamOpenOptions& options) const = 0;
    // As openStream(), but the file takes what was written only on close(Commit), whole (see
    // TransactionalByteStream); with keepContent the stream starts with the file's content.
    virtual std::unique_ptr<TransactionalByteStream> openTransactionalStream(
        const StorageIRI& location, const ByteStreamOpenOptions& options) const = 0;

    // ---- the storage as a whole ----------------------------------------------------------------
    // Makes everything written below `location` durable.
    virtual void flushFilesystem(const StorageIRI& location) const = 0;
    virtual FilenameSensitivity getFilenameSensitivity(const StorageIRI& location) const = 0;
    virtual PathComparatorFunction getPathComparator(const StorageIRI& location) const = 0;
    virtual ProviderStorageInfo getProviderStorageInfo(const StorageIRI& location) const = 0;
    // Applies provider settings (keys are the provider's own); an unknown key or a bad value is
    // refused with InvalidLocation naming it, leaving the settings unchanged.
    virtual void configure(const boost::property_tree::ptree& settings) const = 0;
    // Releases what the provider holds (watchers, memory volumes' content).
    virtual void shutdown() const = 0;

    // ---- change events -------------------------------------------------------------------------
    // A provider keeps at most one watch of each sort (file, folder, polling) per location: starting
    // one again replaces its callback and kinds, and stopping ends it however often it was started;
    // stopping a watch that does not exist does nothing. Once stop returns, the watch's callback is
    // not running on another thread and is not called again. Callbacks run on the provider's own
    // thread (see ChangeEventCallback). shutdown() ends every watch.
    //
    // Failures: a missing location, or one of the other kind, is ResourceNotFound ("not-a-file",
    // "not-a-folder"); a storage that cannot watch throws ChangeEventsNotSupportedException, and one
    // that cannot add this watch (a kernel limit reached) ChangeEventsSubscriptionException.

    // Reports changes of the file at `location`, also its replacement by another file.
    virtual void publishFileEvents(const StorageIRI& location, ChangeEventCallback callback,
                                   const ChangeKinds& kinds) const = 0;
    // Reports changes of the folder at `location` and of its children; with Recursive (providers
    // with ExtendedFeature::RecursiveWatching only, UnsupportedOperation otherwise) of everything
    // below it, including folders created later.
    virtual void publishFolderEvents(const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds,
                                     RecursiveFileWatching recursive) const = 0;
    virtual void stopPublishingFileEvents(const StorageIRI& location) const = 0;
    virtual void stopPublishingFolderEvents(const StorageIRI& location) const = 0;
    // Polls the folder at `location` every `interval` (see ChangePoller, which providers use).
    virtual void startChangePollingMechanism(const StorageIRI& location, ChangeEventCallback callback,
                                             const ChangeKinds& kinds, std::chrono::milliseconds interval,
                                             RecursiveChangePolling recursive) const = 0;
    virtual void stopChangePollingMechanism(const StorageIRI& location) const = 0;
};

namespace extensions {

// A provider that caches what it knows about a folder and can be told to forget it.
class VFS_EXPORT IInvalidatable {
public:
    virtual ~IInvalidatable();
    virtual void invalidate(const StorageIRI& location) = 0;
};

// A provider whose whole file system can be flushed at once.
class VFS_EXPORT IFlushableFilesystem {
public:
    virtual ~IFlushableFilesystem();
    virtual void flushFilesystem() = 0;
};

} // namespace extensions

} // namespace foundation::storage::provider
