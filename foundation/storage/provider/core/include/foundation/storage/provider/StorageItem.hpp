#pragma once

#include <foundation/storage/provider/IProvider.hpp>

#include <memory>

namespace foundation::storage::provider {

// A cheap value: a provider and a location. Every operation forwards to the provider with the
// location; copying shares the provider.
class VFS_EXPORT StorageItem {
public:
    // Throws std::invalid_argument when `provider` is null.
    StorageItem(std::shared_ptr<IProvider> provider, StorageIRI location);
    // The item named `name` inside the folder `parent`, on the same provider. `name` may be a
    // relative path that stays inside the folder ("a/b"); it is refused with InvalidLocation when it
    // is empty, absolute, holds NUL, or climbs above the folder with "..".
    StorageItem(const StorageItem& parent, ustring name);

    const std::shared_ptr<IProvider>& getProvider() const noexcept { return m_provider; }
    const StorageIRI& getLocation() const noexcept { return m_location; }
    const ustring& getName() const noexcept { return m_location.getName(); }
    ustring getScheme() const { return m_location.getScheme(); }
    // The parent folder's item (the root's parent is the root).
    StorageItem getParent() const;

    bool hasParent() const noexcept { return m_location.hasParent(); }

    ExistenceType exists() const { return m_provider->exists(m_location); }
    ExistenceTypeExtended existsExtended() const { return m_provider->existsExtended(m_location); }
    bool hasFeature(ExtendedFeature feature) const { return m_provider->hasFeature(m_location, feature); }
    bool fileExists() const { return m_provider->fileExists(m_location); }
    bool folderExists() const { return m_provider->folderExists(m_location); }
    StorageIRI getCanonicalLocation() const { return m_provider->getCanonicalLocation(m_location); }

    FileAttributes getFileAttributes() const { return m_provider->getFileAttributes(m_location); }
    FolderAttributes getFolderAttributes() const { return m_provider->getFolderAttributes(m_location); }
    ExtendedAttributes getExtendedAttributes() const;
    void setLastModified(const boost::posix_time::ptime& time) const { m_provider->setLastModified(m_location, time); }
    void setWritable(bool writable) const { m_provider->setWritable(m_location, writable); }
    void truncateToSize(std::uint64_t size) const { m_provider->truncateToSize(m_location, size); }

    void createFile() const { m_provider->createFile(m_location); }
    void removeFile() const { m_provider->removeFile(m_location); }
    void createFolder() const { m_provider->createFolder(m_location); }
    void createFolderRecursive() const { m_provider->createFolderRecursive(m_location); }
    void removeFolder() const { m_provider->removeFolder(m_location); }
    void removeFolderRecursively() const { m_provider->removeFolderRecursively(m_location); }

    void moveFile(const StorageIRI& destination, ReplacementPolicy policy) const
    {
        m_provider->moveFile(m_location, destination, policy);
    }
    void moveFolder(const StorageIRI& destination, ReplacementPolicy policy) const
    {
        m_provider->moveFolder(m_location, destination, policy);
    }
    TransactionStatus copyFile(const StorageItem& destination, const CopyFileOptions& options) const
    {
        return m_provider->copyFile(m_location, *destination.m_provider, destination.m_location, options);
    }

    // Listings of the folder's direct children; the names-only forms deliver no attributes.
    std::unique_ptr<IFolderEntryIterator> listAll(ustring pattern) const { return list(ListKind::All, true, std::move(pattern)); }
    std::unique_ptr<IFolderEntryIterator> listAllNamesOnly(ustring pattern) const { return list(ListKind::All, false, std::move(pattern)); }
    std::unique_ptr<IFolderEntryIterator> listFiles(ustring pattern) const { return list(ListKind::Files, true, std::move(pattern)); }
    std::unique_ptr<IFolderEntryIterator> listFilesNamesOnly(ustring pattern) const { return list(ListKind::Files, false, std::move(pattern)); }
    std::unique_ptr<IFolderEntryIterator> listFolders(ustring pattern) const { return list(ListKind::Folders, true, std::move(pattern)); }
    std::unique_ptr<IFolderEntryIterator> listFoldersNamesOnly(ustring pattern) const { return list(ListKind::Folders, false, std::move(pattern)); }
    // The whole subtree (providers with ExtendedFeature::RecursiveListing); names are relative paths.
    std::unique_ptr<IFolderEntryIterator> listAllRecursive(ustring pattern) const { return list(ListKind::All, true, std::move(pattern), true); }
    std::unique_ptr<IFolderEntryIterator> listAllRecursiveNamesOnly(ustring pattern) const { return list(ListKind::All, false, std::move(pattern), true); }

    std::unique_ptr<ByteStream> openReadOnlyStream() const { return m_provider->openReadOnlyStream(m_location); }
    std::unique_ptr<ByteStream> openStream(const ByteStreamOpenOptions& options) const
    {
        return m_provider->openStream(m_location, options);
    }
    std::unique_ptr<TransactionalByteStream> openTransactionalStream(const ByteStreamOpenOptions& options) const
    {
        return m_provider->openTransactionalStream(m_location, options);
    }

    void flushFilesystem() const { m_provider->flushFilesystem(m_location); }
    FilenameSensitivity getFilenameSensitivity() const { return m_provider->getFilenameSensitivity(m_location); }
    PathComparatorFunction getPathComparator() const { return m_provider->getPathComparator(m_location); }
    ProviderStorageInfo getProviderStorageInfo() const { return m_provider->getProviderStorageInfo(m_location); }
    void configure(const boost::property_tree::ptree& settings) const { m_provider->configure(settings); }
    void shutdownProvider() const { m_provider->shutdown(); }

    // Change events (see IProvider).
    void publishFileEvents(ChangeEventCallback callback, const ChangeKinds& kinds) const
    {
        m_provider->publishFileEvents(m_location, std::move(callback), kinds);
    }
    void publishFolderEvents(ChangeEventCallback callback, const ChangeKinds& kinds, RecursiveFileWatching recursive) const
    {
        m_provider->publishFolderEvents(m_location, std::move(callback), kinds, recursive);
    }
    void stopPublishingFileEvents() const { m_provider->stopPublishingFileEvents(m_location); }
    void stopPublishingFolderEvents() const { m_provider->stopPublishingFolderEvents(m_location); }
    void startChangePollingMechanism(ChangeEventCallback callback, const ChangeKinds& kinds,
                                     std::chrono::milliseconds interval, RecursiveChangePolling recursive) const
    {
        m_provider->startChangePollingMechanism(m_location, std::move(callback), kinds, interval, recursive);
    }
    void stopChangePollingMechanism() const { m_provider->stopChangePollingMechanism(m_location); }

private:
    std::unique_ptr<IFolderEntryIterator> list(ListKind kind, bool withAttributes, ustring pattern, bool recursive = false) const
    {
        return m_provider->list(m_location, ListOptions{kind, withAttributes, std::move(pattern), recursive});
    }

    std::shared_ptr<IProvider> m_provider;
    StorageIRI m_location;
};

// The location of `name` inside `folder`, refused with InvalidLocation (context "child-name") when
// the name is empty, absolute, holds NUL, or would climb above the folder.
VFS_EXPORT StorageIRI childLocation(const StorageIRI& folder, ustring name);

} // namespace foundation::storage::provider
