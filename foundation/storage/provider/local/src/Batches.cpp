#include "Batches.hpp"

#include <fl/i18n/append_utf8.hpp>
#include <foundation/log/diagnostic_logger.hpp>
#include <foundation/storage/provider/PosixError.hpp>

#include <cerrno>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include <dirent.h>
#include <fcntl.h>

namespace foundation::storage::provider::local::detail {

namespace {

// Entries per batch (a flat listing's batch is one getdents64 call, up to about 1600 short names):
// enough to keep the lock and the chain's allocations out of the profile; small enough that a batch
// stays in the caches and below the sizes at which malloc maps fresh pages or trims the heap.
constexpr std::size_t batchEntries = 1024;
constexpr std::size_t batchNameUnits = batchEntries * 24;

// The walk and the chain of batches it fills. A failure ends the walk: it is thrown again to every
// iterator that gets this far, rather than letting the listing go on without the entries of the
// batch it broke off.
//
// The first batch is read by the iterator that asks for it. A listing that fills it and goes on is
// large: a reader thread then reads the following batches while the iterators work through the
// ones before, so that the system calls of the walk overlap with what the caller does with each
// entry. It stays at most `readAhead` batches beyond the furthest iterator, and stops when the
// chain goes.
class Chain {
public:
    explicit Chain(std::unique_ptr<DirectoryWalk> walk) : m_location(walk->location()), m_walk(std::move(walk)) {}
    Chain(const Chain&) = delete;
    Chain& operator=(const Chain&) = delete;

    ~Chain()
    {
        if (!m_reader.joinable())
            return;
        {
            std::lock_guard lock(m_mutex);
            m_stop = true;
        }
        m_changed.notify_all();
        m_reader.join();
    }

    const StorageIRI& location() const noexcept { return m_location; }

    // The batch after `batch`, read now when nobody has read it yet; null at the end.
    std::shared_ptr<Batch> following(const std::shared_ptr<Batch>& batch)
    {
        std::unique_lock lock(m_mutex);
        if (!m_tail)
            m_tail = batch; // the first iterator's empty batch heads the chain
        for (;;) {
            if (batch->next) {
                if (batch->next->sequence > m_furthest) {
                    m_furthest = batch->next->sequence;
                    m_changed.notify_all();
                }
                return batch->next;
            }
            if (m_failure)
                std::rethrow_exception(m_failure);
            if (!m_walk)
                return nullptr;
            if (m_reader.joinable()) {
                m_changed.wait(lock);
                continue;
            }
            // Under the lock: until the reader starts, iterators read for themselves, one at a time.
            std::shared_ptr<Batch> fresh;
            bool ended = false;
            try {
                fresh = readBatch(*m_walk, ended);
            } catch (...) {
                m_failure = std::current_exception();
                m_walk.reset();
                throw;
            }
            if (ended)
                finish();
            if (!fresh)
                return nullptr;
            append(fresh);
            if (m_walk)
                startReader();
        }
    }

private:
    static constexpr std::size_t readAhead = 4;

    // The next batch from `walk`, or null when it had no more entries; `ended` when the walk is
    // done. Only one thread at a time reads: the one holding the lock before the reader starts, the
    // reader after.
    static std::shared_ptr<Batch> readBatch(DirectoryWalk& walk, bool& ended)
    {
        auto fresh = std::make_shared<Batch>();
        fresh->reserve(batchEntries, batchNameUnits);
        bool more = true;
        while (more && fresh->size() < batchEntries)
            more = walk.read(*fresh);
        ended = !more;
        return fresh->empty() ? nullptr : fresh;
    }

    void append(const std::shared_ptr<Batch>& fresh)
    {
        fresh->sequence = m_tail->sequence + 1;
        m_tail->next = fresh;
        m_tail = fresh;
    }

    // Called under the lock.
    void startReader() noexcept
    {
        try {
            m_reader = std::thread([this] { readAheadLoop(); });
        } catch (const std::system_error&) {
            // No thread to be had: the iterators go on reading for themselves.
        }
    }

