#include "ZipEdit.hpp"

#include "EntryStream.hpp"

#include <fl/i18n/ustring.hpp>

#include <zip.h>
#include <zlib.h>

#include <oneapi/tbb/task_arena.h>
#include <oneapi/tbb/task_group.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
extern "C" void AnnotateIgnoreReadsBegin(const char* file, int line);
extern "C" void AnnotateIgnoreReadsEnd(const char* file, int line);
#endif

namespace foundation::storage::provider::archive::detail {

namespace {

namespace pt = boost::posix_time;

constexpr zip_uint16_t ntfsField = 0x000a;
const pt::ptime ntfsEpoch(boost::gregorian::date(1601, 1, 1));
const pt::ptime unixEpoch(boost::gregorian::date(1970, 1, 1));
// Writes reach the container in pieces of at least this much.
constexpr std::size_t writeChunk = 256 * 1024;

std::string entryName(const Segments& path, bool folder)
{
    std::string name;
    for (const ustring& segment : path) {
        if (!name.empty())
            name.push_back('/');
        name += fl::i18n::ustring_to_utf8(segment);
    }
    if (folder)
        name.push_back('/');
    return name;
}

bool startsWith(const Segments& path, const Segments& prefix)
{
    return path.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), path.begin());
}

} // namespace

// A descriptor that added entries read from when the change is committed; the batch's spool also
// collects the content of every file the batch adds, deflated or as it is.
struct ZipEdit::Spool {
    int fd;
    std::mutex mutex;
    std::uint64_t size = 0; // under mutex
    explicit Spool(int descriptor) : fd(descriptor) {}
    Spool(const Spool&) = delete;
    Spool& operator=(const Spool&) = delete;
    ~Spool() { ::close(fd); }
    // Where `n` more bytes go.
    std::uint64_t reserve(std::uint64_t n)
    {
        std::lock_guard lock(mutex);
        return std::exchange(size, size + n);
    }
};

namespace {

// A file deflated ahead of the commit: where its deflated bytes are in the spool, and what the
// entry's header records.
struct Deflated {
    std::uint64_t start = 0, deflated = 0, size = 0;
    std::uint32_t crc = 0;
    int error = 0; // errno of a failure; EIO for one of zlib
};

// libzip's source for an added file: `size` bytes of a spool from `start`, read by offset; with
// `deflated`, the file's deflated bytes, which libzip then stores as they are.
struct Slice {
    std::shared_ptr<const void> keep; // the spool
    int fd;
    std::uint64_t start, size, position = 0;
    std::shared_ptr<const Deflated> deflated;
    zip_error_t error{};

