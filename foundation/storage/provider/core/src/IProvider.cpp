#include <foundation/storage/provider/ChangePoller.hpp>
#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/provider/IProvider.hpp>

#include <boost/property_tree/ptree.hpp>

#include <fl/i18n/ustring.hpp>

#include <mutex>

namespace foundation::storage::provider {

// The default poller, made on the first polling: most providers are never polled.
struct PollingSlot {
    std::mutex mutex;
    std::unique_ptr<ChangePoller> poller;
};

namespace {

[[noreturn]] void refuse(const StorageIRI& location, const char16_t* reason)
{
    throwProviderError(ErrorCode::InvalidLocation, location, {ExceptionContext(reason)});
}

[[noreturn]] void unsupported(const StorageIRI& location, const char16_t* operation, const char16_t* why)
{
    throwProviderError(ErrorCode::UnsupportedOperation, location, {ExceptionContext(operation), ExceptionContext(why)});
}

// Changes to a read-only storage never reach the backend.
void refuseOnReadOnly(const StorageIRI& location, const ProviderCapabilities& capabilities, const char16_t* operation)
{
    if (!capabilities.writable)
        throwProviderError(ErrorCode::ReadOnlyProvider, location,
                           {ExceptionContext(operation), ExceptionContext(u"read-only")});
}

} // namespace

// A location of this provider that a change may touch.
void IProvider::checkChange(const StorageIRI& location, const char16_t* operation) const
{
    const ProviderCapabilities capabilities = this->capabilities();
    checkLocation(location, capabilities);
    refuseOnReadOnly(location, capabilities, operation);
}

IProvider::IProvider() : m_polling(std::make_unique<PollingSlot>()) {}

IProvider::~IProvider() { endPolling(); }

void IProvider::endPolling() const noexcept
{
    std::unique_ptr<ChangePoller> poller;
    {
        std::lock_guard lock(m_polling->mutex);
        poller.swap(m_polling->poller);
    }
    // Destroyed without the lock: its thread may be calling into this provider.
}

void IProvider::checkLocation(const StorageIRI& location) const { checkLocation(location, capabilities()); }

void IProvider::checkLocation(const StorageIRI& location, const ProviderCapabilities& capabilities) const
{
    if (location.getScheme() != capabilities.scheme)
        refuse(location, u"wrong-scheme");
    if (location.hasInnerIRI() != capabilities.nested)
        refuse(location, capabilities.nested ? u"no-inner-iri" : u"nested-iri");
    const ustring& authority = location.getAuthority();
    switch (capabilities.authority) {
    case ProviderCapabilities::Authority::LocalHost:
        if (!authority.empty() && authority != u"localhost")
            refuse(location, u"non-local-authority");
        break;
    case ProviderCapabilities::Authority::Required:
        if (authority.empty())
            refuse(location, u"no-volume");
        break;
    }
    if (!location.hasPath())
        refuse(location, u"no-path");
    if (authority.find(u'\0') != ustring::npos || location.getPath().find(u'\0') != ustring::npos)
        refuse(location, u"nul-in-name");
}

// A destination on other storage is one a rename cannot reach; a malformed one of this storage is
// refused as any other location.
void IProvider::checkDestination(const StorageIRI& destination, const ProviderCapabilities& capabilities) const
{
    if (destination.getScheme() != capabilities.scheme || destination.hasInnerIRI() != capabilities.nested)
        throwProviderError(ErrorCode::UnsupportedOperation, destination, {ExceptionContext(u"cross-provider-move")});
    checkLocation(destination, capabilities);
}

// ---- the front -----------------------------------------------------------------------------------

ExistenceType IProvider::exists(const StorageIRI& location) const
{
    checkLocation(location);
    return doExists(location);
}

ExistenceTypeExtended IProvider::existsExtended(const StorageIRI& location) const
{
    checkLocation(location);
    return doExistsExtended(location);
}

bool IProvider::hasFeature(const StorageIRI& location, ExtendedFeature feature) const
{
    checkLocation(location);
    return doHasFeature(location, feature);
}

bool IProvider::fileExists(const StorageIRI& location) const
{
    checkLocation(location);
    return doFileExists(location);
}

bool IProvider::folderExists(const StorageIRI& location) const
{
    checkLocation(location);
    return doFolderExists(location);
}

StorageIRI IProvider::getCanonicalLocation(const StorageIRI& location) const
{
    checkLocation(location);
    return doGetCanonicalLocation(location);
}

FileAttributes IProvider::getFileAttributes(const StorageIRI& location) const
{
    checkLocation(location);
    return doGetFileAttributes(location);
}

FolderAttributes IProvider::getFolderAttributes(const StorageIRI& location) const
{
    checkLocation(location);
    return doGetFolderAttributes(location);
}

ExtendedAttributes IProvider::getExtendedAttributes(const StorageIRI& location) const
{
    checkLocation(location);
    return doGetExtendedAttributes(location);
}

void IProvider::setLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const
{
    checkChange(location, u"setLastModified");
    doSetLastModified(location, time);
}

void IProvider::setWritable(const StorageIRI& location, bool writable) const
{
    checkChange(location, u"setWritable");
    doSetWritable(location, writable);
}

void IProvider::truncateToSize(const StorageIRI& location, std::uint64_t size) const
{
    checkChange(location, u"truncateToSize");
    doTruncateToSize(location, size);
}

void IProvider::createFile(const StorageIRI& location) const
{
    checkChange(location, u"createFile");
    doCreateFile(location);
}

void IProvider::removeFile(const StorageIRI& location) const
{
    checkChange(location, u"removeFile");
    doRemoveFile(location);
}

void IProvider::createFolder(const StorageIRI& location) const
{
    checkChange(location, u"createFolder");
    doCreateFolder(location);
}

void IProvider::createFolderRecursive(const StorageIRI& location) const
{
    const ProviderCapabilities capabilities = this->capabilities();
    checkLocation(location, capabilities);
    // An existing folder needs no change, so a read-only storage accepts it.
    if (!capabilities.writable && doFolderExists(location))
        return;
    refuseOnReadOnly(location, capabilities, u"createFolderRecursive");
    doCreateFolderRecursive(location);
}

void IProvider::removeFolder(const StorageIRI& location) const
{
    checkChange(location, u"removeFolder");
    doRemoveFolder(location);
}

void IProvider::removeFolderRecursively(const StorageIRI& location) const
{
    const ProviderCapabilities capabilities = this->capabilities();
    checkLocation(location, capabilities);
    refuseOnReadOnly(location, capabilities, u"removeFolderRecursively");
    if (!capabilities.has(ExtendedFeature::RecursiveRemoval))
        unsupported(location, u"removeFolderRecursively", u"no-recursive-removal");
    doRemoveFolderRecursively(location);
}

void IProvider::moveFile(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const
{
    const ProviderCapabilities capabilities = this->capabilities();
    checkLocation(location, capabilities);
    checkDestination(destination, capabilities);
    refuseOnReadOnly(location, capabilities, u"moveFile");
    doMoveFile(location, destination, policy);
}

void IProvider::moveFolder(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const
{
    const ProviderCapabilities capabilities = this->capabilities();
    checkLocation(location, capabilities);
    checkDestination(destination, capabilities);
    refuseOnReadOnly(location, capabilities, u"moveFolder");
    doMoveFolder(location, destination, policy);
}

TransactionStatus IProvider::copyFile(const StorageIRI& location, const IProvider& destinationProvider,
                                      const StorageIRI& destination, const CopyFileOptions& options) const
{
    checkLocation(location);
    if (&destinationProvider != this)
        return copyFileThroughStreams(*this, location, destinationProvider, destination, options);
    checkChange(destination, u"copyFile");
    return doCopyFile(location, destination, options);
}

std::unique_ptr<IFolderEntryIterator> IProvider::list(const StorageIRI& location, const ListOptions& options) const
{
    const ProviderCapabilities capabilities = this->capabilities();
    checkLocation(location, capabilities);
    if (options.recursive && !capabilities.has(ExtendedFeature::RecursiveListing))
        unsupported(location, u"list", u"no-recursive-listing");
    return doList(location, options);
}

std::unique_ptr<ByteStream> IProvider::openReadOnlyStream(const StorageIRI& location) const
{
    checkLocation(location);
    return doOpenReadOnlyStream(location);
}

std::unique_ptr<ByteStream> IProvider::openStream(const StorageIRI& location, const ByteStreamOpenOptions& options) const
{
    checkChange(location, u"openStream");
    return doOpenStream(location, options);
}

std::unique_ptr<TransactionalByteStream> IProvider::openTransactionalStream(const StorageIRI& location,
                                                                            const ByteStreamOpenOptions& options) const
{
    checkChange(location, u"openTransactionalStream");
    return doOpenTransactionalStream(location, options);
}

void IProvider::flushFilesystem(const StorageIRI& location) const
{
    checkLocation(location);
    doFlushFilesystem(location);
}

FilenameSensitivity IProvider::getFilenameSensitivity(const StorageIRI& location) const
{
    checkLocation(location);
    return doGetFilenameSensitivity(location);
}

PathComparatorFunction IProvider::getPathComparator(const StorageIRI& location) const
{
    checkLocation(location);
    return doGetPathComparator(location);
}

ProviderStorageInfo IProvider::getProviderStorageInfo(const StorageIRI& location) const
{
    checkLocation(location);
    return doGetProviderStorageInfo(location);
}

void IProvider::configure(const boost::property_tree::ptree& settings) const { doConfigure(settings); }

void IProvider::shutdown() const
{
    endPolling();
    doShutdown();
}

void IProvider::publishFileEvents(const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds) const
{
    const ProviderCapabilities capabilities = this->capabilities();
    checkLocation(location, capabilities);
    if (!capabilities.watching)
        boost::throw_exception(ChangeEventsNotSupportedException(location));
    doPublishFileEvents(location, std::move(callback), kinds);
}

void IProvider::publishFolderEvents(const StorageIRI& location, ChangeEventCallback callback, const ChangeKinds& kinds,
                                    RecursiveFileWatching recursive) const
{
    const ProviderCapabilities capabilities = this->capabilities();
    checkLocation(location, capabilities);
    if (!capabilities.watching)
        boost::throw_exception(ChangeEventsNotSupportedException(location));
    if (recursive == RecursiveFileWatching::Recursive && !capabilities.has(ExtendedFeature::RecursiveWatching))
        unsupported(location, u"publishFolderEvents", u"no-recursive-watching");
    doPublishFolderEvents(location, std::move(callback), kinds, recursive);
}

void IProvider::stopPublishingFileEvents(const StorageIRI& location) const
{
    checkLocation(location);
    doStopPublishingFileEvents(location);
}

void IProvider::stopPublishingFolderEvents(const StorageIRI& location) const
{
    checkLocation(location);
    doStopPublishingFolderEvents(location);
}

void IProvider::startChangePollingMechanism(const StorageIRI& location, ChangeEventCallback callback,
                                            const ChangeKinds& kinds, std::chrono::milliseconds interval,
                                            RecursiveChangePolling recursive) const
{
    checkLocation(location);
    doStartChangePollingMechanism(location, std::move(callback), kinds, interval, recursive);
}

void IProvider::stopChangePollingMechanism(const StorageIRI& location) const
{
    checkLocation(location);
    doStopChangePollingMechanism(location);
}

// ---- defaults ------------------------------------------------------------------------------------

bool IProvider::doHasFeature(const StorageIRI&, ExtendedFeature feature) const { return capabilities().has(feature); }

bool IProvider::doFileExists(const StorageIRI& location) const { return doExists(location) == ExistenceType::File; }

bool IProvider::doFolderExists(const StorageIRI& location) const { return doExists(location) == ExistenceType::Folder; }

StorageIRI IProvider::doGetCanonicalLocation(const StorageIRI& location) const
{
    if (doExists(location) == ExistenceType::NotFound)
        throwProviderError(ErrorCode::ResourceNotFound, location, {ExceptionContext(u"getCanonicalLocation")});
    return location;
}

FilenameSensitivity IProvider::doGetFilenameSensitivity(const StorageIRI&) const { return capabilities().sensitivity; }

PathComparatorFunction IProvider::doGetPathComparator(const StorageIRI& location) const
{
    return makePathComparator(doGetFilenameSensitivity(location));
}

void IProvider::doCreateFolderRecursive(const StorageIRI& location) const
{
    std::vector<StorageIRI> missing;
    for (StorageIRI at = location;; at = at.getParent()) {
        const ExistenceType there = doExists(at);
        if (there == ExistenceType::Folder)
            break;
        if (there == ExistenceType::File)
            throwProviderError(ErrorCode::ResourceAlreadyExists, location, {ExceptionContext(u"createFolderRecursive"), ExceptionContext(u"not-a-folder")});
        missing.push_back(at);
        if (!at.hasParent())
            break;
    }
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
        try {
            doCreateFolder(*it);
        } catch (const Exception& failure) {
            // Made by someone else meanwhile: as good as made here.
            if (failure.getErrorCode() != ErrorCode::ResourceAlreadyExists || doExists(*it) != ExistenceType::Folder)
                throw;
        }
    }
}

TransactionStatus IProvider::doCopyFile(const StorageIRI& location, const StorageIRI& destination,
                                        const CopyFileOptions& options) const
{
    return copyFileThroughStreams(*this, location, *this, destination, options);
}

void IProvider::doStartChangePollingMechanism(const StorageIRI& location, ChangeEventCallback callback,
                                              const ChangeKinds& kinds, std::chrono::milliseconds interval,
                                              RecursiveChangePolling recursive) const
{
    ChangePoller* poller = nullptr;
    {
        std::lock_guard lock(m_polling->mutex);
        if (!m_polling->poller)
            m_polling->poller = std::make_unique<ChangePoller>(*this);
        poller = m_polling->poller.get();
    }
    poller->start(location, std::move(callback), kinds, interval, recursive);
}

void IProvider::doStopChangePollingMechanism(const StorageIRI& location) const
{
    std::lock_guard lock(m_polling->mutex);
    if (m_polling->poller)
        m_polling->poller->stop(location);
}

ExtendedAttributes IProvider::doGetExtendedAttributes(const StorageIRI& location) const
{
    unsupported(location, u"getExtendedAttributes", u"no-extended-attributes");
}

void IProvider::doSetWritable(const StorageIRI& location, bool) const
{
    unsupported(location, u"setWritable", u"no-writability");
}

void IProvider::doRemoveFolderRecursively(const StorageIRI& location) const
{
    unsupported(location, u"removeFolderRecursively", u"no-recursive-removal");
}

void IProvider::doFlushFilesystem(const StorageIRI& location) const
{
    if (doExists(location) == ExistenceType::NotFound)
        throwProviderError(ErrorCode::ResourceNotFound, location, {ExceptionContext(u"flushFilesystem")});
}

void IProvider::doConfigure(const boost::property_tree::ptree& settings) const
{
    for (const auto& [key, value] : settings)
        throwProviderError(ErrorCode::InvalidLocation, StorageIRI(),
                           {ExceptionContext(u"configure"), ExceptionContext(fl::i18n::utf8_to_ustring_lossy(key), u"unknown-setting")},
                           fl::i18n::utf8_to_ustring_lossy("the provider has no setting \"" + key + "\""));
}

void IProvider::doShutdown() const {}

void IProvider::doPublishFileEvents(const StorageIRI& location, ChangeEventCallback, const ChangeKinds&) const
{
    boost::throw_exception(ChangeEventsNotSupportedException(location));
}

void IProvider::doPublishFolderEvents(const StorageIRI& location, ChangeEventCallback, const ChangeKinds&,
                                      RecursiveFileWatching) const
{
    boost::throw_exception(ChangeEventsNotSupportedException(location));
}

void IProvider::doStopPublishingFileEvents(const StorageIRI&) const {}

void IProvider::doStopPublishingFolderEvents(const StorageIRI&) const {}

} // namespace foundation::storage::provider
