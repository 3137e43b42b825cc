#include "EntryStream.hpp"

#include <foundation/storage/provider/PosixError.hpp>

#include <fl/i18n/ustring.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace foundation::storage::provider::archive::detail {

namespace {

// Beyond this a forward jump spills instead of inflating and dropping what it passes.
constexpr std::uint64_t longJump = 1 << 20;

[[noreturn]] void failRead(const std::string& what, ErrorCode code, ustring context)
{
    throwByteStreamFailure(StreamOperation::Read, what, code, {ExceptionContext(std::move(context))});
}

} // namespace

int unnamedTemporaryFile()
{
    const std::string folder = std::filesystem::temp_directory_path().string();
    int fd = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0) {
        if (std::FILE* file = std::tmpfile()) {
            fd = ::fcntl(fileno(file), F_DUPFD_CLOEXEC, 0);
            std::fclose(file);
        }
    }
    if (fd < 0)
        failRead(std::string("no temporary file to spill the entry to: ") + std::strerror(errno),
                 errno == ENOSPC ? ErrorCode::NoSpaceLeft : ErrorCode::IOError, u"spill");
    return fd;
}

namespace {

// The spool of a writing stream starts in memory and moves to a temporary file once it grows past
// this: most entries written are small, and an unnamed file costs its file system a journal
// transaction to make and another to drop, which on a busy disk takes milliseconds.
constexpr std::uint64_t memorySpoolBytes = 4 << 20;

int memorySpool(std::uint64_t size)
{
    const int fd = size <= memorySpoolBytes ? ::memfd_create("vfs-entry", MFD_CLOEXEC) : -1;
    return fd >= 0 ? fd : unnamedTemporaryFile();
}

// Moves the first `size` bytes of the memory spool `fd` to a temporary file, under the same
// descriptor; a spool already on disk stays.
void spoolToDisk(int fd, std::uint64_t size)
{
    if (::fcntl(fd, F_GET_SEALS) < 0)
        return; // not a memory file
    const int disk = unnamedTemporaryFile();
    std::vector<char> buffer(256 * 1024);
    bool moved = true;
    for (std::uint64_t done = 0; moved && done < size;) {
        const ssize_t got = ::pread(fd, buffer.data(), std::min<std::uint64_t>(buffer.size(), size - done), static_cast<off_t>(done));
        moved = got > 0 && ::pwrite(disk, buffer.data(), static_cast<std::size_t>(got), static_cast<off_t>(done)) == got;
        done += got > 0 ? static_cast<std::uint64_t>(got) : 0;
    }
    moved = moved && ::dup3(disk, fd, O_CLOEXEC) == fd;
    const int error = errno;
    ::close(disk);
    if (!moved)
        throwByteStreamFailure(StreamOperation::Write, std::string("spooling the entry: ") + std::strerror(error),
                               error == ENOSPC ? ErrorCode::NoSpaceLeft : ErrorCode::IOError, {ExceptionContext(u"spool")});
}

class EntryStream final : public ByteStream {
public:
    EntryStream(StorageIRI location, std::uint64_t size, std::function<std::unique_ptr<EntryReader>()> open)
        : m_location(std::move(location)), m_size(size), m_open(std::move(open))
    {
    }
    ~EntryStream() override
    {
        if (m_spill >= 0)
            ::close(m_spill);
    }

    std::streamsize read(char* s, std::streamsize n) override
    {
        checkOpen(StreamOperation::Read);
        if (n <= 0)
            return 0;
        if (m_position >= m_size)
            return -1;
        const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(static_cast<std::uint64_t>(n), m_size - m_position));
        return translated([&] {
            if (m_spill < 0)
                position();
            std::size_t got = 0;
            if (m_spill >= 0) {
                const ssize_t done = ::pread(m_spill, s, wanted, static_cast<off_t>(m_position));
                if (done < 0)
                    failRead(std::string("reading the spilled entry: ") + std::strerror(errno), ErrorCode::IOError, u"pread");
                got = static_cast<std::size_t>(done);
            } else {
                got = m_reader->read(s, wanted);
                m_readerPosition += got;
            }
            if (got == 0)
                failRead("the entry ends before its recorded size", ErrorCode::IOError, u"truncated-entry");
            m_position += got;
            return static_cast<std::streamsize>(got);
        });
    }

