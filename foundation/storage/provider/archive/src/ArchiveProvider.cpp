#include "EntryStream.hpp"
#include "Formats.hpp"

#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/provider/archive/ArchiveProvider.hpp>

#include <fl/i18n/ustring.hpp>

#include <boost/property_tree/ptree.hpp>

#include <charconv>
#include <map>
#include <mutex>

namespace foundation::storage::provider::archive {

namespace {

using detail::Index;
using detail::Node;

constexpr std::size_t indexesKept = 64;

[[noreturn]] void readOnly(const StorageIRI& location, std::u16string_view operation)
{
    throwProviderError(ErrorCode::ReadOnlyProvider, location, {ExceptionContext(ustring(operation))},
                       u"archives of this kind are read-only");
}

bool hiddenName(const ustring& name)
{
    return !name.empty() && name.front() == u'.';
}

// Writability is the entry's own, as archived (the owner's write bit), so that a copy out of the
// archive gets the permissions it was packed with; the storage itself refuses every change.
bool writableEntry(const Node& node)
{
    return !node.mode || (*node.mode & 0200) != 0;
}

FileAttributes fileAttributes(const Node& node, const ustring& name)
{
    return FileAttributes(node.size, node.modified, writableEntry(node), false, hiddenName(name));
}

FolderAttributes folderAttributes(const Node& node, const ustring& name)
{
    return FolderAttributes(node.modified, writableEntry(node), false, hiddenName(name));
}

// A listing taken at once from the index; clones share it.
class SnapshotIterator final : public IFolderEntryIterator {
public:
    SnapshotIterator(std::shared_ptr<const std::vector<FolderEntry>> entries, std::size_t position = 0)
        : m_entries(std::move(entries)), m_position(position)
    {
    }
    FolderEntry current() const override { return (*m_entries)[m_position - 1]; }
    bool hasNext() const override { return m_position < m_entries->size(); }
    void next() override { ++m_position; }
    std::unique_ptr<IFolderEntryIterator> clone() const override
    {
        return std::make_unique<SnapshotIterator>(m_entries, m_position);
    }

private:
    std::shared_ptr<const std::vector<FolderEntry>> m_entries;
    std::size_t m_position;
};

class ArchiveProvider final : public IProvider {
public:
    ArchiveProvider(ProviderContext context, ArchiveProviderOptions options)
        : m_format(options.format), m_resolve(std::move(context.resolve)), m_options(std::move(options))
    {
    }
    ~ArchiveProvider() override { endPolling(); }

    ProviderCapabilities capabilities() const override
    {
        ProviderCapabilities capabilities;
        capabilities.scheme = m_format == ArchiveFormat::Zip ? std::u16string_view(u"zip") : std::u16string_view(u"tar");
        capabilities.nested = true;
        capabilities.with(ExtendedFeature::RecursiveListing)
            .with(ExtendedFeature::FlatWildcardListing)
            .with(ExtendedFeature::RecursiveWildcardListing);
        capabilities.writable = false;
        // Zip keeps DOS times (two seconds), tar whole seconds unless pax records add more.
        capabilities.timeResolution = m_format == ArchiveFormat::Zip ? std::chrono::seconds(2) : std::chrono::seconds(1);
        return capabilities;
    }

    ExistenceType doExists(const StorageIRI& location) const override
    {
        const auto index = indexOf(location);
        const Node* node = index->find(location);
        return !node ? ExistenceType::NotFound : node->folder ? ExistenceType::Folder : ExistenceType::File;
    }

    ExistenceTypeExtended doExistsExtended(const StorageIRI& location) const override
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

    FileAttributes doGetFileAttributes(const StorageIRI& location) const override
    {
        const auto index = indexOf(location);
        return fileAttributes(existing(*index, location, u"getFileAttributes", false), location.getName());
    }

    FolderAttributes doGetFolderAttributes(const StorageIRI& location) const override
    {
        const auto index = indexOf(location);
        return folderAttributes(existing(*index, location, u"getFolderAttributes", true), location.getName());
    }

    ExtendedAttributes doGetExtendedAttributes(const StorageIRI& location) const override
    {
        const auto index = indexOf(location);
        const Node* node = index->find(location);
        if (!node)
            notFound(location, u"getExtendedAttributes");
        ExtendedAttributes attributes;
        attributes.allocatedBytes = node->size;
        if (node->mode)
            attributes.posixMode = *node->mode | (node->folder ? 0040000u : 0100000u);
        return attributes;
    }

