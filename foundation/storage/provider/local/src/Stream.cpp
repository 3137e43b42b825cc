// Byte streams on the local disk. One descriptor per stream; reads and writes go straight to the
// kernel at the stream's own position (pread/pwrite), so the stream holds no buffer and needs no
// flush. Transactional streams write a temporary file beside the target that takes the target's
// name on commit (fsync, then rename): a reader, or the disk after a crash, holds the old file or
// the whole new one.

#include "Native.hpp"

#include <foundation/storage/provider/PosixError.hpp>

#include <cerrno>
#include <cstdio>
#include <limits>
#include <random>

#include <fcntl.h>
#include <unistd.h>

namespace foundation::storage::provider::local::detail {

// The process id is part of the name: children forked from one process inherit its generator's
// state and would otherwise try the same names, colliding with what a killed sibling left behind.
std::string temporaryName(const char* prefix)
{
    thread_local std::mt19937_64 random{std::random_device{}()};
    char name[80];
    std::snprintf(name, sizeof name, "%s%x-%016llx", prefix, static_cast<unsigned>(::getpid()),
                  static_cast<unsigned long long>(random()));
    return name;
}

namespace {

void checkOptions(const ByteStreamOpenOptions& options, const StorageIRI& location)
{
    const bool access = options.access == ByteStreamAccess::Write || options.access == ByteStreamAccess::ReadWrite;
    const bool creation =
        options.creation == ByteStreamCreation::CreateIfMissing || options.creation == ByteStreamCreation::OpenExisting;
    if (!access || !creation)
        throwProviderError(ErrorCode::InvalidLocation, location, {ExceptionContext(u"open"), ExceptionContext(u"bad-open-options")});
}

// Reads and writes one descriptor at a position of its own.
class Positioned {
public:
    Positioned(FileDescriptor file, StorageIRI location, bool readable, bool writable, bool append)
        : m_file(std::move(file)), m_location(std::move(location)), m_readable(readable), m_writable(writable),
          m_append(append)
    {
    }

    std::streamsize read(char* s, std::streamsize n)
    {
        usable(StreamOperation::Read, m_readable, "pread");
        if (n <= 0)
            return 0;
        for (;;) {
            const ssize_t got = m_sequential ? ::read(m_file.get(), s, static_cast<std::size_t>(n))
                                             : ::pread(m_file.get(), s, static_cast<std::size_t>(n), m_position);
            if (got < 0 && errno == ESPIPE && !m_sequential) {
                // A pipe, FIFO, socket or terminal has no positions: it is read in order.
                m_sequential = true;
                continue;
            }
            if (got > 0) {
                m_position += got;
                return got;
            }
            if (got == 0)
                return -1;
            if (errno != EINTR)
                throwPosixStreamError(StreamOperation::Read, errno, "pread", m_location);
        }
    }

    std::streamsize write(const char* s, std::streamsize n)
    {
        usable(StreamOperation::Write, m_writable, m_append ? "write" : "pwrite");
        for (std::streamsize done = 0; done < n;) {
            const auto rest = static_cast<std::size_t>(n - done);
            // With O_APPEND the kernel puts every write at the end, wherever the position is.
            const ssize_t put = m_append || m_sequential ? ::write(m_file.get(), s + done, rest)
                                                         : ::pwrite(m_file.get(), s + done, rest, m_position);
            if (put < 0) {
                if (errno == EINTR)
                    continue;
                if (errno == ESPIPE && !m_sequential) {
                    m_sequential = true;
                    continue;
                }
                throwPosixStreamError(StreamOperation::Write, errno, m_append ? "write" : "pwrite", m_location);
            }
            done += put;
            m_position += put;
        }
        if (m_append && n > 0)
            m_position = ::lseek(m_file.get(), 0, SEEK_CUR);
        return n;
    }

    std::streampos seek(std::streamoff off, std::ios_base::seekdir way)
    {
        usable(StreamOperation::Seek, true, "seek");
        off_t base = 0;
        if (way == std::ios_base::cur) {
            base = m_position;
        } else if (way == std::ios_base::end) {
            struct stat info {};
            if (::fstat(m_file.get(), &info) != 0)
                throwPosixStreamError(StreamOperation::Seek, errno, "fstat", m_location);
            base = info.st_size;
        } else if (way != std::ios_base::beg) {
            throwPosixStreamError(StreamOperation::Seek, EINVAL, "seek", m_location);
        }
        if ((off > 0 && base > std::numeric_limits<off_t>::max() - off) || base + off < 0)
            throwPosixStreamError(StreamOperation::Seek, EINVAL, "seek", m_location);
        m_position = base + off;
        return m_position;
    }

    void flush() { usable(StreamOperation::Flush, true, "flush"); }