    std::streamsize write(const char*, std::streamsize) override
    {
        checkOpen(StreamOperation::Write);
        throwByteStreamFailure(StreamOperation::Write, "an archive entry opened for reading", ErrorCode::PermissionDenied,
                               {ExceptionContext(u"read-only-stream")});
    }

    std::streampos seek(std::streamoff off, std::ios_base::seekdir way) override
    {
        checkOpen(StreamOperation::Seek);
        m_position = seekTarget(m_position, m_size, off, way, m_location);
        return static_cast<std::streamoff>(m_position);
    }

    void flush() override { checkOpen(StreamOperation::Flush); }

    void close() override
    {
        checkOpen(StreamOperation::Close);
        m_closed = true;
        m_reader.reset();
        if (m_spill >= 0)
            ::close(std::exchange(m_spill, -1));
    }

private:
    void checkOpen(StreamOperation operation) const
    {
        if (m_closed)
            throwByteStreamFailure(operation, "the stream is closed", ErrorCode::InvalidLocation, {ExceptionContext(u"closed")});
    }

    // Provider failures of reopening the container come out as failures of the read.
    template <class Call>
    std::streamsize translated(Call&& call)
    {
        try {
            return call();
        } catch (const ContainerChanged&) {
            throwByteStreamFailure(StreamOperation::Read, "the archive changed while the entry was read", ErrorCode::IOError,
                                   {ExceptionContext(u"container-changed")});
        } catch (const Exception& error) {
            throwByteStreamFailure(StreamOperation::Read, fl::i18n::ustring_to_utf8_lossy(error.getMessage().empty() ? error.getStorageIRI().toString() : error.getMessage()),
                                   error.getErrorCode(), error.getAllExceptionContexts());
        }
    }

    // Brings the reader to m_position, or spills when it cannot get there cheaply.
    void position()
    {
        if (!m_reader) {
            m_reader = m_open();
            m_readerPosition = 0;
        }
        if (m_readerPosition == m_position)
            return;
        if (m_reader->seek(m_position)) {
            m_readerPosition = m_position;
            return;
        }
        if (m_position > m_readerPosition && m_position - m_readerPosition <= longJump) {
            char scratch[16 * 1024];
            while (m_readerPosition < m_position) {
                const std::size_t got = m_reader->read(scratch, static_cast<std::size_t>(std::min<std::uint64_t>(sizeof scratch, m_position - m_readerPosition)));
                if (got == 0)
                    failRead("the entry ends before its recorded size", ErrorCode::IOError, u"truncated-entry");
                m_readerPosition += got;
            }
            return;
        }
        spill();
    }

    void spill()
    {
        m_reader.reset();
        const int fd = unnamedTemporaryFile();
        try {
            const std::unique_ptr<EntryReader> reader = m_open();
            std::vector<char> buffer(256 * 1024);
            std::uint64_t written = 0;
            for (;;) {
                const std::size_t got = reader->read(buffer.data(), buffer.size());
                if (got == 0)
                    break;
                if (written + got > m_size)
                    failRead("the entry runs past its recorded size", ErrorCode::IOError, u"oversized-entry");
                for (std::size_t done = 0; done < got;) {
                    const ssize_t n = ::pwrite(fd, buffer.data() + done, got - done, static_cast<off_t>(written + done));
                    if (n < 0)
                        failRead(std::string("spilling the entry: ") + std::strerror(errno),
                                 errno == ENOSPC ? ErrorCode::NoSpaceLeft : ErrorCode::IOError, u"spill");
                    done += static_cast<std::size_t>(n);
                }
                written += got;
            }
            if (written != m_size)
                failRead("the entry ends before its recorded size", ErrorCode::IOError, u"truncated-entry");
        } catch (...) {
            ::close(fd);
            throw;
        }
        m_spill = fd;
    }

