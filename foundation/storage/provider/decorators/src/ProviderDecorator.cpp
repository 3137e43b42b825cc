#include <foundation/storage/provider/decorators/ProviderDecorator.hpp>

#include <fl/i18n/ustring.hpp>

#include <algorithm>
#include <stdexcept>
#include <type_traits>

namespace foundation::storage::provider::decorators {

const char* toString(ProviderOperation operation) noexcept
{
    switch (operation) {
    case ProviderOperation::Exists:
        return "exists";
    case ProviderOperation::ExistsExtended:
        return "existsExtended";
    case ProviderOperation::HasFeature:
        return "hasFeature";
    case ProviderOperation::FileExists:
        return "fileExists";
    case ProviderOperation::FolderExists:
        return "folderExists";
    case ProviderOperation::GetCanonicalLocation:
        return "getCanonicalLocation";
    case ProviderOperation::GetFileAttributes:
        return "getFileAttributes";
    case ProviderOperation::GetFolderAttributes:
        return "getFolderAttributes";
    case ProviderOperation::GetExtendedAttributes:
        return "getExtendedAttributes";
    case ProviderOperation::SetLastModified:
        return "setLastModified";
    case ProviderOperation::SetWritable:
        return "setWritable";
    case ProviderOperation::TruncateToSize:
        return "truncateToSize";
    case ProviderOperation::CreateFile:
        return "createFile";
    case ProviderOperation::RemoveFile:
        return "removeFile";
    case ProviderOperation::CreateFolder:
        return "createFolder";
    case ProviderOperation::CreateFolderRecursive:
        return "createFolderRecursive";
    case ProviderOperation::RemoveFolder:
        return "removeFolder";
    case ProviderOperation::RemoveFolderRecursively:
        return "removeFolderRecursively";
    case ProviderOperation::MoveFile:
        return "moveFile";
    case ProviderOperation::MoveFolder:
        return "moveFolder";
    case ProviderOperation::CopyFile:
        return "copyFile";
    case ProviderOperation::List:
        return "list";
    case ProviderOperation::FlushFilesystem:
        return "flushFilesystem";
    case ProviderOperation::GetFilenameSensitivity:
        return "getFilenameSensitivity";
    case ProviderOperation::GetPathComparator:
        return "getPathComparator";
    case ProviderOperation::GetProviderStorageInfo:
        return "getProviderStorageInfo";
    case ProviderOperation::Configure:
        return "configure";
    case ProviderOperation::Shutdown:
        return "shutdown";
    case ProviderOperation::OpenReadOnlyStream:
        return "openReadOnlyStream";
    case ProviderOperation::OpenStream:
        return "openStream";
    case ProviderOperation::OpenTransactionalStream:
        return "openTransactionalStream";
    case ProviderOperation::StreamRead:
        return "read";
    case ProviderOperation::StreamWrite:
        return "write";
    case ProviderOperation::StreamSeek:
        return "seek";
    case ProviderOperation::StreamFlush:
        return "flush";
    case ProviderOperation::StreamClose:
        return "close";
    case ProviderOperation::PublishFileEvents:
        return "publishFileEvents";
    case ProviderOperation::PublishFolderEvents:
        return "publishFolderEvents";
    case ProviderOperation::StopPublishingFileEvents:
        return "stopPublishingFileEvents";
    case ProviderOperation::StopPublishingFolderEvents:
        return "stopPublishingFolderEvents";
    case ProviderOperation::StartChangePollingMechanism:
        return "startChangePollingMechanism";
    case ProviderOperation::StopChangePollingMechanism:
        return "stopChangePollingMechanism";
    case ProviderOperation::Count_:
        break;
    }
    return "Unhandled ProviderOperation";
}

// ---------------------------------------------------------------------------------------------
// ProviderDecorator

ProviderDecorator::ProviderDecorator(std::shared_ptr<IProvider> wrapped) : m_wrapped(std::move(wrapped))
{
    if (!m_wrapped)
        throw std::invalid_argument("ProviderDecorator: the wrapped provider is null");
}

ProviderDecorator::~ProviderDecorator() = default;

void ProviderDecorator::invalidate(const StorageIRI& location)
{
    if (auto* capable = dynamic_cast<extensions::IInvalidatable*>(m_wrapped.get()))
        capable->invalidate(location);
}

void ProviderDecorator::flushFilesystem()
{
    if (auto* capable = dynamic_cast<extensions::IFlushableFilesystem*>(m_wrapped.get()))
        capable->flushFilesystem();
}

void ProviderDecorator::before(ProviderOperation, const StorageIRI&) const {}

ExistenceType ProviderDecorator::exists(const StorageIRI& location) const
{
    before(ProviderOperation::Exists, location);
    return m_wrapped->exists(location);
}

ExistenceTypeExtended ProviderDecorator::existsExtended(const StorageIRI& location) const
{
    before(ProviderOperation::ExistsExtended, location);
    return m_wrapped->existsExtended(location);
}

bool ProviderDecorator::hasFeature(const StorageIRI& location, ExtendedFeature feature) const
{
    before(ProviderOperation::HasFeature, location);
    return m_wrapped->hasFeature(location, feature);
}

bool ProviderDecorator::fileExists(const StorageIRI& location) const
{
    before(ProviderOperation::FileExists, location);
    return m_wrapped->fileExists(location);
}

bool ProviderDecorator::folderExists(const StorageIRI& location) const
{
    before(ProviderOperation::FolderExists, location);
    return m_wrapped->folderExists(location);
}

StorageIRI ProviderDecorator::getCanonicalLocation(const StorageIRI& location) const
{
    before(ProviderOperation::GetCanonicalLocation, location);
    return m_wrapped->getCanonicalLocation(location);
}

FileAttributes ProviderDecorator::getFileAttributes(const StorageIRI& location) const
{
    before(ProviderOperation::GetFileAttributes, location);
    return m_wrapped->getFileAttributes(location);
}

FolderAttributes ProviderDecorator::getFolderAttributes(const StorageIRI& location) const
{
    before(ProviderOperation::GetFolderAttributes, location);
    return m_wrapped->getFolderAttributes(location);
}

ExtendedAttributes ProviderDecorator::getExtendedAttributes(const StorageIRI& location) const
{
    before(ProviderOperation::GetExtendedAttributes, location);
    return m_wrapped->getExtendedAttributes(location);
}

void ProviderDecorator::setLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const
{
    before(ProviderOperation::SetLastModified, location);
    m_wrapped->setLastModified(location, time);
}

void ProviderDecorator::setWritable(const StorageIRI& location, bool writable) const
{
    before(ProviderOperation::SetWritable, location);
    m_wrapped->setWritable(location, writable);
}

void ProviderDecorator::truncateToSize(const StorageIRI& location, std::uint64_t size) const
{
    before(ProviderOperation::TruncateToSize, location);
    m_wrapped->truncateToSize(location, size);
}

void ProviderDecorator::createFile(const StorageIRI& location) const
{
    before(ProviderOperation::CreateFile, location);
    m_wrapped->createFile(location);
}

void ProviderDecorator::removeFile(const StorageIRI& location) const
{
    before(ProviderOperation::RemoveFile, location);
    m_wrapped->removeFile(location);
}

void ProviderDecorator::createFolder(const StorageIRI& location) const
{
    before(ProviderOperation::CreateFolder, location);
    m_wrapped->createFolder(location);
}

void ProviderDecorator::createFolderRecursive(const StorageIRI& location) const
{
    before(ProviderOperation::CreateFolderRecursive, location);
    m_wrapped->createFolderRecursive(location);
}

void ProviderDecorator::removeFolder(const StorageIRI& location) const
{
    before(ProviderOperation::RemoveFolder, location);
    m_wrapped->removeFolder(location);
}

void ProviderDecorator::removeFolderRecursively(const StorageIRI& location) const
{
    before(ProviderOperation::RemoveFolderRecursively, location);
    m_wrapped->removeFolderRecursively(location);
}

void ProviderDecorator::moveFile(const StorageIRI& location, const StorageIRI& destination,
                                 ReplacementPolicy policy) const
{
    before(ProviderOperation::MoveFile, location);
    m_wrapped->moveFile(location, destination, policy);
}

void ProviderDecorator::moveFolder(const StorageIRI& location, const StorageIRI& destination,
                                   ReplacementPolicy policy) const
{
    before(ProviderOperation::MoveFolder, location);
    m_wrapped->moveFolder(location, destination, policy);
}

TransactionStatus ProviderDecorator::copyFile(const StorageIRI& location, const IProvider& destinationProvider,
                                              const StorageIRI& destination, const CopyFileOptions& options) const
{
    before(ProviderOperation::CopyFile, location);
    const IProvider& target = &destinationProvider == this ? *m_wrapped : destinationProvider;
    return m_wrapped->copyFile(location, target, destination, options);
}

std::unique_ptr<IFolderEntryIterator> ProviderDecorator::list(const StorageIRI& location,
                                                             const ListOptions& options) const
{
    before(ProviderOperation::List, location);
    return m_wrapped->list(location, options);
}

// A wrapped provider's stream that tells its decorator about every call.
template <class Stream>
class DecoratedStream : public Stream {
public:
    DecoratedStream(const ProviderDecorator& owner, StorageIRI location, std::unique_ptr<Stream> inner)
        : m_owner(&owner), m_keepAlive(owner.weak_from_this().lock()), m_location(std::move(location)),
          m_inner(std::move(inner))
    {
    }

