#pragma once

#include <foundation/storage/provider/Attributes.hpp>
#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/ChangeEvents.hpp>
#include <foundation/storage/provider/Enumerations.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/FolderEntryIterator.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/property_tree/ptree_fwd.hpp>

#include <fl/chrono/duration.hpp>
#include <cstdint>
#include <memory>
#include <string_view>

namespace foundation::storage::provider {

// What a provider can do, stated once. The front of IProvider reads it to check locations, to answer
// hasFeature() and to refuse what the storage lacks (recursive removal, recursive listing or
// watching, watching at all); the library's fallbacks follow from the same answers.
struct ProviderCapabilities {
    // Which authorities a location may have.
    enum class Authority : std::int32_t {
        LocalHost = 0, // empty or "localhost"
        Required = 1,  // any non-empty one (a memory volume, a host)
    };

    // The locations served: this scheme (lower case, a literal that outlives the provider), with
    // or without an inner IRI naming a container.
    std::u16string_view scheme;
    Authority authority = Authority::LocalHost;
    bool nested = false;

    // Native ExtendedFeature values, one bit each (bit n for the value n).
    std::uint32_t features = 0;
    bool watching = false;           // publish*Events work (polling always does)
    bool extendedAttributes = false; // getExtendedAttributes answers more than sizes
    bool writable = true;            // false: a read-only storage; the front refuses every change
    bool atomicReplace = false;      // a rename replaces its target in one step
    bool settableTimes = true;       // setLastModified keeps the time given (an object store's do not)
    bool settableWritability = true; // setWritable changes what isWritable() reports
    // How many file transfers a tree copy runs at once into or out of this storage: 1 where a
    // transfer keeps the machine busy (a disk), more where it mostly waits for a server's answers.
    std::uint32_t parallelTransfers = 1;
    // A listing brings its entries' attributes at no extra cost (they come in the same answers):
    // a walk then asks for them, and spares a request per entry where it needs one.
    bool freeListingAttributes = false;
    FilenameSensitivity sensitivity = FilenameSensitivity::CaseSensitive;
    // The finest modification time the storage keeps.
    std::chrono::nanoseconds timeResolution = std::chrono::nanoseconds(1);

    bool has(ExtendedFeature feature) const noexcept { return (features & bit(feature)) != 0; }
    ProviderCapabilities& with(ExtendedFeature feature) noexcept
    {
        features |= bit(feature);
        return *this;
    }
    ProviderCapabilities& without(ExtendedFeature feature) noexcept
    {
        features &= ~bit(feature);
        return *this;
    }
    static constexpr std::uint32_t bit(ExtendedFeature feature) noexcept
    {
        return std::uint32_t{1} << static_cast<std::uint32_t>(feature);
    }
};

struct PollingSlot;

// The one interface a storage backend implements. Every operation names its subject by a
// StorageIRI; StorageItem pairs a provider with a location and forwards to these.
//
// The public operations are a non-virtual front: each checks its locations against capabilities()
// (scheme, authority, nesting, a path, no NUL) and refuses what the capabilities rule out, then
// calls the protected do* member that the backend implements. A backend therefore sees only
// locations of its own shape. What follows from other answers (fileExists, folderExists, the path
// comparator, hasFeature, polling through the shared ChangePoller) has a default; optional
// operations default to UnsupportedOperation (or ChangeEventsNotSupportedException).
//
// Contract for implementations:
// - Thread-safe: one provider object serves many threads at once.
// - Every failure is a provider Exception (or one of the stream/event families) carrying the
//   location, one ErrorCode and contexts naming the failing native call and error; never a bare
//   errno, std::system_error or return code. "Not found" is exactly ResourceNotFound: a missing
//   location, a missing parent, and a location of the other kind (a file where a folder is asked
//   for, or the reverse; context "not-a-file" / "not-a-folder").
// - Changes on a read-only storage fail with ReadOnlyProvider (or PermissionDenied where the storage
//   says so); a full storage with NoSpaceLeft; nothing already stored is lost or half-written.
// - Callbacks (progress, change events) are never invoked while a provider lock is held.
// - A backend that may be polled calls endPolling() first thing in its destructor, so that no
//   polling runs while its members go.
class VFS_EXPORT IProvider {
public:
    IProvider();
    IProvider(const IProvider&) = delete;
    IProvider& operator=(const IProvider&) = delete;
    virtual ~IProvider();