    static zip_int64_t callback(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command)
    {
        auto* self = static_cast<Slice*>(state);
        switch (command) {
        case ZIP_SOURCE_OPEN:
            self->position = 0;
            if (self->deflated) { // finished by now: the commit waits for every file it deflates
                self->start = self->deflated->start;
                self->size = self->deflated->deflated;
            }
            return 0;
        case ZIP_SOURCE_READ: {
            const std::uint64_t want = std::min<std::uint64_t>(length, self->size - self->position);
            std::uint64_t done = 0;
            while (done < want) {
                const ssize_t got = ::pread(self->fd, static_cast<char*>(data) + done, want - done,
                                            static_cast<off_t>(self->start + self->position + done));
                if (got < 0 && errno == EINTR)
                    continue;
                if (got <= 0) {
                    zip_error_set(&self->error, ZIP_ER_READ, got < 0 ? errno : EIO);
                    return -1;
                }
                done += static_cast<std::uint64_t>(got);
            }
            self->position += done;
            return static_cast<zip_int64_t>(done);
        }
        case ZIP_SOURCE_CLOSE:
            return 0;
        case ZIP_SOURCE_STAT: {
            auto* stat = ZIP_SOURCE_GET_ARGS(zip_stat_t, data, length, &self->error);
            if (!stat)
                return -1;
            zip_stat_init(stat);
            stat->size = self->size;
            stat->valid |= ZIP_STAT_SIZE;
            if (const auto& deflated = self->deflated) {
                stat->size = deflated->size;
                stat->comp_size = deflated->deflated;
                stat->comp_method = ZIP_CM_DEFLATE;
                stat->crc = deflated->crc;
                stat->valid |= ZIP_STAT_COMP_SIZE | ZIP_STAT_COMP_METHOD | ZIP_STAT_CRC;
            }
            return sizeof(zip_stat_t);
        }
        case ZIP_SOURCE_ERROR:
            return zip_error_to_data(&self->error, data, length);
        case ZIP_SOURCE_FREE:
            zip_error_fini(&self->error);
            delete self;
            return 0;
        case ZIP_SOURCE_SUPPORTS:
            return zip_source_make_command_bitmap(ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE, ZIP_SOURCE_STAT,
                                                  ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE, ZIP_SOURCE_SUPPORTS, -1);
        default:
            zip_error_set(&self->error, ZIP_ER_OPNOTSUPP, 0);
            return -1;
        }
    }
};

// Writes `n` bytes of `data` to `fd` at `at`, all of them; false on a failure (errno tells it).
bool writeAt(int fd, const char* data, std::size_t n, std::uint64_t at)
{
    for (std::size_t done = 0; done < n;) {
        const ssize_t put = ::pwrite(fd, data + done, n - done, static_cast<off_t>(at + done));
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        done += static_cast<std::size_t>(put);
    }
    return true;
}

// Appends the first `size` bytes of `from` to `to` at `at`.
bool copyBytes(int from, std::uint64_t size, int to, std::uint64_t at)
{
    std::vector<char> buffer(std::min<std::uint64_t>(size, 1 << 20));
    for (std::uint64_t done = 0; done < size;) {
        const ssize_t got = ::pread(from, buffer.data(), std::min<std::uint64_t>(buffer.size(), size - done), static_cast<off_t>(done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        if (!writeAt(to, buffer.data(), static_cast<std::size_t>(got), at + done))
            return false;
        done += static_cast<std::uint64_t>(got);
    }
    return true;
}

// Files up to this size are deflated ahead, in memory; larger ones are deflated by libzip at the
// commit.
constexpr std::uint64_t deflateAheadBytes = 16 << 20;
// The compression level of zip and bsdtar (libzip's own default is 9).
constexpr int deflateLevel = 6;

// Deflates the first `size` bytes of `fd` into `out` (raw deflate, as a zip entry stores it) and
// sums their CRC; the errno of a failure, 0 when done.
int deflateFile(int fd, std::uint64_t size, std::vector<char>& out, std::uint32_t& crc)
{
    z_stream stream{};
    if (deflateInit2(&stream, deflateLevel, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        return ENOMEM;
    out.resize(deflateBound(&stream, static_cast<uLong>(size)));
    std::vector<char> in(static_cast<std::size_t>(std::min<std::uint64_t>(size, 256 * 1024)));
    uLong sum = crc32(0, nullptr, 0);
    int error = 0;
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    for (std::uint64_t done = 0; !error && done < size;) {
        const ssize_t got = ::pread(fd, in.data(), static_cast<std::size_t>(std::min<std::uint64_t>(in.size(), size - done)),
                                    static_cast<off_t>(done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            error = got < 0 ? errno : EIO;
            break;
        }
        done += static_cast<std::uint64_t>(got);
        sum = crc32(sum, reinterpret_cast<const Bytef*>(in.data()), static_cast<uInt>(got));
        stream.next_in = reinterpret_cast<Bytef*>(in.data());
        stream.avail_in = static_cast<uInt>(got);
        // The output holds deflateBound(): every call takes all of its input.
        if (deflate(&stream, done == size ? Z_FINISH : Z_NO_FLUSH) == Z_STREAM_ERROR || stream.avail_in != 0)
            error = EIO;
    }
    if (!error && stream.total_out > out.size())
        error = EIO;
    out.resize(error ? 0 : stream.total_out);
    deflateEnd(&stream);
    crc = static_cast<std::uint32_t>(sum);
    return error;
}

} // namespace

// Deflates added files on oneTBB's threads while the batch goes on. With many files waiting, the
// caller deflates them too until none waits: that bounds the memory they hold. oneTBB hands a job
// to its thread, and the end of the job back, through synchronisation that ThreadSanitizer cannot
// see; the annotations make both visible to it and cost nothing in other builds.
struct ZipEdit::Deflater {
    static constexpr unsigned backlog = 8;
    struct Job {
        Deflater* deflater;
        std::shared_ptr<Spool> spool;
        int fd;
        std::shared_ptr<Deflated> file;
    };
    // An arena of the deflater's own: a caller waiting in it deflates files, and runs no task of
    // whatever arena it came from (which could enter it again).
    tbb::task_arena arena;
    tbb::task_group group;
    std::atomic<unsigned> waiting{0};
    std::vector<std::shared_ptr<Deflated>> files;

    // Deflates the first `size` bytes of `fd` (taken over) into `spool`.
    std::shared_ptr<const Deflated> add(const std::shared_ptr<Spool>& spool, int fd, std::uint64_t size)
    {
        auto file = std::make_shared<Deflated>();
        file->size = size;
        files.push_back(file);
        if (waiting.load() >= backlog)
            wait();
        ++waiting;
        Job* job = new Job{this, spool, fd, file};
#if defined(__SANITIZE_THREAD__)
        __tsan_release(job);
#endif
        arena.execute([this, job] { group.run([job] { run(job); }); });
        return file;
    }

    static void run(Job* const& captured)
    {
#if defined(__SANITIZE_THREAD__)
        AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
        const std::unique_ptr<Job> job(captured);
        AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
        __tsan_acquire(job.get());
#else
        const std::unique_ptr<Job> job(captured);
#endif
        Deflated& file = *job->file;
        try {
            std::vector<char> out;
            file.error = deflateFile(job->fd, file.size, out, file.crc);
            if (!file.error) {
                file.deflated = out.size();
                file.start = job->spool->reserve(out.size());
                if (!writeAt(job->spool->fd, out.data(), out.size(), file.start))
                    file.error = errno ? errno : EIO;
            }
        } catch (const std::bad_alloc&) {
            file.error = ENOMEM;
        }
        ::close(job->fd);
#if defined(__SANITIZE_THREAD__)
        __tsan_release(&file);
#endif
        --job->deflater->waiting;
    }

    // Waits for every file, deflating some meanwhile.
    void wait()
    {
        arena.execute([this] { group.wait(); });
#if defined(__SANITIZE_THREAD__)
        for (const auto& file : files)
            __tsan_acquire(file.get());
#endif
    }

    // Waits for every file; the errno of the first that failed, 0 when none did.
    int finish()
    {
        wait();
        for (const auto& file : files)
            if (file->error)
                return file->error;
        return 0;
    }
};

std::optional<pt::ptime> recordedTime(zip_t* zip, std::uint64_t index)
{
    zip_uint16_t length = 0;
    const zip_uint8_t* data = zip_file_extra_field_get_by_id(zip, index, ntfsField, 0, &length, ZIP_FL_CENTRAL);
    if (!data)
        return std::nullopt;
    const auto number = [&](std::size_t at, int bytes) {
        std::uint64_t value = 0;
        for (int i = bytes - 1; i >= 0; --i)
            value = value << 8 | data[at + static_cast<std::size_t>(i)];
        return value;
    };
    // Four reserved bytes, then tagged attributes; tag 1 holds mtime, atime and ctime.
    for (std::size_t at = 4; at + 4 <= length;) {
        const auto tag = number(at, 2), size = number(at + 2, 2);
        if (tag == 1 && size >= 8 && at + 12 <= length)
            return ntfsEpoch + pt::microseconds(static_cast<std::int64_t>(number(at + 4, 8) / 10));
        at += 4 + size;
    }
    return std::nullopt;
}

// libzip's view of the container: reads come from its read stream, writes go to its transactional
// stream, opened when libzip begins writing and committed when it is done.
struct ZipEdit::Source {
    ContainerAccess access;
    StorageIRI container;
    std::unique_ptr<CachedContainer> current; // null when the container is missing
    std::uint64_t position = 0;
    std::unique_ptr<TransactionalByteStream> out;
    std::vector<char> pending;
    std::uint64_t pendingStart = 0, outPosition = 0, writePosition = 0, writeSize = 0;
    bool removed = false, wrote = false;
    CaughtFailure caught;
    zip_error_t error{};

    Source() { zip_error_init(&error); }
    ~Source() { zip_error_fini(&error); }

    std::uint64_t size() const { return current ? current->size() : 0; }

    void beginWrite()
    {
        out = access.resolve(container)->openTransactionalStream(
            container, {ByteStreamAccess::Write, ByteStreamCreation::CreateIfMissing, 0, 1});
        pending.clear();
        pending.reserve(writeChunk);
        outPosition = writePosition = writeSize = 0;
    }
    void flushPending()
    {
        if (pending.empty())
            return;
        if (outPosition != pendingStart)
            out->seek(static_cast<std::streamoff>(pendingStart), std::ios_base::beg);
        out->write(pending.data(), static_cast<std::streamsize>(pending.size()));
        outPosition = pendingStart + pending.size();
        pending.clear();
    }
    void write(const char* data, std::size_t n)
    {
        if (pending.empty())
            pendingStart = writePosition;
        pending.insert(pending.end(), data, data + n);
        writePosition += n;
        writeSize = std::max(writeSize, writePosition);
        if (pending.size() >= writeChunk)
            flushPending();
    }

    zip_int64_t handle(void* data, zip_uint64_t length, zip_source_cmd_t command)
    {
        switch (command) {
        case ZIP_SOURCE_OPEN:
            position = 0;
            return 0;
        case ZIP_SOURCE_READ: {
            const std::size_t got = current ? current->readAt(position, static_cast<char*>(data), length) : 0;
            position += got;
            return static_cast<zip_int64_t>(got);
        }
        case ZIP_SOURCE_CLOSE:
        case ZIP_SOURCE_FREE:
            return 0;
        case ZIP_SOURCE_STAT: {
            if (!current) { // libzip makes a new archive for a source that is not there
                zip_error_set(&error, ZIP_ER_READ, ENOENT);
                return -1;
            }
            auto* stat = ZIP_SOURCE_GET_ARGS(zip_stat_t, data, length, &error);
            if (!stat)
                return -1;
            zip_stat_init(stat);
            stat->size = size();
            stat->valid |= ZIP_STAT_SIZE;
            return sizeof(zip_stat_t);
        }
        case ZIP_SOURCE_ERROR:
            return zip_error_to_data(&error, data, length);
        case ZIP_SOURCE_SEEK: {
            const zip_int64_t to = zip_source_seek_compute_offset(position, size(), data, length, &error);
            if (to < 0)
                return -1;
            position = static_cast<std::uint64_t>(to);
            return 0;
        }
        case ZIP_SOURCE_TELL:
            return static_cast<zip_int64_t>(position);
        case ZIP_SOURCE_BEGIN_WRITE:
            beginWrite();
            return 0;
        case ZIP_SOURCE_WRITE:
            write(static_cast<const char*>(data), length);
            return static_cast<zip_int64_t>(length);
        case ZIP_SOURCE_SEEK_WRITE: {
            const zip_int64_t to = zip_source_seek_compute_offset(writePosition, writeSize, data, length, &error);
            if (to < 0)
                return -1;
            flushPending();
            writePosition = static_cast<std::uint64_t>(to);
            return 0;
        }
        case ZIP_SOURCE_TELL_WRITE:
            return static_cast<zip_int64_t>(writePosition);
        case ZIP_SOURCE_COMMIT_WRITE:
            flushPending();
            std::exchange(out, nullptr)->close(StreamClosePolicy::Commit);
            wrote = true;
            return 0;
        case ZIP_SOURCE_ROLLBACK_WRITE:
            out.reset(); // an unclosed transactional stream discards what it holds
            return 0;
        case ZIP_SOURCE_REMOVE:
            removed = true; // the archive lost its last entry: written empty, never deleted
            return 0;
        case ZIP_SOURCE_ACCEPT_EMPTY:
            return 0;
        case ZIP_SOURCE_SUPPORTS:
            return zip_source_make_command_bitmap(
                ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE, ZIP_SOURCE_STAT, ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE,
                ZIP_SOURCE_SEEK, ZIP_SOURCE_TELL, ZIP_SOURCE_SUPPORTS, ZIP_SOURCE_ACCEPT_EMPTY, ZIP_SOURCE_BEGIN_WRITE,
                ZIP_SOURCE_COMMIT_WRITE, ZIP_SOURCE_ROLLBACK_WRITE, ZIP_SOURCE_WRITE, ZIP_SOURCE_SEEK_WRITE,
                ZIP_SOURCE_TELL_WRITE, ZIP_SOURCE_REMOVE, -1);
        default:
            zip_error_set(&error, ZIP_ER_OPNOTSUPP, 0);
            return -1;
        }
    }

    static zip_int64_t callback(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command)
    {
        auto& self = *static_cast<Source*>(state);
        try {
            return self.handle(data, length, command);
        } catch (...) {
            self.caught.error = std::current_exception();
            self.out.reset();
            zip_error_set(&self.error, command == ZIP_SOURCE_READ ? ZIP_ER_READ : ZIP_ER_WRITE, EIO);
            return -1;
        }
    }

    // An archive without entries: its end-of-directory record alone.
    void writeEmpty()
    {
        char record[22] = {'P', 'K', 5, 6};
        beginWrite();
        write(record, sizeof record);
        flushPending();
        std::exchange(out, nullptr)->close(StreamClosePolicy::Commit);
    }
};

ZipEdit::ZipEdit(const ContainerAccess& access, bool missing, bool batched) : m_access(access), m_source(std::make_unique<Source>())
{
    if (batched) {
        m_deflater = std::make_unique<Deflater>();
        try {
            m_spool = std::make_shared<Spool>(unnamedTemporaryFile());
        } catch (const ByteStreamFailure& failure) {
            throwProviderError(failure.getErrorCode(), access.location.getInnerIRI(), {ExceptionContext(u"spool")},
                               fl::i18n::utf8_to_ustring_lossy(failure.what()));
        }
    }
    m_source->access = access;
    m_source->container = access.location.getInnerIRI();
    try {
        if (!missing) {
            std::unique_ptr<ByteStream> stream = openContainer(access.resolve, access.location);
            const auto end = static_cast<std::uint64_t>(static_cast<std::streamoff>(stream->seek(0, std::ios_base::end)));
            stream->seek(0, std::ios_base::beg);
            m_source->current = std::make_unique<CachedContainer>(std::move(stream), end);
        }
    } catch (const ByteStreamFailure& failure) {
        throwProviderError(failure.getErrorCode(), m_source->container, {ExceptionContext(u"container-read")},
                           fl::i18n::utf8_to_ustring_lossy(failure.what()));
    }
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* source = zip_source_function_create(&Source::callback, m_source.get(), &error);
    if (source)
        m_zip = zip_open_from_source(source, ZIP_CREATE, &error);
    if (!m_zip) {
        if (source)
            zip_source_free(source);
        const std::string why = zip_error_strerror(&error);
        zip_error_fini(&error);
        m_source->caught.rethrowIfAny();
        throwProviderError(ErrorCode::IOError, m_source->container,
                           {ExceptionContext(u"archive-read"), ExceptionContext(u"zip_open", fl::i18n::utf8_to_ustring_lossy(why))},
                           fl::i18n::utf8_to_ustring_lossy("not a readable archive: " + why));
    }
    zip_error_fini(&error);
}

ZipEdit::~ZipEdit()
{
    if (m_deflater)
        m_deflater->finish();
    if (m_zip)
        zip_discard(m_zip);
}

void ZipEdit::fail(const char16_t* call) const
{
    if (m_source->caught.error) {
        try {
            std::rethrow_exception(std::exchange(m_source->caught.error, nullptr));
        } catch (const ByteStreamFailure& failure) {
            ExceptionContexts contexts = failure.getAllExceptionContexts();
            contexts.emplace_front(dynamic_cast<const ByteStreamReadFailure*>(&failure) ? u"container-read" : u"container-write");
            throwProviderError(failure.getErrorCode(), m_source->container, std::move(contexts),
                               fl::i18n::utf8_to_ustring_lossy(failure.what()));
        }
    }
    zip_error_t* error = zip_get_error(m_zip);
    const ErrorCode code = zip_error_code_zip(error) == ZIP_ER_MEMORY ? ErrorCode::InternalError : ErrorCode::IOError;
    const ustring why = fl::i18n::utf8_to_ustring_lossy(zip_error_strerror(error));
    throwProviderError(code, m_source->container, {ExceptionContext(call, why)}, why);
}

ZipEdit::Paths& ZipEdit::paths() const
{
    if (m_paths)
        return *m_paths;
    Paths& paths = m_paths.emplace();
    const zip_int64_t count = zip_get_num_entries(m_zip, 0);
    for (zip_int64_t i = 0; i < count; ++i) {
        const char* name = zip_get_name(m_zip, static_cast<zip_uint64_t>(i), ZIP_FL_ENC_GUESS);
        if (!name)
            continue; // removed by this change
        auto segments = entrySegments(name);
        if (segments && !segments->empty())
            paths[std::move(*segments)].emplace_back(static_cast<std::uint64_t>(i), std::string_view(name).ends_with('/'));
    }
    return paths;
}

void ZipEdit::unmap(std::uint64_t index, const Segments& path)
{
    if (!m_paths)
        return;
    const auto found = m_paths->find(path);
    if (found == m_paths->end())
        return;
    std::erase_if(found->second, [&](const auto& entry) { return entry.first == index; });
    if (found->second.empty())
        m_paths->erase(found);
}

std::vector<ZipEdit::Match> ZipEdit::entries(const Segments& path, bool below) const
{
    std::vector<Match> found;
    const Paths& all = paths();
    for (auto at = all.lower_bound(path); at != all.end() && (at->first == path || (below && startsWith(at->first, path))); ++at)
        for (const auto& [index, folder] : at->second)
            found.push_back({index, at->first, folder});
    std::sort(found.begin(), found.end(), [](const Match& a, const Match& b) { return a.index < b.index; });
    return found;
}

void ZipEdit::remove(std::uint64_t index)
{
    const char* name = zip_get_name(m_zip, index, ZIP_FL_ENC_GUESS);
    const auto segments = name ? entrySegments(name) : std::nullopt;
    if (zip_delete(m_zip, index) != 0)
        fail(u"zip_delete");
    if (segments)
        unmap(index, *segments);
}

void ZipEdit::rename(const Match& entry, const Segments& path)
{
    if (zip_file_rename(m_zip, entry.index, entryName(path, entry.folder).c_str(), ZIP_FL_ENC_UTF_8) != 0)
        fail(u"zip_file_rename");
    unmap(entry.index, entry.path);
    if (m_paths)
        (*m_paths)[path].emplace_back(entry.index, entry.folder);
}

std::uint64_t ZipEdit::added(const Segments& path, std::int64_t index, bool folder, std::uint64_t size)
{
    const auto at = static_cast<std::uint64_t>(index);
    if (m_paths)
        (*m_paths)[path].emplace_back(at, folder);
    if (m_spool)
        m_added.push_back({entryName(path, folder), folder, size});
    setMode(at, folder ? S_IFDIR | 0755 : S_IFREG | 0644);
    setTime(at, pt::microsec_clock::universal_time());
    return at;
}

std::uint64_t ZipEdit::addFolder(const Segments& path)
{
    const zip_int64_t index = zip_dir_add(m_zip, entryName(path, false).c_str(), ZIP_FL_ENC_UTF_8);
    if (index < 0)
        fail(u"zip_dir_add");
    return added(path, index, true, 0);
}

std::uint64_t ZipEdit::addFile(const Segments& path, int fd, std::uint64_t size)
{
    zip_source_t* source = nullptr;
    std::shared_ptr<const Deflated> deflated;
    if (fd < 0 || size == 0) {
        source = zip_source_buffer(m_zip, nullptr, 0, 0);
    } else {
        std::shared_ptr<Spool> spool = m_spool;
        std::uint64_t start = 0;
        const int copy = spool && size > deflateAheadBytes ? -1 : ::dup(fd);
        if (spool && copy >= 0) {
            deflated = m_deflater->add(spool, copy, size);
        } else if (spool) { // the caller's descriptor is gone by the time the batch commits
            start = spool->reserve(size);
            if (!copyBytes(fd, size, spool->fd, start))
                throwProviderError(errno == ENOSPC ? ErrorCode::NoSpaceLeft : ErrorCode::IOError, m_source->container,
                                   {ExceptionContext(u"spool")}, fl::i18n::utf8_to_ustring_lossy(std::strerror(errno)));
        } else if (copy >= 0) {
            spool = std::make_shared<Spool>(copy);
        }
        if (spool) {
            auto* slice = new Slice{spool, spool->fd, start, size, 0, deflated};
            zip_error_init(&slice->error);
            source = zip_source_function(m_zip, &Slice::callback, slice);
            if (!source) {
                zip_error_fini(&slice->error);
                delete slice;
            }
        }
    }
    if (!source)
        fail(u"zip_source");
    const zip_int64_t index = zip_file_add(m_zip, entryName(path, false).c_str(), source, ZIP_FL_ENC_UTF_8);
    if (index < 0) {
        zip_source_free(source);
        fail(u"zip_file_add");
    }
    // libzip deflates the others at the commit.
    if (fd >= 0 && size > 0 && !deflated && zip_set_file_compression(m_zip, static_cast<zip_uint64_t>(index), ZIP_CM_DEFLATE, deflateLevel) != 0)
        fail(u"zip_set_file_compression");
    return added(path, index, false, size);
}

void ZipEdit::setTime(std::uint64_t index, pt::ptime time)
{
    // The DOS time every reader knows holds 1980 to 2107 in two-second steps; the NTFS field keeps
    // the time itself.
    const std::int64_t dos = std::clamp<std::int64_t>((time - unixEpoch).total_seconds(), 315'619'200, 4'354'732'800);
    if (zip_file_set_mtime(m_zip, index, static_cast<time_t>(dos), 0) != 0)
        fail(u"zip_file_set_mtime");
    const auto ticks = static_cast<std::uint64_t>((time - ntfsEpoch).total_microseconds()) * 10;
    zip_uint8_t field[32] = {};
    field[4] = 1;  // tag 1
    field[6] = 24; // three times
    for (int i = 0; i < 3; ++i)
        for (int b = 0; b < 8; ++b)
            field[8 + i * 8 + b] = static_cast<zip_uint8_t>(ticks >> (8 * b));
    zip_file_extra_field_delete_by_id(m_zip, index, ntfsField, ZIP_EXTRA_FIELD_ALL, ZIP_FL_LOCAL | ZIP_FL_CENTRAL);
    if (zip_file_extra_field_set(m_zip, index, ntfsField, ZIP_EXTRA_FIELD_NEW, field, sizeof field,
                                 ZIP_FL_LOCAL | ZIP_FL_CENTRAL) != 0)
        fail(u"zip_file_extra_field_set");
}

std::optional<std::uint32_t> ZipEdit::mode(std::uint64_t index) const
{
    zip_uint8_t system = 0;
    zip_uint32_t attributes = 0;
    if (zip_file_get_external_attributes(m_zip, index, 0, &system, &attributes) != 0 || system != ZIP_OPSYS_UNIX ||
        (attributes >> 16) == 0)
        return std::nullopt;
    return attributes >> 16;
}

void ZipEdit::setMode(std::uint64_t index, std::uint32_t mode)
{
    if (zip_file_set_external_attributes(m_zip, index, 0, ZIP_OPSYS_UNIX, mode << 16) != 0)
        fail(u"zip_file_set_external_attributes");
}

void ZipEdit::keepFolder(const Segments& path)
{
    if (!path.empty() && entries(path, true).empty())
        addFolder(path);
}

void ZipEdit::commit(bool createEmpty)
{
    if (const int error = m_deflater ? m_deflater->finish() : 0)
        throwProviderError(error == ENOSPC ? ErrorCode::NoSpaceLeft : ErrorCode::IOError, m_source->container,
                           {ExceptionContext(u"spool")}, fl::i18n::utf8_to_ustring_lossy(std::strerror(error)));
    if (zip_close(m_zip) != 0)
        fail(u"zip_close");
    m_zip = nullptr;
    try {
        if (m_source->removed || (createEmpty && !m_source->current && !m_source->wrote))
            m_source->writeEmpty();
    } catch (const ByteStreamFailure& failure) {
        throwProviderError(failure.getErrorCode(), m_source->container, {ExceptionContext(u"container-write")},
                           fl::i18n::utf8_to_ustring_lossy(failure.what()));
    }
}

} // namespace foundation::storage::provider::archive::detail
