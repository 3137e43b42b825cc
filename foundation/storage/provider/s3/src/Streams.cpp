#include "Streams.hpp"

#include <fl/i18n/ustring.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <future>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace foundation::storage::provider::s3::detail {

namespace {

// Runs `call`, turning a provider failure into the stream failure of `operation`.
template <class Call>
auto asStreamFailure(StreamOperation operation, Call&& call)
{
    try {
        return call();
    } catch (const Exception& error) {
        throwByteStreamFailure(operation, error.what(), error.getErrorCode(), error.getAllExceptionContexts());
    }
}

std::streamoff target(std::streamoff base, std::streamoff position, std::streamoff end, std::streamoff off,
                      std::ios_base::seekdir way)
{
    const std::streamoff from = way == std::ios_base::beg ? base : way == std::ios_base::cur ? position : end;
    const std::streamoff result = from + off;
    if (result < 0)
        throwByteStreamFailure(StreamOperation::Seek, "seek before the start of the stream", ErrorCode::InvalidLocation);
    return result;
}

class ReadStream final : public ByteStream {
public:
    ReadStream(std::shared_ptr<Store> store, StorageIRI location, ObjectInfo object)
        : m_store(std::move(store)), m_location(std::move(location)), m_place(placeOf(m_location)),
          m_object(std::move(object)), m_readAhead(m_store->client().settings().readAhead)
    {
    }

    std::streamsize read(char* s, std::streamsize n) override
    {
        check(StreamOperation::Read);
        if (n <= 0)
            return 0;
        if (m_position >= m_object.size)
            return -1;
        std::streamsize done = 0;
        while (done < n && m_position < m_object.size) {
            if (m_position < m_windowStart || m_position >= m_windowStart + m_window.size()) {
                // Reading on from where the last range ended: most likely to the end, so the next
                // ranges are worth asking for now (a reader that looks at the start and then jumps,
                // as an archive reader does, is not charged for them).
                const bool sequential = m_position != 0 && m_position == m_windowStart + m_window.size();
                Store::Range range;
                if (!m_ahead.empty() && m_ahead.front().start == m_position) {
                    range = asStreamFailure(StreamOperation::Read, [&] { return m_ahead.front().range.get(); });
                    m_ahead.pop_front();
                } else {
                    m_ahead.clear(); // a jump: what was fetched ahead is of no use
                    const std::uint64_t want = std::max<std::uint64_t>(m_readAhead, static_cast<std::uint64_t>(n - done));
                    const std::uint64_t size = std::min(want, m_object.size - m_position);
                    // The first range takes whichever version is there by now; every later one
                    // must be of the same version.
                    range = asStreamFailure(StreamOperation::Read, [&] {
                        return m_store->read(m_place.bucket, m_place.key, m_position, size,
                                             m_pinned ? m_object.etag : std::string(), m_location);
                    });
                }
                if (!m_pinned) {
                    m_pinned = true;
                    m_object.etag = range.etag;
                    m_object.size = range.total;
                }
                m_window = std::move(range.bytes);
                m_windowStart = m_position;
                if (m_window.empty())
                    break;
                if (sequential)
                    fetchAhead();
            }
            const std::uint64_t offset = m_position - m_windowStart;
            const auto count = static_cast<std::streamsize>(
                std::min<std::uint64_t>(m_window.size() - offset, static_cast<std::uint64_t>(n - done)));
            std::memcpy(s + done, m_window.data() + offset, static_cast<std::size_t>(count));
            done += count;
            m_position += static_cast<std::uint64_t>(count);
        }
        return done == 0 ? -1 : done;
    }

    std::streamsize write(const char*, std::streamsize) override
    {
        check(StreamOperation::Write);
        throwByteStreamFailure(StreamOperation::Write, "the stream is read-only", ErrorCode::PermissionDenied);
    }

    std::streampos seek(std::streamoff off, std::ios_base::seekdir way) override
    {
        check(StreamOperation::Seek);
        m_position = static_cast<std::uint64_t>(target(0, static_cast<std::streamoff>(m_position),
                                                       static_cast<std::streamoff>(m_object.size), off, way));
        return static_cast<std::streamoff>(m_position);
    }

