// Folder listings of the local disk.
//
// A listing reads its folder in getdents64 batches into a chain of immutable batches of finished
// entries, shared by the iterator and its clones: each iterator walks the chain at its own pace and
// only takes the listing's lock when it steps past the last batch anybody has read. Batches that
// every iterator has passed are freed, and the folder's descriptor is closed once the end is read.
//
// Names that are not valid UTF-8 cannot become IRIs, so such entries are left out of listings and
// counted; the count is reported on the provider's logger channel when the listing reaches its end.

#include "Native.hpp"

#include <foundation/log/diagnostic_logger.hpp>
#include <foundation/storage/provider/PosixError.hpp>

#include <cerrno>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <dirent.h>
#include <fcntl.h>

namespace foundation::storage::provider::local::detail {

namespace {

struct Entry {
    ustring name;
    bool isFile;
    std::optional<FileAttributes> fileAttributes;
    std::optional<FolderAttributes> folderAttributes;
};

// Finished entries of one or more getdents64 calls. `entries` never changes once the batch is linked
// into the chain; `next` is written and read under the listing's lock.
struct Batch {
    std::vector<Entry> entries;
    std::shared_ptr<Batch> next;
};

bool isFollowFailure(int error) noexcept
{
    // What makes a link lead nowhere: a missing or unreachable target, or a loop.
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == EACCES;
}

class Listing {
public:
    Listing(FileDescriptor folder, StorageIRI location, const ListOptions& options)
        : m_folder(std::move(folder)), m_location(std::move(location)), m_kind(options.kind),
          m_withAttributes(options.withAttributes), m_pattern(options.pattern)
    {
    }

    const StorageIRI& location() const noexcept { return m_location; }

    // The batch after `batch`, reading one when no iterator has yet; null at the end. A failure
    // ends the reading: it is thrown again to every iterator that gets this far, rather than
    // letting the listing go on without the entries of the batch it broke off.
    std::shared_ptr<Batch> following(const std::shared_ptr<Batch>& batch)
    {
        std::lock_guard lock(m_mutex);
        if (batch->next)
            return batch->next;
        if (m_failure)
            std::rethrow_exception(m_failure);
        if (!m_folder)
            return nullptr;
        auto fresh = std::make_shared<Batch>();
        try {
            while (fresh->entries.empty()) {
                if (!m_reader)
                    m_reader = std::make_unique<DirectoryReader>();
                if (!m_reader->read(m_folder.get(), m_location)) {
                    finish();
                    return nullptr;
                }
                fresh->entries.reserve(fresh->entries.size() + m_reader->capacityHint());
                m_reader->forEach([&](const char* name, unsigned char type) { add(fresh->entries, name, type); });
            }
        } catch (...) {
            m_failure = std::current_exception();
            m_folder.reset();
            m_reader.reset();
            throw;
        }
        batch->next = fresh;
        return fresh;
    }

private:
    void finish() noexcept
    {
        m_folder.reset();
        m_reader.reset();
        if (m_skipped != 0 && logger().enabled(foundation::log::category_information)) {
            try {
                logger().write(foundation::log::category_information,
                               "listing of " + fl::i18n::ustring_to_utf8(m_location.toString()) + " left out " +
                                   std::to_string(m_skipped) + " entries whose names are not valid UTF-8");
            } catch (...) {
                // A diagnostic that cannot be composed is dropped.
            }
        }
    }

    void add(std::vector<Entry>& into, const char* rawName, unsigned char type)
    {
        ustring name;
        try {
            name = fl::i18n::utf8_to_ustring(rawName);
        } catch (const fl::i18n::conversion_error&) {
            ++m_skipped;
            return;
        }
        if (!m_pattern.empty() && !matchesWildcard(name, m_pattern))
            return;
        if (auto entry = inspect(rawName, type, std::move(name)))
            if (m_kind == ListKind::All || (m_kind == ListKind::Files) == entry->isFile)
                into.push_back(*std::move(entry));
    }