    // What this provider serves and can do (may change with configure()).
    virtual ProviderCapabilities capabilities() const = 0;
    // Refuses with InvalidLocation (contexts "wrong-scheme", "nested-iri", "no-inner-iri",
    // "no-volume", "non-local-authority", "no-path", "nul-in-name") a location this provider does
    // not serve.
    void checkLocation(const StorageIRI& location) const;
    void checkLocation(const StorageIRI& location, const ProviderCapabilities& capabilities) const;

    // ---- existence and kind --------------------------------------------------------------------
    // What is at `location`, links followed. A missing location (or one below a file) answers
    // NotFound; other failures (permission, invalid location) throw.
    ExistenceType exists(const StorageIRI& location) const;
    // As exists(), but links are reported as links (LinkToFile, LinkToFolder, BrokenLink) and
    // devices, FIFOs and sockets as Special.
    ExistenceTypeExtended existsExtended(const StorageIRI& location) const;
    // Whether the provider implements `feature` natively at `location`.
    bool hasFeature(const StorageIRI& location, ExtendedFeature feature) const;
    // True exactly when a file (resp. folder) is there, links followed; false when nothing or the
    // other kind is there.
    bool fileExists(const StorageIRI& location) const;
    bool folderExists(const StorageIRI& location) const;
    // The location with links, case and relative segments resolved as the storage defines; the
    // location must exist (ResourceNotFound otherwise).
    StorageIRI getCanonicalLocation(const StorageIRI& location) const;

    // ---- attributes ----------------------------------------------------------------------------
    FileAttributes getFileAttributes(const StorageIRI& location) const;
    FolderAttributes getFolderAttributes(const StorageIRI& location) const;
    // Of a file or a folder.
    ExtendedAttributes getExtendedAttributes(const StorageIRI& location) const;
    // Of a file or a folder.
    void setLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const;
    // Of a file or a folder: whether its content may be changed.
    void setWritable(const StorageIRI& location, bool writable) const;
    // Cuts or extends (with zero bytes) an existing file.
    void truncateToSize(const StorageIRI& location, std::uint64_t size) const;

    // ---- creation and removal ------------------------------------------------------------------
    // An empty file; ResourceAlreadyExists when anything is there, ResourceNotFound without parent.
    void createFile(const StorageIRI& location) const;
    void removeFile(const StorageIRI& location) const;
    // ResourceAlreadyExists when anything is there, ResourceNotFound without parent.
    void createFolder(const StorageIRI& location) const;
    // Creates the missing ancestors too; succeeds when the folder already exists;
    // ResourceAlreadyExists when a file stands in the way.
    void createFolderRecursive(const StorageIRI& location) const;
    // An empty folder only: FolderNotEmpty otherwise.
    void removeFolder(const StorageIRI& location) const;
    // The folder and everything below it. Only for providers with ExtendedFeature::RecursiveRemoval
    // (UnsupportedOperation otherwise). Links inside are removed, never followed.
    void removeFolderRecursively(const StorageIRI& location) const;