    void close()
    {
        usable(StreamOperation::Close, true, "close");
        if (const int error = m_file.close())
            throwPosixStreamError(StreamOperation::Close, error, "close", m_location);
    }

    FileDescriptor& file() noexcept { return m_file; }
    const StorageIRI& location() const noexcept { return m_location; }
    off_t position() const noexcept { return m_position; }

    void usable(StreamOperation operation, bool allowed, const char* call) const
    {
        if (!m_file)
            throwPosixStreamError(operation, EBADF, call, m_location, ErrorCode::IOError);
        if (!allowed)
            throwPosixStreamError(operation, EBADF, call, m_location, ErrorCode::PermissionDenied);
    }

private:
    FileDescriptor m_file;
    StorageIRI m_location;
    off_t m_position = 0;
    bool m_readable;
    bool m_writable;
    bool m_append;
    bool m_sequential = false; // set once the descriptor turned out to have no positions
};

class LocalStream final : public ByteStream {
public:
    explicit LocalStream(Positioned file) : m_file(std::move(file)) {}
    std::streamsize read(char* s, std::streamsize n) override { return m_file.read(s, n); }
    std::streamsize write(const char* s, std::streamsize n) override { return m_file.write(s, n); }
    std::streampos seek(std::streamoff off, std::ios_base::seekdir way) override { return m_file.seek(off, way); }
    void flush() override { m_file.flush(); }
    void close() override { m_file.close(); }

private:
    Positioned m_file;
};

class LocalTransactionalStream final : public TransactionalByteStream {
public:
    LocalTransactionalStream(FileDescriptor folder, std::string name, std::unique_ptr<TemporaryFile> temporary,
                             Positioned file, bool durable)
        : m_folder(std::move(folder)), m_name(std::move(name)), m_temporary(std::move(temporary)), m_file(std::move(file)),
          m_durable(durable)
    {
    }

    std::streamsize read(char* s, std::streamsize n) override { return m_file.read(s, n); }
    std::streamsize write(const char* s, std::streamsize n) override
    {
        const std::streamsize written = m_file.write(s, n);
        if (m_durable)
            startWriteback();
        return written;
    }
    std::streampos seek(std::streamoff off, std::ios_base::seekdir way) override { return m_file.seek(off, way); }
    void flush() override { m_file.flush(); }
    using TransactionalByteStream::close;

    // A failed commit leaves the stream open, so that it can be retried or discarded.
    void close(StreamClosePolicy policy) override
    {
        m_file.usable(StreamOperation::Close, true, "close");
        if (policy == StreamClosePolicy::Commit) {
            const int fd = m_file.file().get();
            if (m_durable && ::fsync(fd) != 0)
                throwPosixStreamError(StreamOperation::Close, errno, "fsync", m_file.location());
            if (::renameat(m_folder.get(), m_temporary->name().c_str(), m_folder.get(), m_name.c_str()) != 0)
                throwPosixStreamError(StreamOperation::Close, errno, "renameat", m_file.location());
            m_temporary->published();
            // The new name is durable only once the folder is.
            if (m_durable)
                ::fsync(m_folder.get());
        } else if (policy != StreamClosePolicy::Discard) {
            throwPosixStreamError(StreamOperation::Close, EINVAL, "close", m_file.location(), ErrorCode::InvalidLocation);
        }
        m_file.file().reset(); // the temporary's own descriptor: the data is durable or unwanted
        m_temporary.reset();
    }

private:
    // A durable stream pays for its data reaching the disk at commit. Handing each written stretch
    // to the disk as soon as it is whole overlaps that work with the writing, so the commit's fsync
    // waits only for the last stretch (a 256 MiB copy's fsync fell from about 75 ms to a few).
    // Only a request to start: it neither waits nor makes anything durable by itself.
    void startWriteback() noexcept
    {
        constexpr off_t stretch = off_t{8} << 20;
        const off_t end = m_file.position();
        if (end < m_writebackFrom)
            m_writebackFrom = end; // written backwards: start again from here
        else if (end - m_writebackFrom >= stretch) {
            ::sync_file_range(m_file.file().get(), m_writebackFrom, end - m_writebackFrom, SYNC_FILE_RANGE_WRITE);
            m_writebackFrom = end;
        }
    }

