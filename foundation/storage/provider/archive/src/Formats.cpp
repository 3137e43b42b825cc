#include "Formats.hpp"
#include "EntryStream.hpp"
#include "ZipEdit.hpp"

#include <fl/i18n/ustring.hpp>

#include <archive.h>
#include <archive_entry.h>
#include <zip.h>

#include <boost/date_time/posix_time/conversion.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace foundation::storage::provider::archive::detail {

namespace {

// The archive library refused the container: it is truncated, corrupt or no archive of the format.
[[noreturn]] void notReadable(const StorageIRI& container, std::u16string_view call, const char* why)
{
    const std::string reason = why ? why : "unknown error";
    throwProviderError(ErrorCode::IOError, container,
                       {ExceptionContext(u"archive-read"), ExceptionContext(ustring(call), fl::i18n::utf8_to_ustring_lossy(reason))},
                       fl::i18n::utf8_to_ustring_lossy("not a readable archive: " + reason));
}

std::unique_ptr<CachedContainer> openCached(const ContainerAccess& access)
{
    std::unique_ptr<ByteStream> stream = openContainer(access.resolve, access.location);
    const auto end = static_cast<std::uint64_t>(static_cast<std::streamoff>(stream->seek(0, std::ios_base::end)));
    stream->seek(0, std::ios_base::beg);
    return std::make_unique<CachedContainer>(std::move(stream), end);
}

boost::posix_time::ptime timeOf(std::time_t seconds, long nanoseconds = 0)
{
    return boost::posix_time::from_time_t(seconds) + boost::posix_time::microseconds(nanoseconds / 1000);
}

// ---- zip, through libzip ----------------------------------------------------------------------

ErrorCode zipErrorCode(int error)
{
    switch (error) {
    case ZIP_ER_NOPASSWD:
    case ZIP_ER_WRONGPASSWD:
        return ErrorCode::PermissionDenied;
    case ZIP_ER_COMPNOTSUPP:
    case ZIP_ER_ENCRNOTSUPP:
        return ErrorCode::UnsupportedOperation;
    case ZIP_ER_MEMORY:
        return ErrorCode::InternalError;
    default:
        return ErrorCode::IOError;
    }
}

} // namespace

struct ZipHandle {
    std::unique_ptr<CachedContainer> container;
    CaughtFailure caught;
    zip_error_t error{};
    std::uint64_t position = 0;
    zip_t* zip = nullptr;

    ZipHandle() { zip_error_init(&error); }
    ZipHandle(const ZipHandle&) = delete;
    ZipHandle& operator=(const ZipHandle&) = delete;
    ~ZipHandle()
    {
        if (zip)
            zip_discard(zip);
        zip_error_fini(&error);
    }

    // libzip's view of the container: a seekable, read-only source.
    static zip_int64_t source(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command)
    {
        ZipHandle& self = *static_cast<ZipHandle*>(state);
        switch (command) {
        case ZIP_SOURCE_OPEN:
            self.position = 0;
            return 0;
        case ZIP_SOURCE_READ:
            try {
                const std::size_t got = self.container->readAt(self.position, static_cast<char*>(data), length);
                self.position += got;
                return static_cast<zip_int64_t>(got);
            } catch (...) {
                self.caught.error = std::current_exception();
                zip_error_set(&self.error, ZIP_ER_READ, EIO);
                return -1;
            }
        case ZIP_SOURCE_CLOSE:
        case ZIP_SOURCE_FREE:
            return 0;
        case ZIP_SOURCE_STAT: {
            if (length < sizeof(zip_stat_t)) {
                zip_error_set(&self.error, ZIP_ER_INVAL, 0);
                return -1;
            }
            auto* stat = static_cast<zip_stat_t*>(data);
            zip_stat_init(stat);
            stat->size = self.container->size();
            stat->valid |= ZIP_STAT_SIZE;
            return sizeof(zip_stat_t);
        }
        case ZIP_SOURCE_ERROR:
            return zip_error_to_data(&self.error, data, length);
        case ZIP_SOURCE_SEEK: {
            const zip_int64_t to = zip_source_seek_compute_offset(self.position, self.container->size(), data, length, &self.error);
            if (to < 0)
                return -1;
            self.position = static_cast<std::uint64_t>(to);
            return 0;
        }
        case ZIP_SOURCE_TELL:
            return static_cast<zip_int64_t>(self.position);
        case ZIP_SOURCE_ACCEPT_EMPTY:
            return 0; // an empty file is no zip
        case ZIP_SOURCE_SUPPORTS:
            return zip_source_make_command_bitmap(ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE, ZIP_SOURCE_STAT,
                                                  ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE, ZIP_SOURCE_SEEK, ZIP_SOURCE_TELL,
                                                  ZIP_SOURCE_SUPPORTS, ZIP_SOURCE_ACCEPT_EMPTY, -1);
        default:
            zip_error_set(&self.error, ZIP_ER_OPNOTSUPP, 0);
            return -1;
        }
    }

