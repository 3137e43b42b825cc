#include "EntryStream.hpp"
#include "Formats.hpp"
#include "ZipEdit.hpp"

#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/provider/archive/ArchiveProvider.hpp>

#include <fl/i18n/ustring.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/property_tree/ptree.hpp>

#include <atomic>
#include <charconv>
#include <map>
#include <mutex>
#include <set>
#include <utility>
#include <sys/stat.h>
#include <unistd.h>

namespace foundation::storage::provider::archive {

namespace {

using detail::Index;
using detail::Node;
using detail::Segments;
using detail::ZipEdit;

constexpr std::size_t indexesKept = 64;

[[noreturn]] void fail(ErrorCode code, const StorageIRI& location, std::u16string_view operation, std::u16string_view kind = {})
{
    ExceptionContexts contexts{ExceptionContext(ustring(operation))};
    if (!kind.empty())
        contexts.emplace_back(ustring(kind));
    throwProviderError(code, location, std::move(contexts));
}

// The path of an entry to be written, as segments; names an extracting tool could not write back
// inside its target folder are refused.
Segments segmentsOf(const StorageIRI& location)
{
    Segments segments;
    for (const std::u16string_view segment : location.getPathView()) {
        if (segment.empty() || segment == u"." || segment == u".." || segment.find_first_of(std::u16string_view(u"/\0", 2)) != std::u16string_view::npos)
            fail(ErrorCode::InvalidLocation, location, u"entry-name", u"unsafe-name");
        segments.emplace_back(segment);
    }
    return segments;
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

class ArchiveProvider final : public IProvider,
                              public extensions::IChangeBatching,
                              public std::enable_shared_from_this<ArchiveProvider> {
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
        // Tar keeps whole seconds unless pax records add more. Zip entries keep the time this
        // library gives them in an NTFS field (100 ns); other writers' entries may have only DOS
        // times (two seconds).
        capabilities.writable = m_format == ArchiveFormat::Zip;
        capabilities.timeResolution = std::chrono::seconds(1);
        if (capabilities.writable) {
            capabilities.with(ExtendedFeature::RecursiveRemoval);
            capabilities.atomicReplace = true;
            capabilities.timeResolution = std::chrono::nanoseconds(100);
        }
        return capabilities;
    }

    ExistenceType doExists(const StorageIRI& location) const override
    {
        std::shared_ptr<const Index> index;
        try {
            index = indexOf(location);
        } catch (const Exception& error) {
            // No archive there (nothing, or a folder) holds nothing.
            if (error.getErrorCode() == ErrorCode::ResourceNotFound && error.getStorageIRI() == location.getInnerIRI())
                return ExistenceType::NotFound;
            throw;
        }
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

    // A batch on a container gathers the changes of that container, whoever makes them, in one
    // edit that is committed when the last batch on it ends. Changes that only add (files, folders,
    // times, permissions) join it and are checked against the batch's own view of the tree; the
    // others (removals, moves, rewriting an entry the batch holds) first commit what the batch has
    // gathered and are then made as usual. Readers see the committed archive all along.
    void beginBatch(const StorageIRI& location) const override
    {
        if (m_format != ArchiveFormat::Zip)
            return;
        std::lock_guard writing(m_writeMutex);
        auto& batch = m_batches[location.getInnerIRI()];
        if (!batch)
            batch = std::make_unique<Batch>();
        ++batch->opened;
    }

    void endBatch(const StorageIRI& location) const override
    {
        if (m_format != ArchiveFormat::Zip)
            return;
        std::lock_guard writing(m_writeMutex);
        const auto found = m_batches.find(location.getInnerIRI());
        if (found == m_batches.end() || --found->second->opened > 0)
            return;
        const std::unique_ptr<Batch> batch = std::move(found->second);
        m_batches.erase(found);
        flush(*batch);
    }

    // ---- changes (zip only; the front refuses them on tar) -------------------------------------------
    // Each change is committed whole, through the container's transactional stream, before the call
    // returns; changes of one provider are made one at a time.

    void doCreateFile(const StorageIRI& location) const override
    {
        change(location, [&](const Index& index, Edit& edit) {
            const Segments path = freeName(index, location, location);
            edit().addFile(path, -1, 0);
        });
    }

    void doCreateFolder(const StorageIRI& location) const override
    {
        change(location, [&](const Index& index, Edit& edit) {
            if (!location.hasParent()) { // the archive itself
                if (!edit.missing)
                    fail(ErrorCode::ResourceAlreadyExists, location, u"createFolder");
                edit.createEmpty = true;
                return;
            }
            const Segments path = freeName(index, location, location);
            edit().addFolder(path);
        });
    }

    void doCreateFolderRecursive(const StorageIRI& location) const override
    {
        change(location, [&](const Index& index, Edit& edit) {
            const Segments path = segmentsOf(location);
            edit.createEmpty = true;
            Segments prefix;
            for (std::size_t i = 0; i < path.size(); ++i) {
                prefix.push_back(path[i]);
                const Node* node = index.find(StorageIRI(location.getScheme(), location.getInnerIRI(), joined(prefix)));
                if (node && !node->folder)
                    fail(ErrorCode::ResourceAlreadyExists, location, u"createFolderRecursive", u"file-in-the-way");
                if (!node)
                    edit().addFolder(prefix);
            }
        });
    }

    void doRemoveFile(const StorageIRI& location) const override
    {
        changeAlone(location, [&](const Index& index, Edit& edit) {
            existing(index, location, u"removeFile", false);
            removeEntries(edit(), location, false);
        });
    }

    void doRemoveFolder(const StorageIRI& location) const override
    {
        changeAlone(location, [&](const Index& index, Edit& edit) {
            const Node& node = existingBelowRoot(index, location, u"removeFolder");
            if (!node.children.empty())
                fail(ErrorCode::FolderNotEmpty, location, u"removeFolder");
            removeEntries(edit(), location, false);
        });
    }

    void doRemoveFolderRecursively(const StorageIRI& location) const override
    {
        changeAlone(location, [&](const Index& index, Edit& edit) {
            existingBelowRoot(index, location, u"removeFolderRecursively");
            removeEntries(edit(), location, true);
        });
    }

    void doMoveFile(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const override
    {
        sameArchive(location, destination);
        changeAlone(location, [&](const Index& index, Edit& edit) {
            const Node& source = existing(index, location, u"moveFile", false);
            if (destination == location)
                return;
            const Segments to = parentFolder(index, destination, u"moveFile");
            if (const Node* target = index.find(destination)) {
                if (target->folder || policy == ReplacementPolicy::FailIfExists)
                    fail(ErrorCode::ResourceAlreadyExists, destination, u"moveFile");
                if (policy == ReplacementPolicy::ReplaceIfNewer && !(source.modified > target->modified))
                    return;
                for (const auto& entry : edit().entries(to, false))
                    edit().remove(entry.index);
            }
            renameEntries(edit(), segmentsOf(location), to, false);
            edit().keepFolder(segmentsOf(location.getParent()));
        });
    }

    void doMoveFolder(const StorageIRI& location, const StorageIRI& destination, ReplacementPolicy policy) const override
    {
        sameArchive(location, destination);
        changeAlone(location, [&](const Index& index, Edit& edit) {
            const Node& source = existingBelowRoot(index, location, u"moveFolder");
            if (destination == location)
                return;
            if (location.isAncestorOf(destination))
                fail(ErrorCode::InvalidLocation, destination, u"moveFolder", u"into-itself");
            const Segments to = parentFolder(index, destination, u"moveFolder");
            if (const Node* target = index.find(destination)) {
                if (!target->folder || policy == ReplacementPolicy::FailIfExists)
                    fail(ErrorCode::ResourceAlreadyExists, destination, u"moveFolder");
                if (!target->children.empty())
                    fail(ErrorCode::FolderNotEmpty, destination, u"moveFolder");
                for (const auto& entry : edit().entries(to, false))
                    edit().remove(entry.index);
            }
            renameEntries(edit(), segmentsOf(location), to, true);
            if (!source.entry) // a folder the archive only implied
                edit().keepFolder(to);
            edit().keepFolder(segmentsOf(location.getParent()));
        });
    }

    void doSetLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const override
    {
        if (!location.hasParent()) {
            flushBatch(location); // the container is there, and no later commit in the batch replaces it
            return containerProvider(location)->setLastModified(location.getInnerIRI(), time);
        }
        if (time.is_special() || time < boost::posix_time::ptime(boost::gregorian::date(1601, 1, 1)))
            fail(ErrorCode::InvalidLocation, location, u"setLastModified", u"time-out-of-range");
        changeEntry(location, u"setLastModified", [&](ZipEdit& edit, std::uint64_t index, bool) { edit.setTime(index, time); });
    }

    void doSetWritable(const StorageIRI& location, bool writable) const override
    {
        if (!location.hasParent()) {
            flushBatch(location);
            return containerProvider(location)->setWritable(location.getInnerIRI(), writable);
        }
        changeEntry(location, u"setWritable", [&](ZipEdit& edit, std::uint64_t index, bool folder) {
            const std::uint32_t mode = edit.mode(index).value_or(folder ? S_IFDIR | 0755 : S_IFREG | 0644);
            edit.setMode(index, writable ? mode | 0200 : mode & ~0222u);
        });
    }

    void doTruncateToSize(const StorageIRI& location, std::uint64_t size) const override
    {
        const std::uint64_t limit = settings().expansionLimitBytes;
        if (size > limit)
            throwProviderError(ErrorCode::NoSpaceLeft, location,
                               {ExceptionContext(u"expansion-limit", fl::i18n::utf8_to_ustring(std::to_string(limit)))},
                               u"the entry would grow beyond the configured expansion limit");
        bool created = false;
        const int spool = spoolFor(location, {ByteStreamAccess::Write, ByteStreamCreation::OpenExisting, 1, 1}, size, created);
        try {
            storeEntry(location, spool, size);
        } catch (...) {
            ::close(spool);
            throw;
        }
        ::close(spool);
    }

    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& location, const ByteStreamOpenOptions& options) const override
    {
        return openWriter(location, options, false);
    }

    std::unique_ptr<TransactionalByteStream> doOpenTransactionalStream(const StorageIRI& location,
                                                                       const ByteStreamOpenOptions& options) const override
    {
        return openWriter(location, options, true);
    }

private:
    // A change in the making: the edit of the container opens when first needed.
    struct Edit {
        detail::ContainerAccess access;
        bool missing; // the container does not exist yet
        bool createEmpty = false;
        std::unique_ptr<ZipEdit> zip;
        bool batched = false;
        ZipEdit& operator()()
        {
            if (!zip)
                zip = std::make_unique<ZipEdit>(access, missing, batched);
            return *zip;
        }
    };

    // The changes of one container gathered while batches on it are open.
    struct Batch {
        unsigned opened = 0;
        std::unique_ptr<Index> view; // the committed tree and what the gathered changes added
        std::optional<Edit> edit;
    };

    // Runs `make(index, edit)` on the container's current tree (empty when the container is missing)
    // and commits what it changed, while no other change of this provider runs. Under an open batch
    // on the container the change joins the batch, or with `alone` commits the batch first.
    template <class Make>
    void change(const StorageIRI& location, Make&& make, bool alone = false) const
    {
        std::lock_guard writing(m_writeMutex);
        const StorageIRI container = location.getInnerIRI();
        if (Batch* batch = batchOf(container)) {
            if (alone) {
                flush(*batch);
            } else {
                Index& view = batchView(*batch, location);
                const auto record = [&] {
                    if (batch->edit->zip)
                        for (const auto& added : batch->edit->zip->takeAdded())
                            view.add(added.name, added.folder, added.size, boost::posix_time::microsec_clock::universal_time(),
                                     added.folder ? 0755 : 0644, detail::Entry{});
                };
                try {
                    make(std::as_const(view), *batch->edit);
                } catch (...) {
                    record();
                    throw;
                }
                record();
                return;
            }
        }
        const bool missing = containerMissing(location);
        const auto index = missing ? std::make_shared<const Index>(container, detail::Stamp{}) : indexOf(location);
        Edit edit{accessTo(location), missing, false, nullptr};
        make(*index, edit);
        commitEdit(container, edit);
    }

    template <class Make>
    void changeAlone(const StorageIRI& location, Make&& make) const
    {
        change(location, std::forward<Make>(make), true);
    }

    void commitEdit(const StorageIRI& container, Edit& edit) const
    {
        if (!edit.zip && !(edit.createEmpty && edit.missing))
            return;
        try {
            edit().commit(edit.createEmpty);
        } catch (...) {
            forget(container);
            throw;
        }
        forget(container);
    }

    // The open batch on the container, if any; under m_writeMutex.
    Batch* batchOf(const StorageIRI& container) const
    {
        const auto found = m_batches.find(container);
        return found == m_batches.end() ? nullptr : found->second.get();
    }

    // The batch's view and edit, made from the committed archive when the batch has none.
    Index& batchView(Batch& batch, const StorageIRI& location) const
    {
        if (!batch.view) {
            const bool missing = containerMissing(location);
            batch.view = missing ? std::make_unique<Index>(location.getInnerIRI(), detail::Stamp{})
                                 : std::make_unique<Index>(*indexOf(location));
            batch.edit.emplace(Edit{accessTo(location), missing, false, nullptr, true});
        }
        return *batch.view;
    }

    void flushBatch(const StorageIRI& location) const
    {
        std::lock_guard writing(m_writeMutex);
        if (Batch* batch = batchOf(location.getInnerIRI()))
            flush(*batch);
    }

    // Commits what the batch gathered; the batch goes on from the new archive. A failure loses
    // what was gathered and leaves the old archive.
    void flush(Batch& batch) const
    {
        if (!batch.view)
            return;
        const std::unique_ptr<Index> view = std::move(batch.view);
        std::optional<Edit> edit = std::exchange(batch.edit, std::nullopt);
        commitEdit(view->container(), *edit);
    }

    // Applies `set(edit, entry index, folder)` to each entry of the file or folder at `location`; a
    // folder the archive only implies gets an entry of its own first.
    template <class Set>
    void changeEntry(const StorageIRI& location, std::u16string_view operation, Set&& set) const
    {
        change(location, [&](const Index& index, Edit& edit) {
            const Node* node = index.find(location);
            if (!node)
                fail(ErrorCode::ResourceNotFound, location, operation);
            const Segments path = segmentsOf(location);
            auto entries = edit().entries(path, false);
            if (entries.empty())
                entries.push_back({edit().addFolder(path), path, true});
            for (const auto& entry : entries)
                set(edit(), entry.index, node->folder);
        });
    }

    // Whether the location's container is missing; one that is a folder is refused.
    bool containerMissing(const StorageIRI& location) const
    {
        const StorageIRI container = location.getInnerIRI();
        switch (m_resolve(container)->exists(container)) {
        case ExistenceType::File:
            return false;
        case ExistenceType::NotFound:
            return true;
        case ExistenceType::Folder:
            break;
        }
        throwProviderError(ErrorCode::ResourceNotFound, container, {ExceptionContext(u"container"), ExceptionContext(u"not-a-file")},
                           u"a folder is no archive");
    }

    std::shared_ptr<IProvider> containerProvider(const StorageIRI& location) const { return m_resolve(location.getInnerIRI()); }

    void forget(const StorageIRI& container) const
    {
        std::lock_guard lock(m_mutex);
        m_indexes.erase(container);
        ++m_generation;
    }

    static void sameArchive(const StorageIRI& location, const StorageIRI& destination)
    {
        if (location.getInnerIRI() != destination.getInnerIRI())
            fail(ErrorCode::UnsupportedOperation, destination, u"cross-provider-move");
    }

    static ustring joined(const Segments& path)
    {
        ustring text;
        for (const ustring& segment : path)
            text += u"/" + segment;
        return text.empty() ? ustring(u"/") : text;
    }

    // The path of a new entry at `location`: nothing may be there, and its parent must be a folder.
    static Segments freeName(const Index& index, const StorageIRI& location, const StorageIRI& reported)
    {
        const Segments path = segmentsOf(location);
        if (index.find(location))
            fail(ErrorCode::ResourceAlreadyExists, reported, u"create");
        const Node* parent = index.find(location.getParent());
        if (!parent || !parent->folder)
            fail(ErrorCode::ResourceNotFound, reported, u"create", u"no-parent-folder");
        return path;
    }

    static Segments parentFolder(const Index& index, const StorageIRI& destination, std::u16string_view operation)
    {
        const Node* parent = index.find(destination.getParent());
        if (!parent || !parent->folder)
            fail(ErrorCode::ResourceNotFound, destination, operation, u"no-parent-folder");
        return segmentsOf(destination);
    }

    static const Node& existingBelowRoot(const Index& index, const StorageIRI& location, std::u16string_view operation)
    {
        if (!location.hasParent())
            fail(ErrorCode::InvalidLocation, location, operation, u"archive-root");
        return existing(index, location, operation, true);
    }

    static void removeEntries(ZipEdit& edit, const StorageIRI& location, bool below)
    {
        for (const auto& entry : edit.entries(segmentsOf(location), below))
            edit.remove(entry.index);
        edit.keepFolder(segmentsOf(location.getParent()));
    }

    // Renames the entries at `from` (and below it) to `to`. Of entries that end up with one name
    // the last one, which readers saw, stays.
    static void renameEntries(ZipEdit& edit, const Segments& from, const Segments& to, bool below)
    {
        auto entries = edit.entries(from, below);
        std::set<std::pair<Segments, bool>> taken;
        for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
            Segments path = to;
            path.insert(path.end(), entry->path.begin() + static_cast<std::ptrdiff_t>(from.size()), entry->path.end());
            if (taken.emplace(path, entry->folder).second)
                edit.rename(*entry, path);
            else
                edit.remove(entry->index);
        }
    }

    // Stores the first `size` bytes of `fd` as the file at `location`, keeping its permissions.
    void storeEntry(const StorageIRI& location, int fd, std::uint64_t size) const
    {
        change(location, [&](const Index& index, Edit& edit) {
            const Node* node = index.find(location);
            if (node && node->folder)
                fail(ErrorCode::ResourceNotFound, location, u"store", u"not-a-file");
            const Segments path = node ? segmentsOf(location) : freeName(index, location, location);
            std::optional<std::uint32_t> mode;
            for (const auto& entry : edit().entries(path, false)) {
                mode = edit().mode(entry.index);
                edit().remove(entry.index);
            }
            const std::uint64_t added = edit().addFile(path, fd, size);
            if (mode)
                edit().setMode(added, *mode);
        });
    }

    // The file at `location` that a writing stream may replace (nullptr: a new file may be made there).
    static const Node* checkWritable(const Index& index, const StorageIRI& location, const ByteStreamOpenOptions& options,
                                     bool& created)
    {
        const Node* node = index.find(location);
        if (node && node->folder)
            fail(ErrorCode::ResourceNotFound, location, u"openStream", u"not-a-file");
        if (!node && options.creation == ByteStreamCreation::OpenExisting)
            fail(ErrorCode::ResourceNotFound, location, u"openStream");
        if (!node)
            freeName(index, location, location);
        created = !node || (!options.keepContent && node->size != 0);
        return node;
    }

    // The spool a writing stream (or a truncation, `resize`) starts from: the entry's content when
    // it is kept, else nothing. Checks that a file may be written at `location`.
    int spoolFor(const StorageIRI& location, const ByteStreamOpenOptions& options, std::optional<std::uint64_t> resize,
                 bool& created) const
    {
        std::shared_ptr<const Index> index;
        const Node* node = nullptr;
        bool batched = false;
        {
            std::lock_guard writing(m_writeMutex);
            if (Batch* batch = batchOf(location.getInnerIRI())) {
                const Index& view = batchView(*batch, location);
                if ((options.keepContent || resize) && view.find(location)) {
                    flush(*batch); // the content kept is read from the committed archive
                } else {
                    checkWritable(view, location, options, created);
                    batched = true;
                }
            }
        }
        if (!batched) {
            index = containerMissing(location) ? std::make_shared<const Index>(location.getInnerIRI(), detail::Stamp{})
                                               : indexOf(location);
            node = checkWritable(*index, location, options, created);
        }
        const std::uint64_t limit = settings().expansionLimitBytes;
        const bool keep = node && (options.keepContent || resize);
        if (keep && node->size > limit)
            throwProviderError(ErrorCode::NoSpaceLeft, location,
                               {ExceptionContext(u"expansion-limit", fl::i18n::utf8_to_ustring(std::to_string(limit)))},
                               u"the entry expands beyond the configured limit");
        try {
            std::unique_ptr<detail::EntryReader> reader;
            if (keep)
                reader = detail::openEntryReader(accessTo(location), index, *node);
            return detail::spoolEntry(reader.get(), resize.value_or(keep ? node->size : 0));
        } catch (const detail::ContainerChanged&) {
            throwProviderError(ErrorCode::ResourceInUse, location.getInnerIRI(), {ExceptionContext(u"container-changed")},
                               u"the archive changed while the entry was read");
        } catch (const ByteStreamFailure& failure) {
            throwProviderError(failure.getErrorCode(), location, failure.getAllExceptionContexts(),
                               fl::i18n::utf8_to_ustring_lossy(failure.what()));
        }
    }

    std::unique_ptr<TransactionalByteStream> openWriter(const StorageIRI& location, const ByteStreamOpenOptions& options,
                                                        bool transactional) const
    {
        bool created = false;
        const int spool = spoolFor(location, options, std::nullopt, created);
        auto stream = detail::makeEntryWriteStream(
            location, spool, options, transactional, settings().expansionLimitBytes,
            [self = shared_from_this(), location](int fd, std::uint64_t size) { self->storeEntry(location, fd, size); });
        // A plain stream's file is there (or emptied) from the moment it opens, as on a disk.
        if (!transactional && created)
            storeEntry(location, -1, 0);
        return stream;
    }

    ArchiveProviderOptions settings() const
    {
        std::lock_guard lock(m_mutex);
        return m_options;
    }

    detail::ContainerAccess accessTo(const StorageIRI& location) const
    {
        const ArchiveProviderOptions options = settings();
        return {m_format, location, m_resolve, options.passphrase, options.expansionLimitBytes, m_plainCopies};
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
        const std::uint64_t generation = m_generation;
        std::shared_ptr<const Index> built = detail::buildIndex(accessTo(location), stamp);
        std::lock_guard lock(m_mutex);
        if (generation != m_generation) // a change committed meanwhile: this index may predate it
            return built;
        if (m_indexes.size() >= indexesKept && !m_indexes.contains(container))
            m_indexes.erase(m_indexes.begin());
        return m_indexes[container] = std::move(built);
    }

    const ArchiveFormat m_format;
    const ProviderResolver m_resolve;
    mutable std::mutex m_mutex;
    mutable ArchiveProviderOptions m_options;
    mutable std::map<StorageIRI, std::shared_ptr<const Index>> m_indexes;
    mutable std::atomic<std::uint64_t> m_generation{0};
    const std::shared_ptr<std::atomic<std::uint64_t>> m_plainCopies = std::make_shared<std::atomic<std::uint64_t>>(0);
    mutable std::recursive_mutex m_writeMutex; // a change of an archive inside an archive of this provider changes both
    mutable std::map<StorageIRI, std::unique_ptr<Batch>> m_batches; // under m_writeMutex
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
