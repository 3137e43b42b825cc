// Construction, capabilities, what is at a location, and the storage-wide operations and settings.

#include "Provider.hpp"

#include <foundation/storage/provider/ExtendedAttributes.hpp>

namespace foundation::storage::provider::memory::detail {

ProviderCapabilities MemoryProvider::capabilities() const
{
    ProviderCapabilities capabilities;
    capabilities.scheme = m_options.scheme; // never changed after construction
    capabilities.authority = ProviderCapabilities::Authority::Required;
    for (const auto feature : {ExtendedFeature::RecursiveRemoval, ExtendedFeature::RecursiveListing,
                               ExtendedFeature::FlatWildcardListing, ExtendedFeature::RecursiveWatching,
                               ExtendedFeature::RecursiveWildcardListing})
        capabilities.with(feature);
    capabilities.watching = true;
    capabilities.atomicReplace = true;
    capabilities.writable = !m_readOnly.load(std::memory_order_relaxed);
    capabilities.timeResolution = std::chrono::microseconds(1);
    return capabilities;
}

ExistenceType MemoryProvider::doExists(const StorageIRI& location) const
{
    std::shared_lock lock(m_mutex);
    const Node* node = walk(rootOf(location), location, location.getPathView().size()).first;
    if (!node)
        return ExistenceType::NotFound;
    return node->asFolder() ? ExistenceType::Folder : ExistenceType::File;
}

ExistenceTypeExtended MemoryProvider::doExistsExtended(const StorageIRI& location) const
{
    switch (exists(location)) {
    case ExistenceType::File:
        return ExistenceTypeExtended::File;
    case ExistenceType::Folder:
        return ExistenceTypeExtended::Folder;
    case ExistenceType::NotFound:
        break;
    }
    return ExistenceTypeExtended::NotFound;
}

StorageIRI MemoryProvider::doGetCanonicalLocation(const StorageIRI& location) const
{
    std::shared_lock lock(m_mutex);
    existingIn(rootOf(location), "getCanonicalLocation", location);
    return location;
}

FileAttributes MemoryProvider::doGetFileAttributes(const StorageIRI& location) const
{
    std::shared_lock lock(m_mutex);
    const Node& node = existingIn(rootOf(location), "getFileAttributes", location);
    if (!node.asFile())
        wrongKind("getFileAttributes", location, true);
    return fileAttributes(node, location.getName());
}

FolderAttributes MemoryProvider::doGetFolderAttributes(const StorageIRI& location) const
{
    std::shared_lock lock(m_mutex);
    const Node& node = existingIn(rootOf(location), "getFolderAttributes", location);
    if (!node.asFolder())
        wrongKind("getFolderAttributes", location, false);
    return folderAttributes(node, location.getName());
}

ExtendedAttributes MemoryProvider::doGetExtendedAttributes(const StorageIRI& location) const
{
    std::shared_lock lock(m_mutex);
    ExtendedAttributes attributes;
    attributes.allocatedBytes = existingIn(rootOf(location), "getExtendedAttributes", location).size();
    return attributes;
}

void MemoryProvider::doFlushFilesystem(const StorageIRI& location) const
{
    std::shared_lock lock(m_mutex);
    existingIn(rootOf(location), "flushFilesystem", location);
}

ProviderStorageInfo MemoryProvider::doGetProviderStorageInfo(const StorageIRI& location) const
{
    std::shared_lock lock(m_mutex);
    existingIn(rootOf(location), "getProviderStorageInfo", location);
    ProviderStorageInfo info;
    info.description = u"memory volume";
    if (m_options.quotaBytes != unlimited) {
        info.capacityBytes = m_options.quotaBytes;
        info.freeBytes = m_options.quotaBytes > m_usedBytes ? m_options.quotaBytes - m_usedBytes : 0;
        info.availableBytes = info.freeBytes;
    }
    return info;
}

void MemoryProvider::doConfigure(const boost::property_tree::ptree& settings) const
{
    std::optional<std::uint64_t> quota;
    std::optional<bool> readOnly;
    for (const auto& [key, value] : settings) {
        const std::string& text = value.data();
        if (key == "quotaBytes") {
            std::uint64_t parsed = 0;
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
            if (!value.empty() || text.empty() || error != std::errc() || end != text.data() + text.size())
                badSetting(key, text, "a decimal number of bytes");
            quota = parsed;
        } else if (key == "readOnly") {
            if (!value.empty() || (text != "true" && text != "false"))
                badSetting(key, text, "\"true\" or \"false\"");
            readOnly = text == "true";
        } else {
            throwProviderError(ErrorCode::InvalidLocation, StorageIRI(),
                               {ExceptionContext(u"configure"), ExceptionContext(fl::i18n::utf8_to_ustring_lossy(key), u"unknown-setting")},
                               fl::i18n::utf8_to_ustring_lossy("the memory provider has no setting \"" + key + "\""));
        }
    }
    std::unique_lock lock(m_mutex);
    if (quota)
        m_options.quotaBytes = *quota;
    if (readOnly) {
        m_options.readOnly = *readOnly;
        m_readOnly.store(*readOnly, std::memory_order_relaxed);
    }
}

void MemoryProvider::doShutdown() const
{
    decltype(m_volumes) dropped; // destroyed after the lock is released
    m_notifier.unwatchAll();
    std::unique_lock lock(m_mutex);
    for (const auto& [name, root] : m_volumes)
        unlinkFiles(*root);
    dropped.swap(m_volumes);
    m_newVolume.lastModified = now();
}

void MemoryProvider::badSetting(const std::string& key, const std::string& value, const char* expected)
{
    throwProviderError(ErrorCode::InvalidLocation, StorageIRI(),
                       {ExceptionContext(u"configure"), ExceptionContext(ascii(key), u"bad-value")},
                       fl::i18n::utf8_to_ustring_lossy("the memory provider's setting \"" + key + "\" takes " +
                                                       expected + ", not \"" + value + "\""));
}

const Node& MemoryProvider::rootOf(const StorageIRI& location) const
{
    const auto volume = m_volumes.find(location.getAuthority());
    return volume == m_volumes.end() ? m_newVolume : *volume->second;
}

Node& MemoryProvider::rootForChange(const StorageIRI& location) const
{
    auto volume = m_volumes.find(location.getAuthority());
    if (volume == m_volumes.end())
        volume = m_volumes.emplace(location.getAuthority(), std::make_unique<Node>(Node::Folder{}, m_newVolume.lastModified)).first;
    return *volume->second;
}

} // namespace foundation::storage::provider::memory::detail

namespace foundation::storage::provider::memory {

std::shared_ptr<IProvider> makeMemoryProvider(MemoryProviderOptions options)
{
    return std::make_shared<detail::MemoryProvider>(options);
}

} // namespace foundation::storage::provider::memory