    static std::unique_ptr<ZipHandle> open(const ContainerAccess& access)
    {
        auto handle = std::make_unique<ZipHandle>();
        handle->container = openCached(access);
        zip_error_t error;
        zip_error_init(&error);
        zip_source_t* source = zip_source_function_create(&ZipHandle::source, handle.get(), &error);
        if (source)
            handle->zip = zip_open_from_source(source, ZIP_RDONLY, &error);
        if (!handle->zip) {
            if (source)
                zip_source_free(source);
            const std::string why = zip_error_strerror(&error);
            zip_error_fini(&error);
            handle->caught.rethrowIfAny();
            notReadable(access.location.getInnerIRI(), u"zip_open", why.c_str());
        }
        zip_error_fini(&error);
        return handle;
    }
};

ZipHandlePool::ZipHandlePool() = default;
ZipHandlePool::~ZipHandlePool() = default;

std::unique_ptr<ZipHandle> ZipHandlePool::take()
{
    std::lock_guard lock(m_mutex);
    if (m_idle.empty())
        return nullptr;
    auto handle = std::move(m_idle.back());
    m_idle.pop_back();
    return handle;
}

void ZipHandlePool::give(std::unique_ptr<ZipHandle> handle)
{
    zip_error_clear(handle->zip);
    std::lock_guard lock(m_mutex);
    if (m_idle.size() < 4)
        m_idle.push_back(std::move(handle));
}

namespace {

class ZipEntryReader final : public EntryReader {
public:
    ZipEntryReader(std::shared_ptr<const Index> index, std::unique_ptr<ZipHandle> handle, zip_file_t* file, bool window)
        : m_index(std::move(index)), m_handle(std::move(handle)), m_file(file), m_window(window)
    {
    }
    ~ZipEntryReader() override
    {
        zip_fclose(m_file);
        if (!m_handle->caught.error)
            m_index->zipHandles->give(std::move(m_handle));
    }

    std::size_t read(char* out, std::size_t n) override
    {
        const zip_int64_t got = zip_fread(m_file, out, n);
        if (got >= 0)
            return static_cast<std::size_t>(got);
        m_handle->caught.rethrowIfAny();
        zip_error_t* error = zip_file_get_error(m_file);
        throwByteStreamFailure(StreamOperation::Read, std::string("zip entry: ") + zip_error_strerror(error),
                               zipErrorCode(zip_error_code_zip(error)), {ExceptionContext(u"zip_fread")});
    }