    std::streamsize read(char* s, std::streamsize n) override
    {
        m_owner->before(ProviderOperation::StreamRead, m_location);
        return m_inner->read(s, n);
    }
    std::streamsize write(const char* s, std::streamsize n) override
    {
        m_owner->before(ProviderOperation::StreamWrite, m_location);
        return m_inner->write(s, n);
    }
    std::streampos seek(std::streamoff off, std::ios_base::seekdir way) override
    {
        m_owner->before(ProviderOperation::StreamSeek, m_location);
        return m_inner->seek(off, way);
    }
    void flush() override
    {
        m_owner->before(ProviderOperation::StreamFlush, m_location);
        m_inner->flush();
    }
    void close() override
    {
        m_owner->before(ProviderOperation::StreamClose, m_location);
        m_inner->close();
    }

protected:
    const ProviderDecorator* m_owner;
    std::shared_ptr<const ProviderDecorator> m_keepAlive;
    StorageIRI m_location;
    std::unique_ptr<Stream> m_inner;
};

// The transactional form adds the close that commits or discards.
class DecoratedTransactionalStream final : public DecoratedStream<TransactionalByteStream> {
public:
    using DecoratedStream::DecoratedStream;
    using DecoratedStream::close;
    void close(StreamClosePolicy policy) override
    {
        m_owner->before(ProviderOperation::StreamClose, m_location);
        m_inner->close(policy);
    }
};

std::unique_ptr<ByteStream> ProviderDecorator::openReadOnlyStream(const StorageIRI& location) const
{
    before(ProviderOperation::OpenReadOnlyStream, location);
    return std::make_unique<DecoratedStream<ByteStream>>(*this, location, m_wrapped->openReadOnlyStream(location));
}

std::unique_ptr<ByteStream> ProviderDecorator::openStream(const StorageIRI& location,
                                                          const ByteStreamOpenOptions& options) const
{
    before(ProviderOperation::OpenStream, location);
    return std::make_unique<DecoratedStream<ByteStream>>(*this, location, m_wrapped->openStream(location, options));
}

std::unique_ptr<TransactionalByteStream> ProviderDecorator::openTransactionalStream(
    const StorageIRI& location, const ByteStreamOpenOptions& options) const
{
    before(ProviderOperation::OpenTransactionalStream, location);
    return std::make_unique<DecoratedTransactionalStream>(*this, location,
                                                          m_wrapped->openTransactionalStream(location, options));
}

void ProviderDecorator::flushFilesystem(const StorageIRI& location) const
{
    before(ProviderOperation::FlushFilesystem, location);
    m_wrapped->flushFilesystem(location);
}

FilenameSensitivity ProviderDecorator::getFilenameSensitivity(const StorageIRI& location) const
{
    before(ProviderOperation::GetFilenameSensitivity, location);
    return m_wrapped->getFilenameSensitivity(location);
}

PathComparatorFunction ProviderDecorator::getPathComparator(const StorageIRI& location) const
{
    before(ProviderOperation::GetPathComparator, location);
    return m_wrapped->getPathComparator(location);
}

ProviderStorageInfo ProviderDecorator::getProviderStorageInfo(const StorageIRI& location) const
{
    before(ProviderOperation::GetProviderStorageInfo, location);
    return m_wrapped->getProviderStorageInfo(location);
}

void ProviderDecorator::configure(const boost::property_tree::ptree& settings) const
{
    before(ProviderOperation::Configure, StorageIRI());
    m_wrapped->configure(settings);
}

void ProviderDecorator::shutdown() const
{
    before(ProviderOperation::Shutdown, StorageIRI());
    m_wrapped->shutdown();
}

void ProviderDecorator::publishFileEvents(const StorageIRI& location, ChangeEventCallback callback,
                                          const ChangeKinds& kinds) const
{
    before(ProviderOperation::PublishFileEvents, location);
    m_wrapped->publishFileEvents(location, std::move(callback), kinds);
}

void ProviderDecorator::publishFolderEvents(const StorageIRI& location, ChangeEventCallback callback,
                                            const ChangeKinds& kinds, RecursiveFileWatching recursive) const
{
    before(ProviderOperation::PublishFolderEvents, location);
    m_wrapped->publishFolderEvents(location, std::move(callback), kinds, recursive);
}

void ProviderDecorator::stopPublishingFileEvents(const StorageIRI& location) const
{
    before(ProviderOperation::StopPublishingFileEvents, location);
    m_wrapped->stopPublishingFileEvents(location);
}

void ProviderDecorator::stopPublishingFolderEvents(const StorageIRI& location) const
{
    before(ProviderOperation::StopPublishingFolderEvents, location);
    m_wrapped->stopPublishingFolderEvents(location);
}

void ProviderDecorator::startChangePollingMechanism(const StorageIRI& location, ChangeEventCallback callback,
                                                    const ChangeKinds& kinds, std::chrono::milliseconds interval,
                                                    RecursiveChangePolling recursive) const
{
    before(ProviderOperation::StartChangePollingMechanism, location);
    m_wrapped->startChangePollingMechanism(location, std::move(callback), kinds, interval, recursive);
}

void ProviderDecorator::stopChangePollingMechanism(const StorageIRI& location) const
{
    before(ProviderOperation::StopChangePollingMechanism, location);
    m_wrapped->stopChangePollingMechanism(location);
}

// ---------------------------------------------------------------------------------------------
// FaultInjectingProvider

namespace {

bool matches(const FaultInjectingProvider::Fault& fault, ProviderOperation operation, const StorageIRI& location)
{
    if (fault.operation != operation)
        return false;
    if (!fault.location || *fault.location == location)
        return true;
    return fault.includeDescendants && fault.location->isAncestorOf(location);
}

// Whether the `matchingCall`-th call matching a fault must fail.
bool fires(FaultInjectingProvider::Trigger trigger, std::uint64_t calls, std::uint64_t failedSoFar,
           std::uint64_t matchingCall)
{
    switch (trigger) {
    case FaultInjectingProvider::Trigger::Once:
        return failedSoFar == 0;
    case FaultInjectingProvider::Trigger::Always:
        return true;
    case FaultInjectingProvider::Trigger::AfterN:
        return matchingCall > calls;
    case FaultInjectingProvider::Trigger::Nth:
        return matchingCall == calls + 1;
    }
    return false;
}

} // namespace

std::size_t FaultInjectingProvider::addFault(Fault fault)
{
    std::lock_guard lock(m_mutex);
    const std::size_t id = m_nextId++;
    m_faults.push_back(Entry{id, std::move(fault)});
    return id;
}

void FaultInjectingProvider::removeFault(std::size_t id)
{
    std::lock_guard lock(m_mutex);
    std::erase_if(m_faults, [id](const Entry& entry) { return entry.id == id; });
}

void FaultInjectingProvider::clearFaults()
{
    std::lock_guard lock(m_mutex);
    m_faults.clear();
}

std::uint64_t FaultInjectingProvider::failuresInjected(std::size_t id) const
{
    std::lock_guard lock(m_mutex);
    const auto entry = std::find_if(m_faults.begin(), m_faults.end(), [id](const Entry& e) { return e.id == id; });
    return entry == m_faults.end() ? 0 : entry->failed;
}

std::optional<StorageIRI> FaultInjectingProvider::lastFailureLocation(std::size_t id) const
{
    std::lock_guard lock(m_mutex);
    const auto entry = std::find_if(m_faults.begin(), m_faults.end(), [id](const Entry& e) { return e.id == id; });
    return entry == m_faults.end() ? std::nullopt : entry->lastFailed;
}

void FaultInjectingProvider::before(ProviderOperation operation, const StorageIRI& location) const
{
    std::optional<ErrorCode> code;
    {
        std::lock_guard lock(m_mutex);
        for (Entry& entry : m_faults) {
            if (!matches(entry.fault, operation, location))
                continue;
            ++entry.seen;
            if (!code && fires(entry.fault.trigger, entry.fault.calls, entry.failed, entry.seen)) {
                ++entry.failed;
                entry.lastFailed = location;
                code = entry.fault.code;
            }
        }
    }
    if (!code)
        return;
    ExceptionContexts contexts{ExceptionContext(u"fault-injection"), ExceptionContext(fl::i18n::utf8_to_ustring(toString(operation)))};
    const auto streamOperation = [operation]() -> std::optional<StreamOperation> {
        switch (operation) {
        case ProviderOperation::StreamRead:
            return StreamOperation::Read;
        case ProviderOperation::StreamWrite:
            return StreamOperation::Write;
        case ProviderOperation::StreamSeek:
            return StreamOperation::Seek;
        case ProviderOperation::StreamFlush:
            return StreamOperation::Flush;
        case ProviderOperation::StreamClose:
            return StreamOperation::Close;
        default:
            return std::nullopt;
        }
    }();
    if (streamOperation)
        throwByteStreamFailure(*streamOperation, std::string("injected fault: ") + toString(operation), *code,
                               std::move(contexts));
    throwProviderError(*code, location, std::move(contexts));
}

// ---------------------------------------------------------------------------------------------
// FeatureMaskingProvider

FeatureMaskingProvider::FeatureMaskingProvider(std::shared_ptr<IProvider> wrapped, std::set<ExtendedFeature> hidden)
    : ProviderDecorator(std::move(wrapped)), m_hidden(std::move(hidden))
{
}

bool FeatureMaskingProvider::hasFeature(const StorageIRI& location, ExtendedFeature feature) const
{
    if (m_hidden.contains(feature))
        return false;
    return ProviderDecorator::hasFeature(location, feature);
}

void FeatureMaskingProvider::publishFolderEvents(const StorageIRI& location, ChangeEventCallback callback,
                                                 const ChangeKinds& kinds, RecursiveFileWatching recursive) const
{
    if (recursive == RecursiveFileWatching::Recursive && m_hidden.contains(ExtendedFeature::RecursiveWatching))
        throwProviderError(ErrorCode::UnsupportedOperation, location,
                           {ExceptionContext(u"feature-masked"), ExceptionContext(u"publishFolderEvents")});
    ProviderDecorator::publishFolderEvents(location, std::move(callback), kinds, recursive);
}

void FeatureMaskingProvider::removeFolderRecursively(const StorageIRI& location) const
{
    if (m_hidden.contains(ExtendedFeature::RecursiveRemoval))
        throwProviderError(ErrorCode::UnsupportedOperation, location,
                           {ExceptionContext(u"feature-masked"), ExceptionContext(u"removeFolderRecursively")});
    ProviderDecorator::removeFolderRecursively(location);
}

std::unique_ptr<IFolderEntryIterator> FeatureMaskingProvider::list(const StorageIRI& location,
                                                                  const ListOptions& options) const
{
    if (options.recursive && m_hidden.contains(ExtendedFeature::RecursiveListing))
        throwProviderError(ErrorCode::UnsupportedOperation, location,
                           {ExceptionContext(u"feature-masked"), ExceptionContext(u"list")});
    const ExtendedFeature wildcards =
        options.recursive ? ExtendedFeature::RecursiveWildcardListing : ExtendedFeature::FlatWildcardListing;
    if (options.pattern.empty() || !m_hidden.contains(wildcards))
        return ProviderDecorator::list(location, options);
    ListOptions unfiltered = options;
    unfiltered.pattern.clear();
    return ProviderDecorator::list(location, unfiltered);
}

// ---------------------------------------------------------------------------------------------
// CallCountingProvider

std::uint64_t CallCountingProvider::count(ProviderOperation operation) const noexcept
{
    const auto index = static_cast<std::size_t>(operation);
    return index < m_counts.size() ? m_counts[index].load(std::memory_order_relaxed) : 0;
}

std::uint64_t CallCountingProvider::count(ProviderOperation operation, const StorageIRI& location) const
{
    std::lock_guard lock(m_mutex);
    const auto found = m_byLocation.find(Key(operation, location));
    return found == m_byLocation.end() ? 0 : found->second;
}

std::uint64_t CallCountingProvider::total() const noexcept
{
    std::uint64_t sum = 0;
    for (const auto& counter : m_counts)
        sum += counter.load(std::memory_order_relaxed);
    return sum;
}

void CallCountingProvider::reset()
{
    std::lock_guard lock(m_mutex);
    for (auto& counter : m_counts)
        counter.store(0, std::memory_order_relaxed);
    m_byLocation.clear();
}

void CallCountingProvider::before(ProviderOperation operation, const StorageIRI& location) const
{
    m_counts[static_cast<std::size_t>(operation)].fetch_add(1, std::memory_order_relaxed);
    std::lock_guard lock(m_mutex);
    ++m_byLocation[Key(operation, location)];
}

} // namespace foundation::storage::provider::decorators