    // The entry's kind (links followed) and, when asked for, its attributes; nullopt when it has
    // vanished since it was read. A link that leads nowhere is a file without attributes.
    std::optional<Entry> inspect(const char* rawName, unsigned char type, ustring name)
    {
        const int folder = m_folder.get();
        if (!m_withAttributes) {
            if (type == DT_DIR)
                return Entry{std::move(name), false, {}, {}};
            if (type != DT_LNK && type != DT_UNKNOWN)
                return Entry{std::move(name), true, {}, {}};
        }
        struct stat info {};
        bool symlink = type == DT_LNK;
        if (!symlink) {
            if (::fstatat(folder, rawName, &info, AT_SYMLINK_NOFOLLOW) != 0) {
                if (errno == ENOENT)
                    return std::nullopt;
                fail(errno, "fstatat", childLocation(name));
            }
            symlink = S_ISLNK(info.st_mode);
        }
        if (symlink && ::fstatat(folder, rawName, &info, 0) != 0) {
            if (isFollowFailure(errno))
                return Entry{std::move(name), true, {}, {}};
            fail(errno, "fstatat", childLocation(name));
        }
        const bool isFile = !S_ISDIR(info.st_mode);
        if (!m_withAttributes)
            return Entry{std::move(name), isFile, {}, {}};
        if (!m_writeAccess)
            m_writeAccess.emplace(folder, nullptr);
        const bool writable = m_writeAccess->allows(info);
        if (isFile) {
            auto attributes = fileAttributes(info, writable, symlink, name);
            return Entry{std::move(name), true, std::move(attributes), {}};
        }
        auto attributes = folderAttributes(info, writable, symlink, name);
        return Entry{std::move(name), false, {}, std::move(attributes)};
    }

    StorageIRI childLocation(const ustring& name) const { return StorageIRI(m_location, name); }

    std::mutex m_mutex;
    FileDescriptor m_folder; // closed once the end is read
    std::unique_ptr<DirectoryReader> m_reader;
    const StorageIRI m_location;
    const ListKind m_kind;
    const bool m_withAttributes;
    const ustring m_pattern;
    std::optional<WriteAccess> m_writeAccess; // taken at the first entry that needs it
    std::size_t m_skipped = 0;
    std::exception_ptr m_failure;
};

// Positions are (batch, index of the next entry in it); the entry before that is current(). A fresh
// iterator stands on an empty batch ahead of the first real one.
class FolderIterator final : public IFolderEntryIterator {
public:
    explicit FolderIterator(std::shared_ptr<Listing> listing)
        : m_listing(std::move(listing)), m_batch(std::make_shared<Batch>())
    {
    }

    FolderEntry current() const override
    {
        if (m_next == 0)
            throwProviderError(ErrorCode::InternalError, m_listing->location(),
                               {ExceptionContext(u"current-before-next")});
        const Entry& entry = m_batch->entries[m_next - 1];
        return FolderEntry(entry.name, entry.isFile, entry.fileAttributes, entry.folderAttributes);
    }

    bool hasNext() const override { return m_next < m_batch->entries.size() || lookAhead(); }

    void next() override
    {
        if (m_next < m_batch->entries.size()) {
            ++m_next;
            return;
        }
        if (!lookAhead())
            throwProviderError(ErrorCode::InternalError, m_listing->location(),
                               {ExceptionContext(u"next-past-the-end")});
        m_batch = std::move(m_ahead);
        m_ahead.reset();
        m_lookedAhead = false;
        m_next = 1;
    }

    std::unique_ptr<IFolderEntryIterator> clone() const override
    {
        return std::unique_ptr<IFolderEntryIterator>(
            new FolderIterator(m_listing, m_batch, m_next, m_ahead, m_lookedAhead));
    }

private:
    FolderIterator(std::shared_ptr<Listing> listing, std::shared_ptr<Batch> batch, std::size_t next,
                   std::shared_ptr<Batch> ahead, bool lookedAhead)
        : m_listing(std::move(listing)), m_batch(std::move(batch)), m_next(next), m_ahead(std::move(ahead)),
          m_lookedAhead(lookedAhead)
    {
    }

    bool lookAhead() const
    {
        if (!m_lookedAhead) {
            m_ahead = m_listing->following(m_batch);
            m_lookedAhead = true;
        }
        return m_ahead != nullptr;
    }

    std::shared_ptr<Listing> m_listing;
    std::shared_ptr<Batch> m_batch;
    std::size_t m_next = 0;
    mutable std::shared_ptr<Batch> m_ahead;
    mutable bool m_lookedAhead = false;
};

} // namespace

std::unique_ptr<IFolderEntryIterator> listFolder(const StorageIRI& location, const ListOptions& options)
{
    const fl::filesystem::path path = nativePath(location);
    if (options.recursive)
        throwProviderError(ErrorCode::UnsupportedOperation, location, {ExceptionContext(u"recursive-listing")});
    FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) {
        const int error = errno;
        struct stat info {};
        if (error == ENOTDIR && ::stat(path.c_str(), &info) == 0)
            failKind(location, u"not-a-folder");
        fail(error, "open", location);
    }
    return std::make_unique<FolderIterator>(std::make_shared<Listing>(std::move(folder), location, options));
}

} // namespace foundation::storage::provider::local::detail