    void readAheadLoop()
    {
        std::unique_lock lock(m_mutex);
        while (!m_stop && m_walk) {
            if (m_tail->sequence >= m_furthest + readAhead) {
                m_changed.wait(lock);
                continue;
            }
            DirectoryWalk& walk = *m_walk;
            lock.unlock();
            std::shared_ptr<Batch> fresh;
            std::exception_ptr failure;
            bool ended = false;
            try {
                fresh = readBatch(walk, ended);
            } catch (...) {
                failure = std::current_exception();
            }
            lock.lock();
            if (failure) {
                m_failure = failure;
                m_walk.reset();
            } else {
                if (fresh)
                    append(fresh);
                if (ended)
                    finish();
            }
            m_changed.notify_all();
        }
    }

    // Releases the walk (and its descriptors) once the end is read.
    void finish() noexcept
    {
        m_walk.reset();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed; // a batch was read or asked for, the walk ended, or stop
    const StorageIRI m_location;
    // Null once the end is read or the walk failed; set and reset under the lock. The reader reads
    // through it without the lock: nobody else reads while the reader runs.
    std::unique_ptr<DirectoryWalk> m_walk;
    std::exception_ptr m_failure;
    std::shared_ptr<Batch> m_tail; // the last batch read
    std::size_t m_furthest = 0;    // the sequence of the furthest batch an iterator has reached
    bool m_stop = false;
    std::thread m_reader;
};

// Positions are (batch, index of the next entry in it); the entry before that is current(). A fresh
// iterator stands on an empty batch ahead of the first real one.
class BatchIterator final : public IFolderEntryIterator {
public:
    explicit BatchIterator(std::shared_ptr<Chain> chain) : m_chain(std::move(chain)), m_batch(std::make_shared<Batch>()) {}

    FolderEntry current() const override
    {
        if (m_next == 0)
            throwProviderError(ErrorCode::InternalError, m_chain->location(), {ExceptionContext(u"current-before-next")});
        return m_batch->entry(m_next - 1);
    }

    bool hasNext() const override { return m_next < m_batch->size() || lookAhead(); }

    void next() override
    {
        if (m_next < m_batch->size()) {
            ++m_next;
            return;
        }
        if (!lookAhead())
            throwProviderError(ErrorCode::InternalError, m_chain->location(), {ExceptionContext(u"next-past-the-end")});
        m_batch = std::move(m_ahead);
        m_ahead.reset();
        m_lookedAhead = false;
        m_next = 1;
    }

    std::unique_ptr<IFolderEntryIterator> clone() const override
    {
        return std::unique_ptr<IFolderEntryIterator>(new BatchIterator(*this));
    }

private:
    BatchIterator(const BatchIterator& other)
        : IFolderEntryIterator(), m_chain(other.m_chain), m_batch(other.m_batch), m_next(other.m_next),
          m_ahead(other.m_ahead), m_lookedAhead(other.m_lookedAhead)
    {
    }

    bool lookAhead() const
    {
        if (!m_lookedAhead) {
            m_ahead = m_chain->following(m_batch);
            m_lookedAhead = true;
        }
        return m_ahead != nullptr;
    }