    // ---- moving and copying --------------------------------------------------------------------
    // Renames within this provider. Policies: FailIfExists -> ResourceAlreadyExists when the target
    // exists; Replace and MergeCollectingFailures -> replace it; MergeFolders -> as Replace for files;
    // ReplaceIfNewer -> replace only when the source is newer, otherwise leave both untouched.
    // A destination this provider does not serve: UnsupportedOperation ("cross-provider-move").
    void moveFile(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const;
    // Policies for folders: FailIfExists and Replace as for files (Replace succeeds only over an
    // empty folder: FolderNotEmpty otherwise); the merging policies are the library's business, a
    // provider reports ResourceAlreadyExists or FolderNotEmpty and the library falls back.
    void moveFolder(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const;
    // Copies a file's content (and writability) to `destination` of `destinationProvider`. Within
    // this very provider the backend copies natively; into any other provider the content goes
    // through this provider's read stream into the other's transactional stream. The target
    // appears whole or not at all. Replacement policy as for moveFile; a skipped (ReplaceIfNewer)
    // or cancelled copy answers NothingDone.
    TransactionStatus copyFile(const StorageIRI& location, const IProvider& destinationProvider,
                               const StorageIRI& destination, const CopyFileOptions& options) const;

    // ---- listing -------------------------------------------------------------------------------
    // The children of the folder at `location` (ResourceNotFound when it is none). A recursive
    // listing needs ExtendedFeature::RecursiveListing (UnsupportedOperation otherwise). A provider
    // without the matching wildcard feature may ignore the pattern; the library filters again.
    std::unique_ptr<IFolderEntryIterator> list(const StorageIRI& location, const ListOptions& options) const;

    // ---- byte streams --------------------------------------------------------------------------
    // Streams on the file at `location` (ResourceNotFound when none is there, or a folder); opening
    // failures are provider Exceptions, failures of the open stream ByteStreamFailures. A stream
    // stays usable after the provider object is released by everyone else.
    // Reading from the start; writes fail (PermissionDenied).
    std::unique_ptr<ByteStream> openReadOnlyStream(const StorageIRI& location) const;
    // Writing (and reading, with ByteStreamAccess::ReadWrite) from the start, as `options` say.
    std::unique_ptr<ByteStream> openStream(const StorageIRI& location, const ByteStreamOpenOptions& options) const;
    // As openStream(), but the file takes what was written only on close(Commit), whole (see
    // TransactionalByteStream); with keepContent the stream starts with the file's content.
    std::unique_ptr<TransactionalByteStream> openTransactionalStream(const StorageIRI& location,
                                                                     const ByteStreamOpenOptions& options) const;

    // ---- the storage as a whole ----------------------------------------------------------------
    // Makes everything written below `location` durable.
    void flushFilesystem(const StorageIRI& location) const;
    FilenameSensitivity getFilenameSensitivity(const StorageIRI& location) const;
    PathComparatorFunction getPathComparator(const StorageIRI& location) const;
    ProviderStorageInfo getProviderStorageInfo(const StorageIRI& location) const;
    // Applies provider settings (keys are the provider's own); an unknown key or a bad value is
    // refused with InvalidLocation naming it, leaving the settings unchanged.
    void configure(const boost::property_tree::ptree& settings) const;
    // Releases what the provider holds (watches, pollings, memory volumes' content).
    void shutdown() const;

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
    void publishFileEvents(const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds) const;
    // Reports changes of the folder at `location` and of its children; with Recursive (providers
    // with ExtendedFeature::RecursiveWatching only, UnsupportedOperation otherwise) of everything
    // below it, including folders created later.
    void publishFolderEvents(const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds,
                             RecursiveFileWatching recursive) const;
    void stopPublishingFileEvents(const StorageIRI& location) const;
    void stopPublishingFolderEvents(const StorageIRI& location) const;
    // Polls the folder at `location` every `interval` (see ChangePoller).
    void startChangePollingMechanism(const StorageIRI& location, ChangeEventCallback callback,
                                     const ChangeKinds& kinds, std::chrono::milliseconds interval,
                                     RecursiveChangePolling recursive) const;
    void stopChangePollingMechanism(const StorageIRI& location) const;

protected:
    // What a backend implements. Locations are already checked; a destination of a move or a copy
    // is one this provider serves.
    virtual ExistenceType doExists(const StorageIRI& location) const = 0;
    virtual ExistenceTypeExtended doExistsExtended(const StorageIRI& location) const = 0;
    virtual FileAttributes doGetFileAttributes(const StorageIRI& location) const = 0;
    virtual FolderAttributes doGetFolderAttributes(const StorageIRI& location) const = 0;
    virtual void doSetLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const = 0;
    virtual void doTruncateToSize(const StorageIRI& location, std::uint64_t size) const = 0;
    virtual void doCreateFile(const StorageIRI& location) const = 0;
    virtual void doRemoveFile(const StorageIRI& location) const = 0;
    virtual void doCreateFolder(const StorageIRI& location) const = 0;
    virtual void doRemoveFolder(const StorageIRI& location) const = 0;
    virtual void doMoveFile(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const = 0;
    virtual void doMoveFolder(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const = 0;
    virtual std::unique_ptr<IFolderEntryIterator> doList(const StorageIRI& location, const ListOptions& options) const = 0;
    virtual std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& location) const = 0;
    virtual std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& location, const ByteStreamOpenOptions& options) const = 0;
    virtual std::unique_ptr<TransactionalByteStream> doOpenTransactionalStream(const StorageIRI& location,
                                                                               const ByteStreamOpenOptions& options) const = 0;
    virtual ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI& location) const = 0;

    // Defaults derived from the answers above.
    virtual bool doHasFeature(const StorageIRI& location, ExtendedFeature feature) const;
    virtual bool doFileExists(const StorageIRI& location) const;
    virtual bool doFolderExists(const StorageIRI& location) const;
    // The location itself, once it is known to exist.
    virtual StorageIRI doGetCanonicalLocation(const StorageIRI& location) const;
    virtual FilenameSensitivity doGetFilenameSensitivity(const StorageIRI& location) const;
    virtual PathComparatorFunction doGetPathComparator(const StorageIRI& location) const;
    // Each missing ancestor made with doCreateFolder(), top down.
    virtual void doCreateFolderRecursive(const StorageIRI& location) const;
    // Within this provider: through its own streams.
    virtual TransactionStatus doCopyFile(const StorageIRI& location, const StorageIRI& destination,
                                         const CopyFileOptions& options) const;
    // Through the shared ChangePoller.
    virtual void doStartChangePollingMechanism(const StorageIRI& location, ChangeEventCallback callback,
                                               const ChangeKinds& kinds, std::chrono::milliseconds interval,
                                               RecursiveChangePolling recursive) const;
    virtual void doStopChangePollingMechanism(const StorageIRI& location) const;

    // Optional operations: UnsupportedOperation (the watches ChangeEventsNotSupportedException),
    // except where a default does nothing as noted.
    virtual ExtendedAttributes doGetExtendedAttributes(const StorageIRI& location) const;
    virtual void doSetWritable(const StorageIRI& location, bool writable) const;
    virtual void doRemoveFolderRecursively(const StorageIRI& location) const;
    // Nothing to flush: checks the location exists.
    virtual void doFlushFilesystem(const StorageIRI& location) const;
    // Accepts an empty tree; refuses any key.
    virtual void doConfigure(const boost::property_tree::ptree& settings) const;
    // Nothing held.
    virtual void doShutdown() const;
    virtual void doPublishFileEvents(const StorageIRI& location, ChangeEventCallback callback,
                                     const ChangeKinds& kinds) const;
    virtual void doPublishFolderEvents(const StorageIRI& location, ChangeEventCallback callback,
                                       const ChangeKinds& kinds, RecursiveFileWatching recursive) const;
    // Nothing to stop.
    virtual void doStopPublishingFileEvents(const StorageIRI& location) const;
    virtual void doStopPublishingFolderEvents(const StorageIRI& location) const;

    // Ends every polling of the default poller; see the contract above.
    void endPolling() const noexcept;

private:
    // checkLocation(), then ReadOnlyProvider (contexts: the operation, "read-only") when the storage
    // is not writable.
    void checkChange(const StorageIRI& location, const char16_t* operation) const;
    void checkDestination(const StorageIRI& destination, const ProviderCapabilities& capabilities) const;

    std::unique_ptr<PollingSlot> m_polling;
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

// A provider whose folders carry permission bits that a tree copy keeps, as `cp -r` does: a private
// folder's copy stays private. The copy makes each folder with createFolderLike() and, once its
// children are in, calls finishFolderLike().
class VFS_EXPORT IFolderModeKeeping {
public:
    virtual ~IFolderModeKeeping();
    // Creates the folder `location` with the permission bits of the folder `model` (of this provider)
    // within the umask, set-user-ID and set-group-ID dropped, and full access for its owner while
    // the copy fills it. Fails as createFolder() does.
    virtual void createFolderLike(const StorageIRI& location, const StorageIRI& model) const = 0;
    // Takes back the owner's access that `model` does not grant.
    virtual void finishFolderLike(const StorageIRI& location, const StorageIRI& model) const = 0;
};

// A provider whose storage holds symbolic links and can make them, so that a tree copy can keep a
// link as a link (as `cp -r` does) instead of copying what it leads to.
class VFS_EXPORT ILinkKeeping {
public:
    virtual ~ILinkKeeping();
    // The target text of the link at `location`, exactly as stored: a relative target stays
    // relative. InvalidLocation (context "not-a-link") when something other than a link is there.
    virtual fl::ustring readLink(const StorageIRI& location) const = 0;
    // Makes `location` a link holding `target` (which need not lead anywhere). Without `replace`, an
    // entry already there fails with ResourceAlreadyExists; with it, a file or link already there is
    // replaced in one step, while a folder still fails with ResourceAlreadyExists.
    virtual void createLink(const StorageIRI& location, const fl::ustring& target, bool replace) const = 0;
};

// A provider that can gather many changes of one storage unit (an archive, say) and make them
// durable together, where making each durable on its own would rewrite the whole unit every time.
// A tree copy opens a batch on its destination before its first change and ends it after its last.
// While a batch is open, the changes at and below `location` that the provider can gather take
// effect together when the batch ends; readers see the state from before the batch until then.
// Batches on one unit nest: the last to end commits. A crash during a batch loses its changes and
// leaves the unit as it was.
class VFS_EXPORT IChangeBatching {
public:
    virtual ~IChangeBatching();
    virtual void beginBatch(const StorageIRI& location) const = 0;
    // Ends the batch begun at `location` and makes its changes durable; fails as a change would
    // (the changes are then lost). Called exactly once for each beginBatch().
    virtual void endBatch(const StorageIRI& location) const = 0;
};

} // namespace extensions

} // namespace foundation::storage::provider