    // What the object was like when the stream was opened: a copy takes it instead of asking again.
    std::optional<FileAttributes> attributesAtOpen() const override
    {
        return FileAttributes(m_object.size, m_object.lastModified, true, false, m_location.getName().starts_with(u"."));
    }

    void flush() override { check(StreamOperation::Flush); }
    void close() override
    {
        check(StreamOperation::Close);
        m_closed = true;
        m_ahead.clear();
        m_window = {};
    }

private:
    // A range asked for before it is read.
    struct Ahead {
        std::uint64_t start;
        std::future<Store::Range> range;
    };

    // While the object is read from start to end, the next ranges are on their way, several at
    // once, as the current one is consumed: one connection alone stays well below what the
    // server and the loopback can carry.
    void fetchAhead()
    {
        std::uint64_t next = m_ahead.empty() ? m_windowStart + m_window.size() : m_ahead.back().start + m_readAhead;
        while (m_ahead.size() < m_depth && next < m_object.size) {
            const std::uint64_t size = std::min(m_readAhead, m_object.size - next);
            m_ahead.push_back({next, std::async(std::launch::async, [store = m_store, place = m_place, etag = m_object.etag,
                                                                    location = m_location, next, size] {
                                   return store->read(place.bucket, place.key, next, size, etag, location);
                               })});
            next += size;
        }
    }

    void check(StreamOperation operation) const
    {
        if (m_closed)
            throwByteStreamFailure(operation, "the stream is closed", ErrorCode::InvalidLocation);
    }

    std::shared_ptr<Store> m_store;
    StorageIRI m_location;
    Place m_place;
    ObjectInfo m_object;
    std::uint64_t m_readAhead;
    std::size_t m_depth = static_cast<std::size_t>(m_store->client().settings().partsInFlight);
    std::deque<Ahead> m_ahead;
    std::uint64_t m_position = 0;
    std::string m_window;
    std::uint64_t m_windowStart = 0;
    bool m_pinned = false;
    bool m_closed = false;
};

int spoolFile()
{
    const char* folder = std::getenv("TMPDIR");
    const std::string dir = folder && *folder ? folder : "/tmp";
    int fd = ::open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0) {
        std::string pattern = dir + "/vfs-s3-XXXXXX";
        fd = ::mkostemp(pattern.data(), O_CLOEXEC);
        if (fd >= 0)
            ::unlink(pattern.c_str());
    }
    return fd;
}

// What is written is kept in memory while it is small, and goes to a spool file once it is not,
// to be uploaded whole. A transactional stream whose every write goes to the end streams instead:
// past the multipart threshold its parts are uploaded while the writer is still writing, and
// only the part being gathered is kept.
class SpoolStream final : public TransactionalByteStream {
public:
    SpoolStream(std::shared_ptr<Store> store, StorageIRI location, const ByteStreamOpenOptions& options, bool transactional)
        : m_store(std::move(store)), m_location(std::move(location)), m_place(placeOf(m_location)), m_options(options),
          m_transactional(transactional), m_threshold(m_store->client().settings().multipartThreshold)
    {
    }
    ~SpoolStream() override
    {
        if (!m_closed && !m_transactional && m_dirty) {
            try {
                upload();
            } catch (...) {
                // A destroyed stream reports nothing; close() is where failures are seen.
            }
        }
        if (m_fd >= 0)
            ::close(m_fd);
        // An unfinished multipart upload aborts as it is destroyed.
    }

    // Fills the stream with the object's content.
    void fetch(const ObjectInfo& object)
    {
        // The first chunk takes whichever version is there by now, the others that same version.
        const std::uint64_t chunk = std::uint64_t(8) << 20;
        std::string etag;
        std::uint64_t total = object.size;
        for (std::uint64_t offset = 0; offset < total; offset += chunk) {
            Store::Range range =
                m_store->read(m_place.bucket, m_place.key, offset, std::min(chunk, total - offset), etag, m_location);
            if (etag.empty()) {
                etag = range.etag;
                total = range.total;
            }
            writeAt(range.bytes.data(), range.bytes.size(), offset, StreamOperation::Write);
        }
        m_size = total;
    }