    bool seek(std::uint64_t offset) override
    {
        return m_window && zip_fseek(m_file, static_cast<zip_int64_t>(offset), SEEK_SET) == 0;
    }

private:
    std::shared_ptr<const Index> m_index;
    std::unique_ptr<ZipHandle> m_handle;
    zip_file_t* m_file;
    bool m_window;
};

std::shared_ptr<const Index> buildZipIndex(const ContainerAccess& access, Stamp stamp)
{
    auto index = std::make_shared<Index>(access.location.getInnerIRI(), stamp);
    index->zipHandles = std::make_shared<ZipHandlePool>();
    auto handle = ZipHandle::open(access);
    const zip_int64_t count = zip_get_num_entries(handle->zip, 0);
    for (zip_int64_t i = 0; i < count; ++i) {
        zip_stat_t stat;
        if (zip_stat_index(handle->zip, static_cast<zip_uint64_t>(i), ZIP_FL_ENC_GUESS, &stat) != 0 || !(stat.valid & ZIP_STAT_NAME))
            continue;
        const std::string_view name = stat.name;
        bool folder = !name.empty() && name.back() == '/';
        std::optional<std::uint32_t> mode;
        zip_uint8_t system = 0;
        zip_uint32_t attributes = 0;
        if (zip_file_get_external_attributes(handle->zip, static_cast<zip_uint64_t>(i), 0, &system, &attributes) == 0 &&
            system == ZIP_OPSYS_UNIX && (attributes >> 16) != 0) {
            const std::uint32_t unixMode = attributes >> 16;
            if (S_ISDIR(unixMode))
                folder = true;
            else if (!S_ISREG(unixMode))
                continue; // links and special files
            mode = unixMode & 07777;
        }
        Entry entry;
        entry.ordinal = static_cast<std::uint64_t>(i);
        entry.encrypted = stat.encryption_method != ZIP_EM_NONE;
        entry.window = stat.comp_method == ZIP_CM_STORE && !entry.encrypted;
        index->add(name, folder, stat.size, detail::recordedTime(handle->zip, static_cast<zip_uint64_t>(i)).value_or(timeOf(stat.mtime)), mode, entry);
    }
    index->zipHandles->give(std::move(handle));
    return index;
}

std::unique_ptr<EntryReader> openZipEntry(const ContainerAccess& access, const std::shared_ptr<const Index>& index,
                                          const Entry& entry)
{
    std::unique_ptr<ZipHandle> handle = index->zipHandles->take();
    if (!handle) {
        handle = ZipHandle::open(access);
        if (handle->container->size() != index->stamp().size)
            throw ContainerChanged{};
    }
    zip_file_t* file = access.passphrase.empty()
                           ? zip_fopen_index(handle->zip, entry.ordinal, 0)
                           : zip_fopen_index_encrypted(handle->zip, entry.ordinal, 0, access.passphrase.c_str());
    if (!file) {
        handle->caught.rethrowIfAny();
        zip_error_t* error = zip_get_error(handle->zip);
        const ErrorCode code = zipErrorCode(zip_error_code_zip(error));
        const ustring why = fl::i18n::utf8_to_ustring_lossy(zip_error_strerror(error));
        index->zipHandles->give(std::move(handle));
        throwProviderError(code, access.location, {ExceptionContext(u"zip_fopen", why)},
                           code == ErrorCode::PermissionDenied ? u"the entry is encrypted: " + why : why);
    }
    return std::make_unique<ZipEntryReader>(index, std::move(handle), file, entry.window);
}

// ---- tar, through libarchive --------------------------------------------------------------------

class TarReader;

// The decompressed bytes of a compressed container, block by block, as a raw reader of it yields
// them; each block is also copied to `spill` while the copy stays within `limit` bytes.
struct PlainFeed {
    TarReader& raw;
    int spill;
    std::uint64_t limit;
    std::uint64_t written = 0;
    bool copying = true;

    // The next block (valid until the next call); empty at the end.
    std::span<const char> next();
};

// libarchive reading a container through its cached stream, or the tar inside a compressed
// container through a PlainFeed.
class TarReader {
public:
    // `raw`: the container's decompressed bytes as the data of one entry.
    explicit TarReader(const ContainerAccess& access, bool raw = false)
        : m_container(openCached(access)), m_archive(archive_read_new())
    {
        archive_read_support_filter_all(m_archive);
        if (raw)
            archive_read_support_format_raw(m_archive);
        else
            archive_read_support_format_tar(m_archive);
        archive_read_set_skip_callback(m_archive, &TarReader::skip);
        archive_read_set_seek_callback(m_archive, &TarReader::seekTo);
        open(access.location.getInnerIRI());
    }
    TarReader(PlainFeed& feed, const StorageIRI& container) : m_archive(archive_read_new()), m_feed(&feed)
    {
        archive_read_support_filter_all(m_archive);
        archive_read_support_format_tar(m_archive);
        open(container);
    }
    TarReader(const TarReader&) = delete;
    TarReader& operator=(const TarReader&) = delete;
    ~TarReader() { archive_read_free(m_archive); }

    ::archive* get() const noexcept { return m_archive; }
    std::uint64_t containerSize() const noexcept { return m_container->size(); }
    CaughtFailure& caught() noexcept { return m_caught; }

    // The next header; nullptr at the end.
    archive_entry* next(const StorageIRI& container)
    {
        archive_entry* entry = nullptr;
        const int status = archive_read_next_header(m_archive, &entry);
        if (status == ARCHIVE_EOF)
            return nullptr;
        if (status < ARCHIVE_WARN)
            fail(container, u"archive_read_next_header");
        return entry;
    }