    StorageIRI m_location;
    std::uint64_t m_size;
    std::function<std::unique_ptr<EntryReader>()> m_open;
    std::unique_ptr<EntryReader> m_reader;
    std::uint64_t m_readerPosition = 0;
    std::uint64_t m_position = 0;
    int m_spill = -1;
    bool m_closed = false;
};

void writeAt(int fd, const char* data, std::size_t n, std::uint64_t offset, StreamOperation operation)
{
    while (n > 0) {
        const ssize_t put = ::pwrite(fd, data, n, static_cast<off_t>(offset));
        if (put < 0 && errno == EINTR)
            continue;
        if (put < 0)
            throwByteStreamFailure(operation, std::string("spooling the entry: ") + std::strerror(errno),
                                   errno == ENOSPC ? ErrorCode::NoSpaceLeft : ErrorCode::IOError, {ExceptionContext(u"pwrite")});
        data += put;
        n -= static_cast<std::size_t>(put);
        offset += static_cast<std::uint64_t>(put);
    }
}

class EntryWriteStream final : public TransactionalByteStream {
public:
    EntryWriteStream(StorageIRI location, int spool, ByteStreamOpenOptions options, bool transactional, std::uint64_t limit,
                     EntryCommit commit)
        : m_location(std::move(location)), m_fd(spool), m_options(options), m_transactional(transactional), m_limit(limit), m_commit(std::move(commit))
    {
        const off_t end = ::lseek(m_fd, 0, SEEK_END);
        m_size = end > 0 ? static_cast<std::uint64_t>(end) : 0;
    }
    ~EntryWriteStream() override
    {
        if (m_fd >= 0 && !m_transactional && m_dirty) {
            try {
                store();
            } catch (...) {
                // A destroyed stream reports nothing; close() is where failures are seen.
            }
        }
        if (m_fd >= 0)
            ::close(m_fd);
    }

    std::streamsize read(char* s, std::streamsize n) override
    {
        check(StreamOperation::Read);
        if (m_options.access != ByteStreamAccess::ReadWrite)
            throwByteStreamFailure(StreamOperation::Read, "the stream was opened for writing only", ErrorCode::PermissionDenied,
                                   {ExceptionContext(u"write-only-stream")});
        if (n <= 0)
            return 0;
        const ssize_t got = ::pread(m_fd, s, static_cast<std::size_t>(n), static_cast<off_t>(m_position));
        if (got < 0)
            throwByteStreamFailure(StreamOperation::Read, std::strerror(errno), ErrorCode::IOError, {ExceptionContext(u"pread")});
        if (got == 0)
            return -1;
        m_position += static_cast<std::uint64_t>(got);
        return got;
    }

    std::streamsize write(const char* s, std::streamsize n) override
    {
        check(StreamOperation::Write);
        if (!m_options.writeAtPosition)
            m_position = m_size;
        if (n > 0 && m_position + static_cast<std::uint64_t>(n) > m_limit)
            throwByteStreamFailure(StreamOperation::Write, "the entry would grow beyond the configured expansion limit",
                                   ErrorCode::NoSpaceLeft,
                                   {ExceptionContext(u"expansion-limit", fl::i18n::utf8_to_ustring(std::to_string(m_limit)))});
        if (!m_onDisk && n > 0 && m_position + static_cast<std::uint64_t>(n) > memorySpoolBytes) {
            spoolToDisk(m_fd, m_size);
            m_onDisk = true;
        }
        writeAt(m_fd, s, static_cast<std::size_t>(std::max<std::streamsize>(n, 0)), m_position, StreamOperation::Write);
        m_position += static_cast<std::uint64_t>(std::max<std::streamsize>(n, 0));
        m_size = std::max(m_size, m_position);
        m_dirty = true;
        return n;
    }