    std::unique_ptr<IFolderEntryIterator> doList(const StorageIRI& location, const ListOptions& options) const override
    {
        const auto index = indexOf(location);
        const Node& folder = existing(*index, location, u"list", true);
        auto entries = std::make_shared<std::vector<FolderEntry>>();
        collect(*index, folder, ustring(), options, *entries);
        return std::make_unique<SnapshotIterator>(std::move(entries));
    }

    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& location) const override
    {
        // A container replaced between indexing and opening is indexed again; a few tries.
        for (int attempt = 0;; ++attempt) {
            const auto index = indexOf(location);
            const Node& node = existing(*index, location, u"openReadOnlyStream", false);
            const std::uint64_t limit = settings().expansionLimitBytes;
            if (node.size > limit)
                throwProviderError(ErrorCode::NoSpaceLeft, location,
                                   {ExceptionContext(u"expansion-limit", fl::i18n::utf8_to_ustring(std::to_string(limit)))},
                                   u"the entry expands beyond the configured limit");
            const detail::ContainerAccess access = accessTo(location);
            std::unique_ptr<detail::EntryReader> reader;
            try {
                // The first reader opens now, so that an entry that cannot be read fails to open.
                reader = detail::openEntryReader(access, index, node);
            } catch (const detail::ContainerChanged&) {
                if (attempt < 3)
                    continue;
                throwProviderError(ErrorCode::ResourceInUse, location.getInnerIRI(), {ExceptionContext(u"container-changed")},
                                   u"the archive keeps changing");
            }
            auto first = std::make_shared<std::unique_ptr<detail::EntryReader>>(std::move(reader));
            return detail::makeEntryStream(location, node.size, [access, index, node = &node, first] {
                if (*first)
                    return std::move(*first);
                return detail::openEntryReader(access, index, *node);
            });
        }
    }

    ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI& location) const override
    {
        indexOf(location);
        ProviderStorageInfo info;
        info.description = m_format == ArchiveFormat::Zip ? u"zip archive" : u"tar archive";
        return info;
    }

    void doConfigure(const boost::property_tree::ptree& settings) const override
    {
        ArchiveProviderOptions changed = this->settings();
        for (const auto& [key, value] : settings) {
            const std::string& text = value.data();
            if (key == "expansionLimitBytes") {
                std::uint64_t parsed = 0;
                const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
                if (!value.empty() || text.empty() || error != std::errc() || end != text.data() + text.size())
                    refuseSetting(key, "a decimal number of bytes");
                changed.expansionLimitBytes = parsed;
            } else if (key == "passphrase") {
                if (!value.empty())
                    refuseSetting(key, "a text");
                changed.passphrase = text;
            } else {
                refuseSetting(key, {});
            }
        }
        std::lock_guard lock(m_mutex);
        m_options = std::move(changed);
    }

    void doShutdown() const override
    {
        std::lock_guard lock(m_mutex);
        m_indexes.clear();
    }

    // ---- changes: a read-only storage ---------------------------------------------------------------
    void doSetLastModified(const StorageIRI& l, const boost::posix_time::ptime&) const override { readOnly(l, u"setLastModified"); }
    void doTruncateToSize(const StorageIRI& l, std::uint64_t) const override { readOnly(l, u"truncateToSize"); }
    void doCreateFile(const StorageIRI& l) const override { readOnly(l, u"createFile"); }
    void doRemoveFile(const StorageIRI& l) const override { readOnly(l, u"removeFile"); }
    void doCreateFolder(const StorageIRI& l) const override { readOnly(l, u"createFolder"); }
    void doRemoveFolder(const StorageIRI& l) const override { readOnly(l, u"removeFolder"); }
    void doMoveFile(const StorageIRI& l, const StorageIRI&, ReplacementPolicy) const override { readOnly(l, u"moveFile"); }
    void doMoveFolder(const StorageIRI& l, const StorageIRI&, ReplacementPolicy) const override { readOnly(l, u"moveFolder"); }
    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& l, const ByteStreamOpenOptions&) const override
    {
        readOnly(l, u"openStream");
    }
    std::unique_ptr<TransactionalByteStream> doOpenTransactionalStream(const StorageIRI& l, const ByteStreamOpenOptions&) const override
    {
        readOnly(l, u"openTransactionalStream");
    }