    [[noreturn]] void fail(const StorageIRI& container, std::u16string_view call)
    {
        m_caught.rethrowIfAny();
        notReadable(container, call, archive_error_string(m_archive));
    }

private:
    void open(const StorageIRI& container)
    {
        archive_read_set_read_callback(m_archive, &TarReader::readBlock);
        archive_read_set_callback_data(m_archive, this);
        if (archive_read_open1(m_archive) != ARCHIVE_OK) {
            // The destructor does not run for a constructor that throws.
            try {
                fail(container, u"archive_read_open");
            } catch (...) {
                archive_read_free(m_archive);
                throw;
            }
        }
    }

    static la_ssize_t readBlock(::archive* archive, void* state, const void** buffer)
    {
        auto& self = *static_cast<TarReader*>(state);
        try {
            const std::span<const char> block = self.m_feed ? self.m_feed->next() : self.m_container->blockAt(self.m_position);
            self.m_position += block.size();
            *buffer = block.data();
            return static_cast<la_ssize_t>(block.size());
        } catch (...) {
            self.m_caught.error = std::current_exception();
            archive_set_error(archive, EIO, "the container could not be read");
            return ARCHIVE_FATAL;
        }
    }
    static la_int64_t skip(::archive*, void* state, la_int64_t request)
    {
        auto& self = *static_cast<TarReader*>(state);
        const auto step = std::min<std::uint64_t>(static_cast<std::uint64_t>(std::max<la_int64_t>(request, 0)),
                                                  self.m_container->size() - std::min(self.m_position, self.m_container->size()));
        self.m_position += step;
        return static_cast<la_int64_t>(step);
    }
    static la_int64_t seekTo(::archive*, void* state, la_int64_t offset, int whence)
    {
        auto& self = *static_cast<TarReader*>(state);
        const auto base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? static_cast<la_int64_t>(self.m_position)
                                                                        : static_cast<la_int64_t>(self.m_container->size());
        if (base + offset < 0)
            return ARCHIVE_FATAL;
        self.m_position = static_cast<std::uint64_t>(base + offset);
        return base + offset;
    }

    std::unique_ptr<CachedContainer> m_container;
    ::archive* m_archive;
    PlainFeed* m_feed = nullptr;
    CaughtFailure m_caught;
    std::uint64_t m_position = 0;
};

std::span<const char> PlainFeed::next()
{
    const void* block = nullptr;
    std::size_t size = 0;
    la_int64_t offset = 0;
    const int status = archive_read_data_block(raw.get(), &block, &size, &offset);
    if (status == ARCHIVE_EOF)
        return {};
    if (status < ARCHIVE_WARN) {
        raw.caught().rethrowIfAny();
        const char* why = archive_error_string(raw.get());
        throwByteStreamFailure(StreamOperation::Read, std::string("decompressing the archive: ") + (why ? why : "unreadable"),
                               ErrorCode::IOError, {ExceptionContext(u"archive_read_data_block")});
    }
    // The raw format hands the stream on in order, without holes.
    if (copying && (static_cast<std::uint64_t>(offset) != written || written + size > limit))
        copying = false;
    for (std::size_t done = 0; copying && done < size;) {
        const ssize_t put = ::pwrite(spill, static_cast<const char*>(block) + done, size - done, static_cast<off_t>(written));
        if (put < 0 && errno == EINTR)
            continue;
        copying = put > 0; // a full temporary folder only costs the copy
        done += copying ? static_cast<std::size_t>(put) : 0;
        written += copying ? static_cast<std::uint64_t>(put) : 0;
    }
    return {static_cast<const char*>(block), size};
}

} // namespace