    void resize(std::uint64_t size)
    {
        if (m_fd < 0 && size <= m_threshold) {
            m_memory.resize(size);
        } else {
            spill(StreamOperation::Write);
            if (::ftruncate(m_fd, static_cast<off_t>(size)) != 0)
                throwProviderError(ErrorCode::NoSpaceLeft, m_location, {ExceptionContext(u"ftruncate")});
        }
        m_size = size;
        m_dirty = true;
    }

    std::streamsize read(char* s, std::streamsize n) override
    {
        check(StreamOperation::Read);
        if (m_options.access != ByteStreamAccess::ReadWrite)
            throwByteStreamFailure(StreamOperation::Read, "the stream was opened for writing only", ErrorCode::PermissionDenied);
        if (n <= 0)
            return 0;
        if (m_position >= m_size)
            return -1;
        const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(static_cast<std::uint64_t>(n), m_size - m_position));
        if (m_fd < 0) {
            std::memcpy(s, m_memory.data() + m_position, count);
        } else {
            const ssize_t got = ::pread(m_fd, s, count, static_cast<off_t>(m_position));
            if (got < 0)
                throwByteStreamFailure(StreamOperation::Read, std::strerror(errno), ErrorCode::IOError);
            if (got == 0)
                return -1;
            m_position += static_cast<std::uint64_t>(got);
            return got;
        }
        m_position += count;
        return static_cast<std::streamsize>(count);
    }

    std::streamsize write(const char* s, std::streamsize n) override
    {
        check(StreamOperation::Write);
        if (!m_options.writeAtPosition)
            m_position = m_size;
        asStreamFailure(StreamOperation::Write, [&] { writeAt(s, static_cast<std::size_t>(n), m_position, StreamOperation::Write); });
        m_position += static_cast<std::uint64_t>(n);
        m_size = std::max(m_size, m_position);
        m_dirty = true;
        return n;
    }

    std::streampos seek(std::streamoff off, std::ios_base::seekdir way) override
    {
        check(StreamOperation::Seek);
        m_position = static_cast<std::uint64_t>(
            target(0, static_cast<std::streamoff>(m_position), static_cast<std::streamoff>(m_size), off, way));
        return static_cast<std::streamoff>(m_position);
    }

    void flush() override
    {
        check(StreamOperation::Flush);
        if (!m_transactional && m_dirty)
            asStreamFailure(StreamOperation::Flush, [&] { upload(); });
    }

    using TransactionalByteStream::close;
    void close(StreamClosePolicy policy) override
    {
        check(StreamOperation::Close);
        const bool commit = !m_transactional || policy == StreamClosePolicy::Commit;
        const bool needed = m_transactional || m_dirty;
        m_closed = true;
        if (m_multipart && commit) {
            asStreamFailure(StreamOperation::Close, [&] {
                if (!m_memory.empty())
                    m_multipart->add(std::move(m_memory));
                m_multipart->complete();
            });
        } else if (m_multipart) {
            m_multipart->abort();
        } else if (commit && needed) {
            asStreamFailure(StreamOperation::Close, [&] { upload(); });
        }
        m_multipart.reset();
        m_memory = {};
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }
    void close() override { close(m_transactional ? StreamClosePolicy::Discard : StreamClosePolicy::Commit); }

    // Uploads the whole content at once (never called while streaming).
    void upload()
    {
        if (m_fd >= 0)
            m_store->upload(m_place.bucket, m_place.key, m_fd, m_size, m_location);
        else
            m_store->put(m_place.bucket, m_place.key, m_memory, false, m_location);
        m_dirty = false;
    }