    std::shared_ptr<Chain> m_chain;
    std::shared_ptr<Batch> m_batch;
    std::size_t m_next = 0;
    mutable std::shared_ptr<Batch> m_ahead;
    mutable bool m_lookedAhead = false;
};

bool isFollowFailure(int error) noexcept
{
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == EACCES;
}

} // namespace

// ---- Batch ---------------------------------------------------------------------------------------

void Batch::appendName(std::string_view raw) { fl::i18n::append_native(m_names, raw); }

void Batch::add(bool isFile, std::optional<FileAttributes> file, std::optional<FolderAttributes> folder)
{
    std::uint32_t attributes = none;
    if (file) {
        attributes = static_cast<std::uint32_t>(m_fileAttributes.size());
        m_fileAttributes.push_back(*std::move(file));
    } else if (folder) {
        attributes = static_cast<std::uint32_t>(m_folderAttributes.size());
        m_folderAttributes.push_back(*std::move(folder));
    }
    m_entries.push_back(Entry{static_cast<std::uint32_t>(m_names.size()), attributes, isFile});
    m_committed = m_names.size();
}

void Batch::reserve(std::size_t entries, std::size_t nameUnits)
{
    m_entries.reserve(entries);
    m_names.reserve(nameUnits);
}

FolderEntry Batch::entry(std::size_t index) const
{
    const Entry& entry = m_entries[index];
    const std::size_t begin = index == 0 ? 0 : m_entries[index - 1].nameEnd;
    ustring name = m_names.substr(begin, entry.nameEnd - begin);
    if (entry.attributes == none)
        return FolderEntry(std::move(name), entry.isFile);
    if (entry.isFile)
        return FolderEntry(std::move(name), true, m_fileAttributes[entry.attributes]);
    return FolderEntry(std::move(name), false, std::nullopt, m_folderAttributes[entry.attributes]);
}

// ---- EntryInspector ------------------------------------------------------------------------------

bool EntryInspector::take(Batch& batch, int folder, const char* raw, unsigned char type, const StorageIRI& listed)
{
    if (!m_withAttributes && type != DT_LNK && type != DT_UNKNOWN) {
        const bool isFile = type != DT_DIR;
        if (keep(isFile))
            batch.add(isFile);
        else
            batch.drop();
        return !isFile;
    }
    const auto location = [&] { return StorageIRI(listed, ustring(batch.pendingName())); };
    struct stat info {};
    bool symlink = type == DT_LNK;
    bool enter = false;
    if (!symlink) {
        if (::fstatat(folder, raw, &info, AT_SYMLINK_NOFOLLOW) != 0) {
            if (const int error = errno; error != ENOENT)
                fail(error, "fstatat", location());
            batch.drop();
            return false;
        }
        symlink = S_ISLNK(info.st_mode);
        enter = S_ISDIR(info.st_mode);
    }
    if (symlink && ::fstatat(folder, raw, &info, 0) != 0) {
        if (const int error = errno; !isFollowFailure(error))
            fail(error, "fstatat", location());
        // Leads nowhere: a file without attributes.
        if (keep(true))
            batch.add(true);
        else
            batch.drop();
        return false;
    }
    const bool isFile = !S_ISDIR(info.st_mode);
    if (!keep(isFile)) {
        batch.drop();
        return enter;
    }
    if (!m_withAttributes) {
        batch.add(isFile);
        return enter;
    }
    if (!m_writeAccess)
        m_writeAccess.emplace(folder);
    const bool writable = m_writeAccess->allows(info);
    const std::u16string_view name = batch.pendingName();
    const std::u16string_view bare = name.substr(name.rfind(u'/') + 1);
    if (isFile)
        batch.add(true, fileAttributes(info, writable, symlink, bare));
    else
        batch.add(false, std::nullopt, folderAttributes(info, writable, symlink, bare));
    return enter;
}

// ---- the iterator --------------------------------------------------------------------------------

std::unique_ptr<IFolderEntryIterator> iterateBatches(std::unique_ptr<DirectoryWalk> walk)
{
    return std::make_unique<BatchIterator>(std::make_shared<Chain>(std::move(walk)));
}

FileDescriptor openListedFolder(const StorageIRI& location)
{
    const std::string path = nativePath(location);
    FileDescriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) {
        const int error = errno;
        struct stat info {};
        if (error == ENOTDIR && ::stat(path.c_str(), &info) == 0)
            failKind(location, u"not-a-folder");
        fail(error, "open", location);
    }
    return folder;
}

} // namespace foundation::storage::provider::local::detail