private:
    ArchiveProviderOptions settings() const
    {
        std::lock_guard lock(m_mutex);
        return m_options;
    }

    detail::ContainerAccess accessTo(const StorageIRI& location) const
    {
        return {m_format, location, m_resolve, settings().passphrase};
    }

    [[noreturn]] static void refuseSetting(const std::string& key, const std::string& expected)
    {
        const std::string why = expected.empty() ? "the archive provider has no setting \"" + key + "\""
                                                 : "the setting \"" + key + "\" takes " + expected;
        throwProviderError(ErrorCode::InvalidLocation, StorageIRI(),
                           {ExceptionContext(u"configure"), ExceptionContext(fl::i18n::utf8_to_ustring_lossy(key),
                                                                             expected.empty() ? u"unknown-setting" : u"bad-value")},
                           fl::i18n::utf8_to_ustring_lossy(why));
    }

    [[noreturn]] static void notFound(const StorageIRI& location, std::u16string_view operation, std::u16string_view kind = {})
    {
        ExceptionContexts contexts{ExceptionContext(ustring(operation))};
        if (!kind.empty())
            contexts.emplace_back(ustring(kind));
        throwProviderError(ErrorCode::ResourceNotFound, location, std::move(contexts));
    }

    static const Node& existing(const Index& index, const StorageIRI& location, std::u16string_view operation, bool folder)
    {
        const Node* node = index.find(location);
        if (!node)
            notFound(location, operation);
        if (node->folder != folder)
            notFound(location, operation, folder ? u"not-a-folder" : u"not-a-file");
        return *node;
    }

    static void collect(const Index& index, const Node& folder, const ustring& prefix, const ListOptions& options,
                        std::vector<FolderEntry>& entries)
    {
        ustring path;
        for (const auto& [name, at] : folder.children) {
            const Node& child = index.node(at);
            path.assign(prefix);
            path.append(name);
            const bool wanted = (options.kind == ListKind::All || (options.kind == ListKind::Files) != child.folder) &&
                                (options.pattern.empty() || matchesWildcard(name, options.pattern));
            if (wanted && !options.withAttributes)
                entries.emplace_back(path, !child.folder);
            else if (wanted && child.folder)
                entries.emplace_back(path, false, std::nullopt, folderAttributes(child, name));
            else if (wanted)
                entries.emplace_back(path, true, fileAttributes(child, name));
            if (options.recursive && child.folder) {
                path.push_back(u'/');
                collect(index, child, path, options, entries);
            }
        }
    }

    // The container's index, built when first needed and again when the container's size or time
    // changed. Builds run without the lock; two threads may build one index at once, and either result
    // serves.
    std::shared_ptr<const Index> indexOf(const StorageIRI& location) const
    {
        const StorageIRI container = location.getInnerIRI();
        detail::Stamp stamp;
        try {
            const FileAttributes attributes = m_resolve(container)->getFileAttributes(container);
            stamp = {attributes.getSize(), attributes.getLastModified()};
        } catch (const Exception& error) {
            if (error.getErrorCode() != ErrorCode::ResourceNotFound)
                throw;
            ExceptionContexts contexts = error.getAllExceptionContexts();
            contexts.emplace_front(u"container");
            throwProviderError(ErrorCode::ResourceNotFound, container, std::move(contexts), u"no archive is there");
        }
        {
            std::lock_guard lock(m_mutex);
            const auto found = m_indexes.find(container);
            if (found != m_indexes.end() && found->second->stamp() == stamp)
                return found->second;
        }
        std::shared_ptr<const Index> built = detail::buildIndex(accessTo(location), stamp);
        std::lock_guard lock(m_mutex);
        if (m_indexes.size() >= indexesKept && !m_indexes.contains(container))
            m_indexes.erase(m_indexes.begin());
        return m_indexes[container] = std::move(built);
    }

    const ArchiveFormat m_format;
    const ProviderResolver m_resolve;
    mutable std::mutex m_mutex;
    mutable ArchiveProviderOptions m_options;
    mutable std::map<StorageIRI, std::shared_ptr<const Index>> m_indexes;
};

} // namespace

std::shared_ptr<IProvider> makeArchiveProvider(ProviderContext context, ArchiveProviderOptions options)
{
    return std::make_shared<ArchiveProvider>(std::move(context), std::move(options));
}

std::shared_ptr<IProvider> makeZipProvider(ProviderContext context)
{
    return makeArchiveProvider(std::move(context), {ArchiveFormat::Zip, ArchiveProviderOptions{}.expansionLimitBytes, {}});
}

std::shared_ptr<IProvider> makeTarProvider(ProviderContext context)
{
    return makeArchiveProvider(std::move(context), {ArchiveFormat::Tar, ArchiveProviderOptions{}.expansionLimitBytes, {}});
}

} // namespace foundation::storage::provider::archive