// Readers of a compressed tar, each past the header of the entry `ordinal`. A reader goes on only
// forward: reading the entries in their order (an extraction) decompresses the archive once,
// where a reader of its own for each entry would decompress everything before it again.
class TarReaderPool {
public:
    struct Kept {
        std::uint64_t ordinal;
        std::unique_ptr<TarReader> reader;
    };
    // The idle reader that is furthest on but not past `ordinal`.
    ~TarReaderPool()
    {
        if (m_plain >= 0)
            ::close(m_plain);
        if (m_counted)
            *m_counted -= m_countedBytes;
    }
    std::optional<Kept> take(std::uint64_t ordinal)
    {
        std::lock_guard lock(m_mutex);
        auto best = m_idle.end();
        for (auto at = m_idle.begin(); at != m_idle.end(); ++at)
            if (at->ordinal < ordinal && (best == m_idle.end() || at->ordinal > best->ordinal))
                best = at;
        if (best == m_idle.end()) {
            m_misses += m_idle.empty() ? 0 : 1;
            return std::nullopt;
        }
        Kept kept = std::move(*best);
        m_idle.erase(best);
        return kept;
    }
    // Takes over `plain` (when not -1), a decompressed copy of the archive made while indexing,
    // of `size` bytes counted in `counted` until the pool goes.
    void adopt(int plain, std::uint64_t size, std::shared_ptr<std::atomic<std::uint64_t>> counted)
    {
        std::lock_guard lock(m_mutex);
        m_plain = plain;
        if (plain >= 0 && counted) {
            m_counted = std::move(counted);
            m_countedBytes = size;
        }
    }
    void give(Kept kept)
    {
        std::lock_guard lock(m_mutex);
        if (m_idle.size() >= 4)
            m_idle.erase(m_idle.begin());
        m_idle.push_back(std::move(kept));
    }

    // The whole archive decompressed into an unnamed temporary file, made once entries have been
    // read out of order a few times (an extraction in another order than the archive's, which
    // would decompress the archive again for nearly every entry) and when it takes at most
    // `plainLimit` bytes; -1 otherwise. Entries are then windows on it.
    int plainCopy(const ContainerAccess& access, std::uint64_t size)
    {
        {
            std::lock_guard lock(m_mutex);
            if (m_plain >= 0 || m_misses < 3 || size > std::min(plainLimit, access.expansionLimit))
                return m_plain;
        }
        std::lock_guard spilling(m_spillMutex);
        {
            std::lock_guard lock(m_mutex);
            if (m_plain >= 0 || m_spillFailed)
                return m_plain;
        }
        int fd = -1;
        try {
            TarReader reader(access, true);
            if (reader.next(access.location.getInnerIRI())) {
                fd = unnamedTemporaryFile();
                std::vector<char> buffer(256 * 1024);
                std::uint64_t written = 0;
                for (la_ssize_t got; (got = archive_read_data(reader.get(), buffer.data(), buffer.size())) > 0;) {
                    if (::pwrite(fd, buffer.data(), static_cast<std::size_t>(got), static_cast<off_t>(written)) != got)
                        throw std::runtime_error("spill");
                    written += static_cast<std::uint64_t>(got);
                }
                if (written < size)
                    throw std::runtime_error("short");
            }
        } catch (...) { // reading each entry from the start still works
            if (fd >= 0)
                ::close(std::exchange(fd, -1));
        }
        std::lock_guard lock(m_mutex);
        m_spillFailed = fd < 0;
        return m_plain = fd;
    }

private:
    static constexpr std::uint64_t plainLimit = std::uint64_t{4} << 30;
    std::mutex m_mutex, m_spillMutex;
    std::vector<Kept> m_idle;
    unsigned m_misses = 0;
    int m_plain = -1;
    std::shared_ptr<std::atomic<std::uint64_t>> m_counted;
    std::uint64_t m_countedBytes = 0;
    bool m_spillFailed = false;
};

namespace {

// An entry of a decompressed copy of the archive, read in place.
class PlainCopyReader final : public EntryReader {
public:
    PlainCopyReader(std::shared_ptr<TarReaderPool> pool, int fd, std::uint64_t start, std::uint64_t size)
        : m_pool(std::move(pool)), m_fd(fd), m_start(start), m_size(size)
    {
    }
    std::size_t read(char* out, std::size_t n) override
    {
        const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(n, m_size - std::min(m_position, m_size)));
        const ssize_t got = wanted == 0 ? 0 : ::pread(m_fd, out, wanted, static_cast<off_t>(m_start + m_position));
        if (got < 0)
            throwByteStreamFailure(StreamOperation::Read, std::string("tar entry: ") + std::strerror(errno), ErrorCode::IOError,
                                   {ExceptionContext(u"spill")});
        m_position += static_cast<std::uint64_t>(got);
        return static_cast<std::size_t>(got);
    }
    bool seek(std::uint64_t offset) override
    {
        m_position = offset;
        return true;
    }

private:
    std::shared_ptr<TarReaderPool> m_pool; // keeps the copy open
    int m_fd;
    std::uint64_t m_start, m_size, m_position = 0;
};

} // namespace

