#pragma once

#include <foundation/storage/provider/IProvider.hpp>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

namespace foundation::storage::provider::decorators {

// Every IProvider operation, so that decorators can name one. Grows with IProvider.
enum class ProviderOperation : std::int32_t {
    Exists = 0,
    ExistsExtended,
    HasFeature,
    FileExists,
    FolderExists,
    GetCanonicalLocation,
    GetFileAttributes,
    GetFolderAttributes,
    GetExtendedAttributes,
    SetLastModified,
    SetWritable,
    TruncateToSize,
    CreateFile,
    RemoveFile,
    CreateFolder,
    CreateFolderRecursive,
    RemoveFolder,
    RemoveFolderRecursively,
    MoveFile,
    MoveFolder,
    CopyFile,
    List,
    FlushFilesystem,
    GetFilenameSensitivity,
    GetPathComparator,
    GetProviderStorageInfo,
    Configure,
    Shutdown,
    OpenReadOnlyStream,
    OpenStream,
    OpenTransactionalStream,
    // Calls on a stream opened through the decorator; their subject is the stream's location.
    StreamRead,
    StreamWrite,
    StreamSeek,
    StreamFlush,
    StreamClose,
    // change events
    PublishFileEvents,
    PublishFolderEvents,
    StopPublishingFileEvents,
    StopPublishingFolderEvents,
    StartChangePollingMechanism,
    StopChangePollingMechanism,
    Count_ // number of operations; not an operation
};
inline constexpr std::size_t providerOperationCount = static_cast<std::size_t>(ProviderOperation::Count_);
// The operation's IProvider member name ("exists"); "Unhandled ProviderOperation" otherwise.
VFS_EXPORT const char* toString(ProviderOperation operation) noexcept;
inline std::ostream& operator<<(std::ostream& out, ProviderOperation operation)
{
    return out << toString(operation);
}

// Forwards every operation to the wrapped provider. A decorator overrides what it changes and
// calls the base for the rest; before() is called ahead of every forwarded operation, which is
// where cross-cutting concerns (faults, counting) hook in without overriding each operation.
//
// before() sees the operation's subject: the source of a move or copy, the listed folder, and the
// empty IRI for configure() and shutdown(). A copy whose destination provider is this decorator
// itself reaches the wrapped provider with the wrapped provider as destination, so that a provider
// recognises a copy within itself through any stack of decorators. Listings are checked when they
// are made; their iterators come from the wrapped provider unchanged. Streams are wrapped, so that
// before() also sees each read, write, seek, flush and close (Stream* operations); a stream keeps
// its decorator alive when the decorator is owned by a shared_ptr, and must not outlive it otherwise.
//
// The optional interfaces (extensions::IInvalidatable, extensions::IFlushableFilesystem) are passed
// through to the wrapped provider when it has them, and do nothing when it has not, so a decorated
// provider offers exactly what the wrapped one does.
class VFS_EXPORT ProviderDecorator : public IProvider,
                                     public extensions::IInvalidatable,
                                     public extensions::IFlushableFilesystem,
                                     public std::enable_shared_from_this<ProviderDecorator> {
public:
    // Throws std::invalid_argument when `wrapped` is null.
    explicit ProviderDecorator(std::shared_ptr<IProvider> wrapped);
    ~ProviderDecorator() override;

    const std::shared_ptr<IProvider>& getWrapped() const noexcept { return m_wrapped; }

    void invalidate(const StorageIRI& location) override;
    void flushFilesystem() override;

    ExistenceType exists(const StorageIRI& location) const override;
    ExistenceTypeExtended existsExtended(const StorageIRI& location) const override;
    bool hasFeature(const StorageIRI& location, ExtendedFeature feature) const override;
    bool fileExists(const StorageIRI& location) const override;
    bool folderExists(const StorageIRI& location) const override;
    StorageIRI getCanonicalLocation(const StorageIRI& location) const override;

    FileAttributes getFileAttributes(const StorageIRI& location) const override;
    FolderAttributes getFolderAttributes(const StorageIRI& location) const override;
    ExtendedAttributes getExtendedAttributes(const StorageIRI& location) const override;
    void setLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const override;
    void setWritable(const StorageIRI& location, bool writable) const override;
    void truncateToSize(const StorageIRI& location, std::uint64_t size) const override;

    void createFile(const StorageIRI& location) const override;
    void removeFile(const StorageIRI& location) const override;
    void createFolder(const StorageIRI& location) const override;
    void createFolderRecursive(const StorageIRI& location) const override;
    void removeFolder(const StorageIRI& location) const override;
    void removeFolderRecursively(const StorageIRI& location) const override;

    void moveFile(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const override;
    void moveFolder(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const override;
    TransactionStatus copyFile(const StorageIRI& location, const IProvider& destinationProvider,
                               const StorageIRI& destination, const CopyFileOptions& options) const override;

    std::unique_ptr<IFolderEntryIterator> list(const StorageIRI& location,
                                               const ListOptions& options) const override;

    std::unique_ptr<ByteStream> openReadOnlyStream(const StorageIRI& location) const override;
    std::unique_ptr<ByteStream> openStream(const StorageIRI& location, const ByteStreamOpenOptions& options) const override;
    std::unique_ptr<TransactionalByteStream> openTransactionalStream(const StorageIRI& location,
                                                                     const ByteStreamOpenOptions& options) const override;

    void flushFilesystem(const StorageIRI& location) const override;
    FilenameSensitivity getFilenameSensitivity(const StorageIRI& location) const override;
    PathComparatorFunction getPathComparator(const StorageIRI& location) const override;
    ProviderStorageInfo getProviderStorageInfo(const StorageIRI& location) const override;
    void configure(const boost::property_tree::ptree& settings) const override;
    void shutdown() const override;

    void publishFileEvents(const StorageIRI& location, ChangeEventCallback callback,
                           const ChangeKinds& kinds) const override;
    void publishFolderEvents(const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds,
                             RecursiveFileWatching recursive) const override;
    void stopPublishingFileEvents(const StorageIRI& location) const override;
    void stopPublishingFolderEvents(const StorageIRI& location) const override;
    void startChangePollingMechanism(const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds,
                                     std::chrono::milliseconds interval, RecursiveChangePolling recursive) const override;
    void stopChangePollingMechanism(const StorageIRI& location) const override;

protected:
    // Called before each operation is forwarded; may throw to make the operation fail.
    virtual void before(ProviderOperation operation, const StorageIRI& location) const;

private:
    template <class Stream>
    friend class DecoratedStream;
    friend class DecoratedTransactionalStream;

    std::shared_ptr<IProvider> m_wrapped;
};

// Makes chosen operations fail with a chosen provider error code, over any provider.
class VFS_EXPORT FaultInjectingProvider : public ProviderDecorator {
public:
    enum class Trigger {
        Once,     // the next matching call fails, later ones succeed
        Always,   // every matching call fails
        AfterN,   // the first `calls` matching calls succeed, every later one fails
        Nth,      // only the matching call after the first `calls` ones fails
    };

    struct Fault {
        ProviderOperation operation;
        // Which locations match: none = every location; otherwise the location itself and, with
        // `includeDescendants`, every location below it.
        std::optional<StorageIRI> location = std::nullopt;
        ErrorCode code = ErrorCode::IOError;
        Trigger trigger = Trigger::Always;
        std::uint64_t calls = 0; // for AfterN and Nth
        bool includeDescendants = false;
    };

    using ProviderDecorator::ProviderDecorator;

    // Adds a fault; returns its id for removeFault(). Every fault that matches a call counts it;
    // when several would make it fail, the one added first gives the code. All members are
    // thread-safe and may run while other threads call the provider.
    std::size_t addFault(Fault fault);
    // Unknown ids are ignored.
    void removeFault(std::size_t id);
    void clearFaults();
    // How many calls fault `id` has made fail so far; 0 for an unknown or removed id.
    std::uint64_t failuresInjected(std::size_t id) const;
    // The location of the last call fault `id` made fail (a stream's own location for Stream*
    // operations); nullopt while it has made none fail, or for an unknown or removed id.
    std::optional<StorageIRI> lastFailureLocation(std::size_t id) const;

protected:
    // Throws Exception(code, location) with contexts "fault-injection" and the operation's name; for
    // the Stream* operations the matching ByteStreamFailure instead (a flush fails as a write).
    void before(ProviderOperation operation, const StorageIRI& location) const override;

private:
    struct Entry {
        std::size_t id;
        Fault fault;
        std::uint64_t seen = 0;   // matching calls so far
        std::uint64_t failed = 0; // of which made to fail
        std::optional<StorageIRI> lastFailed = std::nullopt;
    };
    mutable std::mutex m_mutex;
    mutable std::vector<Entry> m_faults;
    std::size_t m_nextId = 1;
};

// Hides chosen extended features, so that the library's own fallback paths run against real
// storage: hasFeature() answers false for a masked feature and forwards otherwise. The masked
// provider behaves as one without the feature: with RecursiveRemoval hidden, removeFolderRecursively
// fails with UnsupportedOperation; with RecursiveListing hidden, so does a recursive list(); with
// FlatWildcardListing (RecursiveWildcardListing) hidden, a flat (recursive) list() ignores the
// pattern, as the contract lets such a provider do; with RecursiveWatching hidden, a recursive
// publishFolderEvents() fails with UnsupportedOperation.
class VFS_EXPORT FeatureMaskingProvider : public ProviderDecorator {
public:
    FeatureMaskingProvider(std::shared_ptr<IProvider> wrapped, std::set<ExtendedFeature> hidden);
    bool hasFeature(const StorageIRI& location, ExtendedFeature feature) const override;
    void publishFolderEvents(const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds,
                             RecursiveFileWatching recursive) const override;
    void removeFolderRecursively(const StorageIRI& location) const override;
    std::unique_ptr<IFolderEntryIterator> list(const StorageIRI& location,
                                               const ListOptions& options) const override;
    const std::set<ExtendedFeature>& hiddenFeatures() const noexcept { return m_hidden; }

private:
    std::set<ExtendedFeature> m_hidden;
};

// Counts calls per operation (and per operation and location), for tests that must show that a call
// did or did not happen. Thread-safe.
class VFS_EXPORT CallCountingProvider : public ProviderDecorator {
public:
    using ProviderDecorator::ProviderDecorator;

    std::uint64_t count(ProviderOperation operation) const noexcept;
    std::uint64_t count(ProviderOperation operation, const StorageIRI& location) const;
    std::uint64_t total() const noexcept;
    // Sets every count to zero; calls running meanwhile may be counted either way.
    void reset();

protected:
    void before(ProviderOperation operation, const StorageIRI& location) const override;

private:
    using Key = std::pair<ProviderOperation, StorageIRI>;
    struct KeyHash {
        std::size_t operator()(const Key& key) const noexcept
        {
            return key.second.hashValue() * 31 + static_cast<std::size_t>(key.first);
        }
    };
    mutable std::array<std::atomic<std::uint64_t>, providerOperationCount> m_counts{};
    mutable std::mutex m_mutex;
    mutable std::unordered_map<Key, std::uint64_t, KeyHash> m_byLocation;
};

} // namespace foundation::storage::provider::decorators