    FileDescriptor m_folder;
    std::string m_name;
    std::unique_ptr<TemporaryFile> m_temporary; // unlinked on destruction unless published
    Positioned m_file;                          // a duplicate of the temporary's descriptor
    bool m_durable;
    off_t m_writebackFrom = 0;                  // where the stretch not yet handed to the disk starts
};

struct stat openedStat(int fd, const StorageIRI& location)
{
    struct stat info {};
    if (::fstat(fd, &info) != 0)
        fail(errno, "fstat", location);
    if (S_ISDIR(info.st_mode))
        failKind(location, u"not-a-file");
    return info;
}

} // namespace

TemporaryFile::TemporaryFile(int folder, const StorageIRI& target, const char* prefix, int flags, mode_t mode)
    : m_folder(folder)
{
    for (int attempt = 0;; ++attempt) {
        m_name = temporaryName(prefix);
        m_file = FileDescriptor(::openat(folder, m_name.c_str(), flags | O_CREAT | O_EXCL | O_CLOEXEC, mode));
        if (m_file)
            return;
        if (errno != EEXIST || attempt == 16)
            fail(errno, "openat", target);
    }
}

TemporaryFile::~TemporaryFile()
{
    discard();
}

void TemporaryFile::discard() noexcept
{
    m_file.reset();
    if (!m_published && !m_name.empty())
        ::unlinkat(m_folder, m_name.c_str(), 0);
    m_name.clear();
}

std::unique_ptr<ByteStream> openReadOnlyStream(const StorageIRI& location)
{
    const std::string path = nativePath(location);
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC));
    if (!file)
        fail(errno, "open", location);
    openedStat(file.get(), location);
    return std::make_unique<LocalStream>(Positioned(std::move(file), location, true, false, false));
}

std::unique_ptr<ByteStream> openStream(const StorageIRI& location, const ByteStreamOpenOptions& options)
{
    checkOptions(options, location);
    const std::string path = nativePath(location);
    const bool readable = options.access == ByteStreamAccess::ReadWrite;
    const bool append = options.writeAtPosition == 0;
    int flags = (readable ? O_RDWR : O_WRONLY) | O_NOCTTY | O_CLOEXEC;
    if (options.creation == ByteStreamCreation::CreateIfMissing)
        flags |= O_CREAT;
    if (options.keepContent == 0)
        flags |= O_TRUNC;
    if (append)
        flags |= O_APPEND;
    FileDescriptor file(::open(path.c_str(), flags, 0666));
    if (!file)
        fail(errno, "open", location);
    openedStat(file.get(), location);
    return std::make_unique<LocalStream>(Positioned(std::move(file), location, readable, true, append));
}

std::unique_ptr<TransactionalByteStream> openTransactionalStream(const StorageIRI& location,
                                                                 const ByteStreamOpenOptions& options)
{
    checkOptions(options, location);
    const std::string path = nativePath(location);
    const bool readable = options.access == ByteStreamAccess::ReadWrite;
    const bool append = options.writeAtPosition == 0;

    // The rename at commit would put a regular file in place of a device, a FIFO or a socket (as
    // root, /dev/null); refused before opening it, which could wait for a FIFO's writer.
    struct stat before {};
    if (::stat(path.c_str(), &before) == 0 && !S_ISREG(before.st_mode) && !S_ISDIR(before.st_mode))
        throwProviderError(ErrorCode::UnsupportedOperation, location,
                           {ExceptionContext(u"openTransactionalStream"), ExceptionContext(u"not-a-regular-file")});
    FileDescriptor existing(::open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC));
    if (!existing && (errno != ENOENT || options.creation == ByteStreamCreation::OpenExisting))
        fail(errno, "open", location);
    struct stat info {};
    if (existing) {
        info = openedStat(existing.get(), location);
        // The rename would replace a file that its mode protects; refuse as opening it would.
        if (!WriteAccess(path.c_str(), info.st_dev).allows(info))
            fail(EACCES, "open", location);
    }

    FileDescriptor folder(::open(parentOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder)
        fail(errno, "open", location);
    auto temporary = std::make_unique<TemporaryFile>(folder.get(), location, ".vfs-tx-", O_RDWR, 0666);
    if (existing) {
        if (::fchmod(temporary->fd(), info.st_mode & 07777) != 0)
            fail(errno, "fchmod", location);
        if (options.keepContent != 0 && !copyContent(existing.get(), temporary->fd(), info, CopyFileOptions{}, location, location))
            fail(ECANCELED, "copy", location);
    }
    FileDescriptor own(::fcntl(temporary->fd(), F_DUPFD_CLOEXEC, 0));
    if (!own)
        fail(errno, "fcntl", location);
    if (append && ::fcntl(own.get(), F_SETFL, O_APPEND) != 0)
        fail(errno, "fcntl", location);
    temporary->close();
    Positioned file(std::move(own), location, readable, true, append);
    return std::make_unique<LocalTransactionalStream>(std::move(folder), lastNameOf(path), std::move(temporary),
                                                      std::move(file), options.durable != 0);
}

} // namespace foundation::storage::provider::local::detail