namespace {

// Adds the entries that `reader` reads from `first` on to `index`; `container` when it reads the
// container itself, whose uncompressed entries are then windows on it.
void indexTarEntries(TarReader& reader, archive_entry* first, Index& index, bool container)
{
    std::uint64_t ordinal = 0;
    for (archive_entry* entry = first; entry; entry = reader.next(index.container()), ++ordinal) {
        const auto type = archive_entry_filetype(entry);
        if ((type != AE_IFREG && type != AE_IFDIR) || archive_entry_hardlink(entry))
            continue; // links and special files
        const char* name = archive_entry_pathname_utf8(entry);
        if (!name)
            name = archive_entry_pathname(entry);
        if (!name)
            continue;
        Entry where;
        where.ordinal = ordinal;
        where.dataOffset = static_cast<std::uint64_t>(archive_filter_bytes(reader.get(), 0));
        where.sparse = archive_entry_sparse_count(entry) != 0;
        where.window = container && archive_filter_code(reader.get(), 0) == ARCHIVE_FILTER_NONE && !where.sparse;
        index.plainSize = std::max<std::uint64_t>(index.plainSize, where.dataOffset + static_cast<std::uint64_t>(std::max<la_int64_t>(archive_entry_size(entry), 0)));
        index.add(name, type == AE_IFDIR, static_cast<std::uint64_t>(archive_entry_size(entry)),
                  timeOf(archive_entry_mtime(entry), archive_entry_mtime_nsec(entry)), archive_entry_perm(entry), where);
    }
}

// A compressed tar is decompressed into a temporary file while it is indexed when it takes at most
// this many bytes decompressed: a listing alone pays for writing it, an extraction saves
// decompressing the archive again (or, in any other order than the archive's, again and again).
constexpr std::uint64_t indexingCopyLimit = std::uint64_t{1} << 30;

// What all the copies made while indexing may hold together (temporary files outlive the
// listing that made them, for as long as their index is kept).
constexpr std::uint64_t indexingCopiesBudget = std::uint64_t{2} << 30;

// Indexes a compressed tar while keeping its decompressed bytes (up to `limit`) in a temporary
// file; returns that file, or -1 when it could not be kept whole. Entries are then windows on it,
// so the archive is decompressed once, whatever order its entries are read in.
int indexKeepingPlainCopy(const ContainerAccess& access, Index& index, std::uint64_t limit)
{
    const StorageIRI& container = index.container();
    TarReader raw(access, true);
    if (!raw.next(container))
        return -1;
    int spill = -1;
    try {
        spill = unnamedTemporaryFile();
    } catch (const ByteStreamFailure&) { // indexing goes on without a copy
    }
    PlainFeed feed{raw, spill, limit, 0, spill >= 0};
    try {
        TarReader reader(feed, container);
        indexTarEntries(reader, reader.next(container), index, false);
        // A copy that is still compressed (a tar compressed twice) would not hold the entries'
        // offsets.
        if (archive_filter_code(reader.get(), 0) != ARCHIVE_FILTER_NONE || feed.written < index.plainSize)
            feed.copying = false;
    } catch (...) {
        if (spill >= 0)
            ::close(spill);
        throw;
    }
    if (!feed.copying && spill >= 0)
        ::close(std::exchange(spill, -1));
    return spill;
}

std::shared_ptr<const Index> buildTarIndex(const ContainerAccess& access, Stamp stamp)
{
    const StorageIRI container = access.location.getInnerIRI();
    auto index = std::make_shared<Index>(container, stamp);
    index->tarReaders = std::make_shared<TarReaderPool>();
    std::optional<TarReader> reader(std::in_place, access);
    archive_entry* first = reader->next(container);
    const std::uint64_t held = access.plainCopies ? access.plainCopies->load() : 0;
    const std::uint64_t limit =
        std::min({indexingCopyLimit, access.expansionLimit, indexingCopiesBudget - std::min(held, indexingCopiesBudget)});
    if (first && archive_filter_code(reader->get(), 0) != ARCHIVE_FILTER_NONE && limit > 0) {
        reader.reset();
        const int plain = indexKeepingPlainCopy(access, *index, limit);
        if (plain >= 0 && access.plainCopies)
            *access.plainCopies += index->plainSize;
        index->tarReaders->adopt(plain, index->plainSize, access.plainCopies);
        return index;
    }
    indexTarEntries(*reader, first, *index, true);
    return index;
}

// An uncompressed entry read in place.
class WindowReader final : public EntryReader {
public:
    WindowReader(std::unique_ptr<CachedContainer> container, std::uint64_t start, std::uint64_t size)
        : m_container(std::move(container)), m_start(start), m_size(size)
    {
    }
    std::size_t read(char* out, std::size_t n) override
    {
        const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(n, m_size - std::min(m_position, m_size)));
        const std::size_t got = m_container->readAt(m_start + m_position, out, wanted);
        m_position += got;
        return got;
    }
    bool seek(std::uint64_t offset) override
    {
        m_position = offset;
        return true;
    }

private:
    std::unique_ptr<CachedContainer> m_container;
    std::uint64_t m_start;
    std::uint64_t m_size;
    std::uint64_t m_position = 0;
};