private:
    // Only a transactional stream whose writes all go to its end can send its parts before it ends.
    bool streamable() const
    {
        return m_transactional && m_options.access == ByteStreamAccess::Write && !m_options.writeAtPosition;
    }

    void writeAt(const char* s, std::size_t n, std::uint64_t offset, StreamOperation operation)
    {
        if (m_multipart) { // streaming: writes come in order, the unsent tail is in memory
            m_memory.append(s, n);
            sendParts();
            return;
        }
        if (m_fd < 0) {
            const std::uint64_t end = offset + n;
            if (end <= m_threshold) {
                if (m_memory.size() < end)
                    m_memory.resize(end);
                std::memcpy(m_memory.data() + offset, s, n);
                return;
            }
            if (streamable() && offset == m_memory.size()) {
                m_multipart = std::make_unique<MultipartUpload>(*m_store, m_place.bucket, m_place.key, m_location);
                m_memory.append(s, n);
                sendParts();
                return;
            }
            spill(operation);
        }
        while (n > 0) {
            const ssize_t put = ::pwrite(m_fd, s, n, static_cast<off_t>(offset));
            if (put < 0) {
                if (errno == EINTR)
                    continue;
                throwByteStreamFailure(operation, std::string("spool: ") + std::strerror(errno),
                                       errno == ENOSPC ? ErrorCode::NoSpaceLeft : ErrorCode::IOError);
            }
            s += put;
            n -= static_cast<std::size_t>(put);
            offset += static_cast<std::uint64_t>(put);
        }
    }

    void sendParts()
    {
        for (std::uint64_t size; m_memory.size() >= (size = m_multipart->nextPartSize());) {
            std::string part = m_memory.substr(0, size);
            m_memory.erase(0, size);
            m_multipart->add(std::move(part));
        }
    }

    // Moves what is in memory to a spool file, which holds the content from then on.
    void spill(StreamOperation operation)
    {
        if (m_fd >= 0)
            return;
        m_fd = spoolFile();
        if (m_fd < 0)
            throwProviderError(ErrorCode::IOError, m_location, {ExceptionContext(u"open"), ExceptionContext(u"spool")},
                               fl::i18n::utf8_to_ustring_lossy(std::string("no spool file: ") + std::strerror(errno)));
        std::string memory = std::move(m_memory);
        m_memory = {};
        writeAt(memory.data(), memory.size(), 0, operation);
    }

    void check(StreamOperation operation) const
    {
        if (m_closed)
            throwByteStreamFailure(operation, "the stream is closed", ErrorCode::InvalidLocation);
    }

    std::shared_ptr<Store> m_store;
    StorageIRI m_location;
    Place m_place;
    ByteStreamOpenOptions m_options;
    bool m_transactional;
    std::uint64_t m_threshold;
    std::string m_memory;
    std::unique_ptr<MultipartUpload> m_multipart;
    int m_fd = -1;
    std::uint64_t m_position = 0;
    std::uint64_t m_size = 0;
    bool m_dirty = false;
    bool m_closed = false;
};

} // namespace

std::unique_ptr<ByteStream> makeReadStream(std::shared_ptr<Store> store, const StorageIRI& location, const ObjectInfo& object)
{
    return std::make_unique<ReadStream>(std::move(store), location, object);
}

std::unique_ptr<TransactionalByteStream> makeSpoolStream(std::shared_ptr<Store> store, const StorageIRI& location,
                                                         const std::optional<ObjectInfo>& existing,
                                                         const ByteStreamOpenOptions& options, bool transactional)
{
    auto stream = std::make_unique<SpoolStream>(store, location, options, transactional);
    if (existing && options.keepContent)
        stream->fetch(*existing);
    else if (!transactional && (!existing || existing->size != 0))
        stream->upload(); // the file is there (or emptied) from the moment it is opened, as on a disk
    return stream;
}

void resizeObject(std::shared_ptr<Store> store, const StorageIRI& location, const ObjectInfo& object, std::uint64_t size)
{
    SpoolStream stream(std::move(store), location, {}, true);
    if (size > 0)
        stream.fetch(object);
    stream.resize(size);
    stream.upload();
}

} // namespace foundation::storage::provider::s3::detail