    std::streampos seek(std::streamoff off, std::ios_base::seekdir way) override
    {
        check(StreamOperation::Seek);
        m_position = seekTarget(m_position, m_size, off, way, m_location);
        return static_cast<std::streamoff>(m_position);
    }

    void flush() override
    {
        check(StreamOperation::Flush);
        if (!m_transactional && m_dirty)
            stored(StreamOperation::Flush);
    }

    using TransactionalByteStream::close;
    void close() override { close(m_transactional ? StreamClosePolicy::Discard : StreamClosePolicy::Commit); }
    void close(StreamClosePolicy policy) override
    {
        check(StreamOperation::Close);
        m_closed = true;
        const bool storing = m_transactional ? policy == StreamClosePolicy::Commit : m_dirty;
        m_dirty = false; // a failed store is reported here, not tried again when destroyed
        if (storing)
            stored(StreamOperation::Close);
        ::close(std::exchange(m_fd, -1));
    }

private:
    void check(StreamOperation operation) const
    {
        if (m_closed)
            throwByteStreamFailure(operation, "the stream is closed", ErrorCode::InvalidLocation, {ExceptionContext(u"closed")});
    }

    void store()
    {
        m_commit(m_fd, m_size);
        m_dirty = false;
    }

    // Storing fails as the stream operation that asked for it.
    void stored(StreamOperation operation)
    {
        try {
            store();
        } catch (const Exception& error) {
            throwByteStreamFailure(operation, fl::i18n::ustring_to_utf8_lossy(error.getMessage().empty() ? error.getStorageIRI().toString() : error.getMessage()),
                                   error.getErrorCode(), error.getAllExceptionContexts());
        } catch (const ByteStreamFailure& failure) {
            throwByteStreamFailure(operation, failure.what(), failure.getErrorCode(), failure.getAllExceptionContexts());
        }
    }

    StorageIRI m_location;
    int m_fd;
    ByteStreamOpenOptions m_options;
    bool m_transactional;
    std::uint64_t m_limit;
    EntryCommit m_commit;
    std::uint64_t m_position = 0;
    std::uint64_t m_size = 0;
    bool m_dirty = false;
    bool m_closed = false;
    bool m_onDisk = false;
};

} // namespace

int spoolEntry(EntryReader* reader, std::uint64_t size)
{
    const int fd = memorySpool(size);
    try {
        std::vector<char> buffer(256 * 1024);
        std::uint64_t written = 0;
        while (reader && written < size) {
            const std::size_t got = reader->read(buffer.data(), static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), size - written)));
            if (got == 0)
                break;
            writeAt(fd, buffer.data(), got, written, StreamOperation::Write);
            written += got;
        }
        if (::ftruncate(fd, static_cast<off_t>(size)) != 0)
            throwByteStreamFailure(StreamOperation::Write, std::string("spooling the entry: ") + std::strerror(errno),
                                   errno == ENOSPC || errno == EFBIG ? ErrorCode::NoSpaceLeft : ErrorCode::IOError,
                                   {ExceptionContext(u"ftruncate")});
    } catch (...) {
        ::close(fd);
        throw;
    }
    return fd;
}

std::unique_ptr<TransactionalByteStream> makeEntryWriteStream(StorageIRI location, int spool, ByteStreamOpenOptions options,
                                                              bool transactional,
                                                              std::uint64_t limit, EntryCommit commit)
{
    return std::make_unique<EntryWriteStream>(std::move(location), spool, options, transactional, limit, std::move(commit));
}

std::unique_ptr<ByteStream> makeEntryStream(StorageIRI location, std::uint64_t size,
                                            std::function<std::unique_ptr<EntryReader>()> open)
{
    return std::make_unique<EntryStream>(std::move(location), size, std::move(open));
}

} // namespace foundation::storage::provider::archive::detail