// A compressed (or sparse) tar entry: the stream is read up to the entry, from its start or from
// where a reader of an earlier entry stopped.
class TarEntryReader final : public EntryReader {
public:
    TarEntryReader(const ContainerAccess& access, const std::shared_ptr<const Index>& index, std::uint64_t ordinal)
        : m_pool(index->tarReaders), m_container(access.location.getInnerIRI()), m_ordinal(ordinal)
    {
        std::uint64_t at = 0; // the headers read
        if (auto kept = m_pool ? m_pool->take(ordinal) : std::nullopt) {
            m_reader = std::move(kept->reader);
            at = kept->ordinal + 1;
        } else {
            m_reader = std::make_unique<TarReader>(access);
            if (m_reader->containerSize() != index->stamp().size)
                throw ContainerChanged{};
        }
        for (; at <= ordinal; ++at)
            if (!m_reader->next(m_container))
                notReadable(m_container, u"archive_read_next_header", "the entry is gone");
    }
    ~TarEntryReader() override
    {
        if (m_pool && !m_failed)
            m_pool->give({m_ordinal, std::move(m_reader)});
    }
    std::size_t read(char* out, std::size_t n) override
    {
        const la_ssize_t got = archive_read_data(m_reader->get(), out, n);
        if (got >= 0)
            return static_cast<std::size_t>(got);
        m_failed = true;
        m_reader->caught().rethrowIfAny();
        const char* why = archive_error_string(m_reader->get());
        throwByteStreamFailure(StreamOperation::Read, std::string("tar entry: ") + (why ? why : "unreadable"),
                               ErrorCode::IOError, {ExceptionContext(u"archive_read_data")});
    }
    bool seek(std::uint64_t) override { return false; }

private:
    std::shared_ptr<TarReaderPool> m_pool;
    std::unique_ptr<TarReader> m_reader;
    StorageIRI m_container;
    std::uint64_t m_ordinal;
    bool m_failed = false;
};

} // namespace

std::shared_ptr<const Index> buildIndex(const ContainerAccess& access, Stamp stamp)
{
    try {
        return access.format == ArchiveFormat::Zip ? buildZipIndex(access, stamp) : buildTarIndex(access, stamp);
    } catch (const ByteStreamFailure& failure) {
        throwProviderError(failure.getErrorCode(), access.location.getInnerIRI(),
                           {ExceptionContext(u"container-read")}, fl::i18n::utf8_to_ustring_lossy(failure.what()));
    }
}

std::unique_ptr<EntryReader> openEntryReader(const ContainerAccess& access, const std::shared_ptr<const Index>& index,
                                             const Node& node)
{
    const Entry& entry = *node.entry;
    try {
        if (access.format == ArchiveFormat::Zip)
            return openZipEntry(access, index, entry);
        if (entry.window) {
            auto container = openCached(access);
            if (container->size() != index->stamp().size)
                throw ContainerChanged{};
            return std::make_unique<WindowReader>(std::move(container), entry.dataOffset, node.size);
        }
        if (const auto& pool = index->tarReaders; pool && !entry.sparse) {
            if (const int plain = pool->plainCopy(access, index->plainSize); plain >= 0)
                return std::make_unique<PlainCopyReader>(pool, plain, entry.dataOffset, node.size);
        }
        return std::make_unique<TarEntryReader>(access, index, entry.ordinal);
    } catch (const ByteStreamFailure& failure) {
        throwProviderError(failure.getErrorCode(), access.location.getInnerIRI(),
                           {ExceptionContext(u"container-read")}, fl::i18n::utf8_to_ustring_lossy(failure.what()));
    }
}

} // namespace foundation::storage::provider::archive::detail
